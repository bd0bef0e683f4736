// SPDX-License-Identifier: MIT
#ifndef VELTA_SESSION_H_
#define VELTA_SESSION_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "RecvPacket.h"
#include "SendPacket.h"
#include "velta_export.h"
#include "velta_link.h"
#include "velta_statistics.h"

namespace velta {

namespace detail {
class Command;
class Stream;
struct SessionParts;
}  // namespace detail

enum class Confirm : std::uint8_t { kNo, kYes };

/// What became of a command. Every command gets exactly one final outcome.
enum class Outcome : std::uint8_t {
  kPending,    ///< waits to be sent, or for its echo
  kSent,       ///< left; no confirmation was asked
  kConfirmed,  ///< the controller echoed its stamp
  kGaveUp,     ///< sent five times, never echoed
  kDiscarded   ///< will not be sent (again); see Reason
};

/// Why a command was discarded.
enum class Reason : std::uint8_t {
  kNone,         ///< it was not
  kNoLink,       ///< given while the link was away, or before Start()
  kLinkLost,     ///< waited, or was not confirmed yet, when the link was lost
  kOtherGaveUp,  ///< waited in the plain queue, or in a source of the frame, when another command was given up
  kDeadMan,      ///< the dead-man stopped the arm, and nothing was rearmed yet
  kStopped,      ///< the session was stopped, or its source discarded it
  kReplaced,     ///< a newer command of the same key took its place
  kBadCommand,   ///< its joint count is not the session's
  kQueueFull     ///< more commands wait than SessionOptions::queue_size
};

VELTA_API const char* ToString(Outcome outcome);  ///< "pending", "sent", "confirmed", "gave up", "discarded"
/// "", "link away", "link lost", "another command gave up", "dead-man", "stopped", "replaced by a newer command",
/// "wrong joint count", "too many commands wait"
VELTA_API const char* ToString(Reason reason);

/// The answer to one command. Copies share it; it may outlive the session.
///
/// Threads: any thread.
class VELTA_API Ticket {
 public:
  using Callback = std::function<void(Outcome, Reason)>;

  Ticket();  ///< of no command: discarded, kNone
  Ticket(const Ticket&);
  Ticket(Ticket&&) noexcept;
  Ticket& operator=(const Ticket&);
  Ticket& operator=(Ticket&&) noexcept;
  ~Ticket();

  velta::Outcome Outcome() const;  ///< without waiting
  velta::Reason Reason() const;    ///< kNone unless discarded

  /// Waits until the outcome is final.
  /// @return the outcome; kPending when the time is over
  velta::Outcome Wait(std::chrono::nanoseconds timeout) const;

  /// Calls back once with the final outcome: at once, from this thread, if it is final already; else from the session's
  /// thread. At most one callback per command; a second one replaces the first. What it throws is dropped.
  void OnOutcome(Callback callback) const;

 private:
  friend class Session;
  friend class Source;
  explicit Ticket(detail::Command* command) : command_(command) {}
  detail::Command* command_ = nullptr;  ///< shared with the other copies and the session
};

/// One of several independent parts of a program that command the arm. Commands of one source are sent in order;
/// commands of different sources for different joints share a frame. Copies share the source; it may outlive the
/// session (whose end discards what is sent through it).
///
/// Threads: any thread.
class VELTA_API Source {
 public:
  Source(const Source&);
  Source(Source&&) noexcept;
  Source& operator=(const Source&);
  Source& operator=(Source&&) noexcept;
  ~Source();

  const std::string& Name() const;

  /// Queues a copy of the command. Never waits for the session's loop.
  Ticket Send(const SendPacket& command, Confirm confirm = Confirm::kNo);

  /// Discards what this source has waiting, with Reason::kStopped; a command that waits for its echo goes on.
  void Discard();

 private:
  friend class Session;
  explicit Source(std::shared_ptr<detail::Stream> stream);
  std::shared_ptr<detail::Stream> stream_;
};

/// What a session reports, in the order in which it happened.
struct Event {
  enum class Kind : std::uint8_t {
    kConnected,  ///< the first status of the first connection came
    kLost,       ///< the link is lost; text says why
    kTrying,     ///< a connection is tried; value: s until then
    kBack,       ///< the first status of a later connection came
    kDeadMan,    ///< the host was silent; the stop was sent, or is sent first on the next connection
    kRearmed,    ///< commands are taken again
    kGaveUp,     ///< a command was never confirmed
    kOverrun,    ///< cycles were missed; value: how many
    kNotice,     ///< something could not be had (a real-time option, a flight record); text says what
    kLeftOut     ///< the callback was too slow; value: events left out before this one
  };

