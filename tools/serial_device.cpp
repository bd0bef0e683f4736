// SPDX-License-Identifier: MIT
#include "serial_device.h"

#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <system_error>

namespace velta::tools {

namespace fs = std::filesystem;

namespace {

using Kind = Finding::Kind;

std::string GroupOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return "dialout";
  const group* entry = getgrgid(info.st_gid);
  return entry != nullptr ? entry->gr_name : std::to_string(info.st_gid);
}

}  // namespace

std::vector<std::string> HoldersOf(const fs::path& proc, const fs::path& device) {
  std::vector<std::string> holders;
  std::error_code error;
  const fs::path target = fs::weakly_canonical(device, error);
  const std::string self = std::to_string(getpid());
  for (fs::directory_iterator process(proc, error), end; !error && process != end; process.increment(error)) {
    const std::string pid = process->path().filename();
    if (pid == self || pid.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code ignored;  // processes end while they are looked at, and others are not ours to look at
    for (fs::directory_iterator file(process->path() / "fd", ignored); !ignored && file != end;
         file.increment(ignored)) {
      std::error_code gone;
      if (fs::read_symlink(file->path(), gone) != target) continue;
      std::string name;
      std::getline(std::ifstream(process->path() / "comm"), name);
      holders.push_back(fmt::format("{} (pid {})", name, pid));
      break;
    }
  }
  return holders;
}

std::optional<int> LatencyTimerMs(const fs::path& sysfs, const fs::path& device) {
  std::error_code error;
  const fs::path name = fs::weakly_canonical(device, error).filename();
  std::ifstream file(sysfs / "bus/usb-serial/devices" / name / "latency_timer");
  int ms = 0;
  if (!(file >> ms)) return std::nullopt;
  return ms;
}

Findings ExamineDevice(const std::string& device, bool& is_shared) {
  std::error_code error;
  if (!fs::exists(device, error)) {
    return {{Kind::kFailure, device + " does not exist: plug the adapter in, and look for its name with ls /dev/tty*"}};
  }
  if (access(device.c_str(), R_OK | W_OK) != 0) {
    return {{Kind::kFailure,
             fmt::format("no permission on {}: join its group with sudo usermod -aG {} $USER, and log in again", device,
                         GroupOf(device))}};
  }
  Findings findings = {{Kind::kGood, device + " can be read and written"}};
  const std::vector<std::string> holders = HoldersOf("/proc", device);
  is_shared = !holders.empty();
  if (is_shared) {
    findings.push_back(
        {Kind::kWarning, fmt::format("another process holds {}: {}; two readers share the bytes, stop one of them",
                                     device, fmt::join(holders, ", "))});
  }
  if (const std::optional<int> latency = LatencyTimerMs("/sys", device)) {
    const std::string timer = fmt::format("the USB latency timer is {} ms", *latency);
    if (*latency <= 1) {
      findings.push_back({Kind::kGood, timer});
    } else {
      findings.push_back({Kind::kWarning, fmt::format("{}, so every status may wait that long: write 1 to "
                                                      "/sys/bus/usb-serial/devices/{}/latency_timer",
                                                      timer, fs::path(device).filename().string())});
    }
  }
  return findings;
}

}  // namespace velta::tools
