// SPDX-License-Identifier: MIT
#include "MasterControllerClientMock.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <set>
#include <thread>

#include "support/capture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Codes = ePacketOrder;

/// Waits for a condition, at most 5 s.
bool Eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 5000 && !condition(); ++i) std::this_thread::sleep_for(milliseconds(1));
  return condition();
}

/// A simulator whose state thread has ended: a test moves it on, one cycle of 1/8 s at a time (sums of it are exact).
struct Stepped : MasterControllerClientMock {
  explicit Stepped(int n) : MasterControllerClientMock(n, 1) {
    is_running_ = false;
    EXPECT_TRUE(Eventually([this] { return is_thread_finished_.load(); }));
    cycle_ms_ = 125;
  }
  using MasterControllerClientMock::cur_send_packet_;
  using MasterControllerClientMock::ManageTrajState;
  using MasterControllerClientMock::ready_to_send_;
  using MasterControllerClientMock::recv_buffer_;
  using MasterControllerClientMock::traj_via_points_;
  using MasterControllerClientMock::TrajControlStart;
  using MasterControllerClientMock::wait_confirm_;

  void Order(Codes order, float v1 = 0, float v2 = 0, float v3 = 0, float v4 = 0, unsigned char joint = 0) {
    ParseJointOrder(joint, static_cast<unsigned char>(order), v1, v2, v3, v4);
  }
  void Cycles(int count) {
    for (; count > 0; --count) ManageTrajState();
  }
  rxJoint_t& Joint(std::size_t i = 0) { return inner_state_.joints[i]; }
  float Position(std::size_t i = 0) { return Joint(i).position; }
  int Trajectory(std::size_t i = 0) { return Joint(i).trjStatus; }
  std::size_t Queued(std::size_t i = 0) const { return traj_via_points_[i].size(); }
  /// Position, velocity, acceleration and time of the point queued last.
  std::array<float, 4> Point(std::size_t i = 0) const {
    const TrajViaPoint& point = traj_via_points_.at(i).back();
    return {point.position, point.velocity, point.acceleration, point.time};
  }
  rxHeader_t Header() const { return inner_state_.header; }
};
using Values = std::array<float, 4>;

class SimulatedJoint : public testing::Test {
 protected:
  Stepped sim{2};
};

SendPacket ServoOn(const std::string& ids, unsigned long stamp) {
  SendPacket p(2);
  p.SetServoOn(ids);
  p.SetTimeStamp(stamp);
  return p;
}

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
  EXPECT_EQ(sim.GetStatistics().frames_sent, 4u);
  EXPECT_EQ(sim.GetStatistics().frames_received, 1u);
}

