// SPDX-License-Identifier: MIT
#include "argument_text.h"

#include <gtest/gtest.h>

#include <utility>

#include "errors.h"

using namespace velta::analysis;
using namespace std::chrono_literals;

namespace {

TEST(Durations, AreReadAndShownWithTheirUnit) {
  const std::pair<const char*, std::chrono::nanoseconds> texts[] = {
      {"0", 0ns}, {"1ns", 1ns}, {"20us", 20us}, {"200ms", 200ms}, {"500ms", 500ms}, {"90s", 90s}, {"2min", 2min}};
  for (const auto& [text, duration] : texts) {
    EXPECT_EQ(ReadDuration(text), duration);
    EXPECT_EQ(DurationText(duration), text);
  }
  EXPECT_EQ(ReadDuration("0.5s"), 500ms);
  EXPECT_EQ(ReadDuration("1.5min"), 90s);
  EXPECT_EQ(ReadDuration("1e3s"), 1000s);
  EXPECT_EQ(ReadDuration("1e300s"), std::chrono::nanoseconds::max());
  for (const char* text : {"", "5", "ms", "-1s", "+1s", "1 s", "1h", "1S", "0x1s", "nans", "infs", "1..2s", "1s2"}) {
    EXPECT_THROW(ReadDuration(text), UsageError) << text;
  }
}

TEST(Selections, NameJointsOfTheArmOnly) {
  EXPECT_EQ(ReadSelection("all", 3), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(ReadSelection("2/0/2", 3), (std::vector<int>{2, 0, 2}));
  for (const char* text : {"", "3", "0/", "/0", "0//1", "-1", "0-2", "ALL", "all/0", " 1"}) {
    EXPECT_THROW(ReadSelection(text, 3), UsageError) << text;
  }
}

}  // namespace
