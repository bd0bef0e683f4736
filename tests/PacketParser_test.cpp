// SPDX-License-Identifier: MIT
// Any splits of any streams are a fuzz target's matter; here stand the rules that it shares with no model.
#include "PacketParser.h"

#include <gtest/gtest.h>

#include "support/bytes.h"

namespace {

using velta::test::Bytes;
using Data = std::vector<char>;

const Data kOne = velta::test::StatusFrame(1, 1);  // 103 bytes
const Data kTwo = velta::test::StatusFrame(1, 2);

TEST(PacketParser, GivesTheWholeGoodFramesAndKeepsTheRest) {
  struct Row {
    const char* name;
    Data stream;
    std::vector<unsigned> stamps;
    std::size_t left;  ///< bytes that stay buffered
  };
  const std::vector<Row> rows = {
      {"GarbageWaitsUntilAFrameCouldBeThere", Bytes().Fill(102, 7), {}, 102},
      {"GarbageIsSearchedAndItsLastByteKept", Bytes().Fill(103, 7), {}, 1},
      {"HalfAStartMarkWaits", Bytes().Fill(102, 7).U8(0xAB), {}, 1},
      {"TailStays", Bytes().Add(kOne).Add({kTwo.begin(), kTwo.begin() + 50}), {1}, 50},
      {"FalseMarkEatsTheFrameAfterIt", Bytes().U8(0xAB).U8(0xCD).Fill(3, 7).Add(kOne), {}, 5},
      {"AndTheNextIsFound", Bytes().U8(0xAB).U8(0xCD).Add(kOne).Add(kTwo), {2}, 0}};
  for (const Row& row : rows) {
    PacketParser parser(1);
    EXPECT_EQ(parser.Push(row.stream), 0);
    const PacketParser copy(parser);
    std::vector<unsigned> stamps;
    for (const RecvPacket& p : parser.Parse()) stamps.push_back(static_cast<unsigned>(p.header.timestamp));
    EXPECT_EQ(stamps, row.stamps) << row.name;
    EXPECT_EQ(parser.buffer.size(), row.left) << row.name;
    EXPECT_EQ(parser.state, 0);
    EXPECT_EQ(copy.buffer.size(), row.stream.size());
  }
}

TEST(PacketParser, SearchHeaderStopsAtTheMarkOrBelowTwoBytes) {
  const std::vector<std::pair<Data, std::size_t>> rows = {{{}, 0},
                                                          {Bytes().U8(7), 1},
                                                          {Bytes().U8(7).U8(8), 1},
                                                          {Bytes().U8(0xAB).U8(0xAB).U8(0xCD), 2},
                                                          {Bytes().Fill(2000, 0xCD).U8(0xAB).U8(0xCD).U8(1), 3},
                                                          {Bytes().Fill(2000, 0xAB), 1}};
  for (const auto& [bytes, left] : rows) {
    PacketParser parser(1);
    parser.Push(bytes);
    parser.SearchHeader();
    EXPECT_EQ(parser.buffer.size(), left);
  }
}

TEST(PacketParser, GarbageLeavesNoRoomReserved) {
  PacketParser parser(1);
  parser.Push(Data(1 << 20, 'x'));
  EXPECT_EQ(parser.Parse().capacity(), 0u);
}

}  // namespace
