// SPDX-License-Identifier: MIT
#include "command.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

namespace velta::tools {

CLI::Option* AddJointsOption(CLI::App& command, int& joints) {
  return command.add_option("-n,--joints", joints, "Joints of the arm, the same at both ends of the link")
      ->required()
      ->check(CLI::Range(1, kMaxJoints))
      ->option_text("N");
}

CLI::Option* AddLinkArgument(CLI::App& command, Link& link) {
  return command
      .add_option_function<std::string>(
          "LINK", [&link](const std::string& text) { link = ParseLink(text); },
          "tcp://IP:PORT, udp://IP:PORT or serial:///dev/ttyX?baud=115200")
      ->required()
      ->option_text(" ");
}

std::ostream& Out() {
  static std::ostream out(std::cout.rdbuf());
  return out;
}

void SeparateOutput() {
  Out();
  std::cout.rdbuf(nullptr);
}

void ShowLibraryLog() { std::cout.rdbuf(std::cerr.rdbuf()); }

}  // namespace velta::tools
