// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <list>
#include <nlohmann/json.hpp>

#include "support/velta_program.h"
#include "timing.h"

using namespace velta::test;
using namespace velta::tools;

namespace {

constexpr std::int64_t kMs = 1'000'000;

TEST(Timing, TellsPercentilesDurationsAndAHistogram) {
  constexpr std::pair<double, std::int64_t> kRanks[] = {{0, 1}, {0.5, 5}, {0.9, 9}, {0.99, 10}, {1, 10}};
  for (const auto& [rank, value] : kRanks) EXPECT_EQ(Percentile({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, rank), value);
  EXPECT_EQ(Percentile({}, 0.5), 0);
  constexpr std::pair<double, const char*> kDurations[] = {
      {850, "850 ns"}, {1000, "1.00 us"}, {12'340, "12.3 us"}, {999e6, "999 ms"}, {1.5e9, "1.50 s"}};
  for (const auto& [ns, text] : kDurations) EXPECT_EQ(Duration(ns), text);
  EXPECT_TRUE(Histogram({}, 4).empty());
  EXPECT_EQ(Histogram({1999, 2000, 3999, 3999, 3999, 8000}, 4),
            (std::vector<std::string>{" 1.00 us ..  2.00 us |#   | 1", " 2.00 us ..  4.00 us |####| 4",
                                      " 4.00 us ..  8.00 us |    | 0", " 8.00 us ..  16.0 us |#   | 1"}));
}

TEST(Timing, ArrivalsTellRhythmAndGaps) {
  Arrivals arrivals;
  std::int64_t now = 5000 * kMs;
  const auto arrive = [&](int count, int period_ms, int longest_ms, int gaps) {
    for (int i = 0; i < count; ++i) arrivals.Add(now += period_ms * kMs);
    EXPECT_EQ(arrivals.Measure().longest, longest_ms * kMs);
    EXPECT_EQ(arrivals.Gaps(), gaps);
  };
  arrive(100, 2, 2, 0);
  EXPECT_DOUBLE_EQ(arrivals.Measure().rate_hz, 500);
  EXPECT_DOUBLE_EQ(arrivals.Measure().jitter_ns, 0);
  arrive(1, 10, 10, 0);  // exactly five periods are no gap yet
  arrive(1, 11, 11, 1);
  arrive(600, 2, 2, 1);  // a second later the gap is forgotten, but counted
  EXPECT_EQ(arrivals.Last(), now);
  EXPECT_EQ(arrivals.Count(), 702);
}

TEST(Ping, MeasuresEveryKindOfLinkFromTheFrameThatWasEchoed) {
  // With a stale echo that of each command comes with its resend; the time must not start at the resend.
  for (const char* endpoint :
       {"tcp://127.0.0.1:0", "udp://127.0.0.1:0", "pty:", "tcp://127.0.0.1:0 --fault stale-echo"}) {
    const bool is_stale = Has(endpoint, "stale");
    SimulatedArm arm(endpoint);
    const auto run = Velta("ping -n 3 " + arm.link + " -c 10 --json" + (is_stale ? " -t 40" : ""));
    ASSERT_EQ(run.status, 0) << endpoint << run.err;
    const auto report = nlohmann::json::parse(run.out);
    EXPECT_EQ(report["sent"], 10);
    EXPECT_EQ(report["confirmed"], 10);
    EXPECT_EQ(report["discarded_bytes"], 0);
    EXPECT_GE(report["status"]["count"], 10);
    double last = is_stale ? 39e3 : 1e-9;
    for (const char* rank : {"min", "p50", "p99", "p99_9", "max"}) {
      EXPECT_GE(report["round_trip_us"][rank], last) << rank;
      last = report["round_trip_us"][rank];
    }
    EXPECT_LT(last, 5e5);
  }
}

struct PingCase {
  const char* fault;
  int status;
  const char *head, *verdict;  ///< begins of the first line, and of a verdict
};

// Every frame cut at the wrong places has a right CRC once in 65,536 times: there must be few of them.
// clang-format off
constexpr PingCase kPingCases[] = {
    {"late-echo=20", 0, "12 commands, 12 echoed, 0.0 % lost, 0 resends", ""},
    {"stale-echo", 0, "12 commands, 12 echoed, 0.0 % lost, 12 resends",
     "look at the link or the controller: 12 commands had to be sent again, 0.0 % were never"},
    {"garbage=1:40", 0, "12 commands, 12 echoed", "look at the link: "},
    {"no-echo", 1, "10 commands, 0 echoed, 100.0 % lost, 40 resends", "the controller reports, but echoes no command"},
    {"drop-status", 1, "10 commands, 0 echoed", "no answer at all"},
    {"wrong-joints --on-command", 1, "10 commands, 0 echoed", "bytes arrive, but no status of"},
    {"close=30", 1, "", "look at the link: it was lost"},
};
// clang-format on

TEST(Ping, JudgesWhatItMeasured) {
  std::list<SimulatedArm> arms;
  std::list<Process> pings;  // all at once: some take their time waiting
  for (const PingCase& c : kPingCases) {
    arms.emplace_back("tcp://127.0.0.1:0", std::string("-n 3 --fault ") + c.fault);
    pings.emplace_back(Argv("ping -n 3 " + arms.back().link + " -c 12 -i 5 -t 100"));
  }
  for (const PingCase& c : kPingCases) {
    Process& ping = pings.front();
    EXPECT_EQ(ping.Wait(), c.status) << c.fault;
    EXPECT_TRUE(Begins(ping.Output(), c.head)) << c.fault << "\n" << ping.Output();
    EXPECT_TRUE(Has(ping.Output(), std::string("verdict     ") + c.verdict)) << c.fault << "\n" << ping.Output();
    pings.pop_front();
  }
}

TEST(Ping, SendsWhatCommandsNothing) {
  for (const char* tool : {"ping", "doctor", "monitor"}) {
    Peer controller(Peer::Kind::Tcp);
    Process process(Argv(std::string(tool) + " -n 2 " + controller.Name()));
    const std::vector<char> frame = controller.Read(49);
    ASSERT_EQ(frame.size(), 49U) << tool;
    EXPECT_EQ(frame, Command(2, ReadU64(frame, 2))) << tool;
  }
}

}  // namespace
