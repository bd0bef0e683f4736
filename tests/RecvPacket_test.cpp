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

TEST(RecvPacket, ParsesEveryFieldFromItsPlaceInTheFrame) {
  Bytes frame;
  frame.U8(0x12).U8(0x34).U64(0x0102030405060708).U64(0xFFFFFFFFFFFFFFFE).F32(0.25f);  // a start mark is not checked
  frame.Fill(79, 0);
  frame.U8(1).U8(2).U8(3).U8(4).U32(0xDEADBEEF).U8(5).U16(0xFFFE);
  for (int i = 0; i < 17; ++i) frame.F32(static_cast<float>(i) + 0.5f);
  RecvPacket p(2);
  ASSERT_TRUE(p.Parse(frame.Crc()));
  EXPECT_EQ(p.header.startMark[0], 0x12);
  EXPECT_EQ(+p.header.timestamp, 0x0102030405060708u);
  EXPECT_EQ(+p.header.hostTimestamp, 0xFFFFFFFFFFFFFFFEu);
  EXPECT_EQ(+p.header.duration, 0.25f);
  EXPECT_EQ(+p.joints[0].position, 0.0f);
  const rxJoint_t j = p.joints[1];
  EXPECT_EQ(
      (std::array<unsigned, 7>{j.type, j.comStatus, j.systemMode, j.ctrlMode, j.ewStatus, j.trjStatus, j.trjViaRemain}),
      (std::array<unsigned, 7>{1, 2, 3, 4, 0xDEADBEEF, 5, 0xFFFE}));
  // clang-format off
  const float floats[] = {j.refCurrent, j.refPosition, j.refVelocity, j.refAcceleration, j.refEffort, j.current,
                          j.position, j.velocity, j.outConvInVelocity, j.acceleration, j.outConvInAcceleration,
                          j.effort, j.temperature, j.general[0], j.general[1], j.general[2], j.general[3]};
  // clang-format on
  for (int i = 0; i < 17; ++i) EXPECT_EQ(floats[i], static_cast<float>(i) + 0.5f) << i;
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
