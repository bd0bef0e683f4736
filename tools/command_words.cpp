// SPDX-License-Identifier: MIT
#include "command_words.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <sstream>
#include <type_traits>
#include <utility>

#include "command.h"

namespace velta::tools {

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

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

template <typename T>
bool Convert(const std::string& text, T& value) {
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  return result.ec == std::errc{} && result.ptr == end;
}

/// @param kind  as in CommandWord::kinds
float ParseArgument(char kind, const std::string& name, const std::string& text) {
  const std::string what = name + " '" + text + "' ";
  float real = 0;
  int integer = 0;
  switch (kind) {
    case 'b':
      if (text == "0" || text == "1") return text == "1" ? 1.0f : 0.0f;
      throw UsageError(what + "is not 0 or 1");
    case 'i':  // travels as a real, which holds every integer up to 2^24
      if (Convert(text, integer) && std::abs(integer) <= 1 << 24) return static_cast<float>(integer);
      throw UsageError(what + "is not an integer of up to 24 bits");
    default:
      if (Convert(text, real) && std::isfinite(real)) return real;
      throw UsageError(what + "is not a finite 32-bit real number");
  }
}

void CheckJoints(const CommandWord& command, int joint_num, const std::string& joints) {
  if (command.of_arm) {
    if (!joints.empty()) throw UsageError(std::string(command.name) + " commands the whole arm and takes no --joints");
    return;
  }
  if (joints == "all") return;
  if (joints.empty() || joints.back() == '/') {
    throw UsageError(std::string(command.name) + " needs --joints: 'all', or indices from 0 separated by '/'");
  }
  const std::vector<std::string> tokens = Split(joints, '/');
  const auto wrong = std::find_if(tokens.begin(), tokens.end(), [joint_num](const std::string& token) {
    unsigned int joint = 0;
    return !Convert(token, joint) || joint >= static_cast<unsigned int>(joint_num);
  });
  if (wrong == tokens.end()) return;
  throw UsageError("--joints " + joints + ": '" + *wrong + "' is not a joint of this arm (0 to " +
                   std::to_string(joint_num - 1) + ")");
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
      Word<&SendPacket::SetGeneralRegisterType>("general-register-type", "a b",
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

std::vector<std::string> ListCommandWords() {
  std::vector<std::string> lines;
  for (const CommandWord& command : CommandWords()) {
    std::string line = command.name;
    for (const std::string& argument : Split(command.arguments, ' ')) {
      line += " <" + argument + ">";
    }
    line.resize(std::max<std::size_t>(line.size() + 2, 60), ' ');
    lines.push_back(line + command.help + (command.of_arm ? " (whole arm)" : ""));
  }
  return lines;
}

SendPacket MakeCommand(int joint_num, const std::string& word, const std::vector<std::string>& arguments,
                       const std::string& joints) {
  const auto& words = CommandWords();
  const auto command = std::find_if(words.begin(), words.end(), [&](const CommandWord& w) { return word == w.name; });
  if (command == words.end()) throw UsageError("unknown command '" + word + "'; velta send --list shows all");
  const std::vector<std::string> wanted = Split(command->arguments, ' ');
  if (arguments.size() != wanted.size()) {
    throw UsageError(word + " takes " + std::to_string(wanted.size()) + " arguments, not " +
                     std::to_string(arguments.size()) + "; velta send --list shows them");
  }
  CheckJoints(*command, joint_num, joints);
  std::array<float, 5> values{};
  for (std::size_t i = 0; i < wanted.size(); ++i)
    values[i] = ParseArgument(command->kinds[i], word + ": " + wanted[i], arguments[i]);
  SendPacket packet(joint_num);
  command->apply(packet, joints, values.data());
  return packet;
}

}  // namespace velta::tools
