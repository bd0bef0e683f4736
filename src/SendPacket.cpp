// SPDX-License-Identifier: MIT
#include "SendPacket.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "packet_frames.h"
#include "text.h"

namespace {

constexpr velta::FrameSizes kNoJoints = velta::CommandFrameSizes(0);

bool NamesAll(std::string_view ids) { return ids == "all"; }

/// Calls visit(i) for every joint that an ID string names, in its order.
template <typename Visit>
void VisitNamedJoints(const std::string& ids, int jointNum, Visit visit) {
  if (NamesAll(ids)) {
    for (int i = 0; i < jointNum; ++i) visit(i);
    return;
  }
  constexpr int kPlainDigits = 9;  // as many fit into an int, whatever they are
  const char* const end = ids.data() + ids.size();
  for (const char* p = ids.data(); p != end; p += p != end ? 1 : 0) {
    const char* const token = p;
    int id = 0;
    for (; p != end && p - token < kPlainDigits && *p >= '0' && *p <= '9'; ++p) id = id * 10 + (*p - '0');
    if (p == token || (p != end && *p != '/')) {
      p = std::find(p, end, '/');
      id = velta::detail::ParseInt32({token, static_cast<std::size_t>(p - token)}).value_or(-1);
    }
    if (id >= 0 && id < jointNum) visit(id);
  }
}

void WriteValue(txJoint_t& joint, int n, float v) {
  switch (n) {
    case 1:
      joint.value1 = v;
      break;
    case 2:
      joint.value2 = v;
      break;
    case 3:
      joint.value3 = v;
      break;
    case 4:
      joint.value4 = v;
      break;
    default:
      break;
  }
}

ePacketOrder FlagOrder(ePacketOrder set, bool flag) {
  return static_cast<ePacketOrder>(static_cast<int>(set) + (flag ? 0 : 0x10));
}

}  // namespace

SendPacket::SendPacket(int jointNum_)
    : header{{velta::kStartMark[0], velta::kStartMark[1]}, GetNowTimeStamp(), 0},
      joints(static_cast<std::size_t>(std::max(jointNum_, 0))),
      jointNum(jointNum_),
      headerSize(velta::CommandFrameSizes(jointNum_).header),
      dataSize(velta::CommandFrameSizes(jointNum_).data),
      packetSize(velta::CommandFrameSizes(jointNum_).packet) {
  for (std::size_t i = 0; i < joints.size(); ++i) joints[i].id = static_cast<std::uint8_t>(i);
}

SendPacket::SendPacket(SendPacket&& other) noexcept
    : header(other.header),
      joints(std::move(other.joints)),
      jointNum(std::exchange(other.jointNum, 0)),
      headerSize(other.headerSize),
      dataSize(std::exchange(other.dataSize, kNoJoints.data)),
      packetSize(std::exchange(other.packetSize, kNoJoints.packet)),
      confirmReceived(other.confirmReceived),
      isUnique(other.isUnique),
      uniqueKey(std::move(other.uniqueKey)) {}

SendPacket& SendPacket::operator=(SendPacket&& other) noexcept {
  header = other.header;
  joints = std::move(other.joints);
  jointNum = std::exchange(other.jointNum, 0);
  headerSize = other.headerSize;
  dataSize = std::exchange(other.dataSize, kNoJoints.data);
  packetSize = std::exchange(other.packetSize, kNoJoints.packet);
  confirmReceived = other.confirmReceived;
  isUnique = other.isUnique;
  uniqueKey = std::move(other.uniqueKey);
  return *this;
}

void SendPacket::swap(SendPacket& other) noexcept {
  std::swap(header, other.header);
  joints.swap(other.joints);
  std::swap(jointNum, other.jointNum);
  std::swap(headerSize, other.headerSize);
  std::swap(dataSize, other.dataSize);
  std::swap(packetSize, other.packetSize);
  std::swap(confirmReceived, other.confirmReceived);
  std::swap(isUnique, other.isUnique);
  uniqueKey.swap(other.uniqueKey);
}

SendPacket::~SendPacket() = default;

void SendPacket::SetJointOrder(int id, ePacketOrder order) {
  if (IsValidID(id)) joints[static_cast<std::size_t>(id)].order = static_cast<std::uint8_t>(order);
}

void SendPacket::SetJointOrder(const std::vector<int>& ids, ePacketOrder order) {
  for (const int id : ids) SetJointOrder(id, order);
}

void SendPacket::SetValue(int id, int n, float v) {
  if (IsValidID(id)) WriteValue(joints[static_cast<std::size_t>(id)], n, v);
}

void SendPacket::SetValue(const std::vector<int>& ids, int n, float v) {
  for (const int id : ids) SetValue(id, n, v);
}

