// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/listener.h"
#include "support/process.h"
#include "support/simulated_arm.h"
#include "support/wire_bytes.h"
#include "timing.h"

using velta::test::Process;
using velta::test::RunProgram;
using velta::test::SimulatedArm;

using velta::tools::Arrivals;
using velta::tools::Duration;
using velta::tools::Histogram;
using velta::tools::Percentile;

namespace {

constexpr std::int64_t kMs = 1'000'000;

TEST(Timing, PercentilesAreMeasuredValues) {
  std::vector<std::int64_t> values;
  for (std::int64_t i = 1; i <= 1000; ++i) values.push_back(i);
  EXPECT_EQ(Percentile(values, 0), 1);
  EXPECT_EQ(Percentile(values, 0.5), 500);
  EXPECT_EQ(Percentile(values, 0.99), 990);
  EXPECT_EQ(Percentile(values, 0.999), 999);
  EXPECT_EQ(Percentile(values, 1), 1000);
  EXPECT_EQ(Percentile({7}, 0.5), 7);
  EXPECT_EQ(Percentile({}, 0.5), 0);
}

TEST(Timing, DurationsChooseTheirUnit) {
  EXPECT_EQ(Duration(850), "850 ns");
  EXPECT_EQ(Duration(1000), "1.00 us");
  EXPECT_EQ(Duration(12'340), "12.3 us");
  EXPECT_EQ(Duration(999'000'000), "999 ms");
  EXPECT_EQ(Duration(1.5e9), "1.50 s");
}

TEST(Timing, HistogramCountsEveryValueOnce) {
  EXPECT_TRUE(Histogram({}, 4).empty());
  EXPECT_EQ(Histogram({1999, 2000, 3999, 3999, 3999, 8000}, 4),
            (std::vector<std::string>{" 1.00 us ..  2.00 us |#   | 1", " 2.00 us ..  4.00 us |####| 4",
                                      " 4.00 us ..  8.00 us |    | 0", " 8.00 us ..  16.0 us |#   | 1"}));
}

TEST(Timing, ArrivalsTellRhythmAndGaps) {
  Arrivals arrivals;
  std::int64_t now = 5000 * kMs;
  for (int i = 0; i < 100; ++i) arrivals.Add(now += 2 * kMs);
  EXPECT_DOUBLE_EQ(arrivals.Measure().rate_hz, 500);
  EXPECT_DOUBLE_EQ(arrivals.Measure().jitter_ns, 0);
  EXPECT_EQ(arrivals.Gaps(), 0);
  arrivals.Add(now += 10 * kMs);  // exactly five periods are no gap yet
  EXPECT_EQ(arrivals.Gaps(), 0);
  arrivals.Add(now += 11 * kMs);
  EXPECT_EQ(arrivals.Gaps(), 1);
  EXPECT_EQ(arrivals.Measure().longest, 11 * kMs);
  EXPECT_EQ(arrivals.Last(), now);
  for (int i = 0; i < 600; ++i) arrivals.Add(now += 2 * kMs);  // a second later the gap is forgotten, but counted
  EXPECT_EQ(arrivals.Measure().longest, 2 * kMs);
  EXPECT_EQ(arrivals.Gaps(), 1);
  EXPECT_EQ(arrivals.Count(), 702);
}

TEST(Ping, MeasuresEveryKindOfLink) {
  for (const char* endpoint : {"tcp://127.0.0.1:0", "udp://127.0.0.1:0", "pty:"}) {
    SimulatedArm arm(endpoint);
    const auto run = RunProgram({VELTA_PROGRAM, "ping", "-n", "3", arm.Link(), "-c", "50", "--json"});
    ASSERT_EQ(run.status, 0) << endpoint << run.err;
    const auto report = nlohmann::json::parse(run.out);
    EXPECT_EQ(report["sent"], 50);
    EXPECT_EQ(report["confirmed"], 50);
    EXPECT_EQ(report["resends"], 0);
    EXPECT_EQ(report["discarded_bytes"], 0);
    EXPECT_GE(report["status"]["count"], 50);
    const auto& times = report["round_trip_us"];
    EXPECT_GT(times["min"], 0);
    EXPECT_LE(times["min"], times["p50"]);
    EXPECT_LE(times["p50"], times["p99"]);
    EXPECT_LE(times["p99"], times["p99_9"]);
    EXPECT_LE(times["p99_9"], times["max"]);
    EXPECT_LT(times["max"], 5e5);
  }
}

TEST(Ping, JudgesWhatItMeasured) {
  struct Case {
    std::vector<std::string> faults;
    int status;
    const char* head;     ///< begin of the first line
    const char* verdict;  ///< begin of a verdict
  };
  const Case cases[] = {
      {{"--fault", "late-echo=20"}, 0, "12 commands, 12 echoed, 0.0 % lost, 0 resends", "verdict     "},
      {{"--fault", "stale-echo"},
       0,
       "12 commands, 12 echoed, 0.0 % lost, 12 resends",
       "verdict     look at the link or the controller: 12 commands had to be sent again, 0.0 % were never"},
      {{"--fault", "garbage=1:40"}, 0, "12 commands, 12 echoed", "verdict     look at the link: "},
      {{"--fault", "no-echo"},
       1,
       "10 commands, 0 echoed, 100.0 % lost, 40 resends",
       "verdict     the controller reports, but echoes no command"},
      {{"--fault", "drop-status"}, 1, "10 commands, 0 echoed", "verdict     no answer at all"},
      {{"--fault", "wrong-joints"}, 1, "10 commands, 0 echoed", "verdict     bytes arrive, but no status of"},
      {{"--fault", "close=30"}, 1, "", "verdict     look at the link: it was lost"},
  };
  // All at once: some take their time waiting.
  std::vector<std::unique_ptr<SimulatedArm>> arms;
  std::vector<std::unique_ptr<Process>> pings;
  for (const Case& c : cases) {
    arms.push_back(std::make_unique<SimulatedArm>("tcp://127.0.0.1:0", c.faults));
    pings.push_back(std::make_unique<Process>(std::vector<std::string>{
        VELTA_PROGRAM, "ping", "-n", "3", arms.back()->Link(), "-c", "12", "-i", "5", "-t", "100"}));
  }
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    EXPECT_EQ(pings[i]->Wait(), c.status) << c.faults.back();
    EXPECT_EQ(pings[i]->Output().rfind(c.head, 0), 0U) << c.faults.back() << "\n" << pings[i]->Output();
    EXPECT_NE(pings[i]->Output().find(c.verdict), std::string::npos) << c.faults.back() << "\n" << pings[i]->Output();
  }
}

TEST(Ping, TimesFromTheFrameThatWasEchoed) {
  // The echo of each command comes with its resend; the time must not start at the resend.
  SimulatedArm arm("tcp://127.0.0.1:0", {"--fault", "stale-echo"});
  const auto run = RunProgram({VELTA_PROGRAM, "ping", "-n", "3", arm.Link(), "-c", "5", "-t", "40", "--json"});
  EXPECT_GE(nlohmann::json::parse(run.out)["round_trip_us"]["min"], 39e3) << run.out;
}

TEST(Ping, EndsWithItsSummaryWhenStopped) {
  for (const int signal : {SIGINT, SIGTERM}) {
    velta::test::Listener listener;
    Process ping({VELTA_PROGRAM, "ping", "-n", "3", listener.Link(), "-t", "10000"});
    ASSERT_EQ(listener.Read(67).size(), 67U);
    const auto start = std::chrono::steady_clock::now();
    ping.Signal(signal);
    EXPECT_EQ(ping.Wait(), 0) << ping.Errors();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(ping.Output().rfind("0 commands, 0 echoed, 0.0 % lost, 0 resends\n", 0), 0U) << ping.Output();
    EXPECT_EQ(ping.Errors(), "");
  }
}

TEST(Ping, SendsWhatCommandsNothing) {
  for (const char* tool : {"ping", "doctor", "monitor"}) {
    velta::test::Listener listener;
    Process process({VELTA_PROGRAM, tool, "-n", "2", listener.Link()});
    const std::string frame = listener.Read(49);
    std::string expected = "\xAB\xCD" + frame.substr(2, 8) + std::string(19, '\0') + "\x01" + std::string(17, '\0');
    velta::test::AppendCrc(expected);
    EXPECT_EQ(frame, expected) << tool;
  }
}

}  // namespace
