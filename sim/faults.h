// SPDX-License-Identifier: MIT
#ifndef VELTA_SIM_FAULTS_H_
#define VELTA_SIM_FAULTS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

/// What can go wrong between a host and a controller, on purpose.
namespace velta::sim {

enum class Fault {
  DropCommand,
  DelayCommand,
  DropStatus,
  DelayStatus,
  DuplicateStatus,
  Corrupt,
  Truncate,
  Garbage,
  ByteWrites,
  Coalesce,
  NoEcho,
  LateEcho,
  StaleEcho,
  Freeze,
  Close,
  Reset,
  Refuse,
  StopReading,
  WrongJoints,
};
inline constexpr std::size_t kFaultCount = static_cast<std::size_t>(Fault::WrongJoints) + 1;

/// What users need to know about a fault.
struct FaultInfo {
  enum class Takes {
    Rate,          ///< strikes single frames or commands with a probability
    RateAndValue,  ///< the same, and a value tells how
    Value,         ///< holds while it lasts, for everything; a value may tell how
    Nothing,       ///< the same, without a value
    Duration,      ///< the same; a flag's value is how long it lasts, in ms
  };

  const char* name;  ///< as flags and scripts name it
  Takes takes;       ///< what may follow the name
  double default_value;
  double min_value;
  double max_value;
  const char* usage;  ///< the flag's form
  const char* help;   ///< what happens
};
const FaultInfo& Info(Fault fault);

/// In what triggers and durations are counted.
enum class Unit { Ms, Frame, Command };
inline constexpr std::size_t kUnitCount = 3;

/// One fault, when it begins and how long it lasts.
struct FaultRule {
  struct Span {
    Unit unit;
    std::uint64_t count;
  };

  Fault fault{};
  double rate = 1;       ///< probability of striking one frame or command
  double value = 0;      ///< as the fault's usage tells; ms, frames, joints
  Span at{Unit::Ms, 0};  ///< begins when the server's clock, or its number of status frames or commands, reaches this
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

/// Decides what strikes whom, and counts it. The same rules, seed and numbers of frames and commands give the same
/// strikes: every fault draws from a generator of its own.
class Faults {
 public:
  Faults(const std::vector<FaultRule>& rules, std::uint64_t seed);

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

  /// A number below bound, from the fault's own generator.
  std::size_t Random(Fault fault, std::size_t bound);

 private:
  struct Entry {
    FaultRule rule;
    enum class State { Waiting, Active, Over } state = State::Waiting;
    std::uint64_t end = 0;  ///< in the unit of rule.lasts
  };

  void Update();

  std::vector<Entry> entries_;
  std::array<std::uint64_t, kUnitCount> now_{};
  std::array<std::uint64_t, kFaultCount> counts_{};
  std::array<std::mt19937_64, kFaultCount> generators_;
};

}  // namespace velta::sim

#endif  // VELTA_SIM_FAULTS_H_
