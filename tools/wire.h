// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_WIRE_H_
#define VELTA_TOOLS_WIRE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "SerialClient.h"
#include "command.h"
#include "link.h"

namespace velta::tools {

/// Why a link did not open or stopped working.
struct WireError : Failure {
  WireError(const std::string& text, int error_number) : Failure(text), error(error_number) {}
  int error;  ///< errno; ECONNABORTED when the other end closed, EINTR when a stop was requested
};

/// A link as a descriptor, for the tools that time it, wait on it or tell why it fails. It is opened as the library
/// opens it: sockets with TCP_NODELAY, serial devices through SerialClient. A requested stop ends every wait.
///
/// Errors:  WireError, with a text that names the link.
/// Threads: one at a time.
class Wire {
 public:
  /// @throws UsageError for a link that is an endpoint only
  explicit Wire(const Link& link, int timeout_ms = 5000);
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;
  ~Wire();

  int Fd() const { return fd_; }

  /// @return whether bytes (or the end of the link) can be read; false at the deadline or when a stop was requested
  bool WaitReadable(std::int64_t deadline_ns) const;

  /// Appends what has arrived, without waiting.
  /// @return bytes appended; 0 for nothing now
  std::size_t Read(std::vector<char>& bytes);

  /// Writes the whole frame, waiting up to one second for room.
  void Write(const std::vector<char>& frame);

 private:
  [[noreturn]] void Fail(const std::string& what, int error) const;

  void OpenSocket(const Link& link, int timeout_ms);
  void OpenSerial(const Link& link);

  std::string name_;
  Link::Kind kind_;
  int fd_ = -1;
  std::unique_ptr<SerialClient> serial_;  ///< owns fd_ when set
};

}  // namespace velta::tools

#endif  // VELTA_TOOLS_WIRE_H_
