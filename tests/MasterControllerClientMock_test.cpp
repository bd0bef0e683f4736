// SPDX-License-Identifier: MIT
#include "MasterControllerClientMock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <thread>

#include "support/capture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Waits for a condition, at most 5 s.
bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = steady_clock::now() + std::chrono::seconds(5);
  while (!condition()) {
    if (steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(milliseconds(1));
  }
  return true;
}

/// A simulator whose state thread has ended: a test moves it on, one 10 ms step at a time.
struct Stepped : MasterControllerClientMock {
  explicit Stepped(int n) : MasterControllerClientMock(n, 1) {
    is_running_ = false;
    EXPECT_TRUE(Eventually([this] { return is_thread_finished_.load(); }));
    cycle_ms_ = 10;
  }
  using MasterControllerClientMock::cur_send_packet_;
  using MasterControllerClientMock::ManageTrajState;
  using MasterControllerClientMock::ready_to_send_;
  using MasterControllerClientMock::recv_buffer_;
  using MasterControllerClientMock::traj_target_;
  using MasterControllerClientMock::traj_via_points_;
  using MasterControllerClientMock::TrajControlStart;
  using MasterControllerClientMock::wait_confirm_;

  void Order(int order, float v1 = 0, float v2 = 0, float v3 = 0, float v4 = 0, unsigned char joint = 0) {
    ParseJointOrder(joint, static_cast<unsigned char>(order), v1, v2, v3, v4);
  }
  void Steps(int count) {
    for (int i = 0; i < count; ++i) ManageTrajState();
  }
  rxJoint_t Joint(std::size_t i = 0) const { return inner_state_.joints[i]; }
  rxJoint_t& State(std::size_t i = 0) { return inner_state_.joints[i]; }
  rxHeader_t Header() const { return inner_state_.header; }
  int Status(std::size_t i = 0) const { return inner_state_.joints[i].trjStatus; }
  float Position(std::size_t i = 0) const { return inner_state_.joints[i].position; }
};

TEST(Simulator, StandsInForAConnectedClient) {
  Stepped sim(2);
  EXPECT_TRUE(sim.IsInit());
  EXPECT_TRUE(sim.IsConnected());
  EXPECT_FALSE(sim.Connect());
  EXPECT_EQ(velta::test::Printed([&] { EXPECT_FALSE(sim.ReConnect(2)); }),
            "[VELTA] Try to Re-Connect\n[VELTA] Try: 0...failed.\n[VELTA] Try: 1...failed.\n");
  for (int i = 1; i <= 3; ++i) EXPECT_EQ(sim.ReceiveStatus(), i);
  EXPECT_EQ(sim.GetCurStatePacket().size(), 3u);
  for (int i = 0; i < 5000; ++i) sim.ReceiveStatus();  // no bound here
  EXPECT_EQ(sim.GetRecvBufferSize(), 5000u);

  RecvPacket packet(2);
  packet.header.hostTimestamp = 77;
  sim.SetRecvBuffer(packet);
  EXPECT_EQ(+sim.GetLastRecvPacket().header.hostTimestamp, 77u);
  EXPECT_EQ(+sim.recv_buffer_.back().header.hostTimestamp, 77u);
}

