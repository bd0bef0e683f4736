// SPDX-License-Identifier: MIT
#include "MasterControllerClientMock.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <utility>

#include "client_parts.h"

namespace {

// Values of trjStatus; the last three are letters that operators know from the controller's display.
enum TrajStatus : std::uint8_t {
  kIdle = 0,
  kStartRequested = 1,
  kMoving = 2,
  kReached = 3,
  kFinished = 4,
  kCancelRequested = 5,
  kCancelled = 6,
  kRefusedNoPoint = 'f',
  kRefusedNotServo = 'm',
  kInterrupted = 'o',
};
constexpr std::uint8_t kFirstLetter = 100;

enum SystemMode : std::uint8_t { kServoOff = 0, kServoOn = 2, kFault = 3 };

enum ControlMode : std::uint8_t { kTrajectory = 0, kCurrent = 2, kOnlineTrajectory = 7, kPosition = 20 };

/// Truncation toward zero; 0 for what no 64-bit integer holds.
std::int64_t Truncate(float value) {
  constexpr float kBound = 9223372036854775808.0f;  // 2^63
  return value >= -kBound && value < kBound ? static_cast<std::int64_t>(value) : 0;
}

void Sleep(int ms) {
  const timespec interval{ms / 1000, ms % 1000 * 1000000L};
  nanosleep(&interval, nullptr);
}

}  // namespace

const std::map<std::string, unsigned char> MasterControllerClientMock::joint_type_str_to_num_map_ = {
    {"revolute", 0}, {"gripper_prismatic", 1}, {"gripper_revolute", 2}};

MasterControllerClientMock::MasterControllerClientMock(int joint_num, int cycle_ms)
    : MasterControllerClient(joint_num),
      cycle_ms_(cycle_ms),
      inner_state_(joint_num),
      traj_via_points_(inner_state_.joints.size()),
      traj_target_(inner_state_.joints.size()),
      traj_start_(inner_state_.joints.size()) {
  is_init_ = true;  // without any link, deliberately: the facade behaves as if one were open
  is_connected_ = true;
  inner_state_.header.timestamp = 0;
  state_thread_ = std::make_unique<std::thread>([this] { ManageInnerStateThreadProc(); });
  state_thread_->detach();
}

MasterControllerClientMock::~MasterControllerClientMock() {
  is_running_ = false;
  while (state_thread_ != nullptr && !is_thread_finished_) Sleep(10);
}

// The state is copied without state_mutex_, deliberately: a snapshot may mix the values of two cycles.
int MasterControllerClientMock::ReceiveStatus() {
  std::vector<RecvPacket>& spare = parts_->spare_packets;
  if (spare.empty()) spare.emplace_back(joint_num_);
  RecvPacket& snapshot = spare.front();
  snapshot = inner_state_;
  PushRecvBuffer(snapshot);
  last_recv_packet_.swap(snapshot);
  parts_->frames_received.Add(1);
  return static_cast<int>(GetRecvBufferSize());
}

// The receive buffer has no bound on this road, deliberately: a host that never collects lets it grow.
void MasterControllerClientMock::SetRecvBuffer(RecvPacket packet) {
  PushRecvBuffer(packet);
  last_recv_packet_ = std::move(packet);
}

// No confirmation gate, deliberately: every interpreted packet counts as delivered.
void MasterControllerClientMock::SendPacketInBuffer() {
  MergeIndependentSendPacketBuffer();
  if (!TakeNextPacket()) return;
  ParseSendPacket(cur_send_packet_);
  parts_->frames_sent.Add(1);
  if (cur_send_packet_.GetConfirmReceived()) parts_->commands_confirmed.Add(1);
}

// No lock, deliberately: types are set before the simulation matters.
void MasterControllerClientMock::SetJointType(int joint, unsigned char type) {
  if (joint < 0 || static_cast<std::size_t>(joint) >= inner_state_.joints.size()) return;
  inner_state_.joints[static_cast<std::size_t>(joint)].type = type;
}

void MasterControllerClientMock::SetJointType(int joint, const std::string& type_name) {
  const auto found = joint_type_str_to_num_map_.find(type_name);
  if (found != joint_type_str_to_num_map_.end()) SetJointType(joint, found->second);
}

