// SPDX-License-Identifier: MIT
#include "command_table.h"

#include <array>
#include <cstddef>
#include <type_traits>
#include <utility>

namespace velta::wire {

namespace {

template <typename... Args>
constexpr auto kKinds = std::array<char, sizeof...(Args) + 1>{
    (std::is_same_v<Args, bool> ? 'b' : (std::is_same_v<Args, int> ? 'i' : 'f'))...};  // ends with 0

/// A command from the setter's own signature; a setter without ids commands the whole arm.
template <auto kSetter, typename... Args, std::size_t... kIndex>
CommandWord JointWord(void (SendPacket::*)(const std::string&, Args...), std::index_sequence<kIndex...>) {
  return {"", "", "", kKinds<Args...>.data(), false, [](SendPacket& packet, const std::string& ids, const float* a) {
            static_cast<void>(a);
            (packet.*kSetter)(ids, static_cast<Args>(a[kIndex])...);
          }};
}

template <auto kSetter, typename... Args, std::size_t... kIndex>
CommandWord ArmWord(void (SendPacket::*)(Args...), std::index_sequence<kIndex...>) {
  return {"", "", "", kKinds<Args...>.data(), true, [](SendPacket& packet, const std::string&, const float* a) {
            (packet.*kSetter)(static_cast<Args>(a[kIndex])...);
          }};
}

template <auto kSetter, typename... Args>
CommandWord Make(void (SendPacket::*setter)(const std::string&, Args...)) {
  return JointWord<kSetter>(setter, std::index_sequence_for<Args...>{});
}

template <auto kSetter, typename... Args>
CommandWord Make(void (SendPacket::*setter)(float, Args...)) {
  return ArmWord<kSetter>(setter, std::index_sequence_for<float, Args...>{});
}

template <auto kSetter>
CommandWord Word(const char* name, const char* arguments, const char* help) {
  CommandWord word = Make<kSetter>(kSetter);
  word.name = name;
  word.arguments = arguments;
  word.help = help;
  return word;
}

}  // namespace

const std::vector<CommandWord>& CommandWords() {
  static const std::vector<CommandWord> words = {
      Word<&SendPacket::SetReset>("reset", "", "reset the joint, clearing its fault"),
      Word<&SendPacket::SetServoOff>("servo-off", "", "servo off"),
      Word<&SendPacket::SetServoOn>("servo-on", "", "servo on"),
      Word<&SendPacket::SetBrakeOff>("brake-off", "", "release the brake"),
      Word<&SendPacket::SetBrakeOn>("brake-on", "", "apply the brake"),
      Word<&SendPacket::SetControlMode>("control-mode", "mode", "select any control mode by its number"),
      Word<&SendPacket::SetPositionControlMode>("position-control-mode", "", "control mode 20"),
      Word<&SendPacket::SetVelocityControlMode>("velocity-control-mode", "", "control mode 1"),
      Word<&SendPacket::SetCurrentControlMode>("current-control-mode", "", "control mode 2"),
      Word<&SendPacket::SetExternalForceFollowingControlMode>("external-force-following-control-mode", "",
                                                              "control mode 5"),
      Word<&SendPacket::SetTrajectoryControlMode>("trajectory-control-mode", "", "control mode 0"),
      Word<&SendPacket::SetOnlineTrajectoryControlMode>("online-trajectory-control-mode", "", "control mode 7"),
      Word<&SendPacket::SetRotationFixedControlMode>("rotation-fixed-control-mode", "", "control mode 10"),
      Word<&SendPacket::SetGetSlaveEffortOffset>("get-slave-effort-offset", "", "take the effort offset"),
      Word<&SendPacket::SetParamKp>("param-kp", "value", "set the gain Kp"),
      Word<&SendPacket::SetParamKi>("param-ki", "value", "set the gain Ki"),
      Word<&SendPacket::SetParamKd>("param-kd", "value", "set the gain Kd"),
      Word<&SendPacket::SetParamWindupLimit>("param-windup-limit", "value", "set the windup limit"),
      Word<&SendPacket::SetParamVelocityOverride>("param-velocity-override", "value", "set the velocity override"),
      Word<&SendPacket::SetParamVelocityMax>("param-velocity-max", "value", "set the maximum velocity"),
      Word<&SendPacket::SetParamAccelerationMax>("param-acceleration-max", "value", "set the maximum acceleration"),
      Word<&SendPacket::SetParamJerkMax>("param-jerk-max", "value", "set the maximum jerk"),
      Word<&SendPacket::SetParamExtFFOnTrajSoftnessOverride>(
          "param-ext-ff-on-traj-softness-override", "value",
          "set parameter 80, softness of external force following on a trajectory"),
      Word<&SendPacket::SetArbitraryParam>("arbitrary-param", "number value", "set a parameter by its number"),
      Word<&SendPacket::SetRefCurrent>("ref-current", "current", "current reference"),
      Word<&SendPacket::SetRefPosition>("ref-position", "position", "position reference"),
      Word<&SendPacket::SetRefVelocity>("ref-velocity", "velocity", "velocity reference"),
      Word<&SendPacket::SetRefPositionVelocity>("ref-position-velocity", "position velocity",
                                                "position and velocity reference"),
      Word<&SendPacket::SetRefPositionVelocityAcceleration>("ref-position-velocity-acceleration",
                                                            "position velocity acceleration",
                                                            "position, velocity and acceleration reference"),
      Word<&SendPacket::SetDynamics>("dynamics", "a b c d", "dynamics values; the fourth is sent as 0"),
      Word<&SendPacket::SetTrajectoryViaClear>("trajectory-via-clear", "", "remove the queued trajectory points"),
      Word<&SendPacket::SetTrajectoryControlStart>("trajectory-control-start", "", "start the trajectory"),
      Word<&SendPacket::SetTrajectoryControlCancel>("trajectory-control-cancel", "", "cancel the trajectory"),
      Word<&SendPacket::SetTrajectoryP_DoubleS>("trajectory-p-double-s", "position",
                                                "position target, double-S profile"),
      Word<&SendPacket::SetTrajectoryPT_LinSpline>("trajectory-pt-lin-spline", "position time flag",
                                                   "point on a linear spline"),
      Word<&SendPacket::SetTrajectoryPT_Trapezoidal>("trajectory-pt-trapezoidal", "position time flag",
                                                     "point with a trapezoidal profile"),
      Word<&SendPacket::SetTrajectoryPT_DoubleS>("trajectory-pt-double-s", "position time flag",
                                                 "point with a double-S profile"),
      Word<&SendPacket::SetTrajectoryPVT>("trajectory-pvt", "position velocity time flag", "point with velocity"),
      Word<&SendPacket::SetTrajectoryPVAT>("trajectory-pvat", "position velocity acceleration time flag",
                                           "point with velocity and acceleration"),
      Word<&SendPacket::SetMoveHomePosition>("move-home-position", "", "move to the home position"),
      Word<&SendPacket::SetGeneralRegisterType>("general-register-type", "first second",
                                                "select what the general registers show"),
      Word<&SendPacket::SetPayload>("payload", "a b c d", "payload of the arm"),
      Word<&SendPacket::SetPayloadInertiaTensorDiagonal>("payload-inertia-tensor-diagonal", "a b c",
                                                         "inertia tensor of the payload, diagonal"),
      Word<&SendPacket::SetPayloadInertiaTensorTriangle>("payload-inertia-tensor-triangle", "a b c",
                                                         "inertia tensor of the payload, off the diagonal"),
      Word<&SendPacket::SetGripperMaxEffort>("gripper-max-effort", "effort", "maximum effort of the gripper"),
  };
  return words;
}

}  // namespace velta::wire
