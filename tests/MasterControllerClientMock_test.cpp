// SPDX-License-Identifier: MIT
#include "MasterControllerClientMock.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <functional>
#include <thread>
#include <tuple>

#include "support/capture.h"

namespace {

using std::chrono::milliseconds;
using Codes = ePacketOrder;

/// Waits for a condition, at most 5 s.
bool Eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 5000 && !condition(); ++i) std::this_thread::sleep_for(milliseconds(1));
  return condition();
}

/// An order with its values, to a joint.
struct Act {
  Codes order;
  float v1 = 0, v2 = 0, v3 = 0, v4 = 0;
  unsigned char joint = 0;
};

/// What a joint shows, and the clock.
struct Shot {
  float position, ref_velocity;
  int status, remaining;
  std::size_t queued;
  float clock;
  bool operator==(const Shot& o) const {
    return std::tie(position, ref_velocity, status, remaining, queued, clock) ==
           std::tie(o.position, o.ref_velocity, o.status, o.remaining, o.queued, o.clock);
  }
};

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

  void Do(const std::vector<Act>& acts) {
    for (const Act& act : acts)
      ParseJointOrder(act.joint, static_cast<unsigned char>(act.order), act.v1, act.v2, act.v3, act.v4);
  }
  Shot After(int cycles, std::size_t i = 0) {
    for (; cycles > 0; --cycles) ManageTrajState();
    const rxJoint_t joint = Joint(i);
    return {joint.position,     joint.refVelocity, joint.trjStatus,
            joint.trjViaRemain, Queued(i),         inner_state_.header.duration};
  }
  rxJoint_t& Joint(std::size_t i = 0) { return inner_state_.joints[i]; }
  std::size_t Queued(std::size_t i = 0) const { return traj_via_points_[i].size(); }
  /// Position, velocity, acceleration and time of the point queued last.
  std::array<float, 4> Point(std::size_t i = 0) const {
    const TrajViaPoint point = Queued(i) == 0 ? TrajViaPoint() : traj_via_points_[i].back();
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
  EXPECT_EQ(sim.GetStatistics().commands_confirmed, 3u);  // as many as asked for it
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
  sim.Do({{Codes::ServoOn, 0, 0, 0, 0, 5}});
  sim.TrajControlStart(5);
  empty.ParseSendPacket(wide);
  empty.ManageTrajState();
  EXPECT_EQ(empty.ReceiveStatus(), 1);
}

TEST(Simulator, SetsJointTypesByNumberAndName) {
  Stepped sim(3);
  sim.SetJointType(3, 9);
  sim.SetJointType(0, 9);
  sim.SetJointType(1, "gripper_revolute");
  sim.SetJointType(2, "gripper_prismatic");
  sim.SetJointType(2, "gripper_Revolute");
  EXPECT_EQ((std::array<int, 3>{sim.Joint(0).type, sim.Joint(1).type, sim.Joint(2).type}), (std::array{9, 2, 1}));
}

TEST_F(SimulatedJoint, TakesReferencesAsItsControlModeSays) {
  struct Row {
    float mode, current, position, velocity;  ///< after references of 1.25, -45 and 2.5
    std::size_t queued;
  };
  for (const Row& row :
       {Row{0, 0, 0, 0, 1}, Row{1, 0, 0, 0, 0}, Row{2, 1.25f, 0, 0, 0}, Row{7, 0, 0, 0, 1}, Row{20, 0, -45, 2.5f, 0}}) {
    SCOPED_TRACE(row.mode);
    Stepped fresh(1);
    fresh.Do({{Codes::ControlMode, row.mode},
              {Codes::RefCurrent, 1.25f},
              {Codes::RefPosition, -45},
              {Codes::RefVelocity, 2.5f}});
    const rxJoint_t joint = fresh.Joint();
    EXPECT_EQ((Values{joint.current, joint.refCurrent, joint.position, joint.refPosition}),
              (Values{row.current, row.current, row.position, row.position}));
    EXPECT_EQ((std::pair(+joint.velocity, +joint.refVelocity)), std::pair(row.velocity, row.velocity));
    EXPECT_EQ(fresh.Queued() + joint.trjStatus, row.queued * 110);  // the start is refused: the servo is off
    EXPECT_EQ(fresh.Point(), row.queued == 0 ? Values{} : (Values{-45, 0, 0, 2.5f}));
  }
  sim.Do({{Codes::ControlMode, 20}, {Codes::RefPosition, 90}, {Codes::ControlMode, 0}, {Codes::RefPosition, -90}});
  EXPECT_EQ(sim.Point(), (Values{-90, 0, 0, 10}));  // the distance is measured from here
}

