// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "timing.h"

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

}  // namespace
