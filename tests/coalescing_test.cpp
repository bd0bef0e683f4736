// SPDX-License-Identifier: MIT
// From commands of several sources to as few packets as possible: the map of unique keys, the buffers, the merger.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <thread>

#include "send_packet_buffer.h"
#include "send_packet_merger.h"
#include "unique_send_packet_map.h"

namespace {

using Texts = std::vector<std::string>;

/// A packet in a word, "a.?5": one letter per joint becomes its order and '.' is idle; in front '!' is an arm order;
/// behind it '?' asks for confirmation, and a digit is the time stamp.
SendPacket Packet(const std::string& word, const char* key = nullptr) {
  const bool arm = word.rfind('!', 0) == 0, confirm = word.find('?') != std::string::npos;
  const bool stamped = word.find_first_of("12345") != std::string::npos;
  const unsigned long stamp = stamped ? static_cast<unsigned long>(word.back() - '0') : 1;
  const std::string joints = word.substr(arm, word.size() - arm - confirm - stamped);
  SendPacket p(static_cast<int>(joints.size()));
  for (std::size_t i = 0; i < joints.size(); ++i) {
    p.joints[i].id = static_cast<unsigned char>(100 + i);  // joints are matched by position, not by id
    if (joints[i] == '.') continue;
    p.joints[i].order = static_cast<unsigned char>(joints[i]);
    p.joints[i].value1 = p.joints[i].value4 = static_cast<float>(stamp);
    p.joints[i].value2 = p.joints[i].value3 = static_cast<float>(joints[i]);
  }
  p.SetTimeStamp(stamp);
  p.SetConfirmReceived(confirm);
  p.SetIsUnique(key != nullptr);
  if (key != nullptr) p.SetUniqueKey(key);
  if (arm) p.SetArmOrder(0xA0);
  return p;
}

/// The word without the time stamp.
std::string Text(const SendPacket& p) {
  std::string text = p.header.armOrder != 0 ? "!" : "";
  for (const txJoint_t& joint : p.joints) text += joint.order == 0 ? '.' : static_cast<char>(joint.order);
  return text + (p.GetConfirmReceived() ? "?" : "");
}

template <typename Packets>
Texts AllTexts(const Packets& packets) {
  Texts texts;
  for (const SendPacket& p : packets) texts.push_back(Text(p));
  return texts;
}

Texts Waiting(const UniqueSendPacketMap& map) {
  Texts keys = map.GetNotSentKeys();
  std::sort(keys.begin(), keys.end());
  return keys;
}

TEST(UniqueSendPacketMap, KeepsTheNewestPacketPerKeyAndRearmsIt) {
  UniqueSendPacketMap map;
  EXPECT_EQ(Waiting(map), Texts{});
  map.Insert("k", Packet("a", "another"));  // the argument is the key
  map.Insert("k", Packet("b"));
  map.Insert("", Packet("c"));
  EXPECT_EQ(Waiting(map), (Texts{"", "k"}));
  for (int i = 0; i < 2; ++i) {  // sent packets stay
    EXPECT_EQ(Text(map.GetSendPacket("k")), "b");
    EXPECT_EQ(Waiting(map), Texts{""});
  }
  map.Insert("k", Packet("d"));
  EXPECT_EQ(Waiting(map), (Texts{"", "k"}));
  EXPECT_EQ(map.GetSendPacket("x").jointNum, 0);  // an unknown key gives a packet without joints
  EXPECT_EQ(Waiting(map), (Texts{"", "k"}));
  EXPECT_EQ(Text(map.GetSendPacket("")), "c");
  EXPECT_EQ(Text(map.GetSendPacket("k")), "d");
  EXPECT_EQ(Waiting(map), Texts{});
}

struct ExposedBuffer : SendPacketBuffer {
  using SendPacketBuffer::index_;
  using SendPacketBuffer::packet_map_;
};

TEST(SendPacketBuffer, KeepsArrivalOrderAndTheNewestOfEachKey) {
  ExposedBuffer buffer;
  std::unordered_map<std::string, SendPacket> unique;
  std::vector<SendPacket> ordinary = {Packet("o")};  // outputs are added to
  unique.emplace("y", Packet("p"));                  // and keys already there are kept
  EXPECT_TRUE(buffer.empty());
  for (const SendPacket& p :
       {Packet("a"), Packet("b", "x"), Packet("c"), Packet("d", "y"), Packet("e", "x"), Packet("f")}) {
    buffer.pushBack(p);
  }
  EXPECT_FALSE(buffer.empty());
  EXPECT_EQ(buffer.index_, 6);
  std::string arrivals;
  for (const auto& [number, packet] : buffer.packet_map_) arrivals += std::to_string(number) + Text(packet);
  EXPECT_EQ(arrivals, "0a2c3d4e5f");  // the replaced packet's place is gone

  buffer.popAllPackets(unique, ordinary);
  EXPECT_EQ(AllTexts(ordinary), (Texts{"o", "a", "c", "f"}));
  EXPECT_EQ(Text(unique.at("x")) + Text(unique.at("y")), "ep");
  EXPECT_EQ(unique.size(), 2u);
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(buffer.index_, 0);
  unique.clear();
  buffer.popAllPackets(unique, ordinary);
  EXPECT_EQ(unique.size() + ordinary.size(), 4u);
  buffer.pushBack(Packet("g", "x"));  // no stale key
  buffer.popAllPackets(unique, ordinary);
  EXPECT_EQ(Text(unique.at("x")), "g");
}

TEST(MergePacket, FoldsDisjointJointsAndLeavesTheRestAlone) {
  struct Row {
    const char *dst, *src;
    bool merged;
    const char* result;
  };
  for (const Row& row :
       {Row{"a.", ".b", true, "ab"}, Row{"a.", ".b?", true, "ab?"}, Row{"a.?", ".b", true, "ab?"},
        Row{"a.", "..?", true, "a."}, Row{"a..", "bc.?", false, "a.."}, Row{"..a", "b.c?", false, "..a"},
        Row{"a.", ".b.?", false, "a."}, Row{"!..", ".b?", false, "!.."}, Row{"..", "!..?", false, ".."},
        Row{"", "", true, ""}, Row{"", "!", false, ""}}) {
    SendPacket dst = Packet(row.dst);
    EXPECT_EQ(SendPacketMerger::mergePacket(dst, Packet(row.src + std::string("2"))), row.merged) << row.dst;
    EXPECT_EQ(Text(dst), row.result);
    EXPECT_EQ(dst.GetTimeStamp(), 1u);
  }
  SendPacket dst = Packet("a.");
  dst.joints[1].id = 7;
  EXPECT_TRUE(SendPacketMerger::mergePacket(dst, Packet(".b5")));
  const txJoint_t taken = dst.joints[1];
  EXPECT_EQ(taken.id, 7);
  EXPECT_EQ((std::array{taken.value1, taken.value2, taken.value3, taken.value4}),
            (std::array{5.0f, 98.0f, 98.0f, 5.0f}));
}

TEST(MergeNotUniquePacket, MergesPassByPassAndSendsCollisionsLast) {
  struct Row {
    const char* name;
    std::vector<Texts> sources;
    Texts output;
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"nothing", {}, {}},
      {"disjoint sources", {{"a."}, {".b"}}, {"ab"}},
      {"colliding sources", {{"a."}, {"b."}}, {"a.", "b."}},
      {"second pass", {{"a.", "A."}, {".b"}}, {"ab", "A."}},
      {"arm order goes last", {{"!..", "a."}}, {"a.", "!.."}},
      {"other joint count goes last", {{"a..", "a."}}, {"a.", "a.."}},
      {"collisions in their order", {{"a.", "A."}, {"b.", "B."}, {".c", "C."}}, {"ac", "A.", "b.", "B.", "C."}},
      {"an all-idle packet merges", {{".."}}, {".."}},
      {"a pass of collisions only", {{"!.."}, {"!.."}}, {"!..", "!.."}}};
  // clang-format on
  for (const Row& row : rows) {
    std::vector<std::vector<SendPacket>> lists;
    for (const Texts& source : row.sources) {
      lists.emplace_back();
      for (const std::string& text : source) lists.back().push_back(Packet(text));
    }
    EXPECT_EQ(AllTexts(SendPacketMerger::mergeNotUniquePacket(lists, 2)), row.output) << row.name;
  }
}