void MasterControllerClientMock::ParseSendPacket(const SendPacket& packet) {
  const std::lock_guard<std::mutex> lock(state_mutex_);
  inner_state_.header.hostTimestamp = packet.header.timeStamp;
  if (packet.header.armOrder != 0) {
    const txJoint_t first = packet.joints.empty() ? txJoint_t{} : packet.joints.front();
    ParseWholeOrder(packet.header.armOrder, first.value1, first.value2, first.value3, first.value4);
    return;
  }
  const std::size_t count = std::min(packet.joints.size(), inner_state_.joints.size());
  for (std::size_t i = 0; i < count; ++i) {
    const txJoint_t& joint = packet.joints[i];
    ParseJointOrder(static_cast<unsigned char>(i), joint.order, joint.value1, joint.value2, joint.value3, joint.value4);
  }
}

// Empty deliberately: every arm order is accepted and changes nothing.
void MasterControllerClientMock::ParseWholeOrder(unsigned char /*arm_order*/, float /*value1*/, float /*value2*/,
                                                 float /*value3*/, float /*value4*/) {}

void MasterControllerClientMock::ParseJointOrder(unsigned char joint, unsigned char order, float value1, float value2,
                                                 float value3, float value4) {
  if (joint >= inner_state_.joints.size()) return;
  rxJoint_t& state = inner_state_.joints[joint];
  std::deque<TrajViaPoint>& points = traj_via_points_[joint];

  switch (static_cast<ePacketOrder>(order)) {
    case ePacketOrder::RefCurrent:
      if (state.ctrlMode == kCurrent) state.refCurrent = state.current = value1;
      break;
    case ePacketOrder::RefPosition:
      if (state.ctrlMode == kPosition) {
        state.refPosition = state.position = value1;
      } else if (state.ctrlMode == kTrajectory || state.ctrlMode == kOnlineTrajectory) {
        points.emplace_back(value1, 0.0f, 0.0f, std::fabs(value1 - state.position) / 90.0f * 5.0f);
        TrajControlStart(joint);
      }
      break;
    case ePacketOrder::RefVelocity:
      if (state.ctrlMode == kPosition) state.refVelocity = state.velocity = value1;  // position mode, deliberately
      break;
    case ePacketOrder::TrajectoryViaClear:
      points.clear();
      if (state.trjStatus >= kFirstLetter) state.trjStatus = kIdle;
      break;
    case ePacketOrder::TrajectoryControlStart:
      TrajControlStart(joint);
      break;
    case ePacketOrder::TrajectoryControlCancel:
      state.trjStatus = kCancelRequested;
      break;
    case ePacketOrder::TrajectoryPT_LinSpline1:
    case ePacketOrder::TrajectoryPT_Trapezoidal1:
    case ePacketOrder::TrajectoryPT_DoubleS1:
      points.emplace_back(value1, 0.0f, 0.0f, value2);
      break;
    case ePacketOrder::TrajectoryPVT1:
      points.emplace_back(value1, value2, 0.0f, value3);
      break;
    case ePacketOrder::TrajectoryPVAT1:
      points.emplace_back(value1, value2, value3, value4);
      break;
    case ePacketOrder::Reset:
      if (state.systemMode == kFault) {
        state.systemMode = kServoOff;
        state.ewStatus = 0;
      }
      break;
    case ePacketOrder::ServoOff:
      state.systemMode = kServoOff;
      break;
    case ePacketOrder::ServoOn:
      state.systemMode = kServoOn;
      break;
    case ePacketOrder::ControlMode:
      state.ctrlMode = static_cast<std::uint8_t>(Truncate(value1));
      break;
    case ePacketOrder::ParamKp:
      state.general[0] = value1;
      break;
    case ePacketOrder::ParamKi:
      state.general[1] = value1;
      break;
    case ePacketOrder::ParamKd:
      state.general[2] = value1;
      break;
    case ePacketOrder::ParamWindupLimit:
      state.general[3] = value1;
      break;
    case ePacketOrder::MoveHomePosition:
      points.emplace_back(0.0f, 0.0f, 0.0f, 5.0f);
      TrajControlStart(joint);
      break;
    case ePacketOrder::FaultInjection:
      state.systemMode = kFault;
      state.ewStatus = static_cast<std::uint32_t>(Truncate(value1));
      break;
    default:  // every other code is accepted and ignored, the flag-clear trajectory forms among them
      break;
  }
}

