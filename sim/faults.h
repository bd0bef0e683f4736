// SPDX-License-Identifier: MIT
#ifndef VELTA_SIM_FAULTS_H_
#define VELTA_SIM_FAULTS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "damage.h"

/// What can go wrong between a host and a controller, on purpose.
namespace velta::sim {

enum class Fault {
  kDropCommand,
  kDelayCommand,
  kDropStatus,
  kDelayStatus,
  kDuplicateStatus,
  kCorrupt,
  kTruncate,
  kGarbage,
  kByteWrites,
  kCoalesce,
  kNoEcho,
  kLateEcho,
  kStaleEcho,
  kFreeze,
  kClose,
  kReset,
  kRefuse,
  kStopReading,
  kWrongJoints,
};
inline constexpr std::size_t kFaultCount = static_cast<std::size_t>(Fault::kWrongJoints) + 1;

/// One row of the table of faults, from which flags, scripts, help, documentation and completion are made.
struct FaultInfo {
  enum class Takes {
    kRate,          ///< strikes single frames or commands with a probability
    kRateAndValue,  ///< the same, and a value says how
    kValue,         ///< holds while it lasts, for everything; a value may say how
    kNothing,       ///< the same, without a value
    kDuration,      ///< the same; a flag's value is how long it lasts, in ms
  };

  const char* name;    ///< as flags and scripts name it
  Takes takes;         ///< what may follow the name
  const char* unit;    ///< of the value: "MS", "BYTES", "FRAMES", "JOINTS"; empty without one
  double fallback;     ///< the value when none is given
  const char* absent;  ///< what no value means, in words; null when the number says it
  double min, max;     ///< of the value
  const char* effect;  ///< what happens, with the unit's name for the value
  Damage damage;       ///< what it does to a frame's bytes; null for all else
};
const FaultInfo& Info(Fault fault);

/// @return the flag's form: "delay-command[=RATE[:MS]]"
std::string Usage(const FaultInfo& info);

/// @return what happens, with the value that holds when none is given: "a command is MS (20) late"
std::string Effect(const FaultInfo& info);

/// In what triggers and durations are counted.
enum class Unit { kMs, kFrame, kCommand };
inline constexpr std::size_t kUnitCount = 3;

/// One fault, when it begins and how long it lasts.
struct FaultRule {
  struct Span {
    Unit unit;
    std::uint64_t count;
  };

  Fault fault{};
  double rate = 1;   ///< probability of striking one frame or command
  double value = 0;  ///< as the fault's usage says; ms, frames, joints
  /// Begins when the server's clock, or its number of status frames or commands, reaches this; without it at once.
  std::optional<Span> at;
  std::optional<Span> lasts;  ///< to the end without one
  bool once = false;          ///< ends after it has struck
};

/// Reads a flag: NAME, NAME=RATE, NAME=RATE:VALUE or NAME=VALUE, as the fault takes it.
/// Throws std::invalid_argument with one line.
FaultRule ParseFaultFlag(const std::string& text);

/// Reads a script: one JSON object a line with `fault`, one of `at_ms`, `at_frame`, `at_command` (counted from 1), and
/// optionally `rate`, `value` and one of `for_ms`, `for_frames`, `for_commands`. Without a duration a fault of single
/// frames or commands strikes once, `close` and `reset` too; any other lasts to the end. Blank lines are skipped.
/// @param name what errors call the script
/// Throws std::invalid_argument with one line, "name:line: reason".
std::vector<FaultRule> ParseFaultScript(std::istream& script, const std::string& name);

/// Reads one line of a script, as above, but without a trigger the fault begins when it is added.
/// Throws std::invalid_argument with one line.
FaultRule ParseFaultLine(const std::string& line);

/// Decides what strikes whom, and counts it. The same rules, seed and numbers of frames and commands give the same
/// strikes: every fault draws from a generator of its own.
class Faults {
 public:
  Faults(const std::vector<FaultRule>& rules, std::uint64_t seed);

  /// Adds a rule while others are at work.
  void Add(const FaultRule& rule);

  /// Moves one of the clocks on: ms since the start, status frames composed, commands received.
  void Advance(Unit unit, std::uint64_t now);

  /// Whether the fault holds now, without a draw or a count.
  bool IsActive(Fault fault) const;

  /// Whether a rule names the fault.
  bool IsKnown(Fault fault) const;

  /// Draws for one frame, command or connection, and counts a strike.
  /// @param measure strikes only where it has reached the rule's value
  /// @return the rule's value when the fault strikes
  std::optional<double> Strike(Fault fault, double measure = std::numeric_limits<double>::infinity());

  /// Counts a strike that came about without a draw.
  void Count(Fault fault) { ++counts_[static_cast<std::size_t>(fault)]; }

  std::uint64_t Struck(Fault fault) const { return counts_[static_cast<std::size_t>(fault)]; }

  /// What the faults that change a frame's bytes, and strike it, make of it.
  std::vector<char> Damaged(std::vector<char> frame);

 private:
  struct Entry {
    FaultRule rule;
    enum class State { kWaiting, kActive, kOver } state = State::kWaiting;
    std::uint64_t end = 0;  ///< in the unit of rule.lasts
  };

  void Update();

  std::vector<Entry> entries_;
  std::array<std::uint64_t, kUnitCount> now_{};
  std::array<std::uint64_t, kFaultCount> counts_{};
  std::array<Generator, kFaultCount> generators_;
};

}  // namespace velta::sim

#endif  // VELTA_SIM_FAULTS_H_
