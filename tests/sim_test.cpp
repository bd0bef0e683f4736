// SPDX-License-Identifier: MIT
// The units behind the simulator: command framing, status frames, faults.
#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

#include "faults.h"
#include "frame_stream.h"
#include "support/velta_program.h"

namespace velta::sim {
namespace {

using test::Bytes;
using test::Joined;
using Frame = std::vector<char>;

const Frame kCommand = test::Command(1, 0x0102030405060708, 0x11, {0.5f, -1, 0, 3}, 0xA0);

TEST(CommandFramer, GivesTheSameCommandsWhateverThePieces) {
  Frame bad = kCommand;
  bad[20] = static_cast<char>(bad[20] ^ 0x10);
  const struct {
    Frame bytes;
    std::size_t commands, bad_crc, garbage, waiting;
  } cases[] = {
      {{}, 0, 0, 0, 0},
      {Joined({kCommand, kCommand}), 2, 0, 0, 0},
      {Joined({kCommand, test::Part(kCommand, 0, 30)}), 1, 0, 0, 30},
      {Joined({{'\0', '\xCD', '\xAB'}, kCommand}), 1, 0, 3, 0},
      {Joined({{'\xAB', '\xAB', '\xAB'}, kCommand}), 1, 0, 3, 0},
      {Joined({Frame(61, 'x'), kCommand}), 1, 0, 61, 0},  // pieces of 31 cut the mark in two
      {Joined({bad, kCommand}), 1, 1, 0, 0},
      // A false mark takes 31 bytes with it, 29 of them the true frame's; its last two are garbage before the next.
      {Joined({{'\xAB', '\xCD'}, kCommand, kCommand}), 1, 1, 2, 0},
  };
  for (const auto& c : cases) {
    for (const std::size_t piece : {1U, 2U, 7U, 31U, 1000U}) {
      wire::CommandStream framer(1);
      std::vector<SendPacket> commands;
      for (std::size_t i = 0; i < c.bytes.size(); i += piece) {
        const auto more = framer.Push(c.bytes.data() + i, std::min(piece, c.bytes.size() - i));
        commands.insert(commands.end(), more.begin(), more.end());
      }
      EXPECT_EQ((std::vector{commands.size(), framer.BadCrc(), framer.Garbage(), framer.Lost() - framer.Discarded()}),
                (std::vector{c.commands, c.bad_crc, c.garbage, c.waiting}))
          << c.bytes.size() << " bytes in pieces of " << piece;
      for (SendPacket& command : commands) EXPECT_EQ(command.GetCharVector(), kCommand);
      framer.Restart();  // forgets the tail
      EXPECT_EQ(framer.Push(kCommand.data(), kCommand.size()).size(), 1U);
    }
  }
}

TEST(StatusFrame, IsTheWireFormatByteForByte) {
  RecvPacket status(1);  // without a start mark, as the simulator keeps it
  status.header.timestamp = 0x1112131415161718;
  status.header.hostTimestamp = 0x2122232425262728;
  status.header.duration = 1.5f;
  status.joints[0] = {1, 2, 3, 20, 0x11223344, 6, 0x5566, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, {14, 15, 16, 17}};
  Bytes expected;
  expected.U8(0xAB).U8(0xCD).U64(0x1112131415161718).U64(0x2122232425262728).F32(1.5f);
  expected.U8(1).U8(2).U8(3).U8(20).U32(0x11223344).U8(6).U16(0x5566);
  for (int i = 1; i <= 17; ++i) expected.F32(static_cast<float>(i));
  EXPECT_EQ(wire::StatusFrame(status), static_cast<const Frame&>(expected.Crc()));
}

std::vector<FaultRule> Script(const std::string& text) {
  std::istringstream script(text);
  return ParseFaultScript(script, "arm.jsonl");
}

TEST(FaultFlag, IsReadInEveryFormAndRefusedOtherwise) {
  for (std::size_t i = 0; i < kFaultCount; ++i) {  // the names that the help shows are those that are read
    EXPECT_EQ(ParseFaultFlag(Info(static_cast<Fault>(i)).name).fault, static_cast<Fault>(i));
    EXPECT_FALSE(ParseFaultFlag(Info(static_cast<Fault>(i)).name).once);
  }
  const struct {
    const char* flag;
    double rate, value;
  } cases[] = {{"corrupt", 1, 0},
               {"corrupt=0.25", 0.25, 0},
               {"delay-command=0.5:7", 0.5, 7},
               {"delay-status=1", 1, 20},
               {"close=100", 1, 100}};
  for (const auto& c : cases) {
    EXPECT_EQ(ParseFaultFlag(c.flag).rate, c.rate) << c.flag;
    EXPECT_EQ(ParseFaultFlag(c.flag).value, c.value) << c.flag;
  }
  EXPECT_FALSE(ParseFaultFlag("refuse").lasts);
  EXPECT_EQ(ParseFaultFlag("refuse=300").lasts->count, 300U);
  for (const char* flag : {"", "=1", "corrput", "corrupt=", "corrupt=x", "corrupt=1.5", "corrupt=-1", "corrupt=0.5:2",
                           "corrupt=nan", "delay-status=1:", "delay-status=1:-3", "coalesce=1", "no-echo=1",
                           "wrong-joints=829", "refuse=-1", "refuse=1e99", "close=5 "}) {
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
  // clang-format off
  const char* const refused[] = {
      deep.c_str(), "{", "[]", "{} {}", "{}", R"({"fault": "corrupt"})", R"({"at_ms": 1})",
      R"({"at_ms": 1, "fault": 7})", R"({"at_ms": 1, "fault": "x"})", R"({"at_ms": -1, "fault": "corrupt"})",
      R"({"at_ms": 1.5, "fault": "corrupt"})", R"({"at_ms": "1", "fault": "corrupt"})",
      R"({"at_ms": 1e999, "fault": "corrupt"})", R"({"at_ms": 1, "at_frame": 1, "fault": "corrupt"})",
      R"({"at_ms": 1, "fault": "corrupt", "rate": 2})", R"({"at_ms": 1, "fault": "corrupt", "value": 2})",
      R"({"at_ms": 1, "fault": "no-echo", "rate": 1})", R"({"at_ms": 1, "fault": "corrupt", "until": 1})",
      R"({"at_ms": 1, "fault": "corrupt", "for_ms": 1, "for_frames": 1})", R"({"at_ms": 1, "fault": "close", "a\nb": 1})"};
  // clang-format on
  for (const char* line : refused) {
    try {
      Script("\n" + std::string(line) + "\n");
      ADD_FAILURE() << "accepted " << line;
    } catch (const std::invalid_argument& error) {
      EXPECT_TRUE(test::Begins(error.what(), "arm.jsonl:2: ") && !test::Has(error.what(), "\n")) << error.what();
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
      {R"({"fault": "corrupt", "at_frame": 3, "for_ms": 20})", {3, 4}},
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

TEST(Faults, SameSeedSameStrikesAtTheirRate) {
  const auto run = [](std::uint64_t seed, bool with_other) {
    Faults faults({ParseFaultFlag("drop-status=0.1"), ParseFaultFlag("corrupt=0.5")}, seed);
    std::vector<bool> strikes;
    for (int i = 0; i < 10000; ++i) {
      strikes.push_back(faults.Strike(Fault::kDropStatus).has_value());
      if (with_other) faults.Strike(Fault::kCorrupt);
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
