// SPDX-License-Identifier: MIT
// The frames, byte by byte: checksum, command packet, status packet, framer, and the conversions of numbers to text.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <ctime>
#include <functional>
#include <limits>
#include <random>
#include <type_traits>
#include <utility>

#include "PacketParser.h"
#include "RecvPacket.h"
#include "SendPacket.h"
#include "crc16.h"
#include "support/bytes.h"
#include "support/scripted_link.h"
#include "text.h"

namespace {

using namespace velta::detail;
using namespace std::string_literals;
using velta::test::BitwiseCrc16;
using velta::test::Bytes;
using velta::test::StatusFrame;
using Data = std::vector<char>;
using Command = std::array<float, 5>;  // order, value1 to value4

template <typename Packet>
constexpr bool kMoves = std::is_nothrow_move_constructible_v<Packet>&& std::is_nothrow_move_assignable_v<Packet>;
static_assert(kMoves<SendPacket> && kMoves<RecvPacket>);

const unsigned char* Raw(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

Command CommandOf(const SendPacket& p, std::size_t joint) {
  const txJoint_t& j = p.joints.at(joint);
  return {static_cast<float>(j.order), j.value1, j.value2, j.value3, j.value4};
}

Data Part(const Data& frame, std::size_t from, std::size_t count) {
  return {frame.begin() + static_cast<std::ptrdiff_t>(from), frame.begin() + static_cast<std::ptrdiff_t>(from + count)};
}

Data Flip(Data frame, std::size_t at) {
  frame[at] = static_cast<char>(frame[at] ^ 1);
  return frame;
}

TEST(CalcCrc16, HasThePublishedCheckValue) { EXPECT_EQ(CalcCrc16(Raw("123456789"), 9), 0xB4C8); }

TEST(CalcCrc16, OfNothingIsZero) { EXPECT_EQ(CalcCrc16(nullptr, 0), 0); }

TEST(CalcCrc16, AgreesWithTheBitwiseDefinitionInEveryWayAtEveryLengthAndAlignment) {
  std::mt19937 random(1);
  Data bytes(65535 + 16);
  for (char& b : bytes) b = static_cast<char>(random());
  const auto check = [&](std::size_t length, std::size_t at) {
    const unsigned char* const data = Raw(bytes.data() + at);
    const unsigned expected = BitwiseCrc16(Part(bytes, at, length), length);
    ASSERT_EQ(Crc16Sliced(data, length), expected) << length;
    ASSERT_EQ(CalcCrc16(data, static_cast<unsigned short>(length)), expected) << length;
    const bool folds = length >= kCrc16FoldFrom && Crc16CanFold();
    ASSERT_EQ(folds ? Crc16Folded(data, length) : expected, expected) << length;
  };
  for (std::size_t length = 0; length <= 4096; ++length) check(length, length * 7 % 16);
  for (std::size_t length = 0; length <= 200; ++length) {
    for (std::size_t at = 0; at < 16; ++at) check(length, at);
  }
  check(65535, 3);
}

TEST(GetNowTimeStamp, CountsNanosecondsSinceTheEpoch) {
  timespec before{};
  clock_gettime(CLOCK_REALTIME, &before);
  const unsigned long stamp = GetNowTimeStamp();
  const auto ns = static_cast<unsigned long>(before.tv_sec) * 1000000000UL + static_cast<unsigned long>(before.tv_nsec);
  EXPECT_LT(stamp - ns, 10000000000UL);
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
  EXPECT_EQ(Part(frame, 65549, 2), static_cast<const Data&>(Bytes().U16(BitwiseCrc16(frame, 13))));
}

TEST(SendPacket, CopiesAreEqualAndMovesLeaveNothingBehind) {
  SendPacket p(3);
  p.SetServoOn("all");
  p.SetConfirmReceived(true);
  p.SetIsUnique(true);
  p.SetUniqueKey("k");
  const Data frame = p.GetCharVector();
  SendPacket copy(p);
  SendPacket moved(std::move(copy));
  EXPECT_EQ(moved.GetCharVector(), frame);
  copy.SetServoOn("0");  // NOLINT(bugprone-use-after-move): a packet without joints takes no command
  EXPECT_EQ(copy.GetCharVector().size(), 13u);
  SendPacket assigned(1);
  assigned = std::move(moved);
  EXPECT_EQ(assigned.GetCharVector(), frame);
  EXPECT_TRUE(assigned.GetConfirmReceived() && assigned.IsUnique());
  EXPECT_EQ(assigned.GetUniqueKey(), "k");
  EXPECT_EQ(assigned.GetPacketSize(), 67);
}

TEST(SendPacket, ReadsIdStrings) {
  // clang-format off
  const std::vector<std::pair<std::string, std::vector<int>>> rows = {
      {"all", {0, 1, 2, 3, 4, 5}}, {"0/2/5", {0, 2, 5}}, {"5/0", {5, 0}}, {"2/2", {2, 2}}, {"1/x/3", {1, 3}}, {"6", {}},
      {"-1", {}}, {"", {}}, {"All", {}}, {" all", {}}, {"all/", {}}, {"1//2", {1, 2}}, {"1/", {1}}, {"/1", {1}},
      {" \t\n\v\f\r3", {3}}, {"2a", {2}}, {"a2", {}}, {"1-3", {1}}, {"+4", {4}}, {"-0", {0}}, {"-", {}}, {"+ 1", {}},
      {"2147483648/1", {1}}, {"-2147483649/1", {1}}, {"99999999999999999999/2", {2}}, {"4294967297", {}}, {"00005", {5}},
      {"0x1", {0}}, {"1.9", {1}}, {"1\0/2"s, {1, 2}}, {"\0001/2"s, {2}}, {std::string(1 << 20, '/') + "3", {3}}};
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
  p.SetPayload(9, 8, 7, 6), expect(0xA0, {0xA2, 9, 8, 7, 6});
  p.SetPayloadInertiaTensorDiagonal(1, 2, 3), expect(0xA1, {0xA2, 1, 2, 3, 6});
  p.SetPayloadInertiaTensorTriangle(4, 5, 0), expect(0xA2, {0xA2, 4, 5, 0, 6});
  p.SetGripperMaxEffort(7), expect(0xB0, {0xA2, 7, 5, 0, 6});
  none.SetPayload(1, 2, 3, 4);
  EXPECT_EQ(none.header.armOrder, 0xA0);
}

TEST(RecvPacket, IsAllZeroAfterConstruction) {
  const RecvPacket p(6);
  EXPECT_EQ((std::array{p.headerSize, p.GetDataSize(), p.GetPacketSize()}), (std::array{22, 474, 498}));
  const rxHeader_t header{};
  const rxJoint_t zero{};
  EXPECT_EQ(std::memcmp(&p.header, &header, sizeof header), 0);
  ASSERT_EQ(p.joints.size(), 6u);
  for (const rxJoint_t& joint : p.joints) EXPECT_EQ(std::memcmp(&joint, &zero, sizeof zero), 0);
  EXPECT_TRUE(RecvPacket(-1).joints.empty());
}

TEST(RecvPacket, ParsesEveryFieldFromItsPlaceInTheFrame) {
  Bytes frame;
  frame.U8(0x12).U8(0x34).U64(0x0102030405060708).U64(0xFFFFFFFFFFFFFFFE).F32(0.25f);  // a start mark is not checked
  frame.Fill(79, 0);
  frame.U8(1).U8(2).U8(3).U8(4).U32(0xDEADBEEF).U8(5).U16(0xFFFE);
  for (int i = 0; i < 17; ++i) frame.F32(static_cast<float>(i) + 0.5f);
  RecvPacket p(2);
  ASSERT_TRUE(p.Parse(frame.Crc()));
  EXPECT_EQ(p.header.startMark[0], 0x12);
  EXPECT_EQ(+p.header.timestamp, 0x0102030405060708u);
  EXPECT_EQ(+p.header.hostTimestamp, 0xFFFFFFFFFFFFFFFEu);
  EXPECT_EQ(+p.header.duration, 0.25f);
  EXPECT_EQ(+p.joints[0].position, 0.0f);
  const rxJoint_t j = p.joints[1];
  EXPECT_EQ(
      (std::array<unsigned, 7>{j.type, j.comStatus, j.systemMode, j.ctrlMode, j.ewStatus, j.trjStatus, j.trjViaRemain}),
      (std::array<unsigned, 7>{1, 2, 3, 4, 0xDEADBEEF, 5, 0xFFFE}));
  // clang-format off
  const float floats[] = {j.refCurrent, j.refPosition, j.refVelocity, j.refAcceleration, j.refEffort, j.current,
                          j.position, j.velocity, j.outConvInVelocity, j.acceleration, j.outConvInAcceleration,
                          j.effort, j.temperature, j.general[0], j.general[1], j.general[2], j.general[3]};
  // clang-format on
  for (int i = 0; i < 17; ++i) EXPECT_EQ(floats[i], static_cast<float>(i) + 0.5f) << i;
}

TEST(RecvPacket, WrongSizeLeavesItUntouchedAndWrongCrcOverwritesIt) {
  RecvPacket p(6);
  ASSERT_TRUE(p.Parse(StatusFrame(6, 7)));
  const Data frame = StatusFrame(6, 8);
  for (const Data& other : {StatusFrame(5, 8), StatusFrame(7, 8), Part(frame, 0, 497), Data{}})
    EXPECT_FALSE(p.Parse(other));
  EXPECT_EQ(+p.header.timestamp, 7u);
  EXPECT_FALSE(p.Parse(Flip(frame, 22)));
  EXPECT_EQ(+p.header.timestamp, 8u);
  EXPECT_EQ(p.joints[0].type, 1);
  for (const std::size_t crc_byte : {496u, 497u}) EXPECT_FALSE(p.Parse(Flip(frame, crc_byte)));
}

TEST(RecvPacket, JointCountsAtTheEdges) {
  EXPECT_TRUE(RecvPacket(0).Parse(StatusFrame(0, 1)));
  EXPECT_FALSE(RecvPacket(-1).Parse({}));
  EXPECT_FALSE(RecvPacket(-1).Parse(StatusFrame(0, 1)));
  RecvPacket wrapped(830);  // 65,592 bytes before the CRC: the CRC covers the first 56 alone
  EXPECT_TRUE(wrapped.Parse(Flip(StatusFrame(830, 1), 56)));
  EXPECT_FALSE(wrapped.Parse(Flip(StatusFrame(830, 1), 55)));
}

std::vector<unsigned> Stamps(const std::vector<RecvPacket>& packets) {
  std::vector<unsigned> stamps;
  for (const RecvPacket& p : packets) stamps.push_back(static_cast<unsigned>(p.header.timestamp));
  return stamps;
}

const Data kOne = StatusFrame(1, 1);  // 103 bytes
const Data kTwo = StatusFrame(1, 2);

TEST(Stream, GivesTheWholeGoodFrames) {
  struct Row {
    const char* name;
    Data stream;
    std::vector<unsigned> stamps;
    std::size_t left;  // bytes that stay buffered
  };
  const std::vector<Row> rows = {
      {"Nothing", {}, {}, 0},
      {"OneByteShort", Part(kOne, 0, 102), {}, 102},
      {"GarbageAloneStaysUntilAFrameCouldBeThere", Bytes().Fill(102, 7), {}, 102},
      {"GarbageIsSearchedAndItsLastByteKept", Bytes().Fill(103, 7), {}, 1},
      {"HalfAStartMarkWaits", Bytes().Fill(102, 7).U8(0xAB), {}, 1},
      {"GarbageThenFrame", Bytes().Fill(5, 7).Add(kOne), {1}, 0},
      {"FirstMarkByteThenFrame", Bytes().U8(0xAB).Add(kOne), {1}, 0},
      {"ManyFirstMarkBytesThenFrame", Bytes().Fill(9000, 0xAB).Add(kOne), {1}, 0},
      {"TwoFrames", Bytes().Add(kOne).Add(kTwo), {1, 2}, 0},
      {"TailStays", Bytes().Add(kOne).Add(Part(kTwo, 0, 50)), {1}, 50},
      {"BadCrcCostsItsFrame", Bytes().Add(Flip(kOne, 102)).Add(kTwo), {2}, 0},
      {"FalseMarkEatsTheFrameBehindIt", Bytes().U8(0xAB).U8(0xCD).Fill(3, 7).Add(kOne), {}, 5},
      {"AndTheNextIsFound", Bytes().U8(0xAB).U8(0xCD).Add(kOne).Add(kTwo), {2}, 0}};
  for (const Row& row : rows) {
    PacketParser parser(1);
    EXPECT_EQ(parser.Push(row.stream), 0);
    EXPECT_EQ(Stamps(parser.Parse()), row.stamps) << row.name;
    EXPECT_EQ(parser.buffer.size(), row.left) << row.name;
    EXPECT_EQ(parser.state, 0);
  }
}

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
    SCOPED_TRACE(n);
    Data stream;
    std::vector<unsigned> expected, got;
    for (unsigned stamp = 0; stamp < 30; ++stamp) {
      Data frame = StatusFrame(n, stamp, 0, stamp);
      if (random() % 4 == 0) {
        frame = Flip(frame, frame.size() - 1);
      } else {
        expected.push_back(stamp);
      }
      stream.insert(stream.end(), random() % 3 == 0 ? random() % 6000 : 0, 'x');
      stream.insert(stream.end(), frame.begin(), frame.end());
    }
    PacketParser parser(n);
    velta::test::ScriptedClient client(n);  // its receive step cuts frames by a shorter way
    for (std::size_t at = 0; at < stream.size();) {
      const std::size_t piece = std::min<std::size_t>(1 + random() % (round % 2 == 0 ? 7 : 3000), stream.size() - at);
      parser.Push(Part(stream, at, piece));
      client.link->reads.push_back(Part(stream, at, piece));
      client.ReceiveStatus();
      at += piece;
      if (random() % 2 != 0 && at != stream.size()) continue;
      for (const unsigned stamp : Stamps(parser.Parse())) got.push_back(stamp);
    }
    EXPECT_EQ(got, expected);
    EXPECT_EQ(Stamps(client.GetCurStatePacket()), expected);
  }
}

