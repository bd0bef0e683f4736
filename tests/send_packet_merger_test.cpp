// SPDX-License-Identifier: MIT
// What merges and what does not is a fuzz target's matter, held against a model; here stands what becomes of the
// arguments.
#include "send_packet_merger.h"

#include <gtest/gtest.h>

namespace {

SendPacket Command(unsigned char order) {
  SendPacket packet(2);
  packet.joints[0].order = order;
  packet.joints[0].id = 100;  // joints are matched by position, not by id
  packet.SetTimeStamp(1);
  return packet;
}

TEST(MergeNotUniquePacket, GivesFreshPacketsThenCollisionsUnchangedAndKeepsItsArguments) {
  std::vector<std::vector<SendPacket>> lists = {{Command(1), Command(3)}, {Command(2)}};
  const unsigned long before = GetNowTimeStamp();
  const std::deque<SendPacket> merged = SendPacketMerger::mergeNotUniquePacket(lists, 2);
  ASSERT_EQ(merged.size(), 3u);
  EXPECT_EQ(merged[1].joints[0].order, 3);  // the collision of the first pass follows the second's packet
  EXPECT_GE(merged[0].GetTimeStamp(), before);
  EXPECT_EQ(merged[0].joints[0].id, 0);
  EXPECT_EQ(merged[2].GetCharVector(), Command(2).GetCharVector());
  EXPECT_EQ(lists[1][0].joints.at(0).order, 2);
}

}  // namespace
