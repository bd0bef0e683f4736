// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_SIMULATED_ARM_H_
#define VELTA_TESTS_SUPPORT_SIMULATED_ARM_H_

#include <string>
#include <vector>

#include "support/process.h"

namespace velta::test {

/// `velta sim` with 3 joints on one endpoint of its own choice.
class SimulatedArm {
 public:
  /// @param options as on a command line, one space between them
  explicit SimulatedArm(const std::string& endpoint = "tcp://127.0.0.1:0", const std::string& options = "")
      : process_(Argv(Split("sim -n 3 " + endpoint + " " + options, ' '))),
        link_(process_.ReadAfter("listening on ").value_or("")) {}

  const std::string& Link() const { return link_; }  ///< empty when it did not start
  Process& Program() { return process_; }

 private:
  Process process_;
  std::string link_;
};

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_SIMULATED_ARM_H_