TEST(Simulator, InterpretsOneCommandPerStepWithoutTheGate) {
  Stepped sim(2);
  sim.SendPacketInBuffer();
  EXPECT_EQ(+sim.Header().hostTimestamp, 0u);
  SendPacket unique(2), queued(2), arm(2), named(2);
  unique.SetTimeStamp(1);
  unique.SetUniqueKey("k");
  queued.SetTimeStamp(2);
  queued.SetServoOn("1");
  arm.SetTimeStamp(3);
  arm.SetServoOn("all");
  arm.SetPayload(1, 2, 3, 4);
  named.SetTimeStamp(4);
  named.SetServoOn("0");
  sim.InsertUniqueSendMap(unique);
  sim.PushSendQueue(queued, true);
  sim.PushSendQueue(arm, true);
  sim.CreateIndependentSendPacketBuffer("source");

  sim.SendPacketInBuffer();
  EXPECT_EQ(+sim.Header().hostTimestamp, 2u);
  EXPECT_EQ(sim.Joint(0).systemMode, 0);
  EXPECT_EQ(sim.Joint(1).systemMode, 2);
  EXPECT_FALSE(sim.wait_confirm_);
  EXPECT_TRUE(sim.ready_to_send_);
  sim.SendPacketInBuffer();
  EXPECT_EQ(+sim.Header().hostTimestamp, 3u);
  EXPECT_EQ(sim.Joint(0).systemMode, 0);  // an arm order hides the joint commands
  sim.SendPacketInBuffer();
  EXPECT_EQ(+sim.Header().hostTimestamp, 1u);
  sim.SendPacketInBuffer();
  EXPECT_EQ(+sim.Header().hostTimestamp, 1u);

  sim.PushBackIndependentSendBuffer(named, "source", true, false, "");
  sim.SendPacketInBuffer();
  EXPECT_EQ(sim.Joint(0).systemMode, 2);
  sim.ReceiveStatus();
  EXPECT_EQ(+sim.GetLastRecvPacket().header.hostTimestamp, sim.cur_send_packet_.GetTimeStamp());
}

TEST(Simulator, SkipsRecordsThatItsArmDoesNotHave) {
  Stepped sim(1);
  SendPacket wide(300);
  wide.SetServoOn("all");
  wide.SetJointOrder(256, ePacketOrder::ServoOff);  // would be joint 0 if cut to 8 bits
  sim.ParseSendPacket(wide);
  EXPECT_EQ(sim.Joint().systemMode, 2);
  SendPacket none(0);
  none.SetGripperMaxEffort(1);
  none.SetTimeStamp(9);
  sim.ParseSendPacket(none);
  EXPECT_EQ(+sim.Header().hostTimestamp, 9u);
  sim.Order(0xA2, 0, 0, 0, 0, 5);
  sim.TrajControlStart(5);
  Stepped empty(-1);
  empty.ParseSendPacket(wide);
  empty.ManageTrajState();
  EXPECT_EQ(empty.ReceiveStatus(), 1);
}

TEST(Simulator, SetsJointTypesByNumberAndName) {
  Stepped sim(3);
  sim.SetJointType(0, "gripper_revolute");
  sim.SetJointType(1, "gripper_prismatic");
  sim.SetJointType(2, 9);
  for (const int joint : {3, 5, -1}) sim.SetJointType(joint, 1);
  sim.SetJointType(0, "gripper_Revolute");
  EXPECT_EQ(sim.Joint(0).type, 2);
  EXPECT_EQ(sim.Joint(1).type, 1);
  EXPECT_EQ(sim.Joint(2).type, 9);
  sim.SetJointType(2, "revolute");
  EXPECT_EQ(sim.Joint(2).type, 0);
}

TEST(SimulatedOrder, ReferencesActInTheirModesOnly) {
  for (int mode = 0; mode < 25; ++mode) {
    SCOPED_TRACE(mode);
    Stepped sim(1);
    sim.Order(0xA3, static_cast<float>(mode));
    sim.Order(0x10, 1.25f);
    sim.Order(0x12, 2.5f);
    sim.Order(0x11, -45);
    const rxJoint_t j = sim.Joint();
    const bool current = mode == 2, position = mode == 20, trajectory = mode == 0 || mode == 7;
    EXPECT_EQ(+j.refCurrent, current ? 1.25f : 0);
    EXPECT_EQ(+j.current, current ? 1.25f : 0);
    EXPECT_EQ(+j.refVelocity, position ? 2.5f : 0);
    EXPECT_EQ(+j.velocity, position ? 2.5f : 0);
    EXPECT_EQ(+j.refPosition, position ? -45.0f : 0);
    EXPECT_EQ(+j.position, position ? -45.0f : 0);
    ASSERT_EQ(sim.traj_via_points_[0].size(), trajectory ? 1u : 0u);
    EXPECT_EQ(sim.Status(), trajectory ? 109 : 0);  // the servo is off
    if (trajectory) {
      EXPECT_EQ(sim.traj_via_points_[0][0].time, 2.5f);
    }
  }
}

