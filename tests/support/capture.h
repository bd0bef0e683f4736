// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_CAPTURE_H_
#define VELTA_TESTS_SUPPORT_CAPTURE_H_

#include <gtest/gtest.h>

#include <string>

namespace velta::test {

/// What `act` prints on standard output.
template <typename Act>
std::string Printed(Act act) {
  testing::internal::CaptureStdout();
  act();
  return testing::internal::GetCapturedStdout();
}

/// What `act` prints on standard error.
template <typename Act>
std::string PrintedError(Act act) {
  testing::internal::CaptureStderr();
  act();
  return testing::internal::GetCapturedStderr();
}

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_CAPTURE_H_
