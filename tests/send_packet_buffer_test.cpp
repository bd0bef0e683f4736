// SPDX-License-Identifier: MIT
#include "send_packet_buffer.h"

#include <gtest/gtest.h>

namespace {

SendPacket Stamped(unsigned long stamp, const char* key = nullptr) {
  SendPacket p(1);
  p.SetTimeStamp(stamp);
  p.SetIsUnique(key != nullptr);
  if (key != nullptr) p.SetUniqueKey(key);
  return p;
}

struct Exposed : SendPacketBuffer {
  using SendPacketBuffer::index_;
  using SendPacketBuffer::packet_map_;
};

TEST(SendPacketBuffer, KeepsArrivalOrderAndTheNewestOfEachKey) {
  Exposed buffer;
  EXPECT_TRUE(buffer.empty());
  for (const SendPacket& p : {Stamped(1), Stamped(2, "x"), Stamped(3), Stamped(4, "y"), Stamped(5, "x"), Stamped(6)}) {
    buffer.pushBack(p);
  }
  EXPECT_FALSE(buffer.empty());
  EXPECT_EQ(buffer.index_, 6);
  std::vector<int> arrivals;
  for (const auto& entry : buffer.packet_map_) arrivals.push_back(entry.first);
  EXPECT_EQ(arrivals, (std::vector<int>{0, 2, 3, 4, 5}));  // the replaced packet's place is gone

  std::unordered_map<std::string, SendPacket> unique;
  std::vector<SendPacket> ordinary = {Stamped(0)};  // outputs are added to
  unique.emplace("y", Stamped(9));                  // and keys already there are kept
  buffer.popAllPackets(unique, ordinary);
  ASSERT_EQ(ordinary.size(), 4u);
  for (const std::size_t i : {1u, 2u, 3u})
    EXPECT_EQ(ordinary[i].GetTimeStamp(), (std::vector<unsigned long>{0, 1, 3, 6})[i]);
  EXPECT_EQ(unique.size(), 2u);
  EXPECT_EQ(unique.at("x").GetTimeStamp(), 5u);
  EXPECT_EQ(unique.at("y").GetTimeStamp(), 9u);

  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(buffer.index_, 0);
  unique.clear();
  ordinary.clear();
  buffer.popAllPackets(unique, ordinary);
  EXPECT_TRUE(unique.empty() && ordinary.empty());
  buffer.pushBack(Stamped(7, "x"));  // no stale key
  buffer.popAllPackets(unique, ordinary);
  EXPECT_EQ(unique.at("x").GetTimeStamp(), 7u);
}

}  // namespace
