// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "command.h"

namespace velta::tools {

void AddBridge(CLI::App& app) {
  app.add_subcommand("bridge", "Show the arm in browsers and to a broker; velta-bridge does it")->prefix_command();
}

void RunBridge(char** arguments) {
  // As installed: next to this program. As built: in the folder of its room. Else wherever the path leads.
  std::error_code ignored;
  const auto folder = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
  for (const char* place : {"velta-bridge", "../bridge/velta-bridge"}) {
    if (!ignored) execv((folder / place).c_str(), arguments);
  }
  execvp("velta-bridge", arguments);
  throw Failure(std::string("cannot run velta-bridge, of the package of that name: ") + std::strerror(errno));
}

}  // namespace velta::tools
