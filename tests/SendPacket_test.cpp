// SPDX-License-Identifier: MIT
#include "SendPacket.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>

#include "support/bytes.h"

namespace {

using namespace std::string_literals;
using velta::test::Bytes;
using Data = std::vector<char>;
using Command = std::array<float, 5>;  // order, value1 to value4

Command CommandOf(const SendPacket& p, std::size_t joint) {
  const txJoint_t& j = p.joints.at(joint);
  return {static_cast<float>(j.order), j.value1, j.value2, j.value3, j.value4};
}

TEST(SendPacket, IsIdleAndStampedAfterConstruction) {
  const SendPacket p(300);
  EXPECT_LE(p.GetTimeStamp(), GetNowTimeStamp());
  EXPECT_EQ(p.header.armOrder, 0);
  EXPECT_FALSE(p.GetConfirmReceived() || p.IsUnique());
  EXPECT_EQ(p.GetUniqueKey(), "");
  ASSERT_EQ(p.joints.size(), 300u);
  for (std::size_t i = 0; i < 300; ++i) {
    EXPECT_EQ(p.joints[i].id, i & 0xFF);
    EXPECT_EQ(CommandOf(p, i), Command{});
  }
}

TEST(SendPacket, SizesFollowTheJointCount) {
  constexpr int kLowest = std::numeric_limits<int>::min();
  const std::vector<std::array<int, 3>> rows = {
      {0, 0, 13}, {1, 18, 31}, {6, 108, 121}, {-1, -18, -5}, {3641, 65538, 65551}, {kLowest, -0x7fffffff, -0x7fffffff}};
  for (const auto& [n, data, packet] : rows) {
    const SendPacket p(n);
    EXPECT_EQ((std::array{p.jointNum, p.headerSize, p.GetDataSize(), p.GetPacketSize()}),
              (std::array{n, 11, data, packet}));
    EXPECT_EQ(p.GetCharVector().size(), packet < 0 ? 13u : static_cast<unsigned>(packet));
  }
}

TEST(SendPacket, CrcLengthOfHugeFramesIsCutTo16Bits) {
  const Data frame = SendPacket(3641).GetCharVector();  // 65,549 bytes before the CRC
  EXPECT_EQ(Data(frame.begin() + 65549, frame.end()),
            static_cast<const Data&>(Bytes().U16(velta::test::BitwiseCrc16(frame, 13))));
}

TEST(SendPacket, CopiesAreEqualAndMovesLeaveAPacketWithoutJoints) {
  SendPacket p(3);
  p.SetServoOn("all");
  p.SetConfirmReceived(true);
  p.SetIsUnique(true);
  p.SetUniqueKey("k");
  const Data frame = p.GetCharVector();
  SendPacket copy(p), assigned(5);
  SendPacket moved(std::move(copy));
  EXPECT_EQ(moved.GetCharVector(), frame);
  assigned = std::move(moved);
  EXPECT_EQ(assigned.GetCharVector(), frame);
  EXPECT_TRUE(assigned.GetConfirmReceived() && assigned.IsUnique());
  EXPECT_EQ(assigned.GetUniqueKey(), "k");
  EXPECT_EQ(assigned.GetPacketSize(), 67);
  for (SendPacket* left : {&copy, &moved}) {
    left->SetServoOn("0");  // takes no command
    EXPECT_EQ((std::array{left->jointNum, left->GetDataSize(), left->GetPacketSize()}), (std::array{0, 0, 13}));
    EXPECT_EQ(left->GetCharVector().size(), 13u);
  }
}

TEST(SendPacket, ReadsIdStrings) {
  // clang-format off
  const std::vector<std::pair<std::string, std::vector<int>>> rows = {
      {"all", {0, 1, 2, 3, 4, 5}}, {"0/2/5", {0, 2, 5}}, {"5/0", {5, 0}}, {"2/2", {2, 2}}, {"1/x/3", {1, 3}}, {"6", {}},
      {"-1", {}}, {"", {}}, {"All", {}}, {" all", {}}, {"all/", {}}, {"1//2", {1, 2}}, {"1/", {1}}, {"/1", {1}},
      {" \t\n\v\f\r3", {3}}, {"2a", {2}}, {"a2", {}}, {"1-3", {1}}, {"+4", {4}}, {"-0", {0}}, {"-", {}}, {"+ 1", {}},
      {"2147483648/1", {1}}, {"-2147483649/1", {1}}, {"99999999999999999999/2", {2}}, {"4294967297", {}}, {"00005", {5}},
      {"0x1", {0}}, {"1.9", {1}}, {"1\0/2"s, {1, 2}}, {"\0001/2"s, {2}}, {std::string(1 << 20, '/') + "3", {3}},
      {"0000000000003", {3}}};
  // clang-format on
  for (const auto& [ids, joints] : rows) EXPECT_EQ(SendPacket(6).ParseIDString(ids), joints) << ids.substr(0, 40);
  EXPECT_TRUE(SendPacket(-3).ParseIDString("all/0").empty());
}

TEST(SendPacket, SkipsInvalidJointsAndValueNumbers) {
  SendPacket p(2);
  for (const int id : {-1, 2}) EXPECT_FALSE(p.IsValidID(id));
  for (const int n : {0, 5}) {
    EXPECT_FALSE(p.IsValidValueNum(n));
    p.SetValue(1, n, 9);
  }
  for (int n = 1; n <= 4; ++n) p.SetValue({-1, 1, 2}, n, static_cast<float>(n));
  p.SetJointOrder({-1, 1, 2}, ePacketOrder::BrakeOn);
  EXPECT_EQ(CommandOf(p, 1), (Command{0xC1, 1, 2, 3, 4}));
  EXPECT_EQ(CommandOf(p, 0), Command{});
}

// The codes are held by the programs' tests, against docs/codes.md.
TEST(NamedSetter, OverwritesTheNamedJointsAndSetDynamicsDropsItsFourthValue) {
  SendPacket p(4);
  p.SetCommonCommand("all", 0xEE, 9, 9, 9, 9);
  p.SetDynamics("1/3", 1, 2, 3, 4);
  for (const std::size_t named : {1u, 3u}) {
    EXPECT_EQ(CommandOf(p, named - 1), (Command{0xEE, 9, 9, 9, 9}));
    EXPECT_EQ(CommandOf(p, named), (Command{0x20, 1, 2, 3, 0}));
  }
  EXPECT_EQ(p.header.armOrder, 0);
}

TEST(ArmSetter, WritesCodeAndTheNamedSlotsOfJoint0) {
  SendPacket p(2), none(0);
  p.SetServoOn("0");
  const auto expect = [&](int arm_order, const Command& command) {
    EXPECT_EQ(p.header.armOrder, arm_order);
    EXPECT_EQ(CommandOf(p, 0), command);
    EXPECT_EQ(CommandOf(p, 1), Command{});
  };
  p.SetPayload(9, 8, 7, 6);
  expect(0xA0, {0xA2, 9, 8, 7, 6});
  p.SetPayloadInertiaTensorDiagonal(1, 2, 3);
  expect(0xA1, {0xA2, 1, 2, 3, 6});
  p.SetPayloadInertiaTensorTriangle(4, 5, 0);
  expect(0xA2, {0xA2, 4, 5, 0, 6});
  p.SetGripperMaxEffort(7);
  expect(0xB0, {0xA2, 7, 5, 0, 6});
  none.SetPayload(1, 2, 3, 4);
  EXPECT_EQ(none.header.armOrder, 0xA0);
}

}  // namespace
