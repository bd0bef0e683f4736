// SPDX-License-Identifier: MIT
#include "timing.h"

#include <gtest/gtest.h>

using namespace velta::analysis;

namespace {

constexpr std::int64_t kMs = 1'000'000;

TEST(Histogram, HasALinePerDoubling) {
  EXPECT_TRUE(Histogram({}, 4).empty());
  EXPECT_EQ(Histogram({1999, 2000, 3999, 3999, 3999, 8000}, 4),
            (std::vector<std::string>{" 1.00 us ..  2.00 us |#   | 1", " 2.00 us ..  4.00 us |####| 4",
                                      " 4.00 us ..  8.00 us |    | 0", " 8.00 us ..  16.0 us |#   | 1"}));
}

class ArrivalsTest : public testing::Test {
 protected:
  void Arrive(int count, std::int64_t period_ns) {
    for (int i = 0; i < count; ++i) arrivals.Add(now += period_ns);
  }

  Arrivals arrivals;
  std::int64_t now = 5000 * kMs;
};

TEST_F(ArrivalsTest, CountsSilencesOfMoreThanFivePeriodsAnd5msAsGapsAndMeasuresTheLastSecond) {
  Arrive(100, 2 * kMs);
  EXPECT_DOUBLE_EQ(arrivals.Measure().rate_hz, 500);
  Arrive(1, 10 * kMs);
  EXPECT_EQ(arrivals.Gaps(), 0);
  Arrive(1, 11 * kMs);
  EXPECT_EQ(arrivals.Gaps(), 1);
  EXPECT_EQ(arrivals.Measure().longest, 11 * kMs);
  Arrive(12000, kMs / 10);
  EXPECT_EQ(arrivals.Measure().longest, kMs / 10);
  Arrive(1, 5 * kMs);
  EXPECT_EQ(arrivals.Gaps(), 1);
  Arrive(1, 5 * kMs + 1);
  EXPECT_EQ(arrivals.Gaps(), 2);
}

}  // namespace
