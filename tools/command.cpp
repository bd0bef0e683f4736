// SPDX-License-Identifier: MIT
#include "command.h"

#include <iostream>

namespace velta::tools {

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