TEST(MergeNotUniquePacket, MergedPacketIsFreshAndALeftoverIsUnchanged) {
  std::vector<std::vector<SendPacket>> lists = {{Packet("a.?1")}, {Packet("b.2")}};
  const unsigned long before = GetNowTimeStamp();
  const std::deque<SendPacket> out = SendPacketMerger::mergeNotUniquePacket(lists, 2);
  ASSERT_EQ(AllTexts(out), (Texts{"a.?", "b."}));
  EXPECT_GE(out[0].GetTimeStamp(), before);
  EXPECT_EQ(out[0].joints[0].id, 0);
  EXPECT_EQ(out[1].GetCharVector(), Packet("b.2").GetCharVector());
  EXPECT_EQ(lists[1][0].joints.size(), 2u);  // the arguments keep their packets
}

TEST(MergeUniquePacket, MergesEqualKeysIntoTheFirstSourcesPacket) {
  using Map = std::unordered_map<std::string, SendPacket>;
  std::vector<Map> maps = {
      {{"k", Packet("a..1")}}, {{"k", Packet(".b.?2")}, {"own", Packet("..o4")}}, {{"k", Packet("x.c3")}}};
  const std::deque<SendPacket> out = SendPacketMerger::mergeUniquePacket(maps);
  EXPECT_EQ(AllTexts(out), (Texts{"ab.?", "..o", "x.c"}));  // the last one collides
  EXPECT_EQ(out[0].GetTimeStamp(), 1u);
  EXPECT_EQ(maps[0].size() + maps[1].size() + maps[2].size(), 2u);
  EXPECT_EQ(maps[0].at("k").joints.size(), 3u);

  std::vector<Map> none, one = {{{"k", Packet("!a5")}}};
  EXPECT_TRUE(SendPacketMerger::mergeUniquePacket(none).empty());
  EXPECT_EQ(SendPacketMerger::mergeUniquePacket(one).front().GetCharVector(), Packet("!a5").GetCharVector());
}