TEST(PacketParser, NegativeJointCountNeverCompletesAFrame) {
  PacketParser parser(-1);
  parser.Push(kOne);
  EXPECT_TRUE(parser.Parse().empty());
  EXPECT_EQ(parser.buffer.size(), 103u);
}

TEST(AssignFixed, IsPrintfsTextForEveryKindOfFloat) {
  const auto check = [](float value) {
    char expected[64];
    std::snprintf(expected, sizeof expected, "%f", static_cast<double>(value));
    std::string text = "leftover";
    AssignFixed(text, value);
    ASSERT_EQ(text, expected);
  };
  // clang-format off
  for (const float v : {0.0f, -0.0f, 1.0f, -12.5f, 4e-7f, 5e-7f, 1e10f, 1e-45f, FLT_MAX, -FLT_MAX, FLT_MIN, INFINITY,
                        -INFINITY, NAN, -NAN, 1.0f / 3, 1099511627776.0f, 1099511500000.0f, 0.00000095367431640625f,
                        0.000001430511474609375f, 999999.96f}) check(v);
  // clang-format on
  for (int k = 1; k < 30; ++k) check(std::ldexp(3.0f, -k));  // ties among them
  for (int k = 1; k < 4096; k += 2) check(std::ldexp(static_cast<float>(k), -21));
  std::mt19937 random(3);
  for (int i = 0; i < 200000; ++i) {
    const auto bits = static_cast<std::uint32_t>(random());
    float value = 0;
    std::memcpy(&value, &bits, sizeof value);
    check(value);
  }
}