  Kind kind = Kind::kNotice;
  std::chrono::system_clock::time_point time{};
  double value = 0;
  std::string text;  ///< one line for people, without the time
};

VELTA_API const char* ToString(Event::Kind kind);  ///< "connected", "lost", "trying", "back", "dead-man", "rearmed",
                                                   ///< "gave up", "overrun", "notice", "left out"

/// Something that passed on the link, or happened to it: see SessionOptions::on_traffic.
struct Traffic {
  enum class Kind : std::uint8_t {
    kOpened,        ///< a connection is open: both streams begin at a frame's first byte
    kToController,  ///< bytes that the system took in one write
    kToHost,        ///< bytes that came in one read; over UDP one datagram
    kClosed         ///< the connection that was opened has ended
  };

  Kind kind = Kind::kOpened;
  std::chrono::steady_clock::time_point time{};       ///< right after the read or the write
  std::chrono::system_clock::time_point wall_time{};  ///< the same moment
  std::string_view bytes;                             ///< good or bad ones, as they passed; valid during the call
};

struct SessionOptions {
  std::string link;  ///< as LinkAddress reads it, but pty:
  int joints = 0;    ///< n, 1 to 828, the same as the controller's

  std::chrono::nanoseconds period = std::chrono::milliseconds(1);     ///< of the loop
  std::chrono::nanoseconds dead_man = std::chrono::nanoseconds(0);    ///< longest silence of the host; 0: off
  std::chrono::nanoseconds silence = std::chrono::milliseconds(500);  ///< without a status the link is lost; 0: never,
                                                                      ///< but by a UDP port that nobody listens on
  std::chrono::nanoseconds ask = std::chrono::milliseconds(100);      ///< idle command to a silent controller; 0: never

  enum class OnLoss : std::uint8_t {
    kDiscard,  ///< nothing that was given before a loss is sent after it
    kKeep      ///< what waits stays, and is sent on the next connection
  };
  OnLoss on_loss = OnLoss::kDiscard;
  bool reconnect = true;  ///< false: after a loss, or a first connection that fails, nothing is tried again
  std::chrono::nanoseconds connect_timeout = std::chrono::seconds(5);  ///< for one attempt over TCP, name included
  std::chrono::nanoseconds back_off = std::chrono::milliseconds(100);  ///< before the second attempt; then doubled,
  std::chrono::nanoseconds back_off_limit = std::chrono::seconds(5);   ///< up to this; each varied by 10 %

  /// Frames that stop the arm, sent one after the other, each confirmed; none: cancel the trajectories of all joints,
  /// then a zero velocity reference for the joints that report velocity mode.
  std::vector<SendPacket> stop;

  std::chrono::nanoseconds flight_recorder = std::chrono::nanoseconds(0);  ///< how much is kept in memory; 0: off
  std::string flight_record_path;  ///< written on loss, give-up and dead-man, numbered from the second on; empty: never

  int priority = 0;          ///< SCHED_FIFO priority of the loop, 1 to 99; 0: the ordinary scheduler
  int processor = -1;        ///< that the loop is bound to; -1: any
  bool lock_memory = false;  ///< mlockall for the whole process

  std::size_t queue_size = 4096;     ///< commands that may wait, per source
  std::size_t status_buffer = 4096;  ///< packets that Drain() may return at once

  /// false: the session is connected as soon as the link is open, and commands leave before any status has come. For a
  /// controller whose statuses are not needed.
  bool await_status = true;

  /// true: the loop of Start() also works between two cycles, when something arrives and every 10 ms. Statuses are taken
  /// in and confirmations noticed at once, and a command leaves if none has left in this cycle.
  bool wake_on_arrival = false;

