// SPDX-License-Identifier: MIT
#include "unique_send_packet_map.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using Keys = std::vector<std::string>;

SendPacket Stamped(unsigned long stamp) {
  SendPacket p(2);
  p.SetTimeStamp(stamp);
  return p;
}

Keys Waiting(const UniqueSendPacketMap& map) {
  Keys keys = map.GetNotSentKeys();
  std::sort(keys.begin(), keys.end());
  return keys;
}

TEST(UniqueSendPacketMap, KeepsTheNewestPacketPerKeyAndRearmsIt) {
  UniqueSendPacketMap map;
  EXPECT_EQ(Waiting(map), Keys{});
  SendPacket first = Stamped(1);
  first.SetUniqueKey("another");  // the argument is the key
  map.Insert("k", first);
  map.Insert("k", Stamped(2));
  map.Insert("", Stamped(3));
  EXPECT_EQ(Waiting(map), (Keys{"", "k"}));

  EXPECT_EQ(map.GetSendPacket("k").GetTimeStamp(), 2u);
  EXPECT_EQ(Waiting(map), Keys{""});
  EXPECT_EQ(map.GetSendPacket("k").GetTimeStamp(), 2u);  // sent packets stay
  EXPECT_EQ(Waiting(map), Keys{""});

  map.Insert("k", Stamped(4));
  EXPECT_EQ(Waiting(map), (Keys{"", "k"}));
  EXPECT_EQ(map.GetSendPacket("").GetTimeStamp(), 3u);
  EXPECT_EQ(map.GetSendPacket("k").GetTimeStamp(), 4u);
  EXPECT_EQ(Waiting(map), Keys{});
}

TEST(UniqueSendPacketMap, UnknownKeyGivesAPacketWithoutJoints) {
  UniqueSendPacketMap map;
  map.Insert("k", Stamped(1));
  EXPECT_EQ(map.GetSendPacket("x").jointNum, 0);
  EXPECT_EQ(Waiting(map), Keys{"k"});
}

}  // namespace
