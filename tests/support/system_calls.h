// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_SYSTEM_CALLS_H_
#define VELTA_TESTS_SUPPORT_SYSTEM_CALLS_H_

#include <linux/serial.h>
#include <termios.h>

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace velta::test {

/// Stands before the system calls that the links make (the linker's --wrap): passes them through, unless a test has
/// scripted an answer for the next call of that name.
struct SystemCalls {
  struct Answer {
    long result;
    int error = 0;  ///< errno
  };

  /// Answers for the next calls, by name; a nullopt lets one call pass.
  std::map<std::string, std::deque<std::optional<Answer>>> answers;

  /// When set, asked about every call that has no scripted answer.
  std::function<std::optional<Answer>(const char* name)> decide;
  static constexpr long kOneByte = -2;  ///< as a result of send, recv, read and write: only one byte moves

  int poll_timeout_ms = -2;             ///< as asked last
  std::optional<serial_struct> serial;  ///< when set, a serial driver that answers TIOCGSERIAL and TIOCSSERIAL
  std::vector<termios> applied;         ///< by tcsetattr
  std::vector<std::string> written;     ///< by write, while capture_writes is set
  bool capture_writes = false;          ///< writes below take all bytes without the system
};

/// The one script of the process.
SystemCalls& Calls();

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_SYSTEM_CALLS_H_