TEST(ParseInt32, StopsAtTheRangeOf32Bits) {
  EXPECT_EQ(ParseInt32("2147483647"), 2147483647);
  EXPECT_EQ(ParseInt32("-2147483648x"), -2147483647 - 1);
  EXPECT_EQ(ParseInt32("0000000000000000000012"), 12);
  for (const char* text : {"2147483648", "-2147483649", "99999999999999999999999", "", " ", "+", "x1"}) {
    EXPECT_EQ(ParseInt32(text), std::nullopt) << text;
  }
}

TEST(ParseFloat, ReadsWhatStrtofReadsAndRefusesWhatAFloatCannotHold) {
  const std::vector<std::pair<std::string, float>> rows = {
      {" \t-1.5abc", -1.5f}, {"0x1p-1", 0.5f},          {"1,5", 1},
      {"-inf", -INFINITY},   {"3.4028235e38", FLT_MAX}, {"1\0e5"s, 1}};
  for (const auto& [text, value] : rows) {
    EXPECT_EQ(ParseFloat(text), value) << text;
  }
  EXPECT_TRUE(std::isnan(ParseFloat("nan").value()));
  for (const char* text : {"", " ", "abc", "-", ".", "3.5e38", "-1e999", "1e-50", "1e-40"}) {
    EXPECT_EQ(ParseFloat(text), std::nullopt) << text;
  }
}

}  // namespace