TEST(Simulator, SkipsRecordsThatItsArmDoesNotHave) {
  Stepped sim(1), empty(-1);
  SendPacket wide(300), none(0);
  wide.SetServoOn("all");
  wide.SetJointOrder(256, Codes::ServoOff);  // would be joint 0 if cut to 8 bits
  sim.ParseSendPacket(wide);
  EXPECT_EQ(sim.Joint().systemMode, 2);
  none.SetGripperMaxEffort(1);
  none.SetTimeStamp(9);
  sim.ParseSendPacket(none);
  EXPECT_EQ(+sim.Header().hostTimestamp, 9u);
  sim.Order(Codes::ServoOn, 0, 0, 0, 0, 5);
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

TEST_F(SimulatedJoint, TakesReferencesAsItsControlModeSays) {
  struct Row {
    float mode;
    float current, position, velocity;  ///< after references of 1.25, -45 and 2.5
    std::size_t queued;
  };
  for (const Row& row :
       {Row{0, 0, 0, 0, 1}, Row{1, 0, 0, 0, 0}, Row{2, 1.25f, 0, 0, 0}, Row{7, 0, 0, 0, 1}, Row{20, 0, -45, 2.5f, 0}}) {
    SCOPED_TRACE(row.mode);
    Stepped fresh(1);
    fresh.Order(Codes::ControlMode, row.mode);
    fresh.Order(Codes::RefCurrent, 1.25f);
    fresh.Order(Codes::RefPosition, -45);
    fresh.Order(Codes::RefVelocity, 2.5f);
    const rxJoint_t joint = fresh.Joint();
    EXPECT_EQ((Values{joint.current, joint.refCurrent, joint.position, joint.refPosition}),
              (Values{row.current, row.current, row.position, row.position}));
    EXPECT_EQ((std::pair<float, float>(joint.velocity, joint.refVelocity)), std::pair(row.velocity, row.velocity));
    ASSERT_EQ(fresh.Queued(), row.queued);
    EXPECT_EQ(joint.trjStatus, row.queued == 0 ? 0 : 109);  // the servo is off
    if (row.queued != 0) {
      EXPECT_EQ(fresh.Point(), (Values{-45, 0, 0, 2.5f}));
    }
  }
  sim.Order(Codes::ControlMode, 20);
  sim.Order(Codes::RefPosition, 90);
  sim.Order(Codes::ControlMode, 0);
  sim.Order(Codes::RefPosition, -90);
  EXPECT_EQ(sim.Point(), (Values{-90, 0, 0, 10}));  // the distance is measured from here
}

TEST_F(SimulatedJoint, TruncatesNumbersAndTakesWhatNoIntegerHoldsForZero) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  const std::pair<float, int> modes[] = {{7.9f, 7}, {-1, 255}, {300, 44}, {-0.5f, 0}, {65537, 1}, {256.5f, 0}};
  for (const auto& [value, mode] : modes) {
    sim.Order(Codes::ControlMode, value);
    EXPECT_EQ(sim.Joint().ctrlMode, mode) << value;
  }
  const std::pair<float, std::uint32_t> faults[] = {
      {12.9f, 12}, {-1, 4294967295}, {4294967296.0f, 0}, {4294967808.0f, 512}};
  for (const auto& [value, word] : faults) {
    sim.Order(Codes::FaultInjection, value);
    EXPECT_EQ(+sim.Joint().ewStatus, word) << value;
    EXPECT_EQ(sim.Joint().systemMode, 3);
  }
  for (const float none : {NAN, kInfinity, -kInfinity, 1e30f, 1e19f, -1e19f}) {
    sim.Order(Codes::ControlMode, 9);
    sim.Order(Codes::ControlMode, none);
    sim.Order(Codes::FaultInjection, 5);
    sim.Order(Codes::FaultInjection, none);
    EXPECT_EQ(sim.Joint().ctrlMode + sim.Joint().ewStatus, 0u) << none;
  }
}

TEST_F(SimulatedJoint, ResetEndsOnlyAFault) {
  sim.Order(Codes::ServoOn);
  sim.Joint().ewStatus = 5;
  sim.Order(Codes::Reset);
  EXPECT_EQ(sim.Joint().systemMode * 10 + sim.Joint().ewStatus, 25u);
  sim.Order(Codes::FaultInjection, 7);
  sim.Order(Codes::Reset);
  EXPECT_EQ(sim.Joint().systemMode + sim.Joint().ewStatus, 0u);
  sim.Order(Codes::ServoOn);
  sim.Order(Codes::ServoOff);
  EXPECT_EQ(sim.Joint().systemMode, 0);
}

TEST_F(SimulatedJoint, ShowsItsParametersInTheGeneralRegisters) {
  const Codes parameters[] = {Codes::ParamKp, Codes::ParamKi, Codes::ParamKd, Codes::ParamWindupLimit};
  for (int i = 0; i < 4; ++i) {
    sim.Order(parameters[i], static_cast<float>(i + 1));
    EXPECT_EQ(+sim.Joint().general[i], static_cast<float>(i + 1));
    EXPECT_EQ(+sim.Joint(1).general[i], 0);
  }
}

TEST_F(SimulatedJoint, QueuesPoints) {
  for (const Codes order :
       {Codes::TrajectoryPT_LinSpline1, Codes::TrajectoryPT_Trapezoidal1, Codes::TrajectoryPT_DoubleS1}) {
    sim.Order(order, 1, 2, 3, 4);
    EXPECT_EQ(sim.Point(), (Values{1, 0, 0, 2}));
    sim.Order(Codes::TrajectoryViaClear);
    EXPECT_EQ(sim.Queued(), 0u);
  }
  sim.Order(Codes::TrajectoryPVT1, 1, 2, 3, 4, 1);
  EXPECT_EQ(sim.Point(1), (Values{1, 2, 0, 3}));
  sim.Order(Codes::TrajectoryPVAT1, 1, 2, 3, 4, 1);
  EXPECT_EQ(sim.Point(1), (Values{1, 2, 3, 4}));
  EXPECT_EQ(sim.Queued() + 10 * sim.Queued(1), 20u);
  EXPECT_EQ(sim.Trajectory(1), 0);  // points wait for a start
  sim.Order(Codes::MoveHomePosition, 9, 9, 9, 9);
  EXPECT_EQ(sim.Point(), (Values{0, 0, 0, 5}));
  EXPECT_EQ(sim.Trajectory(), 109);
  for (const auto& [before, after] : {std::pair(99, 99), std::pair(100, 0), std::pair(255, 0)}) {
    sim.Joint().trjStatus = static_cast<std::uint8_t>(before);
    sim.Order(Codes::TrajectoryViaClear);
    EXPECT_EQ(sim.Trajectory(), after);
  }
}

