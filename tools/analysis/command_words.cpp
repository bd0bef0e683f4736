// SPDX-License-Identifier: MIT
#include "command_words.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <sstream>

#include "argument_text.h"
#include "errors.h"

namespace velta::analysis {

namespace {

std::vector<std::string> Split(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> parts;
  for (std::string part; stream >> part;) parts.push_back(part);
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
  constexpr int kMostExact = 1 << 24;  // an integer travels as a real, which holds every one up to here
  float real = 0;
  int integer = 0;
  switch (kind) {
    case 'b':
      if (text == "0" || text == "1") return text == "1" ? 1.0f : 0.0f;
      throw UsageError(fmt::format("{} '{}' is not 0 or 1", name, text));
    case 'i':
      if (Convert(text, integer) && integer >= -kMostExact && integer <= kMostExact) return static_cast<float>(integer);
      throw UsageError(fmt::format("{} '{}' is not an integer of up to 24 bits", name, text));
    default:
      if (Convert(text, real) && std::isfinite(real)) return real;
      throw UsageError(fmt::format("{} '{}' is not a finite 32-bit real number", name, text));
  }
}

void CheckSelection(const CommandWord& command, int joint_num, const std::string& joints) {
  if (command.of_arm) {
    if (!joints.empty()) throw UsageError(fmt::format("{} commands the whole arm and takes no --select", command.name));
    return;
  }
  if (joints.empty()) {
    throw UsageError(fmt::format("{} needs --select: all, or indices from 0 as in 0/2/5", command.name));
  }
  static_cast<void>(ReadSelection(joints, joint_num));
}

}  // namespace

std::vector<std::string> ListCommandWords() {
  std::vector<std::string> lines;
  for (const CommandWord& command : CommandWords()) {
    std::string usage = command.name;
    for (const std::string& argument : Split(command.arguments)) usage += " <" + argument + ">";
    lines.push_back(fmt::format("{:<58}  {}{}", usage, command.help, command.of_arm ? " (whole arm)" : ""));
  }
  return lines;
}

SendPacket MakeCommand(int joint_num, const std::string& word, const std::vector<std::string>& arguments,
                       const std::string& joints) {
  const auto& words = CommandWords();
  const auto command = std::find_if(words.begin(), words.end(), [&](const CommandWord& w) { return word == w.name; });
  if (command == words.end()) {
    std::vector<std::string> names;
    names.reserve(words.size());
    for (const CommandWord& each : words) names.emplace_back(each.name);
    throw UsageError(fmt::format("unknown command '{}'{}; velta send --list shows all", word, DidYouMean(word, names)));
  }
  const std::vector<std::string> wanted = Split(command->arguments);
  if (arguments.size() != wanted.size()) {
    throw UsageError(fmt::format("{} takes {} arguments, not {}; velta send --list shows them", word, wanted.size(),
                                 arguments.size()));
  }
  CheckSelection(*command, joint_num, joints);
  std::array<float, 5> values{};
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    values[i] = ParseArgument(command->kinds[i], word + ": " + wanted[i], arguments[i]);
  }
  SendPacket packet(joint_num);
  command->apply(packet, joints, values.data());
  return packet;
}

}  // namespace velta::analysis