TEST_F(SimulatedJoint, TruncatesNumbersAndTakesWhatNoIntegerHoldsForZero) {
  const std::pair<float, int> modes[] = {{7.9f, 7}, {-1, 255}, {300, 44}};
  for (const auto& [value, mode] : modes) {
    sim.Do({{Codes::ControlMode, value}});
    EXPECT_EQ(sim.Joint().ctrlMode, mode) << value;
  }
  sim.Do({{Codes::FaultInjection, 4294967808.0f}});
  EXPECT_EQ((std::pair<int, unsigned>(sim.Joint().systemMode, +sim.Joint().ewStatus)), std::pair(3, 512u));
  for (const float none : {NAN, INFINITY, -INFINITY, 1e30f, 1e19f, -1e19f}) {
    sim.Do({{Codes::ControlMode, 9},
            {Codes::ControlMode, none},
            {Codes::FaultInjection, 5},
            {Codes::FaultInjection, none}});
    EXPECT_EQ(sim.Joint().ctrlMode + sim.Joint().ewStatus, 0u) << none;
  }
}

TEST_F(SimulatedJoint, ResetEndsOnlyAFault) {
  sim.Do({{Codes::ServoOn}});
  sim.Joint().ewStatus = 5;
  sim.Do({{Codes::Reset}});
  EXPECT_EQ(sim.Joint().systemMode * 10 + sim.Joint().ewStatus, 25u);
  sim.Do({{Codes::FaultInjection, 7}, {Codes::Reset}});
  EXPECT_EQ(sim.Joint().systemMode + sim.Joint().ewStatus, 0u);
  sim.Do({{Codes::ServoOn}, {Codes::ServoOff}});
  EXPECT_EQ(sim.Joint().systemMode, 0);
}

TEST_F(SimulatedJoint, QueuesPointsAndShowsParameters) {
  const std::pair<Codes, Values> rows[] = {
      {Codes::TrajectoryPT_LinSpline1, {1, 0, 0, 2}}, {Codes::TrajectoryPT_Trapezoidal1, {1, 0, 0, 2}},
      {Codes::TrajectoryPT_DoubleS1, {1, 0, 0, 2}},   {Codes::TrajectoryPVT1, {1, 2, 0, 3}},
      {Codes::TrajectoryPVAT1, {1, 2, 3, 4}},         {Codes::MoveHomePosition, {0, 0, 0, 5}}};
  std::size_t queued = 0;
  for (const auto& [order, point] : rows) {
    EXPECT_EQ(sim.Joint(1).trjStatus, 0) << "points wait for a start";
    sim.Do({{order, 1, 2, 3, 4, 1}});
    EXPECT_EQ(sim.Point(1), point);
    EXPECT_EQ(sim.Queued(1), ++queued);
  }
  EXPECT_EQ(sim.Joint(1).trjStatus, 109);  // but for the way home
  sim.Do({{Codes::TrajectoryPVT0, 1, 2, 3, 4, 1}});
  EXPECT_EQ(sim.Queued(1), queued) << "the forms with a clear flag do nothing";
  EXPECT_EQ(sim.Queued(0), 0u);
  sim.Do({{Codes::ParamKp, 1}, {Codes::ParamKi, 2}, {Codes::ParamKd, 3}, {Codes::ParamWindupLimit, 4}});
  const rxJoint_t joint = sim.Joint();
  EXPECT_EQ((Values{joint.general[0], joint.general[1], joint.general[2], joint.general[3]}), (Values{1, 2, 3, 4}));
  for (const auto& [before, after] : {std::pair(99, 99), std::pair(100, 0), std::pair(255, 0)}) {
    sim.Joint(1).trjStatus = static_cast<std::uint8_t>(before);
    sim.Do({{Codes::TrajectoryViaClear, 0, 0, 0, 0, 1}});
    EXPECT_EQ(sim.Joint(1).trjStatus, after);
    EXPECT_EQ(sim.Queued(1), 0u);
  }
}

