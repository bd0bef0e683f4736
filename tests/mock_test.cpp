// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "MasterControllerClientMock.h"
#include "support/capture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Waits for a condition, at most 5 s.
bool Eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 5000 && !condition(); ++i) std::this_thread::sleep_for(milliseconds(1));
  return condition();
}

/// A simulator whose state thread has ended: a test moves it on, one step at a time.
struct Stepped : MasterControllerClientMock {
  explicit Stepped(int n) : MasterControllerClientMock(n, 1) {
    is_running_ = false;
    EXPECT_TRUE(Eventually([this] { return is_thread_finished_.load(); }));
    cycle_ms_ = 125;  // 1/8 s: sums of it are exact
  }
  using MasterControllerClientMock::cur_send_packet_;
  using MasterControllerClientMock::ManageTrajState;
  using MasterControllerClientMock::ready_to_send_;
  using MasterControllerClientMock::recv_buffer_;
  using MasterControllerClientMock::traj_via_points_;
  using MasterControllerClientMock::TrajControlStart;
  using MasterControllerClientMock::wait_confirm_;

  void Order(int order, float v1 = 0, float v2 = 0, float v3 = 0, float v4 = 0, unsigned char joint = 0) {
    ParseJointOrder(joint, static_cast<unsigned char>(order), v1, v2, v3, v4);
  }
  rxJoint_t Joint(std::size_t i = 0) const { return inner_state_.joints[i]; }
  rxJoint_t& State(std::size_t i = 0) { return inner_state_.joints[i]; }
  rxHeader_t Header() const { return inner_state_.header; }
};

TEST(Simulator, StandsInForAConnectedClient) {
  Stepped sim(2);
  EXPECT_TRUE(sim.IsInit() && sim.IsConnected());
  EXPECT_FALSE(sim.Connect());
  EXPECT_EQ(velta::test::Printed([&] { EXPECT_FALSE(sim.ReConnect(2)); }),
            "[VELTA] Try to Re-Connect\n[VELTA] Try: 0...failed.\n[VELTA] Try: 1...failed.\n");
  for (int i = 1; i <= 5000; ++i) ASSERT_EQ(sim.ReceiveStatus(), i);  // no bound here
  EXPECT_EQ(sim.GetCurStatePacket().size(), 5000u);
  RecvPacket packet(2);
  packet.header.hostTimestamp = 77;
  sim.SetRecvBuffer(packet);
  EXPECT_EQ(+sim.GetLastRecvPacket().header.hostTimestamp, 77u);
  EXPECT_EQ(+sim.recv_buffer_.back().header.hostTimestamp, 77u);
}

SendPacket ServoOn(const std::string& ids, unsigned long stamp) {
  SendPacket p(2);
  p.SetServoOn(ids);
  p.SetTimeStamp(stamp);
  return p;
}

TEST(Simulator, InterpretsOneCommandPerStepWithoutTheGate) {
  Stepped sim(2);
  /// One step: the echo, and the modes of both joints.
  const auto step = [&] {
    sim.SendPacketInBuffer();
    return std::array<std::uint64_t, 3>{sim.Header().hostTimestamp, sim.Joint(0).systemMode, sim.Joint(1).systemMode};
  };
  using Seen = decltype(step());
  EXPECT_EQ(step(), (Seen{0, 0, 0}));
  SendPacket unique = ServoOn("", 1), queued = ServoOn("1", 2), arm = ServoOn("all", 3), named = ServoOn("0", 4);
  unique.SetUniqueKey("k");
  arm.SetPayload(1, 2, 3, 4);
  sim.InsertUniqueSendMap(unique);
  sim.PushSendQueue(queued, true);
  sim.PushSendQueue(arm, true);
  sim.CreateIndependentSendPacketBuffer("source");
  EXPECT_EQ(step(), (Seen{2, 0, 2}));
  EXPECT_TRUE(sim.ready_to_send_ && !sim.wait_confirm_);
  EXPECT_EQ(step(), (Seen{3, 0, 2}));  // an arm order hides the joint commands
  EXPECT_EQ(step(), (Seen{1, 0, 2}));
  EXPECT_EQ(step(), (Seen{1, 0, 2}));
  sim.PushBackIndependentSendBuffer(named, "source", true, false, "");
  const std::uint64_t merged = step()[0];
  EXPECT_EQ(merged, sim.cur_send_packet_.GetTimeStamp());
  EXPECT_EQ(step(), (Seen{merged, 2, 2}));
  sim.ReceiveStatus();
  EXPECT_EQ(+sim.GetLastRecvPacket().header.hostTimestamp, merged);
}