TEST_F(SimulatedJoint, MovesLinearlyAndFinishes) {
  sim.Order(Codes::ServoOn);
  sim.Order(Codes::RefPosition, 9);  // takes 0.5 s
  EXPECT_EQ(sim.Trajectory(), 1);
  sim.Cycles(1);
  EXPECT_EQ(sim.Trajectory() * 10 + sim.Joint().trjViaRemain, 21);
  sim.Cycles(1);
  EXPECT_EQ(sim.Position() + sim.Joint().refPosition, 4.5f);
  sim.Cycles(3);
  EXPECT_EQ(sim.Position(), 9);
  EXPECT_EQ(sim.Trajectory(), 3);
  sim.Cycles(6);
  EXPECT_EQ(sim.Trajectory(), 4);
  EXPECT_EQ(+sim.Joint().refVelocity, 0);
  EXPECT_EQ(+sim.Header().duration, 0.5f);  // the clock rests
}

TEST_F(SimulatedJoint, PlaysItsPointsOnOneClock) {
  sim.Order(Codes::ServoOn);
  for (const float i : {1.0f, 2.0f, 3.0f}) sim.Order(Codes::TrajectoryPVT1, 10 * i, i, i);
  sim.Order(Codes::TrajectoryControlStart);
  struct Row {
    int cycles;
    float position, velocity;
    int trajectory, remaining;
  };
  for (const Row& row :
       {Row{5, 5, 0.5f, 2, 2}, Row{4, 10, 0.875f, 3, 2}, Row{1, 10, 0.875f, 2, 2}, Row{4, 15, 1.5f, 2, 1},
        Row{4, 20, 1.875f, 3, 1}, Row{5, 25, 2.5f, 2, 0}, Row{5, 30, 0, 4, 0}}) {
    sim.Cycles(row.cycles);
    EXPECT_EQ(sim.Position(), row.position);
    EXPECT_EQ(+sim.Joint().refVelocity, row.velocity);
    EXPECT_EQ(sim.Trajectory(), row.trajectory);
    EXPECT_EQ(sim.Joint().trjViaRemain, row.remaining);
  }
  sim.Order(Codes::TrajectoryPT_LinSpline1, 50, 0.5f);
  sim.Order(Codes::TrajectoryPT_LinSpline1, 60, 0.2f);  // in the past by then: reached in one cycle
  sim.Order(Codes::TrajectoryControlStart);
  sim.Cycles(7);
  EXPECT_EQ(sim.Position(), 60);
  EXPECT_EQ(+sim.Header().duration, 0.625f);
}

TEST_F(SimulatedJoint, AStartOnOneJointResetsTheClockOfAll) {
  for (unsigned char joint = 0; joint < 2; ++joint) {
    sim.Order(Codes::ServoOn, 0, 0, 0, 0, joint);
    sim.Order(Codes::TrajectoryPT_LinSpline1, 100, 2, 0, 0, joint);
  }
  sim.Order(Codes::TrajectoryControlStart);
  sim.Cycles(9);
  EXPECT_EQ(sim.Position(), 50);
  sim.Order(Codes::TrajectoryControlStart, 0, 0, 0, 0, 1);
  sim.Cycles(2);
  EXPECT_EQ(sim.Position(0), 6.25f);
  EXPECT_EQ(sim.Position(1), 6.25f);
}

TEST_F(SimulatedJoint, ANewStartBeginsHereAtTimeZero) {
  sim.Order(Codes::ControlMode, 20);
  sim.Order(Codes::RefVelocity, 4);
  sim.Order(Codes::ControlMode, 0);
  sim.Order(Codes::ServoOn);
  sim.Order(Codes::TrajectoryPVT1, 10, 2, 1);
  sim.Order(Codes::TrajectoryControlStart);
  sim.Cycles(5);
  EXPECT_EQ(sim.Position(), 5);
  EXPECT_EQ(+sim.Joint().refVelocity, 3);  // half way from 4 to 2
  sim.Order(Codes::TrajectoryPT_LinSpline1, 0, 1);
  sim.Order(Codes::TrajectoryControlStart);
  sim.Cycles(1);
  EXPECT_EQ(+sim.Header().duration, 0);
  sim.Cycles(4);
  EXPECT_EQ(sim.Position(), 2.5f);
  sim.Cycles(6);
  EXPECT_EQ(sim.Trajectory(), 4);
  sim.Order(Codes::TrajectoryPT_LinSpline1, 10, 1);  // counted from this start, not from the last segment
  sim.Order(Codes::TrajectoryControlStart);
  sim.Cycles(5);
  EXPECT_EQ(sim.Position(), 5);
}

