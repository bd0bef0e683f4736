// SPDX-License-Identifier: MIT
#include "SendPacket.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
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
  const unsigned long before = GetNowTimeStamp();
  const SendPacket p(300);
  EXPECT_LE(p.GetTimeStamp() - before, GetNowTimeStamp() - before);
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

TEST(SendPacket, SerialisesToTheExactFrame) {
  SendPacket p(2);
  p.SetTimeStamp(0x1122334455667788);
  p.SetArmOrder(0x3B0);  // cut to 8 bits
  p.SetCommonCommand("1", ePacketOrder::RefPosition, 1.5f, -2, 0, 1e10f);
  Bytes frame;
  frame.U8(0xAB).U8(0xCD).U64(0x1122334455667788).U8(0xB0);
  frame.U8(0).U8(0).Fill(16, 0);
  frame.U8(1).U8(0x11).F32(1.5f).F32(-2).F32(0).F32(1e10f).Crc();
  EXPECT_EQ(p.GetCharVector(), static_cast<const Data&>(frame));
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
  const Data idle = p.GetCharVector();
  for (const int id : {-1, 2, 1000}) {
    EXPECT_FALSE(p.IsValidID(id));
    p.SetValue(id, 1, 9);
    p.SetJointOrder(id, ePacketOrder::Reset);
  }
  for (const int n : {0, 5, -1}) {
    EXPECT_FALSE(p.IsValidValueNum(n));
    p.SetValue(0, n, 9);
  }
  p.SetServoOn("2/x/-1");
  EXPECT_EQ(p.GetCharVector(), idle);
  for (int n = 1; n <= 4; ++n) p.SetValue({-1, 1, 7}, n, static_cast<float>(n));
  p.SetJointOrder({1, 9}, ePacketOrder::BrakeOn);
  EXPECT_EQ(CommandOf(p, 1), (Command{0xC1, 1, 2, 3, 4}));
  EXPECT_EQ(CommandOf(p, 0), Command{});
}

TEST(NamedSetter, WritesCodeAndFourValuesOfTheNamedJointsOnly) {
  struct Row {
    const char* setter;
    std::function<void(SendPacket&, const std::string&)> set;
    Command command;
  };
  // clang-format off
#define ROW(setter, ...) {#setter, [](SendPacket& p, const std::string& ids) { p.setter; }, {__VA_ARGS__}}
  const std::vector<Row> rows = {
      ROW(SetReset(ids), 0xA0), ROW(SetServoOff(ids), 0xA1), ROW(SetServoOn(ids), 0xA2), ROW(SetBrakeOff(ids), 0xC0),
      ROW(SetBrakeOn(ids), 0xC1), ROW(SetControlMode(ids, 33), 0xA3, 33), ROW(SetPositionControlMode(ids), 0xA3, 20),
      ROW(SetVelocityControlMode(ids), 0xA3, 1), ROW(SetCurrentControlMode(ids), 0xA3, 2),
      ROW(SetExternalForceFollowingControlMode(ids), 0xA3, 5), ROW(SetTrajectoryControlMode(ids), 0xA3, 0),
      ROW(SetOnlineTrajectoryControlMode(ids), 0xA3, 7), ROW(SetRotationFixedControlMode(ids), 0xA3, 10),
      ROW(SetGetSlaveEffortOffset(ids), 0xAB), ROW(SetParamKp(ids, 1), 0xB0, 1), ROW(SetParamKi(ids, 1), 0xB1, 1),
      ROW(SetParamKd(ids, 1), 0xB2, 1), ROW(SetParamWindupLimit(ids, 1), 0xB3, 1),
      ROW(SetParamVelocityOverride(ids, 1), 0xBA, 1), ROW(SetParamVelocityMax(ids, 1), 0xBB, 1),
      ROW(SetParamAccelerationMax(ids, 1), 0xBC, 1), ROW(SetParamJerkMax(ids, 1), 0xBD, 1),
      ROW(SetParamExtFFOnTrajSoftnessOverride(ids, 1), 0xBF, 80, 1), ROW(SetArbitraryParam(ids, 7, 1), 0xBF, 7, 1),
      ROW(SetRefCurrent(ids, 1), 0x10, 1), ROW(SetRefPosition(ids, 1), 0x11, 1), ROW(SetRefVelocity(ids, 1), 0x12, 1),
      ROW(SetRefPositionVelocity(ids, 1, 2), 0x1A, 1, 2),
      ROW(SetRefPositionVelocityAcceleration(ids, 1, 2, 3), 0x1B, 1, 2, 3),
      ROW(SetDynamics(ids, 1, 2, 3, 4), 0x20, 1, 2, 3, 0), ROW(SetTrajectoryViaClear(ids), 0x30),
      ROW(SetTrajectoryControlStart(ids), 0x35), ROW(SetTrajectoryControlCancel(ids), 0x36),
      ROW(SetTrajectoryP_DoubleS(ids, 1), 0x50, 1), ROW(SetTrajectoryPT_LinSpline(ids, 1, 2, true), 0x3A, 1, 2),
      ROW(SetTrajectoryPT_LinSpline(ids, 1, 2, false), 0x4A, 1, 2),
      ROW(SetTrajectoryPT_Trapezoidal(ids, 1, 2, true), 0x3B, 1, 2),
      ROW(SetTrajectoryPT_Trapezoidal(ids, 1, 2, false), 0x4B, 1, 2),
      ROW(SetTrajectoryPT_DoubleS(ids, 1, 2, true), 0x3C, 1, 2),
      ROW(SetTrajectoryPT_DoubleS(ids, 1, 2, false), 0x4C, 1, 2),
      ROW(SetTrajectoryPVT(ids, 1, 2, 3, true), 0x3D, 1, 2, 3),
      ROW(SetTrajectoryPVT(ids, 1, 2, 3, false), 0x4D, 1, 2, 3),
      ROW(SetTrajectoryPVAT(ids, 1, 2, 3, 4, true), 0x3E, 1, 2, 3, 4),
      ROW(SetTrajectoryPVAT(ids, 1, 2, 3, 4, false), 0x4E, 1, 2, 3, 4), ROW(SetMoveHomePosition(ids), 0xD0),
      ROW(SetGeneralRegisterType(ids, 1, 2), 0xE0, 1, 2)};
#undef ROW
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.setter);
    SendPacket p(4);
    p.SetCommonCommand("all", 0xEE, 9, 9, 9, 9);
    row.set(p, "1/3");
    for (const std::size_t named : {1u, 3u}) {
      EXPECT_EQ(CommandOf(p, named - 1), (Command{0xEE, 9, 9, 9, 9}));
      EXPECT_EQ(CommandOf(p, named), row.command);
    }
    EXPECT_EQ(p.header.armOrder, 0);
  }
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
