// SPDX-License-Identifier: MIT
#include "frame_stream.h"

#include <gtest/gtest.h>

#include "support/bytes.h"

namespace velta::wire {
namespace {

using test::Bytes;
using Frame = std::vector<char>;

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
  EXPECT_EQ(StatusFrame(status), static_cast<const Frame&>(expected.Crc()));
}

TEST(StatusStream, GivesWhatStatusFrameMadeAndCountsEveryByte) {
  RecvPacket status(2);
  status.header.timestamp = 7;
  status.joints[1].position = 1.5f;
  const Frame good = StatusFrame(status);
  Frame bad = good;
  bad[40] = static_cast<char>(bad[40] ^ 1);
  StatusStream stream(2);
  std::vector<RecvPacket> found;
  for (const Frame& part : {Frame{'x', 'y'}, bad, good, Frame(good.begin(), good.begin() + 50)}) {
    for (RecvPacket& packet : stream.Push(part.data(), part.size())) found.push_back(packet);
  }
  stream.Restart();  // a new connection, in the middle of a frame
  ASSERT_EQ(stream.Push(good.data(), good.size()).size() + found.size(), 2U);
  EXPECT_EQ(StatusFrame(found[0]), good);
  EXPECT_EQ(stream.BadCrc(), 1U);
  EXPECT_EQ(stream.Garbage(), 2U + 50);
  EXPECT_EQ(stream.Discarded(), 2U + 50 + good.size());
  EXPECT_EQ(stream.Lost(), stream.Discarded());
}

}  // namespace
}  // namespace velta::wire
