// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "faults.h"

namespace velta::sim {
namespace {

FaultRule OneLine(const std::string& line) {
  std::istringstream script(line);
  return ParseFaultScript(script, "script").at(0);
}

TEST(FaultFlag, ReadsEveryForm) {
  EXPECT_EQ(ParseFaultFlag("corrupt").rate, 1);
  EXPECT_EQ(ParseFaultFlag("corrupt=0.25").rate, 0.25);
  const FaultRule delay = ParseFaultFlag("delay-command=0.5:7");
  EXPECT_EQ(delay.fault, Fault::DelayCommand);
  EXPECT_EQ(delay.rate, 0.5);
  EXPECT_EQ(delay.value, 7);
  EXPECT_EQ(ParseFaultFlag("delay-status=1").value, 20);
  EXPECT_EQ(ParseFaultFlag("close=100").value, 100);
  EXPECT_FALSE(ParseFaultFlag("refuse").lasts);
  EXPECT_EQ(ParseFaultFlag("refuse=300").lasts->count, 300u);
  for (std::size_t i = 0; i < kFaultCount; ++i) {  // the names that the help shows are those that are read
    EXPECT_EQ(ParseFaultFlag(Info(static_cast<Fault>(i)).name).fault, static_cast<Fault>(i));
    EXPECT_FALSE(ParseFaultFlag(Info(static_cast<Fault>(i)).name).once);
  }
}

TEST(FaultFlag, RefusesTheRest) {
  for (const char* flag : {"", "=1", "corrput", "corrupt=", "corrupt=x", "corrupt=1.5", "corrupt=-1", "corrupt=0.5:2",
                           "corrupt=nan", "delay-status=1:", "delay-status=1:-3", "coalesce=1", "no-echo=1",
                           "wrong-joints=829", "refuse=-1", "refuse=1e99", "close=5 "}) {
    EXPECT_THROW(ParseFaultFlag(flag), std::invalid_argument) << flag;
  }
}

TEST(FaultScript, ReadsTriggerRateValueAndDuration) {
  std::istringstream script(
      "{\"at_frame\": 3, \"fault\": \"corrupt\"}\r\n\n"
      "{\"at_ms\": 20, \"fault\": \"garbage\", \"rate\": 0.5, \"value\": 9, \"for_commands\": 4}");
  const std::vector<FaultRule> rules = ParseFaultScript(script, "script");
  ASSERT_EQ(rules.size(), 2u);
  EXPECT_EQ(rules[0].at.unit, Unit::Frame);
  EXPECT_EQ(rules[0].at.count, 3u);
  EXPECT_TRUE(rules[0].once);
  EXPECT_EQ(rules[1].at.unit, Unit::Ms);
  EXPECT_EQ(rules[1].rate, 0.5);
  EXPECT_EQ(rules[1].value, 9);
  EXPECT_FALSE(rules[1].once);
  EXPECT_EQ(rules[1].lasts->unit, Unit::Command);
  EXPECT_EQ(rules[1].lasts->count, 4u);
  EXPECT_FALSE(OneLine("{\"at_ms\": 0, \"fault\": \"no-echo\"}").once);
  EXPECT_TRUE(OneLine("{\"at_ms\": 0, \"fault\": \"close\"}").once);
}

TEST(FaultScript, RefusesTheRestWithItsLine) {
  std::string nested;
  for (int i = 0; i < 200000; ++i) nested += "{\"a\":";
  const char* const deep = nested.c_str();
  for (const char* line : {"{",
                           "[]",
                           "{} {}",
                           "{}",
                           "{\"fault\": \"corrupt\"}",
                           "{\"at_ms\": 1}",
                           "{\"at_ms\": 1, \"fault\": 7}",
                           "{\"at_ms\": 1, \"fault\": \"x\"}",
                           "{\"at_ms\": -1, \"fault\": \"corrupt\"}",
                           "{\"at_ms\": 1.5, \"fault\": \"corrupt\"}",
                           "{\"at_ms\": \"1\", \"fault\": \"corrupt\"}",
                           "{\"at_ms\": 1, \"at_frame\": 1, \"fault\": \"corrupt\"}",
                           "{\"at_ms\": 1, \"fault\": \"corrupt\", \"rate\": 2}",
                           "{\"at_ms\": 1, \"fault\": \"corrupt\", \"value\": 2}",
                           "{\"at_ms\": 1, \"fault\": \"no-echo\", \"rate\": 1}",
                           "{\"at_ms\": 1, \"fault\": \"corrupt\", \"for_ms\": 1, \"for_frames\": 1}",
                           "{\"at_ms\": 1, \"fault\": \"corrupt\", \"until\": 1}",
                           "{\"at_ms\": 1, \"fault\": \"close\", \"a\\nb\": 1}",
                           "{\"at_ms\": 1e999, \"fault\": \"corrupt\"}",
                           deep}) {
    std::istringstream script(std::string("\n") + line + "\n");
    try {
      ParseFaultScript(script, "arm.jsonl");
      ADD_FAILURE() << "accepted " << line;
    } catch (const std::invalid_argument& error) {
      EXPECT_EQ(std::string(error.what()).find("arm.jsonl:2: "), 0u) << error.what();
      EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos) << error.what();
    }
  }
}

/// The frames of 1..12 that are struck, each clock advancing by one per frame (ms by ten).
std::set<std::uint64_t> Struck(const std::string& line) {
  const FaultRule rule = OneLine(line);
  Faults faults({rule}, 1);
  std::set<std::uint64_t> struck;
  for (std::uint64_t i = 1; i <= 12; ++i) {
    faults.Advance(Unit::Ms, 10 * i);
    faults.Advance(Unit::Command, i);
    faults.Advance(Unit::Frame, i);
    if (faults.Strike(rule.fault)) struck.insert(i);
  }
  EXPECT_EQ(faults.Struck(rule.fault), struck.size());
  return struck;
}

TEST(Faults, HoldFromTheTriggerAsLongAsTheyLast) {
  using Frames = std::set<std::uint64_t>;
  const std::pair<const char*, Frames> cases[] = {
      {R"({"fault": "corrupt", "at_frame": 3})", {3}},
      {R"({"fault": "corrupt", "at_frame": 0, "for_frames": 2})", {1}},
      {R"({"fault": "corrupt", "at_frame": 3, "for_frames": 2})", {3, 4}},
      {R"({"fault": "corrupt", "at_ms": 25, "for_frames": 2})", {3, 4}},
      {R"({"fault": "corrupt", "at_ms": 30, "for_ms": 30})", {3, 4, 5}},
      {R"({"fault": "corrupt", "at_frame": 3, "for_ms": 20})", {3, 4}},
      {R"({"fault": "corrupt", "at_command": 11, "for_commands": 5})", {11, 12}},
      {R"({"fault": "corrupt", "at_frame": 3, "for_frames": 0})", {}},
      {R"({"fault": "freeze", "at_frame": 10})", {10, 11, 12}},
      {R"({"fault": "corrupt", "at_frame": 3, "rate": 0, "for_frames": 9})", {}},
      {R"({"fault": "close", "at_frame": 3, "value": 5})", {3}},
  };
  for (const auto& [line, frames] : cases) EXPECT_EQ(Struck(line), frames) << line;
}

TEST(Faults, StrikeOnlyWhereTheMeasureReachesTheValue) {
  Faults faults({ParseFaultFlag("close=5")}, 1);
  EXPECT_FALSE(faults.Strike(Fault::Close, 4));
  EXPECT_TRUE(faults.Strike(Fault::Close, 5));
}

TEST(Faults, SameSeedSameStrikesAtTheirRate) {
  const auto run = [](std::uint64_t seed, bool with_other) {
    Faults faults({ParseFaultFlag("drop-status=0.1"), ParseFaultFlag("corrupt=0.5")}, seed);
    std::vector<bool> strikes;
    for (int i = 0; i < 10000; ++i) {
      strikes.push_back(faults.Strike(Fault::DropStatus).has_value());
      if (with_other) faults.Strike(Fault::Corrupt);
    }
    return strikes;
  };
  const std::vector<bool> strikes = run(7, false);
  EXPECT_EQ(run(7, true), strikes);
  EXPECT_NE(run(8, false), strikes);
  EXPECT_NEAR(static_cast<double>(std::count(strikes.begin(), strikes.end(), true)), 1000, 150);
}

}  // namespace
}  // namespace velta::sim
