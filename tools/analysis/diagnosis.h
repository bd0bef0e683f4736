// SPDX-License-Identifier: MIT
#ifndef VELTA_ANALYSIS_DIAGNOSIS_H_
#define VELTA_ANALYSIS_DIAGNOSIS_H_

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "RecvPacket.h"
#include "velta_link.h"

/// What `velta doctor` concludes, apart from how it looks.
namespace velta::analysis {

struct Finding {
  enum class Kind { kGood, kWarning, kFailure };
  Kind kind;
  std::string text;  ///< one line; of a warning or a failure also what to do
};
using Findings = std::vector<Finding>;

/// What was heard on the link, before and while idle commands were sent. Durations in ns of the monotonic clock.
struct Observation {
  struct Command {
    std::int64_t sent_at = 0;
    std::optional<std::int64_t> delay;  ///< until the first status that echoes it
  };

  LinkAddress::Kind kind = LinkAddress::Kind::kTcp;
  int joints = 0;                             ///< as the user gave them
  bool is_shared = false;                     ///< another process has the device open
  std::vector<char> bytes;                    ///< all that came
  std::size_t unasked = 0;                    ///< how many of them before the first command
  std::vector<RecvPacket> statuses;           ///< the good frames among them
  std::map<std::uint64_t, Command> commands;  ///< by time stamp
  std::set<std::uint64_t> foreign_echoes;     ///< echoed time stamps that are none of ours
  std::int64_t clock_jump = 0;                ///< see ClockWatch
};

/// @return what the observation means, in the order: bytes and statuses, echo, clocks, joints. It ends with the failure
/// that leaves nothing more to judge.
Findings Diagnose(const Observation& seen);

/// @return what to make of all findings: "healthy", "the link works; mind the warnings", ...
std::string Conclusion(const Findings& findings);

/// @param error  errno of the attempt
/// @param what   the system's own words for it, which names the link
Finding ExplainOpening(const LinkAddress& link, int error, const std::string& what);
Finding ExplainLoss(const LinkAddress& link, int error, const std::string& what);

/// @return the joint count for which at least two good status frames lie in bytes, the one with the most frames;
/// nothing when none of 0..max_joints fits
std::optional<int> FitJointCount(const std::vector<char>& bytes, int max_joints);

/// Follows the system clock against the monotonic one.
class ClockWatch {
 public:
  /// Takes the system clock, read between two readings of the monotonic one, in ns. Readings that lie more than 0.5 ms
  /// apart are left out: the machine did something else between them.
  void Add(std::int64_t monotonic_before_ns, std::int64_t system_ns, std::int64_t monotonic_after_ns);

  /// @return the largest step between two readings, ns; 0 for slewing of up to 1 ms
  std::int64_t Jump() const { return jump_; }

 private:
  std::optional<std::int64_t> offset_;
  std::int64_t jump_ = 0;
};

}  // namespace velta::analysis

#endif  // VELTA_ANALYSIS_DIAGNOSIS_H_
