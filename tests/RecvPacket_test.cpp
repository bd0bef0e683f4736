// SPDX-License-Identifier: MIT
#include "RecvPacket.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>

#include "packet_frames.h"
#include "support/bytes.h"

namespace {

using velta::test::Bytes;
using velta::test::StatusFrame;
using Data = std::vector<char>;

Data Flip(Data frame, std::size_t at) {
  frame[at] = static_cast<char>(frame[at] ^ 1);
  return frame;
}

TEST(RecvPacket, WrongSizeLeavesItUntouchedAndWrongCrcOverwritesIt) {
  RecvPacket p(6);
  ASSERT_TRUE(p.Parse(StatusFrame(6, 7)));
  const Data frame = StatusFrame(6, 8);
  for (const Data& other : {StatusFrame(5, 8), StatusFrame(7, 8), Data(frame.begin(), frame.end() - 1), Data{}}) {
    EXPECT_FALSE(p.Parse(other));
  }
  EXPECT_EQ(+p.header.timestamp, 7u);
  EXPECT_FALSE(p.Parse(Flip(frame, 22)));
  EXPECT_EQ(+p.header.timestamp, 8u);
  EXPECT_EQ(p.joints[0].type, 1);
  for (const std::size_t crc_byte : {496u, 497u}) EXPECT_FALSE(p.Parse(Flip(frame, crc_byte)));
  EXPECT_TRUE(p.Parse(Bytes().U16(0).Fill(494, 0).Crc())) << "a start mark is not checked";
}

TEST(RecvPacket, JointCountsAtTheEdges) {
  EXPECT_TRUE(RecvPacket(0).Parse(StatusFrame(0, 1)));
  EXPECT_FALSE(RecvPacket(-1).Parse({}));
  EXPECT_FALSE(RecvPacket(-1).Parse(StatusFrame(0, 1)));
  RecvPacket wrapped(830);  // 65,592 bytes before the CRC: the CRC covers only the first 56
  EXPECT_TRUE(wrapped.Parse(Flip(StatusFrame(830, 1), 56)));
  EXPECT_FALSE(wrapped.Parse(Flip(StatusFrame(830, 1), 55)));
  using velta::detail::StatusFrameSize;
  constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
  EXPECT_EQ(StatusFrameSize(27183337), 79u * 27183337 + 24);  // the most that an int holds
  EXPECT_EQ(StatusFrameSize(27183338), kNever) << "and not the clamped size, which a buffer can have";
  EXPECT_EQ(StatusFrameSize(-1), kNever);
}

TEST(RecvPacket, MovesLeaveAPacketWithoutJoints) {
  RecvPacket p(2), assigned(3);
  p.header.timestamp = 5;
  RecvPacket moved(std::move(p));
  assigned = std::move(moved);
  EXPECT_EQ((std::array{assigned.jointNum, assigned.headerSize, assigned.GetDataSize(), assigned.GetPacketSize()}),
            (std::array{2, 22, 158, 182}));
  EXPECT_EQ(+assigned.header.timestamp, 5u);
  for (const RecvPacket* left : {&p, &moved}) {
    EXPECT_EQ((std::array{left->jointNum, left->GetDataSize(), left->GetPacketSize()}), (std::array{0, 0, 24}));
    EXPECT_TRUE(left->joints.empty());
  }
}

}  // namespace
