// SPDX-License-Identifier: MIT
#include "RecvPacket.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "support/bytes.h"

namespace {

using velta::test::Bytes;
using velta::test::StatusFrame;

static_assert(std::is_nothrow_move_constructible_v<RecvPacket> && std::is_nothrow_move_assignable_v<RecvPacket>);

TEST(RecvPacket, IsAllZeroAfterConstruction) {
  const RecvPacket p(6);
  EXPECT_EQ(p.headerSize, 22);
  EXPECT_EQ(p.GetDataSize(), 474);
  EXPECT_EQ(p.GetPacketSize(), 498);
  const rxHeader_t header{};
  EXPECT_EQ(std::memcmp(&p.header, &header, sizeof header), 0);
  ASSERT_EQ(p.joints.size(), 6u);
  for (const rxJoint_t& joint : p.joints) {
    const rxJoint_t zero{};
    EXPECT_EQ(std::memcmp(&joint, &zero, sizeof zero), 0);
  }
  EXPECT_TRUE(RecvPacket(-1).joints.empty());
}

TEST(RecvPacket, ParsesEveryFieldFromItsPlaceInTheFrame) {
  Bytes frame;
  frame.U8(0x12).U8(0x34).U64(0x0102030405060708).U64(0xFFFFFFFFFFFFFFFE).F32(0.25f);  // a start mark is not checked
  frame.Fill(79, 0);
  frame.U8(1).U8(2).U8(3).U8(4).U32(0xDEADBEEF).U8(5).U16(0xFFFE);
  for (int i = 0; i < 17; ++i) frame.F32(static_cast<float>(i) + 0.5f);
  frame.Crc();
  RecvPacket p(2);
  ASSERT_TRUE(p.Parse(frame));
  EXPECT_EQ(p.header.startMark[0], 0x12);
  EXPECT_EQ(+p.header.timestamp, 0x0102030405060708u);
  EXPECT_EQ(+p.header.hostTimestamp, 0xFFFFFFFFFFFFFFFEu);
  EXPECT_EQ(+p.header.duration, 0.25f);
  EXPECT_EQ(+p.joints[0].position, 0.0f);
  const rxJoint_t j = p.joints[1];
  EXPECT_EQ(j.type, 1);
  EXPECT_EQ(j.comStatus, 2);
  EXPECT_EQ(j.systemMode, 3);
  EXPECT_EQ(j.ctrlMode, 4);
  EXPECT_EQ(+j.ewStatus, 0xDEADBEEFu);
  EXPECT_EQ(j.trjStatus, 5);
  EXPECT_EQ(+j.trjViaRemain, 0xFFFE);
  const float floats[] = {j.refCurrent,
                          j.refPosition,
                          j.refVelocity,
                          j.refAcceleration,
                          j.refEffort,
                          j.current,
                          j.position,
                          j.velocity,
                          j.outConvInVelocity,
                          j.acceleration,
                          j.outConvInAcceleration,
                          j.effort,
                          j.temperature,
                          j.general[0],
                          j.general[1],
                          j.general[2],
                          j.general[3]};
  for (int i = 0; i < 17; ++i) EXPECT_EQ(floats[i], static_cast<float>(i) + 0.5f) << i;
}

TEST(RecvPacket, WrongSizeLeavesItUntouchedAndWrongCrcOverwritesIt) {
  RecvPacket p(6);
  ASSERT_TRUE(p.Parse(StatusFrame(6, 7)));
  for (const int other : {5, 7}) EXPECT_FALSE(p.Parse(StatusFrame(other, 8)));
  std::vector<char> frame = StatusFrame(6, 8);
  std::vector<char> shorter(frame.begin(), frame.end() - 1);
  EXPECT_FALSE(p.Parse(shorter));
  EXPECT_FALSE(p.Parse({}));
  EXPECT_EQ(+p.header.timestamp, 7u);

  frame[22] = 1;
  EXPECT_FALSE(p.Parse(frame));
  EXPECT_EQ(+p.header.timestamp, 8u);
  EXPECT_EQ(p.joints[0].type, 1);
  for (const std::size_t crc_byte : {496u, 497u}) {
    frame = StatusFrame(6, 9);
    frame[crc_byte] = static_cast<char>(frame[crc_byte] ^ 1);
    EXPECT_FALSE(p.Parse(frame));
  }
}

TEST(RecvPacket, JointCountsAtTheEdges) {
  EXPECT_TRUE(RecvPacket(0).Parse(StatusFrame(0, 1)));
  EXPECT_FALSE(RecvPacket(-1).Parse({}));
  EXPECT_FALSE(RecvPacket(-1).Parse(StatusFrame(0, 1)));
  RecvPacket wrapped(830);  // 65,592 bytes before the CRC: the CRC covers the first 56 alone
  EXPECT_TRUE(wrapped.Parse(StatusFrame(830, 1)));
  std::vector<char> frame = StatusFrame(830, 2);
  frame[57] = 1;
  EXPECT_TRUE(wrapped.Parse(frame));
  frame[55] = 1;
  EXPECT_FALSE(wrapped.Parse(frame));
}

}  // namespace