TEST(Simulator, SkipsRecordsThatItsArmDoesNotHave) {
  Stepped sim(1), empty(-1);
  SendPacket wide(300), none(0);
  wide.SetServoOn("all");
  wide.SetJointOrder(256, ePacketOrder::ServoOff);  // would be joint 0 if cut to 8 bits
  sim.ParseSendPacket(wide);
  EXPECT_EQ(sim.Joint().systemMode, 2);
  none.SetGripperMaxEffort(1);
  none.SetTimeStamp(9);
  sim.ParseSendPacket(none);
  EXPECT_EQ(+sim.Header().hostTimestamp, 9u);
  sim.Order(0xA2, 0, 0, 0, 0, 5);
  sim.TrajControlStart(5);
  empty.ParseSendPacket(wide);
  empty.ManageTrajState();
  EXPECT_EQ(empty.ReceiveStatus(), 1);
}

TEST(Simulator, SetsJointTypesByNumberAndName) {
  Stepped sim(3);
  for (const int joint : {3, 5, -1}) sim.SetJointType(joint, 9);
  sim.SetJointType(0, 9);
  EXPECT_EQ(sim.Joint(0).type, 9);
  const std::pair<const char*, int> rows[] = {
      {"gripper_revolute", 2}, {"gripper_Revolute", 2}, {"gripper_prismatic", 1}, {"", 1}, {"revolute", 0}};
  for (const auto& [name, type] : rows) {
    sim.SetJointType(2, name);
    EXPECT_EQ(sim.Joint(2).type, type) << name;
  }
}

/// A story of one simulator with two joints, in statements separated by ';':
///   A3 20      the order 0xA3 with value1 = 20 (up to four values) to the chosen joint
///   @1         chooses the joint (0 at first)
///   *50        50 cycles of 1/8 s
///   !ew=99     sets a field
///   ?pos=1.5   expects a field to be this; several may follow each other
void Play(const std::string& story) {
  Stepped sim(2);
  unsigned char joint = 0;
  std::istringstream statements(story);
  for (std::string statement; std::getline(statements, statement, ';');) {
    SCOPED_TRACE(statement);
    std::istringstream words(statement);
    std::vector<std::string> word{std::istream_iterator<std::string>(words), {}};
    rxJoint_t& state = sim.State(joint);
    const auto& points = sim.traj_via_points_[joint];
    const TrajViaPoint front = points.empty() ? TrajViaPoint(-1, -1, -1, -1) : points.front();
    // clang-format off
    const std::map<std::string, double> fields = {
        {"mode", state.systemMode}, {"ctrl", state.ctrlMode}, {"ew", +state.ewStatus}, {"trj", state.trjStatus},
        {"via", +state.trjViaRemain}, {"rcur", +state.refCurrent}, {"rpos", +state.refPosition},
        {"rvel", +state.refVelocity}, {"cur", +state.current}, {"pos", +state.position}, {"vel", +state.velocity},
        {"g0", +state.general[0]}, {"g1", +state.general[1]}, {"g2", +state.general[2]}, {"g3", +state.general[3]},
        {"queue", points.size()}, {"p", front.position}, {"v", front.velocity}, {"a", front.acceleration},
        {"t", front.time}, {"clock", +sim.Header().duration}};
    // clang-format on
    const char what = word[0][0];
    if (what == '@') joint = static_cast<unsigned char>(std::stoi(word[0].substr(1)));
    for (int i = what == '*' ? std::stoi(word[0].substr(1)) : 0; i > 0; --i) sim.ManageTrajState();
    for (const std::string& w : what == '!' || what == '?' ? word : std::vector<std::string>()) {
      const std::string key = w.substr(1, w.find('=') - 1);
      const double value = std::stod(w.substr(w.find('=') + 1));
      EXPECT_NEAR(w[0] == '?' ? fields.at(key) : value, value, 0.002) << w;
      if (w[0] == '!' && key == "ew") state.ewStatus = static_cast<std::uint32_t>(value);
      if (w[0] == '!' && key == "trj") state.trjStatus = static_cast<std::uint8_t>(value);
      if (w[0] == '!' && key == "via") state.trjViaRemain = static_cast<std::uint16_t>(value);
    }
    if (std::isxdigit(what) == 0) continue;
    std::array<float, 4> v{};
    for (std::size_t i = 1; i < word.size(); ++i) v.at(i - 1) = std::stof(word[i]);
    sim.Order(std::stoi(word[0], nullptr, 16), v[0], v[1], v[2], v[3], joint);
  }
}

