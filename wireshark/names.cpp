// SPDX-License-Identifier: MIT
// Prints the name tables of the Wireshark dissector as Lua, from the tables that the velta program itself uses.
// wireshark/update-names puts them into velta.lua.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>

#include "command_table.h"
#include "status_words.h"

namespace {

using velta::wire::CommandWord;

/// "{"trajectory-pvt", "position", "velocity", "time"}": the word, then the names of value1 to value4. A flag is no
/// value but part of the code.
std::string WordAndValues(const CommandWord& command, bool flag) {
  std::string text = std::string("{\"") + command.name;
  if (!flag && std::string(command.kinds).find('b') != std::string::npos) text += " (flag clear)";
  text += '"';
  std::istringstream names(command.arguments);
  std::size_t index = 0;
  for (std::string name; names >> name; ++index) {
    if (index < 4 && command.kinds[index] != 'b') text += ", \"" + name + '"';
  }
  return text + '}';
}

std::ptrdiff_t Values(const std::string& text) { return text.empty() ? -1 : std::count(text.begin(), text.end(), ','); }

void PrintCommands() {
  std::map<unsigned, std::string> joint_orders, arm_orders;
  for (const CommandWord& command : velta::wire::CommandWords()) {
    for (const bool flag : {true, false}) {
      std::array<float, 5> arguments;
      arguments.fill(flag ? 1.0f : 0.0f);
      SendPacket packet(1);
      command.apply(packet, "0", arguments.data());
      auto& orders = command.of_arm ? arm_orders : joint_orders;
      const unsigned code = command.of_arm ? packet.header.armOrder : packet.joints[0].order;
      const std::string text = WordAndValues(command, flag);
      std::string& known = orders[code];
      if (Values(text) > Values(known)) known = text;  // of several words for a code, the one that leaves most open
    }
  }
  joint_orders.emplace(static_cast<unsigned>(ePacketOrder::FaultInjection), "{\"fault-injection\", \"ewStatus\"}");
  for (const auto& [name, orders] : {std::pair{"joint_orders", joint_orders}, std::pair{"arm_orders", arm_orders}}) {
    std::printf("local %s = {\n", name);
    for (const auto& [code, text] : orders) std::printf("  [0x%02X] = %s,\n", code, text.c_str());
    std::printf("}\n");
  }
}

void PrintCodes(const char* name, std::string (*word)(std::uint8_t code)) {
  std::printf("local %s = {\n", name);
  for (unsigned code = 0; code < 256; ++code) {
    const std::string text = word(static_cast<std::uint8_t>(code));
    if (text != std::to_string(code)) std::printf("  [%u] = \"%s\",\n", code, text.c_str());
  }
  std::printf("}\n");
}

void PrintFaultModes() {
  std::printf("local fault_modes = {");
  for (unsigned code = 0; code < 256; ++code) {
    rxJoint_t joint{};
    joint.systemMode = static_cast<std::uint8_t>(code);
    if (velta::analysis::HasFault(joint)) std::printf("[%u] = true", code);
  }
  std::printf("}\n");
}

}  // namespace

int main() {
  PrintCommands();
  PrintCodes("system_modes", velta::analysis::SystemModeWord);
  PrintCodes("control_modes", velta::analysis::ControlModeWord);
  PrintCodes("trajectory_states", velta::analysis::TrajectoryWord);
  PrintFaultModes();
}
