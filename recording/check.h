// SPDX-License-Identifier: MIT
#ifndef VELTA_RECORDING_CHECK_H_
#define VELTA_RECORDING_CHECK_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "fields.h"
#include "timeline.h"

/// @file
/// What was wrong in a recording.
namespace velta::recording {

/// What can be wrong.
enum class Trouble {
  kGap,          ///< no status frame for too long
  kJitter,       ///< a status frame earlier or later than usual
  kBadFrame,     ///< a frame with a wrong CRC
  kGarbage,      ///< bytes outside frames
  kResend,       ///< a command again, its stamp one to four higher
  kUnconfirmed,  ///< a command that no status echoes
  kJump,         ///< a position that the reported velocity does not explain
  kLimit,        ///< a limit of the limits file
  kFault         ///< a joint in the fault mode, or with an error or warning bit
};
inline constexpr std::size_t kTroubles = 9;

/// @return "gap", "jitter", "bad_frame" and so on
const char* TroubleWord(Trouble trouble);

struct Finding {
  Trouble trouble = Trouble::kGap;
  std::uint64_t since_start_ns = 0;
  int joint = -1;    ///< -1 for what concerns no single joint
  std::string text;  ///< one line, without the time
};

/// A limits file is too odd to be used; one line without the file's name.
struct BadLimits : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Limits of joints, from a JSON document such as
///
///   {"all": {"velocity": 90, "temperature": [0, 60]}, "2": {"position": [-45, 45]}}
///
/// with any number of a status record by its name; one value limits the magnitude. "all" is for joints that have no
/// limit of their own for that number.
class Limits {
 public:
  struct Limit {
    const JointField* field;
    double least, most;
  };

  Limits() = default;

  /// @param text    the document
  /// @param joints  of the arm
  /// @throws BadLimits
  Limits(const std::string& text, int joints);

  const std::vector<Limit>& Of(std::size_t joint) const;

 private:
  std::vector<std::vector<Limit>> limits_;  ///< by joint
};

struct CheckSettings {
  std::chrono::nanoseconds gap = std::chrono::milliseconds(100);    ///< beyond the usual interval; 0: not checked
  std::chrono::nanoseconds jitter = std::chrono::milliseconds(10);  ///< off the usual interval; 0: not checked
  double jump = 0.01;  ///< position change that needs no velocity, in position units
  Limits limits;
};

/// What was wrong, and how much was checked.
struct CheckResult {
  std::vector<Finding> findings;        ///< by time
  std::uint64_t usual_interval_ns = 0;  ///< the median between status frames
  std::uint64_t length_ns = 0;
  std::uint64_t commands = 0, statuses = 0;
  std::uint64_t lost_tail = 0;  ///< bytes after the last whole record
};

/// Checks an excerpt of a recording. It is read twice: the usual interval between status frames comes first.
///
/// A command counts as never confirmed when no status has its stamp, or that of a resend, although three status frames
/// came before the next command (or, after the last one, three frames or a second): one that is overtaken may rightly
/// remain without an echo.
///
/// A position jumps when it changes by more than the velocity, the greater one of both statuses and twice that, covers
/// in the time between them, plus the setting.
///
/// Errors: RecordingError.
CheckResult CheckRecording(const Excerpt& excerpt, const CheckSettings& settings);

}  // namespace velta::recording

#endif  // VELTA_RECORDING_CHECK_H_