TEST(SimulatedOrder, SetsModesFaultsAndParameters) {
  Stepped sim(1);
  const std::vector<std::pair<float, int>> modes = {{7.9f, 7},   {-1, 255},     {300, 44},          {-0.5f, 0},
                                                    {NAN, 0},    {INFINITY, 0}, {-INFINITY, 0},     {1e30f, 0},
                                                    {20.0f, 20}, {65537.0f, 1}, {2147483648.0f, 0}, {256.5f, 0}};
  for (const auto& [value, mode] : modes) {
    sim.State().ctrlMode = 99;
    sim.Order(0xA3, value);
    EXPECT_EQ(sim.Joint().ctrlMode, mode) << value;
  }
  const std::vector<std::pair<float, unsigned>> faults = {{12.9f, 12u},          {-1, 4294967295u}, {4294967296.0f, 0u},
                                                          {4294967808.0f, 512u}, {NAN, 0u},         {1e19f, 0u},
                                                          {-1e19f, 0u}};
  for (const auto& [value, word] : faults) {
    sim.Order(0xA2);
    sim.State().ewStatus = 99;
    sim.Order(0xFF, value);
    EXPECT_EQ(sim.Joint().systemMode, 3);
    EXPECT_EQ(+sim.Joint().ewStatus, word) << value;
  }
  sim.State().ewStatus = 5;
  sim.Order(0xA0);
  EXPECT_EQ(sim.Joint().systemMode, 0);
  EXPECT_EQ(+sim.Joint().ewStatus, 0u);
  sim.Order(0xA2);
  sim.State().ewStatus = 5;
  sim.Order(0xA0);  // no fault, no effect
  EXPECT_EQ(sim.Joint().systemMode, 2);
  EXPECT_EQ(+sim.Joint().ewStatus, 5u);
  sim.Order(0xA1);
  EXPECT_EQ(sim.Joint().systemMode, 0);
  for (int i = 0; i < 4; ++i) sim.Order(0xB0 + i, 0.25f + static_cast<float>(i));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(sim.Joint().general[i], 0.25f + static_cast<float>(i));
}

TEST(SimulatedOrder, AppendsPointsWithTheirArguments) {
  struct Row {
    int order;
    std::array<float, 4> point;
  };
  for (const Row& row : {Row{0x3A, {1, 0, 0, 2}}, Row{0x3B, {1, 0, 0, 2}}, Row{0x3C, {1, 0, 0, 2}},
                         Row{0x3D, {1, 2, 0, 3}}, Row{0x3E, {1, 2, 3, 4}}, Row{0xD0, {0, 0, 0, 5}}}) {
    Stepped sim(2);
    sim.Order(row.order, 1, 2, 3, 4, 1);
    ASSERT_EQ(sim.traj_via_points_[1].size(), 1u);
    const TrajViaPoint p = sim.traj_via_points_[1][0];
    EXPECT_EQ((std::array<float, 4>{p.position, p.velocity, p.acceleration, p.time}), row.point) << row.order;
    EXPECT_EQ(sim.Status(1), row.order == 0xD0 ? 109 : 0);
    sim.Order(0x30, 0, 0, 0, 0, 1);
    EXPECT_TRUE(sim.traj_via_points_[1].empty());
    EXPECT_EQ(sim.Status(1), 0);
  }
}

