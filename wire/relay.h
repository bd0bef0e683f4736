// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_RELAY_H_
#define VELTA_WIRE_RELAY_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "link.h"
#include "port.h"

namespace velta::tools {

/// What happens on a link; the numbers are those of recordings.
enum class LinkEvent : std::uint8_t {
  kToController = 0,  ///< bytes from the host
  kToHost = 1,        ///< bytes from the controller
  kOpened = 2,        ///< host and controller are connected: both streams begin at a frame's first byte
  kClosed = 3         ///< the connection ended
};

/// One thing that passed: a chunk of bytes as it was read (a datagram whole), or a change of the connection.
struct Passage {
  LinkEvent event;
  const char* bytes;           ///< valid during the callback only
  std::size_t size;            ///< 0 to kMaxChunk; 0 for kOpened and kClosed
  std::uint64_t monotonic_ns;  ///< when it was read, by the clock that never jumps
  std::uint64_t wall_ns;       ///< the same moment, nanoseconds since the Unix epoch
};

/// Now, by both clocks.
Passage StampedNow(LinkEvent event, const char* bytes = nullptr, std::size_t size = 0);

/// Stands between a host and its controller: listens on an endpoint for the host, opens the controller's link when the
/// host comes, and passes every byte through unchanged, in order, in both directions, datagram by datagram on UDP.
/// Neither side can tell: what one side does not take is not read from the other, the end of a TCP stream and a reset
/// are passed on. One host at a time; the next one waits.
///
/// Errors:  a controller that cannot be reached is told to `failed`, and the host's connection is broken off; a serial
///          line as endpoint cannot be broken off, there Step throws Failure.
/// Threads: no lock; all calls from one thread.
class Relay {
 public:
  struct Observer {
    std::function<void(const Passage&)> passed;            ///< the bytes are on their way already
    std::function<void(const std::string& why)> failed{};  ///< why a host was turned away, one line; may be empty
  };

  /// Opens the endpoint; a UDP endpoint goes with a UDP controller, and with nothing else.
  /// Throws Failure when the endpoint cannot be opened, UsageError for links that do not go together.
  Relay(const Link& endpoint, const Link& controller, Observer observer);
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;
  ~Relay();  ///< closes both sides; a connection that stands is reported as closed

  /// Where the host is to connect to, with the port that the system chose; a pty is a serial link.
  const Link& Address() const { return endpoint_.Address(); }

  bool Connected() const { return session_ && !session_->controller.Connecting(); }

  /// Waits for traffic and passes on what there is. Returns after some traffic, at the latest after timeout_ms, and at
  /// once when one of the descriptors in wake is readable.
  /// @param timeout_ms  may be cut short; -1 waits for ever
  void Step(int timeout_ms, std::initializer_list<int> wake = {});

 private:
  /// One direction: the bytes that its target did not take yet, and whether its source has ended.
  struct Way {
    std::vector<char> pending;  ///< nothing is read from the source while there are any
    std::size_t written = 0;    ///< bytes of pending that are through
    bool ended = false;         ///< the source sends no more
  };
  struct Session {
    Port host;
    Port controller;
    std::chrono::steady_clock::time_point connect_by;
    Way up;    ///< to the controller
    Way down;  ///< to the host
  };

  enum class Side { kHost, kController };

  void Begin();
  void End();
  void EndBrokenBy(Side side);
  void Unreachable(const std::string& why);
  void Move(Side from, bool readable);
  Port::Io Flush(Way& way, Port& to);

  Endpoint endpoint_;
  Link controller_;
  Observer observer_;
  std::optional<Session> session_;
};

}  // namespace velta::tools

#endif  // VELTA_WIRE_RELAY_H_