void MasterControllerClientMock::TrajControlStart(unsigned char joint) {
  if (joint >= inner_state_.joints.size()) return;
  rxJoint_t& state = inner_state_.joints[joint];
  if (state.systemMode != kServoOn) {
    state.trjStatus = kRefusedNotServo;
  } else if (state.trjViaRemain != 0 || !traj_via_points_[joint].empty()) {
    state.trjStatus = kStartRequested;
  } else {
    state.trjStatus = kRefusedNoPoint;
  }
}

// One clock (the status' duration) serves all joints, deliberately: a start on any joint resets it for all.
void MasterControllerClientMock::ManageTrajState() {
  bool clock_advanced = false;
  for (std::size_t i = 0; i < inner_state_.joints.size(); ++i) {
    rxJoint_t& state = inner_state_.joints[i];
    state.trjViaRemain = static_cast<std::uint16_t>(traj_via_points_[i].size());
    if (state.systemMode == kServoOn) {
      ManageJoint(i, clock_advanced);
    } else if (state.trjStatus == kMoving) {
      state.trjStatus = kInterrupted;
    }
  }
}

void MasterControllerClientMock::ManageJoint(std::size_t joint, bool& clock_advanced) {
  rxJoint_t& state = inner_state_.joints[joint];
  std::deque<TrajViaPoint>& points = traj_via_points_[joint];
  TrajViaPoint& target = traj_target_[joint];
  TrajViaPoint& start = traj_start_[joint];
  const auto take_point = [&](float position, float velocity, float time) {
    start.position = position;
    start.velocity = velocity;
    start.time = time;
    target = points.front();
    points.pop_front();
    state.trjStatus = kMoving;
  };
  switch (state.trjStatus) {
    case kStartRequested:
      if (points.empty()) {
        state.trjStatus = kRefusedNoPoint;
        break;
      }
      take_point(state.position, state.velocity, 0);
      inner_state_.header.duration = 0;
      break;
    case kMoving: {
      if (!clock_advanced) inner_state_.header.duration += static_cast<float>(cycle_ms_) / 1000.0f;
      clock_advanced = true;
      const float t = inner_state_.header.duration;
      if (target.time > t) {
        const float r = (t - start.time) / (target.time - start.time);
        state.refPosition = state.position = start.position + (target.position - start.position) * r;
        state.refVelocity = start.velocity + (target.velocity - start.velocity) * r;
      } else {
        state.refPosition = state.position = target.position;
        state.trjStatus = kReached;
      }
      break;
    }
    case kReached:
      if (points.empty()) {
        state.trjStatus = kFinished;
        state.refVelocity = 0;
        break;
      }
      take_point(target.position, target.velocity, target.time);
      break;
    case kCancelRequested:
      points.clear();
      state.trjStatus = kCancelled;
      break;
    default:
      break;
  }
}

void MasterControllerClientMock::ManageInnerStateThreadProc() {
  const int period_ms = cycle_ms_;
  std::vector<float> before(inner_state_.joints.size(), 0.0f);
  while (is_running_) {
    {
      const std::lock_guard<std::mutex> lock(state_mutex_);
      inner_state_.header.timestamp += static_cast<std::uint64_t>(std::int64_t{cycle_ms_} * 1000);
      for (std::size_t i = 0; i < before.size(); ++i) before[i] = inner_state_.joints[i].position;
      ManageTrajState();
      for (std::size_t i = 0; i < before.size(); ++i) {
        rxJoint_t& state = inner_state_.joints[i];
        state.velocity = (state.position - before[i]) / (static_cast<float>(cycle_ms_) / 1000.0f);
      }
    }
    if (period_ms >= 1) Sleep(period_ms);
  }
  is_thread_finished_ = true;
}