// clang-format off
const char* const kStories[][2] = {
    {"CurrentReferenceInCurrentMode", "A3 2; 10 1.25; ?rcur=1.25 ?cur=1.25; 11 3; 12 3; ?pos=0 ?vel=0 ?queue=0"},
    {"PositionAndVelocityReferenceInPositionMode", "A3 20; 10 9; ?cur=0; 11 -45; ?rpos=-45 ?pos=-45 ?queue=0 ?trj=0; "
     "12 2.5; ?rvel=2.5 ?vel=2.5"},
    {"PositionReferenceQueuesInTrajectoryMode", "11 -45; ?pos=0 ?rpos=0 ?queue=1 ?p=-45 ?v=0 ?a=0 ?t=2.5 ?trj=109"},
    {"PositionReferenceQueuesInOnlineTrajectoryMode", "A3 7; A2; 11 90; ?queue=1 ?t=5 ?trj=1; 12 1; ?vel=0"},
    {"NoReferenceInVelocityMode", "A3 1; 10 9; 11 9; 12 9; ?cur=0 ?pos=0 ?vel=0 ?rvel=0 ?queue=0 ?trj=0"},
    {"DistanceIsMeasuredFromHere", "A3 20; 11 90; A3 0; 11 -90; ?t=10; 11 90; ?queue=2"},
    {"ModeNumbersAreTruncated", "A3 7.9; ?ctrl=7; A3 -1; ?ctrl=255; A3 300; ?ctrl=44; A3 -0.5; ?ctrl=0; A3 65537; "
     "?ctrl=1; A3 256.5; ?ctrl=0"},
    {"ModeNumbersThatNoIntegerHoldsAreZero", "A3 9; A3 nan; ?ctrl=0; A3 9; A3 inf; ?ctrl=0; A3 9; A3 -inf; ?ctrl=0; "
     "A3 9; A3 1e30; ?ctrl=0; A3 2147483648; ?ctrl=0"},
    {"FaultWordsAreTruncated", "A2; FF 12.9; ?mode=3 ?ew=12; FF -1; ?ew=4294967295; FF 4294967296; ?ew=0; FF "
     "4294967808; ?ew=512; FF nan; ?ew=0; FF 5; FF 1e19; ?ew=0; FF 5; FF -1e19; ?ew=0"},
    {"ResetEndsAFaultAlone", "A2; !ew=5; A0; ?mode=2 ?ew=5; FF 7; A0; ?mode=0 ?ew=0; A2; A1; ?mode=0"},
    {"ParametersGoToTheGeneralRegisters", "B0 1; B1 2; B2 3; B3 4; ?g0=1 ?g1=2 ?g2=3 ?g3=4; @1; ?g0=0 ?g3=0"},
    {"PositionTimePoints", "3A 1 2 3 4; ?p=1 ?v=0 ?a=0 ?t=2; 30; 3B 1 2 3 4; ?p=1 ?v=0 ?a=0 ?t=2; 30; 3C 1 2 3 4; "
     "?p=1 ?v=0 ?a=0 ?t=2; 3C 9; ?queue=2 ?p=1 ?trj=0; @1; ?queue=0"},
    {"PointsWithVelocityAndAcceleration", "@1; 3D 1 2 3 4; ?p=1 ?v=2 ?a=0 ?t=3; 30; 3E 1 2 3 4; ?p=1 ?v=2 ?a=3 ?t=4"},
    {"HomeIsReachedAt5s", "D0 9 9 9 9; ?queue=1 ?p=0 ?v=0 ?a=0 ?t=5 ?trj=109; A2; D0; ?queue=2 ?trj=1"},
    {"ViaClearResetsLettersAlone", "3A 1 1; !trj=99; 30; ?queue=0 ?trj=99; !trj=100; 30; ?trj=0; !trj=255; 30; ?trj=0"},
    // 9 units take 0.5 s
    {"MovesLinearlyAndFinishes", "A2; 11 9; ?trj=1; *1; ?trj=2 ?via=1 ?pos=0; *1; ?pos=2.25 ?rpos=2.25 ?via=0; *2; "
     "?pos=6.75 ?trj=2; *1; ?pos=9 ?rpos=9 ?trj=3 ?clock=0.5; *1; ?trj=4 ?rvel=0; *5; ?trj=4 ?pos=9 ?clock=0.5"},
    // a change of segment takes a cycle in which the clock rests
    {"PlaysItsPointsOnOneClock", "A2; 3D 10 1 1; 3D 20 2 2; 3D 30 3 3; 35; *5; ?pos=5 ?rvel=0.5 ?via=2 ?trj=2; *4; "
     "?pos=10 ?trj=3; *1; ?trj=2 ?clock=1; *4; ?pos=15 ?rvel=1.5 ?via=1; *4; ?pos=20 ?trj=3; *5; ?pos=25 ?via=0; *4; "
     "?pos=30 ?trj=3; *1; ?trj=4 ?rvel=0 ?clock=3"},
    {"ASegmentInThePastTakesOneCycle", "A2; 3A 50 0.5; 3A 60 0.2; 35; *5; ?pos=50 ?trj=3; *1; ?trj=2; *1; ?pos=60 "
     "?trj=3 ?clock=0.625"},
    {"AStartOnOneJointResetsTheClockOfAll", "A2; 3A 100 2; @1; A2; 3A 100 2; @0; 35; *9; ?pos=50; @1; 35; *2; "
     "?pos=6.25; @0; ?pos=6.25; *7; ?pos=50 ?clock=1"},
    {"AStartWhileMovingBeginsHere", "A2; 3A 10 1; 35; *5; ?pos=5; 3A 0 1; 35; *1; ?trj=2 ?clock=0 ?pos=5; *4; "
     "?pos=2.5"},
    {"ANewStartBeginsAtTimeZero", "A2; 3A 10 0.25; 3A 20 0.5; 35; *7; ?trj=4 ?pos=20; 3A 30 1; 35; *5; ?trj=2 ?pos=25"},
    {"AStartTakesTheVelocityAlong", "A3 20; 12 4; A3 0; A2; 3D 10 2 1; 35; *5; ?rvel=3 ?pos=5"},
    {"StartsAreRefused", "35; ?trj=109; A2; 35; ?trj=102; !trj=1; *1; ?trj=102; !via=1; 35; ?trj=1; *1; ?trj=102"},
    {"ServoOffInterrupts", "A2; 3A 10 1; 3A 20 2; 35; *3; ?pos=2.5; A1; *3; ?trj=111 ?pos=2.5 ?queue=1 ?via=1; 30; "
     "?trj=0"},
    {"ServoOffLeavesOtherStatesAlone", "A2; 3A 10 1; 35; A1; *1; ?trj=1 ?queue=1; A2; *1; ?trj=2"},
    {"CancelEmptiesTheQueue", "A2; 3A 10 1; 3A 20 2; 35; *3; 36; ?trj=5 ?queue=1; *1; ?trj=6 ?queue=0; *3; ?trj=6 "
     "?pos=2.5"}};