TEST(SimulatedOrder, IgnoresEveryOtherCode) {
  const std::vector<int> known = {0x10, 0x11, 0x12, 0x30, 0x35, 0x36, 0x3A, 0x3B, 0x3C, 0x3D, 0x3E,
                                  0xA0, 0xA1, 0xA2, 0xA3, 0xB0, 0xB1, 0xB2, 0xB3, 0xD0, 0xFF};
  Stepped sim(1);
  sim.State().systemMode = 3;
  sim.State().trjStatus = 100;
  const rxJoint_t before = sim.Joint();
  for (int code = 0; code < 256; ++code) {
    if (std::find(known.begin(), known.end(), code) != known.end()) continue;
    sim.Order(code, 1, 2, 3, 4);
    const rxJoint_t after = sim.Joint();
    ASSERT_EQ(std::memcmp(&before, &after, sizeof before), 0) << code;
    ASSERT_TRUE(sim.traj_via_points_[0].empty()) << code;
  }
  sim.Order(0x30);
  EXPECT_EQ(sim.Status(), 0);
  sim.State().trjStatus = 99;
  sim.Order(0x30);
  EXPECT_EQ(sim.Status(), 99);
}

TEST(SimulatedTrajectory, MovesLinearlyAndFinishes) {
  Stepped sim(1);
  sim.Order(0xA2);
  sim.Order(0x11, 9);  // 0.5 s
  EXPECT_EQ(sim.Status(), 1);
  sim.Steps(1);
  EXPECT_EQ(sim.Status(), 2);
  EXPECT_EQ(+sim.Joint().trjViaRemain, 1);  // counted before the point was taken
  EXPECT_EQ(sim.Position(), 0);
  for (int i = 1; i < 50; ++i) {
    sim.Steps(1);
    ASSERT_NEAR(sim.Position(), 0.18f * static_cast<float>(i), 1e-4f);
    ASSERT_EQ(+sim.Joint().refPosition, sim.Position());
  }
  EXPECT_EQ(+sim.Joint().trjViaRemain, 0);
  for (int i = 0; sim.Status() == 2 && i < 3; ++i) sim.Steps(1);
  EXPECT_EQ(sim.Status(), 3);
  EXPECT_EQ(sim.Position(), 9);
  sim.Steps(1);
  EXPECT_EQ(sim.Status(), 4);
  sim.Steps(5);
  EXPECT_EQ(sim.Status(), 4);
  EXPECT_NEAR(sim.Header().duration, 0.5f, 0.011f);
}

TEST(SimulatedTrajectory, PlaysItsPointsOnOneClock) {
  Stepped sim(1);
  sim.Order(0xA2);
  for (const float t : {1.0f, 2.0f, 3.0f}) sim.Order(0x3D, 10 * t, t, t);
  sim.Order(0x35);
  sim.Steps(1 + 50);
  EXPECT_NEAR(sim.Position(), 5, 0.01);
  EXPECT_NEAR(sim.Joint().refVelocity, 0.5f, 0.01);
  EXPECT_EQ(+sim.Joint().trjViaRemain, 2);
  sim.Steps(101);  // the change of segment takes a cycle in which the clock rests
  EXPECT_NEAR(sim.Position(), 15, 0.11);
  EXPECT_NEAR(sim.Joint().refVelocity, 1.5f, 0.011);
  EXPECT_EQ(+sim.Joint().trjViaRemain, 1);
  for (int i = 0; i < 200 && sim.Status() != 4; ++i) sim.Steps(1);
  EXPECT_EQ(sim.Status(), 4);
  EXPECT_EQ(sim.Position(), 30);
  EXPECT_EQ(+sim.Joint().refVelocity, 0);
  EXPECT_NEAR(sim.Header().duration, 3, 0.011);

  sim.Order(0x3A, 50, 0.5f);  // clock back to 0 with the start
  sim.Order(0x3A, 60, 0.2f);  // already past when its turn comes: reached in one cycle
  sim.Order(0x35);
  for (int i = 0; i < 70 && sim.Position() != 60; ++i) sim.Steps(1);
  EXPECT_EQ(sim.Position(), 60);
  EXPECT_NEAR(sim.Header().duration, 0.51f, 0.011);
}

