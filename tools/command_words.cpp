// SPDX-License-Identifier: MIT
#include "command_words.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <sstream>

#include "command.h"

namespace velta::tools {

namespace {

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