  /// Receives what passes on the link, for recorders and the like. The loop itself calls it and waits for it, and so does
  /// Stop(): be quick, and call nothing of the session. What it throws is dropped. None: costs nothing.
  std::function<void(const Traffic&)> on_traffic;
};

/// Lateness of the loop's wake-ups after their deadlines.
struct Lateness {
  std::uint64_t count = 0;
  double p50_us = 0, p99_us = 0, p999_us = 0, max_us = 0;
};

struct SessionStatistics {
  Statistics client;                    ///< over all connections of the session
  std::uint64_t reconnections = 0;      ///< connections after the first one that brought a status
  std::uint64_t cycles = 0;             ///< of the loop
  std::uint64_t overruns = 0;           ///< deadlines that passed while a cycle still ran
  std::uint64_t late = 0;               ///< wake-ups later than a tenth of the period
  std::uint64_t events_left_out = 0;    ///< for a slow callback
  std::uint64_t statuses_left_out = 0;  ///< not kept for Drain()
  Lateness lateness;
};

/// @return one compact JSON object: the client's members, the session's, and "lateness_us" with "p50", "p99", "p99.9"
/// and "max"; the values are JSON numbers
VELTA_API std::string ToJson(const SessionStatistics& statistics);

/// A connection to one arm that may be left alone: it runs the loop, connects and reconnects, says what became of each
/// command, stops the arm when its host falls silent, and remembers the last seconds.
///
/// Units:   durations as std::chrono; everything about the arm as in SendPacket and RecvPacket.
/// Errors:  the constructor throws std::invalid_argument, one line, for options that no arm could be driven with. After
///          it, results, events and outcomes only.
/// Threads: every operation but the destructor may be called from any thread, also from callbacks. None of them waits
///          for the link. Callbacks come from one thread of the session, not its loop's: they may block, throw and stop
///          the session. In a host's own loop they come from Step() and Stop().
/// Output:  nothing is printed, not even what a client prints; events report it.
class VELTA_API Session {
 public:
  explicit Session(SessionOptions options);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  /// Stop(), then waits for the callback that runs and for those of the outcomes and events that are left; what is left
  /// after a second spent in these is dropped. Without callbacks within 50 ms.
  ~Session();

  /// @name Running
  /// Either Start(), for a thread of the session's own, or Step() from one thread of the host's.
  /// @{
  void Start();  ///< returns at once; nothing on a session that was started or stopped
  /// One cycle: receive, send, reconnect; never waits. Callbacks run in it, and flight records are written. There is no
  /// thread of the session then: a host that hangs takes its dead-man with it. Nothing on a session that was started.
  void Step();
  void Stop();  ///< ends everything within 50 ms; whatever waits is discarded. For good; nothing the second time.

  /// Waits for the first status of a connection, or without await_status for its opening; in a loop of the host's own,
  /// runs its steps meanwhile.
  /// @param timeout  the longest wait; 0 looks only
  /// @param[out] why  if not null, one line that says why there is none
  bool WaitConnected(std::chrono::nanoseconds timeout, std::string* why = nullptr);
  bool IsConnected() const;  ///< the link is up and statuses arrive
  const SessionOptions& Options() const;
  /// @}

  /// @name Commands
  /// @{

  /// Queues a copy of the command, in the order of the calls. Its frame gets a time stamp of the session's: above all
  /// before, so that no old echo can confirm it.
  Ticket Send(const SendPacket& command, Confirm confirm = Confirm::kNo);

  /// Files the command under key; one that still waits there is discarded (Reason::kReplaced). Keys take turns with
  /// each other, and with the plain queue and the sources. Keys are never forgotten.
  Ticket SendNewest(const std::string& key, const SendPacket& command, Confirm confirm = Confirm::kNo);

  /// A new source; names need not differ.
  Source AddSource(std::string name);
  /// @}

  /// @name Dead-man
  /// @{
  void KeepAlive();        ///< the host is well; the first call arms the dead-man
  void Disarm();           ///< until the next KeepAlive()
  void Rearm();            ///< takes commands again after the dead-man (or StopArm()) and restarts its timer
  bool IsDeadMan() const;  ///< commands are refused until Rearm()

  /// What the dead-man does, at once and whether or not it is armed: discards what waits, sends the stop packets past
  /// the confirmation gate, refuses commands until Rearm().
  void StopArm();
  /// @}

  /// @name Status
  /// @{
  std::optional<RecvPacket> Latest() const;  ///< the newest status of this connection; wait-free for the loop

  /// @return all statuses since the last call, oldest first, at most SessionOptions::status_buffer
  /// @param[out] left_out  if not null, how many older ones were not kept
  std::vector<RecvPacket> Drain(std::uint64_t* left_out = nullptr);

  using StatusCallback = std::function<void(const RecvPacket&)>;
  void OnStatus(StatusCallback callback);  ///< from the session's thread, for each status; replaces the earlier one

  using EventCallback = std::function<void(const Event&)>;
  /// From the session's thread, in order; the newest 256 wait for a slow callback. Replaces the earlier one. Without one
  /// events are dropped: set it before Start().
  void OnEvent(EventCallback callback);

  SessionStatistics GetStatistics() const;

  /// Writes what the flight recorder holds, as a recording.
  /// @param path  the file to write; one of that name is replaced
  /// @param[out] why  if not null, one line that says what went wrong
  bool WriteFlightRecord(const std::string& path, std::string* why = nullptr);
  /// @}

 private:
  std::unique_ptr<detail::SessionParts> parts_;
};

}  // namespace velta

#endif  // VELTA_SESSION_H_
