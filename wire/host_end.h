// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_HOST_END_H_
#define VELTA_WIRE_HOST_END_H_

#include <poll.h>

#include <cstdint>
#include <string>
#include <vector>

#include "address.h"
#include "channel.h"

namespace velta::wire {

/// The host's end of a link: the way to a controller. Its channel never waits; the members here that do are ended by a
/// requested stop.
///
/// Errors:  LinkError, with a text that names the link; ECONNABORTED when the other end closed, EINTR when a stop was
///          requested. BadLink for what is no way to a controller.
/// Threads: one at a time.
class HostEnd {
 public:
  /// Starts to open the link, after looking up a host name; TCP may still be connecting afterwards.
  explicit HostEnd(const LinkAddress& link);

  /// Opens the link.
  /// @param timeout_ms  the most that a TCP connection may take
  HostEnd(const LinkAddress& link, int timeout_ms);

  /// Throws what the constructors throw for a link that is no way to a controller; opens nothing.
  static void Check(const LinkAddress& link);

  Channel& GetChannel() { return channel_; }
  int Descriptor() const { return channel_.Descriptor(); }
  bool IsConnecting() const { return connecting_; }

  /// To be called when the descriptor of a connecting link is writable.
  void FinishConnecting();

  /// @return whether bytes (or the end of the link) can be read; false at the deadline or when a stop was requested
  bool WaitReadable(std::int64_t deadline_ns) const;

  /// Appends what has arrived, without waiting.
  /// @return bytes appended; 0 for nothing now
  std::size_t Read(std::vector<char>& bytes);

  /// Writes the whole frame, waiting up to one second for room.
  void Write(const std::vector<char>& frame);

 private:
  static Channel Open(const LinkAddress& link);
  [[noreturn]] void Fail(const std::string& what, int error) const;
  void WaitWritable(std::int64_t deadline_ns, const std::string& otherwise) const;

  std::string name_;
  Channel channel_;
  bool connecting_ = false;
};

}  // namespace velta::wire

#endif  // VELTA_WIRE_HOST_END_H_
