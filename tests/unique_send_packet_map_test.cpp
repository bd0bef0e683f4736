// SPDX-License-Identifier: MIT
#include "unique_send_packet_map.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace {

class UniqueMap : public testing::Test {
 protected:
  void File(const std::string& key, unsigned long stamp) {
    SendPacket packet(1);
    packet.SetUniqueKey("another");  // the argument is the key
    packet.SetTimeStamp(stamp);
    map.Insert(key, packet);
  }
  unsigned long Take(const std::string& key) { return map.GetSendPacket(key).GetTimeStamp(); }
  std::set<std::string> Waiting() const {
    const std::vector<std::string> keys = map.GetNotSentKeys();
    return {keys.begin(), keys.end()};
  }

  UniqueSendPacketMap map;
};

TEST_F(UniqueMap, KeepsTheNewestPacketPerKeyAndRearmsIt) {
  using Keys = std::set<std::string>;
  for (const unsigned long stamp : {2u, 4u}) {
    File("k", 1);
    File("k", stamp);
    File("", 3);
    EXPECT_EQ(Waiting(), (Keys{"", "k"}));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Take("k"), stamp);  // sent packets stay
    EXPECT_EQ(Waiting(), Keys{""});
    EXPECT_EQ(map.GetSendPacket("x").jointNum, 0);  // of an unknown key, a packet without joints
  }
}

TEST_F(UniqueMap, TheFirstWaitingKeyIsTheLists) {
  std::mt19937 random(4);
  for (unsigned step = 0; step < 2000; ++step) {
    for (auto fresh = random() % (step % 500 < 250 ? 4 : 2); fresh > 0; --fresh) {
      File(std::to_string(random() % (20 + step)), step);
    }
    const std::vector<std::string> waiting = map.GetNotSentKeys();
    const std::string* const first = map.FirstNotSentKey();
    ASSERT_EQ(first == nullptr, waiting.empty());
    if (first == nullptr) continue;
    ASSERT_EQ(*first, waiting.front()) << step;
    if (random() % 8 != 0) Take(*first);
    if (random() % 8 == 0) Take(waiting.back());
  }
}

}  // namespace
