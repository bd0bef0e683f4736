// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_SERIAL_DEVICE_H_
#define VELTA_TOOLS_SERIAL_DEVICE_H_

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "diagnosis.h"

namespace velta::tools {

using analysis::Finding;
using analysis::Findings;

/// @param proc    the process file system, normally /proc
/// @param device  path of a device, also a symbolic link to it
/// @return the other processes that hold the device open, as "name (pid 123)"; those of other users only for root
std::vector<std::string> HoldersOf(const std::filesystem::path& proc, const std::filesystem::path& device);

/// @param sysfs  the device file system, normally /sys
/// @return the latency timer of a USB serial adapter in ms; nothing for other devices
std::optional<int> LatencyTimerMs(const std::filesystem::path& sysfs, const std::filesystem::path& device);

/// Looks at a device before it is opened: whether it exists, may be opened, is held by others, and its latency timer.
/// @param[out] is_shared  whether another process holds it
Findings ExamineDevice(const std::string& device, bool& is_shared);

}  // namespace velta::tools

#endif  // VELTA_TOOLS_SERIAL_DEVICE_H_
