// SPDX-License-Identifier: MIT
#include "ping_report.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace velta::analysis;

namespace {

constexpr std::int64_t kMs = 1'000'000;

/// A run on which there is nothing to remark: 100 commands, a status each millisecond.
PingReport GoodRun() {
  PingReport report;
  report.joints = 2;
  report.sent = report.confirmed = 100;
  report.round_trips.assign(100, kMs / 10);
  report.wakeups.assign(100, kMs / 20);
  for (int i = 0; i < 100; ++i) report.statuses.Add(i * kMs);
  report.received = report.good = 100 * 182;
  return report;
}

/// The verdict of that number begins so.
void Expect(const PingReport& report, const std::string& beginning, std::size_t number = 0) {
  EXPECT_EQ(Verdict(report).at(number).substr(0, beginning.size()), beginning);
}

TEST(PingVerdict, IsGoodWhenNothingStandsOut) {
  PingReport report = GoodRun();
  report.received += 181;  // less than a frame is under way
  EXPECT_EQ(Verdict(report), std::vector<std::string>{"good: every command was echoed, 99 % of them within 100 us"});
}

TEST(PingVerdict, SaysWhatIsMissingWithoutAnyEcho) {
  PingReport report = GoodRun();
  report.confirmed = 0;
  Expect(report, "the controller sends statuses, but echoes no command");
  report.good = 0;
  Expect(report, "bytes arrive, but no status of this joint count");
  report.received = 0;
  Expect(report, "no answer at all");
  report.sent = 0;
  Expect(report, "nothing was measured");
}

TEST(PingVerdict, CountsBytesOfNoFrameAndResends) {
  PingReport report = GoodRun();
  report.received += 182;
  report.resends = 7;
  report.confirmed = 98;
  Expect(report, "look at the link: 182 bytes outside good frames");
  Expect(report, "look at the link or the controller: some commands were never echoed", 1);
  report.confirmed = 100;
  Expect(report, "look at the link or the controller: some commands were echoed only after a resend", 1);
}

TEST(PingVerdict, TellsThisMachinesLatenessFromASlowEcho) {
  PingReport report = GoodRun();
  report.round_trips.back() = 5 * kMs;  // neither often nor long enough
  Expect(report, "good:");
  report.round_trips.back() = 6 * kMs;
  Expect(report,
         "look at the controller or the link: this machine wakes in time, but the slowest echo took 6.00 ms, 60 t");
  report.wakeups.assign(100, 2 * kMs);
  Expect(report, "look at this machine: 1 % of its wake-ups are more than 2.00 ms late");
}

TEST(PingVerdict, SeesStatusesThatComeIrregularly) {
  PingReport report = GoodRun();
  report.statuses = Arrivals(true);
  for (int i = 0; i < 20; ++i) report.statuses.Add((i + i / 10 * 100) * kMs);
  Expect(report, "look at the controller: its statuses come every 6.26 ms, ");
}

TEST(PingJson, HasRoundedNumbersAndNullWithoutAnEcho) {
  PingReport report = GoodRun();
  report.round_trips.front() = 12'345;
  report.round_trips.back() = 200'000;
  report.confirmed = 97;
  auto json = ToJson(report);
  EXPECT_EQ(json["round_trip_us"]["min"].dump(), "12.3");
  EXPECT_EQ(json["round_trip_us"]["p99"].dump(), "100.0");
  EXPECT_EQ(json["round_trip_us"]["p99_9"].dump(), "200.0");
  EXPECT_EQ(json["loss_percent"].dump(), "3.0");
  EXPECT_EQ(json["late_wakeup_p99_us"].dump(), "50.0");
  EXPECT_EQ(json["status"].dump(),
            R"({"count":100,"rate_hz":1000.0,"jitter_us":0.0,"longest_silence_us":1000.0,"gaps":0})");
  report.round_trips.clear();
  report.confirmed = 0;
  EXPECT_TRUE(ToJson(report)["round_trip_us"].is_null());
}

}  // namespace
