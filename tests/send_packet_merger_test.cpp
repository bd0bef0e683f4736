// SPDX-License-Identifier: MIT
#include "send_packet_merger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>

namespace {

using Lists = std::vector<std::vector<SendPacket>>;
using Maps = std::vector<std::unordered_map<std::string, SendPacket>>;

/// A packet of the text's length: one letter per joint becomes its order, '.' is idle; a leading '!' is an arm order.
SendPacket Packet(std::string text, unsigned long stamp = 1, bool confirm = false) {
  const bool arm = text.front() == '!';
  if (arm) text.erase(0, 1);
  SendPacket p(static_cast<int>(text.size()));
  for (std::size_t i = 0; i < text.size(); ++i) {
    p.joints[i].id = static_cast<unsigned char>(100 + i);  // joints are matched by position, not by id
    if (text[i] == '.') continue;
    p.joints[i].order = static_cast<unsigned char>(text[i]);
    p.joints[i].value1 = p.joints[i].value4 = static_cast<float>(stamp);
    p.joints[i].value2 = p.joints[i].value3 = static_cast<float>(text[i]);
  }
  p.SetTimeStamp(stamp);
  p.SetConfirmReceived(confirm);
  if (arm) p.SetArmOrder(0xA0);
  return p;
}

std::string Text(const SendPacket& p) {
  std::string text = p.header.armOrder != 0 ? "!" : "";
  for (const txJoint_t& joint : p.joints) text += joint.order == 0 ? '.' : static_cast<char>(joint.order);
  return text;
}

std::vector<std::string> Texts(const std::deque<SendPacket>& packets) {
  std::vector<std::string> texts;
  for (const SendPacket& p : packets) texts.push_back(Text(p) + (p.GetConfirmReceived() ? "?" : ""));
  return texts;
}

TEST(MergePacket, FoldsDisjointJointsAndLeavesTheRestAlone) {
  struct Row {
    const char *dst, *src;
    bool dst_confirm, src_confirm, merged;
    const char* result;
  };
  for (const Row& row : {Row{"a.", ".b", false, false, true, "ab"}, Row{"a.", ".b", false, true, true, "ab?"},
                         Row{"a.", ".b", true, false, true, "ab?"}, Row{"a.", "..", false, true, true, "a."},
                         Row{"a..", "bc.", false, true, false, "a.."}, Row{"..a", "b.c", false, true, false, "..a"},
                         Row{"a.", ".b.", false, true, false, "a."}, Row{"!..", ".b", false, true, false, "!.."},
                         Row{"..", "!..", false, true, false, ".."}}) {
    SendPacket dst = Packet(row.dst, 1, row.dst_confirm);
    EXPECT_EQ(SendPacketMerger::mergePacket(dst, Packet(row.src, 2, row.src_confirm)), row.merged) << row.dst;
    EXPECT_EQ(Texts({dst}).front(), row.result);
    EXPECT_EQ(dst.GetTimeStamp(), 1u);
  }
  SendPacket dst = Packet("a.");
  dst.joints[1].id = 7;
  SendPacketMerger::mergePacket(dst, Packet(".b", 5));
  const txJoint_t taken = dst.joints[1];
  EXPECT_EQ(taken.id, 7);
  EXPECT_EQ(taken.value1, 5.0f);
  EXPECT_EQ(taken.value2, static_cast<float>('b'));
  EXPECT_EQ(taken.value3, static_cast<float>('b'));
  EXPECT_EQ(taken.value4, 5.0f);
  SendPacket none(0);
  EXPECT_TRUE(SendPacketMerger::mergePacket(none, SendPacket(0)));
  EXPECT_FALSE(SendPacketMerger::mergePacket(none, [] {
    SendPacket arm(0);
    arm.SetArmOrder(1);
    return arm;
  }()));
}

TEST(MergeNotUniquePacket, MergesPassByPassAndSendsCollisionsLast) {
  struct Row {
    const char* name;
    std::vector<std::vector<const char*>> sources;
    std::vector<std::string> output;
  };
  const std::vector<Row> rows = {{"nothing", {}, {}},
                                 {"disjoint sources", {{"a."}, {".b"}}, {"ab"}},
                                 {"colliding sources", {{"a."}, {"b."}}, {"a.", "b."}},
                                 {"second pass", {{"a.", "A."}, {".b"}}, {"ab", "A."}},
                                 {"arm order goes last", {{"!..", "a."}}, {"a.", "!.."}},
                                 {"other joint count goes last", {{"a..", "a."}}, {"a.", "a.."}},
                                 {"collisions in the order they were set aside",
                                  {{"a.", "A."}, {"b.", "B."}, {".c", "C."}},
                                  {"ac", "A.", "b.", "B.", "C."}},
                                 {"an all-idle packet merges", {{".."}}, {".."}},
                                 {"a pass of collisions only", {{"!.."}, {"!.."}}, {"!..", "!.."}}};
  for (const Row& row : rows) {
    Lists lists;
    for (const auto& source : row.sources) {
      lists.emplace_back();
      for (const char* text : source) lists.back().push_back(Packet(text));
    }
    EXPECT_EQ(Texts(SendPacketMerger::mergeNotUniquePacket(lists, 2)), row.output) << row.name;
  }
}

TEST(MergeNotUniquePacket, MergedPacketIsFreshAndALeftoverIsUnchanged) {
  Lists lists = {{Packet("a.", 1, true)}, {Packet("b.", 2)}};
  const unsigned long before = GetNowTimeStamp();
  const std::deque<SendPacket> out = SendPacketMerger::mergeNotUniquePacket(lists, 2);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_GE(out[0].GetTimeStamp(), before);
  EXPECT_EQ(out[0].joints[0].id, 0);
  EXPECT_TRUE(out[0].GetConfirmReceived());
  EXPECT_EQ(out[1].GetCharVector(), Packet("b.", 2).GetCharVector());
  EXPECT_EQ(lists[1][0].joints.size(), 2u);  // the arguments keep their packets
}

TEST(MergeUniquePacket, MergesEqualKeysIntoTheFirstSourcesPacket) {
  Maps maps(3);
  maps[0].emplace("k", Packet("a..", 1));
  maps[1].emplace("k", Packet(".b.", 2, true));
  maps[2].emplace("k", Packet("x.c", 3));  // collides
  maps[1].emplace("own", Packet("..o", 4));
  const std::deque<SendPacket> out = SendPacketMerger::mergeUniquePacket(maps);
  EXPECT_EQ(Texts(out), (std::vector<std::string>{"ab.?", "..o", "x.c"}));
  EXPECT_EQ(out[0].GetTimeStamp(), 1u);
  EXPECT_EQ(maps[0].size() + maps[1].size() + maps[2].size(), 2u);
  EXPECT_EQ(maps[0].at("k").joints.size(), 3u);

  Maps none;
  EXPECT_TRUE(SendPacketMerger::mergeUniquePacket(none).empty());
  Maps one(1);
  one[0].emplace("k", Packet("!a", 5));
  EXPECT_EQ(SendPacketMerger::mergeUniquePacket(one).front().GetTimeStamp(), 5u);
}

TEST(GetMergedPacket, EmptiesAllBuffersOrdinaryBeforeUnique) {
  std::vector<std::shared_ptr<SendPacketBuffer>> buffers;
  EXPECT_TRUE(SendPacketMerger::getMergedPacket(buffers, 2).empty());
  for (int i = 0; i < 3; ++i) buffers.push_back(std::make_shared<SendPacketBuffer>());
  EXPECT_TRUE(SendPacketMerger::getMergedPacket(buffers, 2).empty());

  SendPacket unique = Packet("u.");
  unique.SetIsUnique(true);
  unique.SetUniqueKey("k");
  for (int round = 0; round < 3; ++round) {  // the later ones in memory that the first has used
    buffers[0]->pushBack(unique);
    buffers[0]->pushBack(Packet("a."));
    buffers[2]->pushBack(Packet(".b", 1, true));
    buffers[2]->pushBack(Packet("!.."));
    const std::deque<SendPacket> out = SendPacketMerger::getMergedPacket(buffers, 2);
    EXPECT_EQ(Texts(out), (std::vector<std::string>{"ab?", "!..", "u."}));
    EXPECT_TRUE(out[2].IsUnique());
    EXPECT_EQ(out[2].GetUniqueKey(), "k");
    EXPECT_TRUE(SendPacketMerger::getMergedPacket(buffers, 2).empty());
    buffers[2]->pushBack(Packet("c."));
    EXPECT_EQ(Texts(SendPacketMerger::getMergedPacket(buffers, 2)), (std::vector<std::string>{"c."}));
  }
}

TEST(GetMergedPacket, LosesNothingThatIsPushedMeanwhile) {
  constexpr unsigned long kPackets = 2000;
  std::vector buffers = {std::make_shared<SendPacketBuffer>()};
  std::atomic<bool> done{false};
  std::thread source([&] {
    for (unsigned long i = 1; i <= kPackets; ++i) buffers[0]->pushBack(Packet(i % 2 == 0 ? "a." : "!a.", i));
    done = true;
  });
  std::vector<float> stamps;
  for (bool last = false; !last;) {
    last = done;
    for (const SendPacket& p : SendPacketMerger::getMergedPacket(buffers, 2)) stamps.push_back(p.joints[0].value1);
  }
  source.join();
  std::sort(stamps.begin(), stamps.end());
  ASSERT_EQ(stamps.size(), kPackets);
  for (std::size_t i = 0; i < kPackets; ++i) EXPECT_EQ(stamps[i], static_cast<float>(i + 1));
}

}  // namespace
