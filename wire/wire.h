// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_WIRE_H_
#define VELTA_WIRE_WIRE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "link.h"
#include "port.h"
#include "stop.h"

namespace velta::tools {

/// The open way to a controller, for the tools that time it, wait on it or tell why it fails. Unlike a bare port it
/// waits until it is connected, and until a whole frame has left; a requested stop ends every wait.
///
/// Errors:  LinkError, with a text that names the link; ECONNABORTED when the other end closed, EINTR when a stop was
///          requested.
/// Threads: one at a time.
class Wire {
 public:
  /// @param timeout_ms  the most that a TCP connection may take
  /// @throws UsageError for a link that is an endpoint only
  explicit Wire(const Link& link, int timeout_ms = 5000);

  int Fd() const { return port_.Fd(); }

  /// @return whether bytes (or the end of the link) can be read; false at the deadline or when a stop was requested
  bool WaitReadable(std::int64_t deadline_ns) const { return WaitUntil(deadline_ns, Fd()); }

  /// Appends what has arrived, without waiting.
  /// @return bytes appended; 0 for nothing now
  std::size_t Read(std::vector<char>& bytes);

  /// Writes the whole frame, waiting up to one second for room.
  void Write(const std::vector<char>& frame);

 private:
  [[noreturn]] void Fail(const std::string& what, int error) const;

  /// Waits until more can be written, or a TCP connection has come about or failed.
  void WaitWritable(std::int64_t deadline_ns, const std::string& otherwise) const;

  std::string name_;
  Port port_;
};

}  // namespace velta::tools

#endif  // VELTA_WIRE_WIRE_H_