TEST_F(SimulatedJoint, RefusesStartsWithoutServoOrPoints) {
  sim.Order(Codes::TrajectoryControlStart);
  EXPECT_EQ(sim.Trajectory(), 109);
  sim.Order(Codes::ServoOn);
  sim.Order(Codes::TrajectoryControlStart);
  EXPECT_EQ(sim.Trajectory(), 102);
  sim.Joint().trjViaRemain = 1;  // as counted in the last cycle
  sim.Order(Codes::TrajectoryControlStart);
  EXPECT_EQ(sim.Trajectory(), 1);
  sim.Cycles(1);
  EXPECT_EQ(sim.Trajectory(), 102);
}

TEST_F(SimulatedJoint, ServoOffInterruptsAndCancelEmptiesTheQueue) {
  const auto move = [&](unsigned char joint) {
    sim.Order(Codes::ServoOn, 0, 0, 0, 0, joint);
    sim.Order(Codes::TrajectoryPT_LinSpline1, 10, 1, 0, 0, joint);
    sim.Order(Codes::TrajectoryPT_LinSpline1, 20, 2, 0, 0, joint);
    sim.Order(Codes::TrajectoryControlStart, 0, 0, 0, 0, joint);
  };
  move(0);
  sim.Order(Codes::ServoOff);
  sim.Cycles(1);
  EXPECT_EQ(sim.Trajectory(), 1);  // only a moving joint is interrupted
  sim.Order(Codes::ServoOn);
  sim.Cycles(3);
  sim.Order(Codes::ServoOff);
  sim.Cycles(3);
  EXPECT_EQ(sim.Trajectory(), 111);
  EXPECT_EQ(sim.Position(), 2.5f);
  EXPECT_EQ(sim.Queued() + sim.Joint().trjViaRemain, 2u);
  move(1);
  sim.Cycles(3);
  sim.Order(Codes::TrajectoryControlCancel, 0, 0, 0, 0, 1);
  EXPECT_EQ(sim.Trajectory(1), 5);
  sim.Cycles(3);
  EXPECT_EQ(sim.Trajectory(1), 6);
  EXPECT_EQ(sim.Queued(1), 0u);
  EXPECT_EQ(sim.Position(1), 2.5f);
}

TEST_F(SimulatedJoint, IgnoresEveryOtherCode) {
  const std::set<int> known = {0x10, 0x11, 0x12, 0x30, 0x35, 0x36, 0x3A, 0x3B, 0x3C, 0x3D, 0x3E,
                               0xA0, 0xA1, 0xA2, 0xA3, 0xB0, 0xB1, 0xB2, 0xB3, 0xD0, 0xFF};
  sim.Joint().systemMode = 3;
  sim.Joint().trjStatus = 100;
  const rxJoint_t before = sim.Joint();
  for (int code = 0; code < 256; ++code) {
    if (known.count(code) != 0) continue;
    sim.Order(static_cast<Codes>(code), 1, 2, 3, 4);
    const rxJoint_t after = sim.Joint();
    ASSERT_EQ(std::memcmp(&before, &after, sizeof before), 0) << code;
    ASSERT_EQ(sim.Queued(), 0u) << code;
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
  EXPECT_TRUE(Eventually([&] { return joint().trjStatus == 4; }));
  EXPECT_TRUE(Eventually([&] { return joint().velocity == 0; }));
  EXPECT_EQ(+joint().position, 1.8f);
  float fastest = 0;
  std::uint64_t last = 0;
  for (const RecvPacket& packet : sim.GetCurStatePacket()) {
    ASSERT_EQ((packet.header.timestamp - std::exchange(last, +packet.header.timestamp)) % 10000, 0u);
    fastest = std::max(fastest, +packet.joints[1].velocity);
  }
  EXPECT_TRUE(fastest == 0 || std::fabs(fastest - 18) < 0.1f) << fastest;  // 0 if no step fell into the motion
}

TEST(StateThread, EndsWithTheSimulator) {
  for (const int cycle_ms : {0, 1, 30}) {
    const auto start = steady_clock::now();
    { const MasterControllerClientMock sim(1, cycle_ms); }
    EXPECT_LT(steady_clock::now() - start, milliseconds(cycle_ms + 2000));
  }
}

}  // namespace