// clang-format on

TEST(Simulator, PlaysEveryStory) {
  for (const auto& [name, story] : kStories) {
    SCOPED_TRACE(name);
    Play(story);
  }
}

TEST(SimulatedOrder, IgnoresEveryOtherCode) {
  const std::set<int> known = {0x10, 0x11, 0x12, 0x30, 0x35, 0x36, 0x3A, 0x3B, 0x3C, 0x3D, 0x3E,
                               0xA0, 0xA1, 0xA2, 0xA3, 0xB0, 0xB1, 0xB2, 0xB3, 0xD0, 0xFF};
  Stepped sim(1);
  sim.State().systemMode = 3;
  sim.State().trjStatus = 100;
  const rxJoint_t before = sim.Joint();
  for (int code = 0; code < 256; ++code) {
    if (known.count(code) != 0) continue;
    sim.Order(code, 1, 2, 3, 4);
    const rxJoint_t after = sim.Joint();
    ASSERT_EQ(std::memcmp(&before, &after, sizeof before), 0) << code;
    ASSERT_TRUE(sim.traj_via_points_[0].empty()) << code;
  }
}

TEST(StateThread, AdvancesTimeTrajectoryAndVelocity) {
  MasterControllerClientMock sim(2, 10);
  SendPacket p = ServoOn("all", 1);
  sim.PushSendQueue(p, false);
  p.SetRefPosition("1", 1.8f);  // 0.1 s
  sim.PushSendQueue(p, false);
  for (int i = 0; i < 2; ++i) sim.SendPacketInBuffer();
  const auto joint = [&] {
    sim.ReceiveStatus();
    return sim.GetLastRecvPacket().joints[1];
  };
  EXPECT_TRUE(Eventually([&] { return std::fabs(joint().velocity - 18) < 0.1f; }));
  EXPECT_TRUE(Eventually([&] { return joint().trjStatus == 4; }));
  EXPECT_TRUE(Eventually([&] { return joint().velocity == 0; }));
  EXPECT_EQ(+joint().position, 1.8f);
  std::uint64_t last = 0;
  for (const RecvPacket& packet : sim.GetCurStatePacket()) {
    ASSERT_EQ((packet.header.timestamp - std::exchange(last, +packet.header.timestamp)) % 10000, 0u);
  }
}

TEST(StateThread, EndsWithTheSimulator) {
  for (const int cycle_ms : {0, 1, 30}) {
    const auto start = steady_clock::now();
    { const MasterControllerClientMock sim(1, cycle_ms); }
    EXPECT_LT(steady_clock::now() - start, milliseconds(cycle_ms + 500));
  }
}

}  // namespace