TEST(SimulatedTrajectory, AStartOnOneJointResetsTheClockOfAll) {
  Stepped sim(2);
  for (unsigned char joint = 0; joint < 2; ++joint) {
    sim.Order(0xA2, 0, 0, 0, 0, joint);
    sim.Order(0x3A, 100, 1, 0, 0, joint);
  }
  sim.Order(0x35);
  sim.Steps(1 + 60);
  EXPECT_NEAR(sim.Position(0), 60, 0.1);
  sim.Order(0x35, 0, 0, 0, 0, 1);
  sim.Steps(2);  // joint 0 moved on before joint 1 reset the clock, then jumps back with it
  EXPECT_NEAR(sim.Position(0), 1, 0.1);
  EXPECT_NEAR(sim.Position(1), 1, 0.1);
  sim.Steps(10);  // the clock advances once per cycle, not once per joint
  EXPECT_NEAR(sim.Header().duration, 0.11f, 0.001);

  sim.Order(0x3A, 0, 1);
  sim.Order(0x35);  // again while moving: a fresh segment from here
  sim.Steps(1);
  EXPECT_EQ(sim.Status(0), 2);
  EXPECT_EQ(+sim.Header().duration, 0.01f);  // reset by joint 0, then advanced by joint 1 in the same cycle
  EXPECT_NEAR(sim.Position(0), 11, 0.1);
  sim.Steps(50);
  EXPECT_NEAR(sim.Position(0), 11 * (1 - 0.51), 0.1);
}

TEST(SimulatedTrajectory, RefusalsInterruptionsAndCancels) {
  Stepped sim(1);
  sim.Order(0x35);
  EXPECT_EQ(sim.Status(), 109);
  sim.Order(0xA2);
  sim.Order(0x35);
  EXPECT_EQ(sim.Status(), 102);
  sim.State().trjStatus = 1;
  sim.Steps(1);
  EXPECT_EQ(sim.Status(), 102);
  sim.State().trjViaRemain = 1;  // as counted in the last cycle, though the queue is empty
  sim.Order(0x35);
  EXPECT_EQ(sim.Status(), 1);
  sim.Steps(1);

  sim.Order(0x3A, 10, 1);
  sim.Order(0x3A, 20, 2);
  sim.Order(0x35);
  sim.Steps(20);
  const float there = sim.Position();
  EXPECT_GT(there, 0);
  sim.Order(0xA1);
  sim.Steps(3);
  EXPECT_EQ(sim.Status(), 111);
  EXPECT_EQ(sim.Position(), there);
  EXPECT_EQ(sim.traj_via_points_[0].size(), 1u);

  sim.Order(0xA2);
  sim.Order(0x35);
  sim.Order(0x3A, 30, 3);
  sim.Steps(5);
  EXPECT_EQ(sim.Status(), 2);
  sim.Order(0x36);
  EXPECT_EQ(sim.Status(), 5);
  sim.Steps(1);
  EXPECT_EQ(sim.Status(), 6);
  EXPECT_TRUE(sim.traj_via_points_[0].empty());
}

TEST(StateThread, AdvancesTimeTrajectoryAndVelocity) {
  MasterControllerClientMock sim(2, 10);
  SendPacket p(2);
  p.SetServoOn("all");
  sim.PushSendQueue(p, false);
  p.SetRefPosition("1", 1.8f);  // 0.1 s
  sim.PushSendQueue(p, false);
  sim.SendPacketInBuffer();
  sim.SendPacketInBuffer();
  const auto joint = [&] {
    sim.ReceiveStatus();
    return sim.GetLastRecvPacket().joints[1];
  };
  EXPECT_TRUE(Eventually([&] { return std::fabs(joint().velocity - 18) < 0.1f; }));
  EXPECT_TRUE(Eventually([&] { return joint().trjStatus == 4; }));
  EXPECT_TRUE(Eventually([&] { return joint().velocity == 0; }));
  EXPECT_EQ(joint().position, 1.8f);
  const std::vector<RecvPacket> packets = sim.GetCurStatePacket();
  for (std::size_t i = 1; i < packets.size(); ++i) {
    const std::uint64_t step = packets[i].header.timestamp - packets[i - 1].header.timestamp;
    ASSERT_EQ(step % 10000, 0u);
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
