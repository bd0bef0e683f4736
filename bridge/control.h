// SPDX-License-Identifier: MIT
#ifndef VELTA_BRIDGE_CONTROL_H_
#define VELTA_BRIDGE_CONTROL_H_

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <unordered_set>

namespace velta::bridge {

/// Names whoever sends messages, for as long as the bridge runs: "web 17", "mqtt planner". Empty: nobody.
using Commander = std::string;

/// Why something that was asked for is not done.
enum class Refusal {
  kNone,
  kNotAllowed,     ///< the bridge was started without commands
  kNotHeld,        ///< the commander does not hold control
  kHeldByAnother,  ///< control is taken already
  kDeadMan,        ///< the arm was stopped, and nobody has rearmed it
  kNoStop,         ///< viewers may not stop the arm here
  kNotCommand,     ///< the text is no message, or its command is no command document
  kRepeated,       ///< a message that was delivered before, or may have been
  kExpired         ///< its sender allowed it less time than it took
};

/// "commands not allowed", "control not held", "control held by another", "dead-man", "stop not allowed",
/// "not a command document", "repeated or retained", "expired"; "" for kNone
const char* ToString(Refusal refusal);

struct ControlOptions {
  bool allow_commands = false;
  bool viewer_stop = true;  ///< whoever does not hold control may stop the arm, too
  std::chrono::steady_clock::duration timeout = std::chrono::milliseconds(500);  ///< longest silence of the holder
};

/// Who may command the arm, and when it must stop: a state machine without a clock and without a connection.
///
///   holder    event                                  holder    effects
///   nobody    take                                   sender    changed, keep_alive
///   sender    any message                            sender    keep_alive
///   sender    give                                   nobody    changed, disarm
///   somebody  silent for the time-out, or gone       nobody    changed, stop
///   another   take, give, keep, command, rearm       another   refused
///   any       stop                                   same      stop
///
/// After a stop, whatever its cause, commands are refused until the holder rearms.
///
/// Threads: one thread at a time.
class Control {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// What the caller has to do now, in this order.
  struct Effects {
    Refusal refusal = Refusal::kNone;  ///< the message itself has no effect; the others may come from a time-out
    bool stop = false;                 ///< stop the arm; it takes no commands until it is rearmed
    bool disarm = false;               ///< nobody has to be alive any longer
    bool keep_alive = false;           ///< the holder is alive
    bool rearm = false;                ///< take commands again
    bool changed = false;              ///< the holder is another one than before
  };

  explicit Control(ControlOptions options) : options_(options) {}

  Effects Take(const Commander& sender, Time now);
  Effects Keep(const Commander& sender, Time now);
  Effects Give(const Commander& sender, Time now);
  Effects Command(const Commander& sender, Time now);
  Effects Rearm(const Commander& sender, Time now);
  Effects Stop(const Commander& sender, Time now);
  Effects Unknown(const Commander& sender, Time now);  ///< a message that is none of these

  Effects Leave(const Commander& sender);  ///< the sender's connection has ended
  Effects Expire(Time now);                ///< to be called at Deadline(), and at any other time

  void StoppedElsewhere() { is_stopped_ = true; }  ///< the session has stopped the arm by itself

  const Commander& Holder() const { return holder_; }
  bool IsStopped() const { return is_stopped_; }
  std::optional<Time> Deadline() const;  ///< when the holder's time is over; none if nobody holds control

 private:
  Effects Begin(const Commander& sender, Time now);
  Effects BeginHeld(const Commander& sender, Time now);
  void Drop(Effects& effects);

  ControlOptions options_;
  Commander holder_;
  Time heard_{};
  bool is_stopped_ = false;
};

/// Remembers which commands were executed, so that none is when it is delivered again.
class ExecutedIds {
 public:
  explicit ExecutedIds(std::size_t kept = 100'000) : kept_(kept) {}

  bool Contains(const Commander& sender, const std::string& id) const;
  void Add(const Commander& sender, const std::string& id);  ///< forgets the oldest of more than are kept

 private:
  std::size_t kept_;
  std::unordered_set<std::size_t> known_;  ///< by hash: at worst a new command is refused
  std::deque<std::size_t> order_;
};

}  // namespace velta::bridge

#endif  // VELTA_BRIDGE_CONTROL_H_
