// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <vector>

#include "frames.h"

using velta::sim::CommandFramer;
using Frame = std::vector<char>;

namespace {

Frame Hex(std::initializer_list<int> bytes) {
  Frame frame;
  for (const int byte : bytes) frame.push_back(static_cast<char>(byte));
  return frame;
}

Frame operator+(Frame left, const Frame& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// One joint: stamp 0x0102030405060708, payload order, joint 0 RefPosition 0.5 -1 0 3.
const Frame kCommand =
    Hex({0xAB, 0xCD, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, 0xA0, 0x00, 0x11, 0x00, 0x00, 0x00,
         0x3F, 0x00, 0x00, 0x80, 0xBF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x40, 0x40, 0xFC, 0x62});

std::vector<SendPacket> Push(CommandFramer& framer, const Frame& bytes) {
  return framer.Push(bytes.data(), bytes.size());
}

Frame Bad(Frame frame) {
  frame[20] = static_cast<char>(frame[20] ^ 0x10);
  return frame;
}

TEST(CommandFramer, ReadsEveryFieldOfAFrame) {
  CommandFramer framer(1);
  const std::vector<SendPacket> commands = Push(framer, kCommand);
  ASSERT_EQ(commands.size(), 1u);
  const SendPacket& command = commands[0];
  EXPECT_EQ(command.GetTimeStamp(), 0x0102030405060708u);
  EXPECT_EQ(+command.header.armOrder, 0xA0);
  ASSERT_EQ(command.joints.size(), 1u);
  EXPECT_EQ(+command.joints[0].id, 0);
  EXPECT_EQ(+command.joints[0].order, 0x11);
  EXPECT_EQ(+command.joints[0].value1, 0.5f);
  EXPECT_EQ(+command.joints[0].value2, -1.0f);
  EXPECT_EQ(+command.joints[0].value3, 0.0f);
  EXPECT_EQ(+command.joints[0].value4, 3.0f);
}

struct StreamCase {
  const char* name;
  Frame bytes;
  std::size_t commands;
  unsigned bad_crc;
  unsigned garbage;
  std::size_t waiting;
};

class CommandStream : public testing::TestWithParam<StreamCase> {};

TEST_P(CommandStream, GivesTheSameWhateverThePieces) {
  const StreamCase& expected = GetParam();
  for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{7}, std::size_t{31}, std::size_t{1000}}) {
    CommandFramer framer(1);
    std::size_t commands = 0;
    for (std::size_t i = 0; i < expected.bytes.size(); i += piece) {
      commands += framer.Push(expected.bytes.data() + i, std::min(piece, expected.bytes.size() - i)).size();
    }
    EXPECT_EQ(commands, expected.commands) << "pieces of " << piece;
    EXPECT_EQ(framer.BadCrc(), expected.bad_crc) << "pieces of " << piece;
    EXPECT_EQ(framer.Garbage(), expected.garbage) << "pieces of " << piece;
    EXPECT_EQ(framer.Waiting(), expected.waiting) << "pieces of " << piece;
  }
}

const StreamCase kStreams[] = {
    {"Nothing", {}, 0, 0, 0, 0},
    {"TwoFrames", kCommand + kCommand, 2, 0, 0, 0},
    {"IncompleteTail", kCommand + Frame(kCommand.begin(), kCommand.end() - 1), 1, 0, 0, 30},
    {"GarbageBefore", Hex({0x00, 0xCD, 0xAB}) + kCommand, 1, 0, 3, 0},
    {"GarbageWithHalfMarks", Hex({0xAB, 0xAB, 0xAB}) + kCommand, 1, 0, 3, 0},
    {"MarkCutInTwoBySearchesForPiecesOf31", Frame(61, 'x') + kCommand, 1, 0, 61, 0},
    {"BadCrcCostsOneFrame", Bad(kCommand) + kCommand, 1, 1, 0, 0},
    // A false mark takes 31 bytes with it, 29 of them the true frame's; its last two are garbage before the next.
    {"FalseMarkCostsAFrameLength", Hex({0xAB, 0xCD}) + kCommand + kCommand, 1, 1, 2, 0},
};

INSTANTIATE_TEST_SUITE_P(, CommandStream, testing::ValuesIn(kStreams), [](const auto& row) { return row.param.name; });

TEST(CommandFramer, ResetForgetsTheTail) {
  CommandFramer framer(1);
  Push(framer, Frame(kCommand.begin(), kCommand.end() - 1));
  framer.Reset();
  EXPECT_EQ(Push(framer, kCommand).size(), 1u);
  EXPECT_EQ(framer.BadCrc(), 0u);
}

TEST(StatusFrame, IsTheWireFormatByteForByte) {
  RecvPacket status(1);  // without a start mark, as the simulator keeps it
  status.header.timestamp = 0x1112131415161718;
  status.header.hostTimestamp = 0x2122232425262728;
  status.header.duration = 1.5f;
  status.joints[0] = {1,    2,    3,     20,    0x11223344, 6,     0x5566,
                      1.0f, 2.0f, 3.0f,  4.0f,  5.0f,       6.0f,  7.0f,
                      8.0f, 9.0f, 10.0f, 11.0f, 12.0f,      13.0f, {14.0f, 15.0f, 16.0f, 17.0f}};
  const Frame expected =
      Hex({0xAB, 0xCD, 0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11, 0x28, 0x27, 0x26, 0x25, 0x24, 0x23, 0x22, 0x21,
           0x00, 0x00, 0xC0, 0x3F, 0x01, 0x02, 0x03, 0x14, 0x44, 0x33, 0x22, 0x11, 0x06, 0x66, 0x55, 0x00, 0x00, 0x80,
           0x3F, 0x00, 0x00, 0x00, 0x40, 0x00, 0x00, 0x40, 0x40, 0x00, 0x00, 0x80, 0x40, 0x00, 0x00, 0xA0, 0x40, 0x00,
           0x00, 0xC0, 0x40, 0x00, 0x00, 0xE0, 0x40, 0x00, 0x00, 0x00, 0x41, 0x00, 0x00, 0x10, 0x41, 0x00, 0x00, 0x20,
           0x41, 0x00, 0x00, 0x30, 0x41, 0x00, 0x00, 0x40, 0x41, 0x00, 0x00, 0x50, 0x41, 0x00, 0x00, 0x60, 0x41, 0x00,
           0x00, 0x70, 0x41, 0x00, 0x00, 0x80, 0x41, 0x00, 0x00, 0x88, 0x41, 0x5B, 0x3A});
  EXPECT_EQ(velta::sim::StatusFrame(status), expected);
}

}  // namespace