std::vector<int> SendPacket::ParseIDString(const std::string& ids) const {
  std::vector<int> result;
  result.reserve(NamesAll(ids) ? joints.size() : ids.size() / 2 + 1);
  VisitNamedJoints(ids, jointNum, [&](int id) { result.push_back(id); });
  return result;
}

void SendPacket::SetCommonCommand(const std::string& ids, ePacketOrder order, float value1, float value2, float value3,
                                  float value4) {
  VisitNamedJoints(ids, jointNum, [&](int id) {
    txJoint_t& joint = joints[static_cast<std::size_t>(id)];
    joint = {joint.id, static_cast<std::uint8_t>(order), value1, value2, value3, value4};
  });
}

void SendPacket::SetCommonCommand(const std::string& ids, int order, float value1, float value2, float value3,
                                  float value4) {
  SetCommonCommand(ids, static_cast<ePacketOrder>(order), value1, value2, value3, value4);
}

std::vector<char> SendPacket::GetCharVector() const {
  std::vector<char> frame;
  velta::detail::WriteCommandFrame(*this, frame);
  return frame;
}

void SendPacket::SetReset(const std::string& ids) { SetCommonCommand(ids, ePacketOrder::Reset, 0, 0, 0, 0); }

void SendPacket::SetServoOff(const std::string& ids) { SetCommonCommand(ids, ePacketOrder::ServoOff, 0, 0, 0, 0); }

void SendPacket::SetServoOn(const std::string& ids) { SetCommonCommand(ids, ePacketOrder::ServoOn, 0, 0, 0, 0); }

void SendPacket::SetBrakeOff(const std::string& ids) { SetCommonCommand(ids, ePacketOrder::BrakeOff, 0, 0, 0, 0); }

void SendPacket::SetBrakeOn(const std::string& ids) { SetCommonCommand(ids, ePacketOrder::BrakeOn, 0, 0, 0, 0); }

void SendPacket::SetControlMode(const std::string& ids, int mode) {
  SetCommonCommand(ids, ePacketOrder::ControlMode, static_cast<float>(mode), 0, 0, 0);
}

// The mode numbers are the controller's.
void SendPacket::SetPositionControlMode(const std::string& ids) { SetControlMode(ids, 20); }

void SendPacket::SetVelocityControlMode(const std::string& ids) { SetControlMode(ids, 1); }

void SendPacket::SetCurrentControlMode(const std::string& ids) { SetControlMode(ids, 2); }

void SendPacket::SetExternalForceFollowingControlMode(const std::string& ids) { SetControlMode(ids, 5); }

void SendPacket::SetTrajectoryControlMode(const std::string& ids) { SetControlMode(ids, 0); }

void SendPacket::SetOnlineTrajectoryControlMode(const std::string& ids) { SetControlMode(ids, 7); }

void SendPacket::SetRotationFixedControlMode(const std::string& ids) { SetControlMode(ids, 10); }

void SendPacket::SetGetSlaveEffortOffset(const std::string& ids) {
  SetCommonCommand(ids, ePacketOrder::GetSlaveEffortOffset, 0, 0, 0, 0);
}

void SendPacket::SetParamKp(const std::string& ids, float v) {
  SetCommonCommand(ids, ePacketOrder::ParamKp, v, 0, 0, 0);
}

void SendPacket::SetParamKi(const std::string& ids, float v) {
  SetCommonCommand(ids, ePacketOrder::ParamKi, v, 0, 0, 0);
}

void SendPacket::SetParamKd(const std::string& ids, float v) {
  SetCommonCommand(ids, ePacketOrder::ParamKd, v, 0, 0, 0);
}

void SendPacket::SetParamWindupLimit(const std::string& ids, float v) {
  SetCommonCommand(ids, ePacketOrder::ParamWindupLimit, v, 0, 0, 0);
}

void SendPacket::SetParamVelocityOverride(const std::string& ids, float v) {
  SetCommonCommand(ids, ePacketOrder::ParamVelocityOverride, v, 0, 0, 0);
}

void SendPacket::SetParamVelocityMax(const std::string& ids, float v) {
  SetCommonCommand(ids, ePacketOrder::ParamVelocityMax, v, 0, 0, 0);
}

void SendPacket::SetParamAccelerationMax(const std::string& ids, float v) {
  SetCommonCommand(ids, ePacketOrder::ParamAccelerationMax, v, 0, 0, 0);
}

void SendPacket::SetParamJerkMax(const std::string& ids, float v) {
  SetCommonCommand(ids, ePacketOrder::ParamJerkMax, v, 0, 0, 0);
}

void SendPacket::SetParamExtFFOnTrajSoftnessOverride(const std::string& ids, float v) { SetArbitraryParam(ids, 80, v); }

