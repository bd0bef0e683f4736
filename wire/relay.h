// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_RELAY_H_
#define VELTA_WIRE_RELAY_H_

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "clock.h"
#include "controller_end.h"
#include "host_end.h"

namespace velta::wire {

enum class Direction { kToController, kToHost };

/// What a relay reports, in the thread that steps it.
class RelayObserver {
 public:
  virtual ~RelayObserver() = default;

  /// Host and controller are connected: both streams begin at a frame's first byte.
  virtual void Opened(Stamp at) = 0;

  /// A chunk of bytes as it was read, a datagram whole; the bytes are on their way already.
  /// @param bytes  size bytes, 0 to kMaxChunk; valid during the call only
  /// @param at     when it was read
  virtual void Passed(Direction direction, const char* bytes, std::size_t size, Stamp at) = 0;

  /// The connection that was opened has ended.
  virtual void Closed(Stamp at) = 0;

  /// A host was turned away because the controller cannot be reached; why in one line.
  virtual void Failed(const std::string& why) = 0;
};

/// Stands between a host and its controller: listens for the host, opens the controller's link when the host comes, and
/// passes every byte through unchanged, in order, in both directions, datagram by datagram on UDP. Neither side can
/// notice: what one side does not take is not read from the other, the end of a TCP stream and a reset are passed on.
/// One host at a time; the next one waits.
///
/// Errors:  a controller that cannot be reached is reported to the observer, and the host's connection is broken off; a
///          serial line towards the host cannot be broken off, there Step throws LinkError.
/// Threads: no lock; all calls from one thread.
class Relay {
 public:
  /// Opens the end for the host; UDP goes with UDP, and with nothing else.
  /// @param observer    outlives the relay
  /// @param timeout_ms  the most that a TCP connection to the controller may take
  /// Throws LinkError when the end cannot be opened, BadLink for links that do not go together.
  Relay(const LinkAddress& listen, const LinkAddress& controller, RelayObserver& observer, int timeout_ms = 5000);
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;
  ~Relay();  ///< closes both sides; a connection that stands is reported as closed

  /// Where the host is to connect to, with the port that the system chose; a pty is a serial link.
  const LinkAddress& Address() const { return end_.Address(); }

  bool Connected() const { return session_ && !session_->controller.IsConnecting(); }

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
    Channel host;
    HostEnd controller;
    std::chrono::steady_clock::time_point connect_by;
    Way up{};    ///< to the controller
    Way down{};  ///< to the host
  };
  enum class Side { kHost, kController };

  void AwaitHost(std::vector<pollfd>& fds, int timeout_ms);
  void AwaitConnection(std::vector<pollfd>& fds, int timeout_ms);
  void PassOn(std::vector<pollfd>& fds, int timeout_ms);
  void Begin();
  void End();
  void EndBrokenBy(Side side);
  void TurnAway(const std::string& why);
  void Move(Side from, bool readable);
  static Io Flush(Way& way, Channel& to);

  ControllerEnd end_;
  LinkAddress controller_;
  RelayObserver& observer_;
  std::chrono::milliseconds timeout_;
  std::optional<Session> session_;
};

}  // namespace velta::wire

#endif  // VELTA_WIRE_RELAY_H_
