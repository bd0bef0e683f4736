// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_TERMINAL_H_
#define VELTA_TESTS_SUPPORT_TERMINAL_H_

#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/process.h"

namespace velta::test {

/// A program in a terminal of its own (tmux), with its screen as a person sees it.
class Terminal {
 public:
  /// @param command a shell command line
  Terminal(const std::string& columns, const std::string& lines, const std::string& command) {
    Tmux({"new-session", "-d", "-s", "t", "-x", columns, "-y", lines, command + "; echo EXIT $?; sleep 60"});
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal() { Tmux({"kill-server"}); }

  /// @param key a character or tmux's name of a key
  void Press(const std::string& key) { Tmux({"send-keys", "-t", "t", key}); }
  void Resize(const std::string& columns, const std::string& lines) {
    Tmux({"resize-window", "-t", "t", "-x", columns, "-y", lines});
  }

  /// @return the screen once it shows text (or, with `shown` false, no longer does); the last screen at the deadline
  std::string Await(const std::string& text, bool shown = true) {
    for (const auto end = std::chrono::steady_clock::now() + Process::kPatience;;) {
      std::string screen = Tmux({"capture-pane", "-p", "-t", "t"}).out;
      if (Has(screen, text) == shown || std::chrono::steady_clock::now() >= end) return screen;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

 private:
  static RunResult Tmux(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"tmux", "-L", "velta-test-" + std::to_string(getpid()), "-f", "/dev/null"});
    return RunProgram(arguments);
  }
};

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_TERMINAL_H_