void SendPacket::SetArbitraryParam(const std::string& ids, int param, float v) {
  SetCommonCommand(ids, ePacketOrder::ArbitraryParam, static_cast<float>(param), v, 0, 0);
}

void SendPacket::SetRefCurrent(const std::string& ids, float c) {
  SetCommonCommand(ids, ePacketOrder::RefCurrent, c, 0, 0, 0);
}

void SendPacket::SetRefPosition(const std::string& ids, float p) {
  SetCommonCommand(ids, ePacketOrder::RefPosition, p, 0, 0, 0);
}

void SendPacket::SetRefVelocity(const std::string& ids, float v) {
  SetCommonCommand(ids, ePacketOrder::RefVelocity, v, 0, 0, 0);
}

void SendPacket::SetRefPositionVelocity(const std::string& ids, float p, float v) {
  SetCommonCommand(ids, ePacketOrder::RefPositionVelocity, p, v, 0, 0);
}

void SendPacket::SetRefPositionVelocityAcceleration(const std::string& ids, float p, float v, float a) {
  SetCommonCommand(ids, ePacketOrder::RefPositionVelocityAcceleration, p, v, a, 0);
}

void SendPacket::SetDynamics(const std::string& ids, float a, float b, float c, float /*d*/) {
  SetCommonCommand(ids, ePacketOrder::Dynamics, a, b, c, 0);  // the fourth argument is dropped deliberately
}

void SendPacket::SetTrajectoryViaClear(const std::string& ids) {
  SetCommonCommand(ids, ePacketOrder::TrajectoryViaClear, 0, 0, 0, 0);
}

void SendPacket::SetTrajectoryControlStart(const std::string& ids) {
  SetCommonCommand(ids, ePacketOrder::TrajectoryControlStart, 0, 0, 0, 0);
}

void SendPacket::SetTrajectoryControlCancel(const std::string& ids) {
  SetCommonCommand(ids, ePacketOrder::TrajectoryControlCancel, 0, 0, 0, 0);
}

void SendPacket::SetTrajectoryP_DoubleS(const std::string& ids, float a) {
  SetCommonCommand(ids, ePacketOrder::TrajectoryP_DoubleS, a, 0, 0, 0);
}

void SendPacket::SetTrajectoryPT_LinSpline(const std::string& ids, float a, float b, bool flag) {
  SetCommonCommand(ids, FlagOrder(ePacketOrder::TrajectoryPT_LinSpline1, flag), a, b, 0, 0);
}

void SendPacket::SetTrajectoryPT_Trapezoidal(const std::string& ids, float a, float b, bool flag) {
  SetCommonCommand(ids, FlagOrder(ePacketOrder::TrajectoryPT_Trapezoidal1, flag), a, b, 0, 0);
}

void SendPacket::SetTrajectoryPT_DoubleS(const std::string& ids, float a, float b, bool flag) {
  SetCommonCommand(ids, FlagOrder(ePacketOrder::TrajectoryPT_DoubleS1, flag), a, b, 0, 0);
}

void SendPacket::SetTrajectoryPVT(const std::string& ids, float a, float b, float c, bool flag) {
  SetCommonCommand(ids, FlagOrder(ePacketOrder::TrajectoryPVT1, flag), a, b, c, 0);
}

void SendPacket::SetTrajectoryPVAT(const std::string& ids, float a, float b, float c, float d, bool flag) {
  SetCommonCommand(ids, FlagOrder(ePacketOrder::TrajectoryPVAT1, flag), a, b, c, d);
}

void SendPacket::SetMoveHomePosition(const std::string& ids) {
  SetCommonCommand(ids, ePacketOrder::MoveHomePosition, 0, 0, 0, 0);
}

void SendPacket::SetGeneralRegisterType(const std::string& ids, int a, int b) {
  SetCommonCommand(ids, ePacketOrder::GeneralRegisterType, static_cast<float>(a), static_cast<float>(b), 0, 0);
}

void SendPacket::SetArmCommand(ePacketArmOrder order, std::initializer_list<float> values) {
  SetArmOrder(order);
  int n = 0;
  for (const float v : values) SetValue(0, ++n, v);
}

void SendPacket::SetPayload(float a, float b, float c, float d) {
  SetArmCommand(ePacketArmOrder::Payload, {a, b, c, d});
}

void SendPacket::SetPayloadInertiaTensorDiagonal(float a, float b, float c) {
  SetArmCommand(ePacketArmOrder::PayloadInertiaTensorDiagonal, {a, b, c});
}

void SendPacket::SetPayloadInertiaTensorTriangle(float a, float b, float c) {
  SetArmCommand(ePacketArmOrder::PayloadInertiaTensorTriangle, {a, b, c});
}

void SendPacket::SetGripperMaxEffort(float e) { SetArmCommand(ePacketArmOrder::GripperMaxEffort, {e}); }
