// SPDX-License-Identifier: MIT
#include "progress.h"

#include <unistd.h>

#include <chrono>
#include <iostream>

namespace velta::tools {

namespace {

long long NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

Progress::Progress() : is_terminal_(isatty(STDERR_FILENO) != 0) {}

bool Progress::IsDue() const { return is_terminal_ && NowMs() >= next_ms_; }

void Progress::Show(const std::string& text) {
  if (!IsDue()) return;
  next_ms_ = NowMs() + 250;
  shown_ = true;
  std::cerr << "\r\x1b[K" << text << std::flush;
}

void Progress::Clear() {
  if (shown_) std::cerr << "\r\x1b[K" << std::flush;
  shown_ = false;
}

}  // namespace velta::tools
