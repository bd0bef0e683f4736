// SPDX-License-Identifier: MIT
// Whole merges are a fuzz target's matter, held against a model; here stands the rule for two packets, and what becomes
// of the arguments.
#include "send_packet_merger.h"

#include <gtest/gtest.h>

namespace {

/// Orders of a packet's joints; 0 is idle.
using Orders = std::vector<int>;

SendPacket Packet(const Orders& orders, bool confirm = false, int arm_order = 0) {
  SendPacket packet(static_cast<int>(orders.size()));
  for (std::size_t i = 0; i < orders.size(); ++i) {
    packet.joints[i].order = static_cast<unsigned char>(orders[i]);
    packet.joints[i].id = static_cast<unsigned char>(100 + i);  // joints are matched by position, not by id
    for (int n = 1; n <= 4; ++n) packet.SetValue(static_cast<int>(i), n, static_cast<float>(10 * orders[i] + n));
  }
  packet.SetTimeStamp(1);
  packet.SetConfirmReceived(confirm);
  packet.SetArmOrder(arm_order);
  return packet;
}

Orders OrdersOf(const SendPacket& packet) {
  Orders orders;
  for (const txJoint_t& joint : packet.joints) orders.push_back(joint.order);
  return orders;
}

TEST(MergePacket, FoldsDisjointJointsAndLeavesTheRestAlone) {
  struct Row {
    SendPacket dst, src;
    bool merges;
    Orders orders;
    bool confirm;
  };
  const Row rows[] = {{Packet({1, 0}), Packet({0, 2}), true, {1, 2}, false},
                      {Packet({1, 0}), Packet({0, 2}, true), true, {1, 2}, true},
                      {Packet({1, 0}, true), Packet({0, 2}), true, {1, 2}, true},
                      {Packet({1, 0}), Packet({0, 0}, true), true, {1, 0}, false},  // an idle packet asks for nothing
                      {Packet({0, 0, 1}), Packet({2, 0, 3}, true), false, {0, 0, 1}, false},
                      {Packet({1, 0}), Packet({0, 2, 0}), false, {1, 0}, false},
                      {Packet({0, 0}, false, 0xA0), Packet({0, 2}), false, {0, 0}, false},
                      {Packet({0, 0}), Packet({0, 0}, true, 0xA0), false, {0, 0}, false},
                      {Packet({}), Packet({}), true, {}, false}};
  for (Row row : rows) {
    EXPECT_EQ(SendPacketMerger::mergePacket(row.dst, row.src), row.merges);
    EXPECT_EQ(OrdersOf(row.dst), row.orders);
    EXPECT_EQ(row.dst.GetConfirmReceived(), row.confirm);
    EXPECT_EQ(row.dst.GetTimeStamp(), 1u);
  }
  SendPacket dst = Packet({1, 0});
  dst.joints[1].id = 7;
  EXPECT_TRUE(SendPacketMerger::mergePacket(dst, Packet({0, 2})));
  EXPECT_EQ(dst.joints[1].id, 7);
  EXPECT_EQ(+dst.joints[1].value1 + dst.joints[1].value4, 21.0f + 24.0f);
}

TEST(MergeNotUniquePacket, GivesFreshPacketsThenCollisionsUnchangedAndKeepsItsArguments) {
  std::vector<std::vector<SendPacket>> lists = {{Packet({1, 0}), Packet({3, 0})}, {Packet({2, 0})}};
  const unsigned long before = GetNowTimeStamp();
  const std::deque<SendPacket> merged = SendPacketMerger::mergeNotUniquePacket(lists, 2);
  ASSERT_EQ(merged.size(), 3u);
  EXPECT_EQ(OrdersOf(merged[1]), (Orders{3, 0}));  // the collision of the first pass follows the second's packet
  EXPECT_GE(merged[0].GetTimeStamp(), before);
  EXPECT_EQ(merged[0].joints[0].id, 0);
  EXPECT_EQ(merged[2].GetCharVector(), Packet({2, 0}).GetCharVector());
  EXPECT_EQ(OrdersOf(lists[1][0]), (Orders{2, 0}));
}

}  // namespace
