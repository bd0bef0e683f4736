// SPDX-License-Identifier: MIT
#include "faults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <stdexcept>

#include "damage.h"

namespace velta::sim {
namespace {

std::vector<FaultRule> Script(const std::string& text) {
  std::istringstream script(text);
  return ParseFaultScript(script, "arm.jsonl");
}

TEST(FaultFlag, IsRefusedUnlessItMeansSomething) {
  for (const char* flag : {"", "=1", "corrupt=", "corrupt=x", "corrupt=1.5", "corrupt=-1", "corrupt=nan",
                           "corrupt=0.5:2", "delay-status=1:", "delay-status=1:-3", "coalesce=1", "no-echo=1",
                           "wrong-joints=829", "refuse=1e99", "close=5 "}) {
    EXPECT_THROW(ParseFaultFlag(flag), std::invalid_argument) << flag;
  }
}

TEST(FaultScript, IsReadLineByLineAndRefusedWithItsLine) {
  const auto rules = Script(
      "{\"at_frame\": 3, \"fault\": \"corrupt\"}\r\n\n"
      R"({"at_ms": 20, "fault": "garbage", "rate": 0.5, "value": 9, "for_commands": 4})");
  ASSERT_EQ(rules.size(), 2U);
  EXPECT_TRUE(rules[0].at->unit == Unit::kFrame && rules[0].at->count == 3 && rules[0].once);
  EXPECT_TRUE(rules[1].at->unit == Unit::kMs && rules[1].rate == 0.5 && rules[1].value == 9 && !rules[1].once);
  EXPECT_TRUE(rules[1].lasts->unit == Unit::kCommand && rules[1].lasts->count == 4);
  EXPECT_FALSE(Script(R"({"at_ms": 0, "fault": "no-echo"})").at(0).once);
  EXPECT_TRUE(Script(R"({"at_ms": 0, "fault": "close"})").at(0).once);

  std::string deep;
  for (int i = 0; i < 200000; ++i) deep += "{\"a\":";
  const char* const refused[] = {deep.c_str(),
                                 "{} {}",
                                 R"({"fault": "corrupt"})",
                                 R"({"at_ms": 1})",
                                 R"({"at_ms": 1.5, "fault": "corrupt"})",
                                 R"({"at_ms": 1, "at_frame": 1, "fault": "corrupt"})",
                                 R"({"at_ms": 1, "fault": "corrupt", "rate": 2})",
                                 R"({"at_ms": 1, "fault": "corrupt", "value": 2})",
                                 R"({"at_ms": 1, "fault": "corrupt", "for_ms": 1, "for_frames": 1})",
                                 R"({"at_ms": 1, "fault": "close", "a\nb": 1})"};
  for (const char* line : refused) {
    try {
      Script("\n" + std::string(line) + "\n");
      ADD_FAILURE() << "accepted " << line;
    } catch (const std::invalid_argument& error) {
      const std::string why = error.what();
      EXPECT_TRUE(why.rfind("arm.jsonl:2: ", 0) == 0 && why.find('\n') == std::string::npos) << why;
    }
  }
}

/// The frames of 1..12 that are struck, each clock advancing by one per frame (ms by ten).
std::set<std::uint64_t> Struck(const std::string& line) {
  const FaultRule rule = Script(line).at(0);
  Faults faults({rule}, 1);
  std::set<std::uint64_t> struck;
  for (std::uint64_t i = 1; i <= 12; ++i) {
    faults.Advance(Unit::kMs, 10 * i);
    faults.Advance(Unit::kCommand, i);
    faults.Advance(Unit::kFrame, i);
    if (faults.Strike(rule.fault)) struck.insert(i);
  }
  EXPECT_EQ(faults.Struck(rule.fault), struck.size());
  return struck;
}

TEST(Faults, HoldFromTheTriggerAsLongAsTheyLast) {
  const std::pair<const char*, std::set<std::uint64_t>> cases[] = {
      {R"({"fault": "corrupt", "at_frame": 3})", {3}},
      {R"({"fault": "corrupt", "at_frame": 0, "for_frames": 2})", {1}},
      {R"({"fault": "corrupt", "at_frame": 3, "for_frames": 2})", {3, 4}},
      {R"({"fault": "corrupt", "at_ms": 25, "for_frames": 2})", {3, 4}},
      {R"({"fault": "corrupt", "at_ms": 30, "for_ms": 30})", {3, 4, 5}},
      {R"({"fault": "corrupt", "at_command": 11, "for_commands": 5})", {11, 12}},
      {R"({"fault": "corrupt", "at_frame": 3, "for_frames": 0})", {}},
      {R"({"fault": "freeze", "at_frame": 10})", {10, 11, 12}},
      {R"({"fault": "corrupt", "at_frame": 3, "rate": 0, "for_frames": 9})", {}},
      {R"({"fault": "close", "at_frame": 3, "value": 5})", {3}},
  };
  for (const auto& [line, frames] : cases) EXPECT_EQ(Struck(line), frames) << line;
  Faults close({ParseFaultFlag("close=5")}, 1);  // only where the measure reaches the value
  EXPECT_FALSE(close.Strike(Fault::kClose, 4));
  EXPECT_TRUE(close.Strike(Fault::kClose, 5));
}

TEST(Faults, AreAddedWhileOthersAreAtWork) {
  Faults faults({}, 1);
  faults.Advance(Unit::kMs, 500);
  faults.Advance(Unit::kFrame, 7);
  faults.Add(ParseFaultLine(R"({"fault": "drop-status", "for_frames": 2})"));
  faults.Add(ParseFaultLine(R"({"fault": "freeze", "for_ms": 100})"));
  faults.Add(ParseFaultLine(R"({"fault": "corrupt"})"));  // once
  EXPECT_TRUE(faults.IsActive(Fault::kFreeze));
  std::string strikes;
  for (std::uint64_t frame = 8; frame <= 11; ++frame) {
    faults.Advance(Unit::kFrame, frame);
    strikes += faults.Strike(Fault::kDropStatus) ? 'd' : '-';
    strikes += faults.Strike(Fault::kCorrupt) ? 'c' : '-';
  }
  EXPECT_EQ(strikes, "dcd-----");
  faults.Advance(Unit::kMs, 600);
  EXPECT_FALSE(faults.IsActive(Fault::kFreeze));
}

TEST(Faults, StrikeAtTheirRateWhateverElseStrikes) {
  const auto run = [](bool with_other) {
    Faults faults({ParseFaultFlag("drop-status=0.1"), ParseFaultFlag("corrupt=0.5")}, 7);
    std::vector<bool> strikes;
    for (int i = 0; i < 10000; ++i) {
      strikes.push_back(faults.Strike(Fault::kDropStatus).has_value());
      if (with_other) faults.Strike(Fault::kCorrupt);
    }
    return strikes;
  };
  const std::vector<bool> strikes = run(false);
  EXPECT_EQ(run(true), strikes);
  EXPECT_NEAR(static_cast<double>(std::count(strikes.begin(), strikes.end(), true)), 1000, 150);
}

TEST(Damage, IsOneBitAnEndThatIsMissingOrBytesInFront) {
  Generator random(1);
  for (int i = 0; i < 100; ++i) {
    const std::vector<char> flipped = FlipBit({0}, 0, random), part = CutShort({'a', 'b'}, 0, random);
    const auto bits = static_cast<unsigned char>(flipped[0]);
    EXPECT_TRUE(bits != 0 && (bits & (bits - 1)) == 0) << int{bits};
    EXPECT_EQ(part, std::vector<char>{'a'});
    const std::vector<char> longer = PrependGarbage({'a'}, 9, random);
    EXPECT_TRUE(longer.size() > 1 && longer.size() <= 10 && longer.back() == 'a');
  }
}

}  // namespace
}  // namespace velta::sim
