// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_SIMULATED_ARM_H_
#define VELTA_TESTS_SUPPORT_SIMULATED_ARM_H_

#include <sys/types.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/process.h"

namespace velta::test {

/// `velta sim` on one endpoint of its own choice.
class SimulatedArm {
 public:
  explicit SimulatedArm(const std::string& endpoint = "tcp://127.0.0.1:0", std::vector<std::string> options = {})
      : process_(Arguments(endpoint, std::move(options))) {
    link_ = process_.ReadAfter("listening on ").value_or("");
  }

  const std::string& Link() const { return link_; }  ///< empty when it did not start
  Process& Program() { return process_; }

 private:
  static std::vector<std::string> Arguments(const std::string& endpoint, std::vector<std::string> options) {
    std::vector<std::string> argv = {VELTA_PROGRAM, "sim", "-n", "3", endpoint};
    argv.insert(argv.end(), options.begin(), options.end());
    return argv;
  }

  Process process_;
  std::string link_;
};

/// Looks until the process handles the signal itself. @return false at the deadline
inline bool WaitUntilItCatches(int signal, pid_t pid) {
  for (const auto end = std::chrono::steady_clock::now() + Process::kPatience;
       std::chrono::steady_clock::now() < end;) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("SigCgt:", 0) == 0 && (std::stoull(line.substr(7), nullptr, 16) >> (signal - 1) & 1) != 0)
        return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_SIMULATED_ARM_H_
