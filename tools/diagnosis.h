// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_DIAGNOSIS_H_
#define VELTA_TOOLS_DIAGNOSIS_H_

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "RecvPacket.h"

namespace velta::tools {

/// @return the joint count for which at least two good status frames lie in bytes, the one with the most frames;
/// nothing when none of 0..max_joints fits
std::optional<int> FitJointCount(const std::vector<char>& bytes, int max_joints);

/// @param proc    the process file system, normally /proc
/// @param device  path of a device, also a symbolic link to it
/// @return the other processes that hold the device open, as "name (pid 123)"; those of other users only for root
std::vector<std::string> HoldersOf(const std::filesystem::path& proc, const std::filesystem::path& device);

/// @param sysfs  the device file system, normally /sys
/// @return the latency timer of a USB serial adapter in ms; nothing for other devices
std::optional<int> LatencyTimerMs(const std::filesystem::path& sysfs, const std::filesystem::path& device);

/// Follows the system clock against the monotonic one.
class ClockWatch {
 public:
  /// Takes the system clock, read between two readings of the monotonic one, in ns. Readings that lie more than 0.5 ms
  /// apart tell nothing: the machine did something else between them.
  void Add(std::int64_t monotonic_before_ns, std::int64_t system_ns, std::int64_t monotonic_after_ns);

  /// @return the largest step between two readings, ns; 0 for slewing of up to 1 ms
  std::int64_t Jump() const { return jump_; }

 private:
  std::optional<std::int64_t> offset_;
  std::int64_t jump_ = 0;
};

/// @return what in this status keeps joints from moving, a line for each cause, with the command that helps
std::vector<std::string> WhyNothingMoves(const RecvPacket& status);

}  // namespace velta::tools

#endif  // VELTA_TOOLS_DIAGNOSIS_H_
