// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_ERRORS_H_
#define VELTA_WIRE_ERRORS_H_

#include <stdexcept>

namespace velta::tools {

/// A failure of the job: "velta: <text>" on standard error, exit status 1.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Bad usage: "velta: <text>" on standard error, exit status 2. May also be thrown while options are read.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace velta::tools

#endif  // VELTA_WIRE_ERRORS_H_
