// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_SYSTEM_CALLS_H_
#define VELTA_TESTS_SUPPORT_SYSTEM_CALLS_H_

#include <linux/serial.h>
#include <termios.h>

#include <deque>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "AbstractClient.h"
#include "support/capture.h"

namespace velta::test {

/// Stands before the system calls that the links make (the linker's --wrap): passes them through, unless a test has
/// scripted an answer for the next call of that name.
struct SystemCalls {
  std::map<std::string, std::deque<std::optional<long>>> answers;  ///< by name; a nullopt lets one call pass
  int poll_timeout_ms = -2;                                        ///< as asked last
  std::optional<serial_struct> serial;  ///< when set, a serial driver that answers TIOCGSERIAL and TIOCSSERIAL
  std::vector<termios> applied;         ///< by tcsetattr
  std::vector<std::string> written;     ///< by write, while capture_writes is set
  bool capture_writes = false;          ///< writes below take all bytes without the system
};

/// The one script of the process.
SystemCalls& Calls();

inline constexpr long kPass = -2;

/// The next call of that name gives result, with EIO for -1; with kPass it passes.
inline void NextGives(const char* name, long result) {
  Calls().answers[name].push_back(result == kPass ? std::nullopt : std::optional(result));
}

/// What an operation of a link did.
struct Did {
  long result;
  std::string printed;  ///< on standard output, then on standard error
  long bytes = 0;       ///< delivered by Read; kKept for the data of before

  bool operator==(const Did& other) const {
    return result == other.result && printed == other.printed && bytes == other.bytes;
  }
};
inline constexpr long kKept = -1;

inline std::ostream& operator<<(std::ostream& out, const Did& did) {
  return out << did.result << ", " << did.bytes << " bytes, printed: " << did.printed;
}

template <typename Act>
Did Doing(Act act) {
  Did did{};
  std::string error;
  did.printed = Printed([&] { error = PrintedError([&] { did.result = act(); }); });
  did.printed += error;
  return did;
}

inline Did Init(AbstractClient& link) {
  return Doing([&] { return link.Init(); });
}
inline Did Write(AbstractClient& link) {
  return Doing([&] { return link.Write({'x'}); });
}
inline Did Read(AbstractClient& link) {
  std::vector<char> data = {'o', 'l', 'd'};
  Did did = Doing([&] { return link.Read(data); });
  did.bytes = data == std::vector<char>{'o', 'l', 'd'} ? kKept : static_cast<long>(data.size());
  return did;
}

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_SYSTEM_CALLS_H_
