// SPDX-License-Identifier: MIT
// Any splits of any streams are a fuzz target's matter; here stand the rules that it shares with no model.
#include "PacketParser.h"

#include <gtest/gtest.h>

#include "support/bytes.h"

namespace {

using velta::test::Bytes;
using Data = std::vector<char>;

TEST(PacketParser, BelowAFramesLengthNothingIsSearched) {
  PacketParser parser(1);
  EXPECT_EQ(parser.Push(Bytes().Fill(102, 7)), 0);
  EXPECT_TRUE(parser.Parse().empty());
  EXPECT_EQ(parser.buffer.size(), 102u);
  parser.Push(Bytes().U8(7));
  EXPECT_TRUE(parser.Parse().empty());
  EXPECT_EQ(parser.buffer.size(), 1u);  // which could be half a start mark
}

TEST(PacketParser, SearchHeaderStopsAtTheMarkOrBelowTwoBytes) {
  const std::pair<Data, std::size_t> rows[] = {
      {{}, 0}, {Bytes().U8(7).U8(8), 1}, {Bytes().Fill(9, 0xCD).U8(0xAB).U8(0xAB).U8(0xCD).U8(1), 3}};
  for (const auto& [bytes, left] : rows) {
    PacketParser parser(1);
    parser.Push(bytes);
    parser.SearchHeader();
    EXPECT_EQ(parser.buffer.size(), left);
  }
}

TEST(PacketParser, CopiesKeepTheBytesThatWait) {
  PacketParser parser(1);
  parser.Push(Bytes().Fill(5, 7));
  const PacketParser copy(parser);
  PacketParser assigned(2);
  assigned = copy;
  EXPECT_EQ(assigned.buffer, parser.buffer);
}

}  // namespace
