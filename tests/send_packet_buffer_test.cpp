// SPDX-License-Identifier: MIT
#include "send_packet_buffer.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

struct Buffer : SendPacketBuffer {
  using SendPacketBuffer::index_;

  void Push(unsigned long stamp, const char* key = nullptr) {
    SendPacket packet(1);
    packet.SetTimeStamp(stamp);
    packet.SetIsUnique(key != nullptr);
    if (key != nullptr) packet.SetUniqueKey(key);
    pushBack(packet);
  }
};

std::vector<unsigned long> Stamps(const std::vector<SendPacket>& packets) {
  std::vector<unsigned long> stamps;
  for (const SendPacket& packet : packets) stamps.push_back(packet.GetTimeStamp());
  return stamps;
}

TEST(SendPacketBuffer, KeepsArrivalOrderAndTheNewestOfEachKey) {
  Buffer buffer;
  std::unordered_map<std::string, SendPacket> unique;
  std::vector<SendPacket> ordinary(1, SendPacket(1));  // outputs are added to
  ordinary[0].SetTimeStamp(9);
  unique.emplace("y", ordinary[0]);  // and keys already there are kept
  EXPECT_TRUE(buffer.empty());
  buffer.Push(1);
  buffer.Push(2, "x");
  buffer.Push(3);
  buffer.Push(4, "y");
  buffer.Push(5, "x");

  buffer.popAllPackets(unique, ordinary);
  EXPECT_EQ(Stamps(ordinary), (std::vector<unsigned long>{9, 1, 3}));
  EXPECT_EQ(unique.at("x").GetTimeStamp(), 5u);
  EXPECT_EQ(unique.at("y").GetTimeStamp(), 9u);
  EXPECT_TRUE(buffer.empty());
  unique.clear();
  buffer.Push(6, "x");  // no stale key
  buffer.popAllPackets(unique, ordinary);
  EXPECT_EQ(unique.at("x").GetTimeStamp(), 6u);
}

TEST(SendPacketBuffer, ArrivalsOutliveTheRangeOfAnInt) {
  Buffer buffer;
  buffer.index_ = std::numeric_limits<int>::max();
  buffer.Push(1);
  buffer.Push(2);
  std::unordered_map<std::string, SendPacket> unique;
  std::vector<SendPacket> ordinary;
  buffer.popAllPackets(unique, ordinary);
  EXPECT_EQ(Stamps(ordinary), (std::vector<unsigned long>{1, 2}));
}

}  // namespace
