// SPDX-License-Identifier: MIT
#include "PacketParser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "support/bytes.h"
#include "support/scripted_link.h"

namespace {

using velta::test::Bytes;
using velta::test::StatusFrame;

std::vector<unsigned> Stamps(const std::vector<RecvPacket>& packets) {
  std::vector<unsigned> stamps;
  for (const RecvPacket& p : packets) stamps.push_back(static_cast<unsigned>(p.header.timestamp));
  return stamps;
}

std::vector<char> Bad(std::vector<char> frame) {
  frame.back() = static_cast<char>(frame.back() ^ 1);
  return frame;
}

std::vector<char> Part(const std::vector<char>& frame, std::size_t from, std::size_t count) {
  return {frame.begin() + static_cast<std::ptrdiff_t>(from), frame.begin() + static_cast<std::ptrdiff_t>(from + count)};
}

const std::vector<char> kOne = StatusFrame(1, 1);  // 103 bytes
const std::vector<char> kTwo = StatusFrame(1, 2);

struct StreamCase {
  const char* name;
  std::vector<char> stream;
  std::vector<unsigned> stamps;
  std::size_t left;  // bytes that stay buffered
};

class Stream : public testing::TestWithParam<StreamCase> {};

TEST_P(Stream, GivesTheWholeGoodFrames) {
  PacketParser parser(1);
  EXPECT_EQ(parser.Push(GetParam().stream), 0);
  EXPECT_EQ(Stamps(parser.Parse()), GetParam().stamps);
  EXPECT_EQ(parser.buffer.size(), GetParam().left);
  EXPECT_EQ(parser.state, 0);
}

INSTANTIATE_TEST_SUITE_P(
    All, Stream,
    testing::Values(StreamCase{"Nothing", {}, {}, 0}, StreamCase{"OneByteShort", Part(kOne, 0, 102), {}, 102},
                    StreamCase{"GarbageAloneStaysUntilAFrameCouldBeThere", Bytes().Fill(102, 7), {}, 102},
                    StreamCase{"GarbageIsSearchedAndItsLastByteKept", Bytes().Fill(103, 7), {}, 1},
                    StreamCase{"HalfAStartMarkWaits", Bytes().Fill(102, 7).U8(0xAB), {}, 1},
                    StreamCase{"GarbageThenFrame", Bytes().Fill(5, 7).Add(kOne), {1}, 0},
                    StreamCase{"FirstMarkByteThenFrame", Bytes().U8(0xAB).Add(kOne), {1}, 0},
                    StreamCase{"ManyFirstMarkBytesThenFrame", Bytes().Fill(9000, 0xAB).Add(kOne), {1}, 0},
                    StreamCase{"GarbageEndsAtTheSearchWindow", Bytes().Fill(4095, 7).Add(kOne), {1}, 0},
                    StreamCase{"GarbageEndsBehindTheSearchWindow", Bytes().Fill(4096, 7).Add(kOne), {1}, 0},
                    StreamCase{"TwoFrames", Bytes().Add(kOne).Add(kTwo), {1, 2}, 0},
                    StreamCase{"TailStays", Bytes().Add(kOne).Add(Part(kTwo, 0, 50)), {1}, 50},
                    StreamCase{"BadCrcCostsItsFrame", Bytes().Add(Bad(kOne)).Add(kTwo), {2}, 0},
                    StreamCase{"FalseMarkEatsTheFrameBehindIt", Bytes().U8(0xAB).U8(0xCD).Fill(3, 7).Add(kOne), {}, 5},
                    StreamCase{"AndTheNextIsFound", Bytes().U8(0xAB).U8(0xCD).Add(kOne).Add(kTwo), {2}, 0}),
    [](const auto& row) { return row.param.name; });

TEST(PacketParser, SearchHeaderStopsAtTheMarkOrBelowTwoBytes) {
  const std::vector<std::pair<std::vector<char>, std::size_t>> rows = {
      {{}, 0},
      {Bytes().U8(7), 1},
      {Bytes().U8(0xAB), 1},
      {Bytes().U8(7).U8(8), 1},
      {Bytes().U8(0xAB).U8(0xAB).U8(0xCD), 2},
      {Bytes().U8(0xAB).U8(0xCD), 2},
      {Bytes().Fill(20000, 0xCD).U8(0xAB).U8(0xCD).U8(1), 3},
      {Bytes().Fill(20000, 0xAB), 1}};
  for (const auto& [bytes, left] : rows) {
    PacketParser parser(1);
    parser.Push(bytes);
    parser.SearchHeader();
    EXPECT_EQ(parser.buffer.size(), left);
  }
}

TEST(PacketParser, AnySplitOfAStreamGivesTheSamePackets) {
  std::mt19937 random(20);
  for (int round = 0; round < 40; ++round) {
    const int n = static_cast<int>(random() % 4);
    std::vector<char> stream;
    std::vector<unsigned> expected;
    for (unsigned stamp = 0; stamp < 30; ++stamp) {
      const std::vector<char> frame = StatusFrame(n, stamp, 0, stamp);
      const bool bad = random() % 4 == 0;
      const auto garbage = random() % 3 == 0 ? random() % 6000 : 0;
      stream.insert(stream.end(), garbage, 'x');
      const std::vector<char> sent = bad ? Bad(frame) : frame;
      stream.insert(stream.end(), sent.begin(), sent.end());
      if (!bad) expected.push_back(stamp);
    }
    PacketParser parser(n);
    velta::test::ScriptedClient client(n);  // its receive step cuts frames by a shorter way
    std::vector<unsigned> got;
    for (std::size_t at = 0; at < stream.size();) {
      const std::size_t piece = std::min<std::size_t>(1 + random() % (round % 2 == 0 ? 7 : 3000), stream.size() - at);
      parser.Push(Part(stream, at, piece));
      client.link->reads.push_back(Part(stream, at, piece));
      client.ReceiveStatus();
      at += piece;
      if (random() % 2 == 0 || at == stream.size()) {
        for (const unsigned stamp : Stamps(parser.Parse())) got.push_back(stamp);
      }
    }
    EXPECT_EQ(got, expected) << "round " << round << ", n " << n;
    EXPECT_EQ(Stamps(client.GetCurStatePacket()), expected) << "round " << round << ", n " << n;
  }
}

TEST(PacketParser, NegativeJointCountNeverCompletesAFrame) {
  PacketParser parser(-1);
  parser.Push(StatusFrame(1, 1));
  EXPECT_TRUE(parser.Parse().empty());
  EXPECT_EQ(parser.buffer.size(), 103u);
}

}  // namespace
