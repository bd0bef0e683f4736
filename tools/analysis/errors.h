// SPDX-License-Identifier: MIT
#ifndef VELTA_ANALYSIS_ERRORS_H_
#define VELTA_ANALYSIS_ERRORS_H_

#include <stdexcept>

namespace velta::analysis {

/// A failure of the job: "velta: <text>" on standard error, exit status 1.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Bad usage: "velta: <text>" on standard error, exit status 2. May also be thrown while options are read.
struct UsageError : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

}  // namespace velta::analysis

#endif  // VELTA_ANALYSIS_ERRORS_H_