TEST(GetMergedPacket, EmptiesAllBuffersOrdinaryBeforeUnique) {
  std::vector<std::shared_ptr<SendPacketBuffer>> buffers;
  EXPECT_TRUE(SendPacketMerger::getMergedPacket(buffers, 2).empty());
  for (int i = 0; i < 3; ++i) buffers.push_back(std::make_shared<SendPacketBuffer>());
  EXPECT_TRUE(SendPacketMerger::getMergedPacket(buffers, 2).empty());
  for (int round = 0; round < 3; ++round) {  // the later ones in memory that the first has used
    buffers[0]->pushBack(Packet("u.", "k"));
    buffers[0]->pushBack(Packet("a."));
    buffers[2]->pushBack(Packet(".b?"));
    buffers[2]->pushBack(Packet("!.."));
    const std::deque<SendPacket> out = SendPacketMerger::getMergedPacket(buffers, 2);
    EXPECT_EQ(AllTexts(out), (Texts{"ab?", "!..", "u."}));
    EXPECT_TRUE(out[2].IsUnique());
    EXPECT_EQ(out[2].GetUniqueKey(), "k");
    EXPECT_TRUE(SendPacketMerger::getMergedPacket(buffers, 2).empty());
    buffers[2]->pushBack(Packet("c."));
    EXPECT_EQ(AllTexts(SendPacketMerger::getMergedPacket(buffers, 2)), Texts{"c."});
  }
}

TEST(GetMergedPacket, LosesNothingThatIsPushedMeanwhile) {
  constexpr int kPackets = 2000;
  std::vector buffers = {std::make_shared<SendPacketBuffer>()};
  std::atomic<bool> done{false};
  std::thread source([&] {
    for (int i = 0; i < kPackets; ++i) {
      SendPacket packet = Packet(i % 2 == 0 ? "a." : "!a.");
      packet.joints[0].value1 = static_cast<float>(i);
      buffers[0]->pushBack(packet);
    }
    done = true;
  });
  std::vector<float> numbers;
  for (bool last = false; !last;) {
    last = done;
    for (const SendPacket& p : SendPacketMerger::getMergedPacket(buffers, 2)) numbers.push_back(+p.joints[0].value1);
  }
  source.join();
  std::sort(numbers.begin(), numbers.end());
  ASSERT_EQ(numbers.size(), static_cast<std::size_t>(kPackets));
  for (int i = 0; i < kPackets; ++i) EXPECT_EQ(numbers[static_cast<std::size_t>(i)], static_cast<float>(i));
}

}  // namespace