TEST_F(SimulatedJoint, PlaysItsPointsOnOneClock) {
  sim.Do({{Codes::ServoOn},
          {Codes::TrajectoryPVT1, 10, 1, 1},
          {Codes::TrajectoryPVT1, 20, 2, 2},
          {Codes::TrajectoryPVT1, 30, 3, 3},
          {Codes::TrajectoryControlStart}});
  EXPECT_EQ(sim.After(5), (Shot{5, 0.5f, 2, 2, 2, 0.5f}));
  EXPECT_EQ(sim.After(4), (Shot{10, 0.875f, 3, 2, 2, 1}));
  EXPECT_EQ(sim.After(1), (Shot{10, 0.875f, 2, 2, 1, 1}));  // a change of segment takes a cycle
  EXPECT_EQ(sim.After(4), (Shot{15, 1.5f, 2, 1, 1, 1.5f}));
  EXPECT_EQ(sim.After(9), (Shot{25, 2.5f, 2, 0, 0, 2.5f}));
  EXPECT_EQ(sim.After(5), (Shot{30, 0, 4, 0, 0, 3}));
  sim.Do({{Codes::TrajectoryPT_LinSpline1, 50, 0.5f},
          {Codes::TrajectoryPT_LinSpline1, 60, 0.2f},
          {Codes::TrajectoryControlStart}});
  EXPECT_EQ(sim.After(7), (Shot{60, 0, 3, 0, 0, 0.625f}));  // a segment in the past takes one cycle
}

TEST_F(SimulatedJoint, AStartOnOneJointResetsTheClockOfAll) {
  sim.Do({{Codes::ServoOn}, {Codes::TrajectoryPT_LinSpline1, 100, 2}, {Codes::TrajectoryControlStart}});
  sim.Do({{Codes::ServoOn, 0, 0, 0, 0, 1}, {Codes::TrajectoryPT_LinSpline1, 100, 2, 0, 0, 1}});
  EXPECT_EQ(sim.After(9).position, 50);
  sim.Do({{Codes::TrajectoryControlStart, 0, 0, 0, 0, 1}});
  EXPECT_EQ(sim.After(2).position, 6.25f);
  EXPECT_EQ(sim.After(0, 1).position, 6.25f);
}

TEST_F(SimulatedJoint, RefusesStartsWithoutServoOrPoints) {
  sim.Do({{Codes::TrajectoryControlStart}});
  EXPECT_EQ(sim.Joint().trjStatus, 109);
  sim.Do({{Codes::ServoOn}, {Codes::TrajectoryControlStart}});
  EXPECT_EQ(sim.Joint().trjStatus, 102);
  sim.Joint().trjViaRemain = 1;  // as counted in the last cycle
  sim.Do({{Codes::TrajectoryControlStart}});
  EXPECT_EQ(sim.Joint().trjStatus, 1);
  EXPECT_EQ(sim.After(1).status, 102);
}

TEST_F(SimulatedJoint, ServoOffInterruptsAndCancelEmptiesTheQueue) {
  const auto move = [&](unsigned char joint) {
    sim.Do({{Codes::ServoOn, 0, 0, 0, 0, joint},
            {Codes::TrajectoryPT_LinSpline1, 10, 1, 0, 0, joint},
            {Codes::TrajectoryPT_LinSpline1, 20, 2, 0, 0, joint},
            {Codes::TrajectoryControlStart, 0, 0, 0, 0, joint}});
  };
  move(0);
  sim.Do({{Codes::ServoOff}});
  EXPECT_EQ(sim.After(1).status, 1);  // only a moving joint is interrupted
  sim.Do({{Codes::ServoOn}});
  sim.After(3);
  sim.Do({{Codes::ServoOff}});
  EXPECT_EQ(sim.After(3), (Shot{2.5f, 0, 111, 1, 1, 0.25f}));
  move(1);
  sim.After(3, 1);
  sim.Do({{Codes::TrajectoryControlCancel, 0, 0, 0, 0, 1}});
  EXPECT_EQ(sim.After(0, 1).status, 5);
  EXPECT_EQ(sim.After(3, 1), (Shot{2.5f, 0, 6, 0, 0, 0.25f}));
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

}  // namespace
