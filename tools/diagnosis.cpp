// SPDX-License-Identifier: MIT
#include "diagnosis.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <system_error>

#include "protocol.h"
#include "status_words.h"

namespace velta::tools {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMostBytes = 32768;  // enough to judge, and quick for every joint count

int CountFrames(const std::vector<char>& bytes, int joints) {
  const auto size = static_cast<std::size_t>(StatusFrameSizes(joints).packet);
  const std::size_t length = std::min(bytes.size(), kMostBytes);
  RecvPacket status(joints);
  int count = 0;
  for (std::size_t i = 0; i + size <= length;) {
    const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(i);
    const bool marked = static_cast<unsigned char>(bytes[i]) == kStartMark[0] &&
                        static_cast<unsigned char>(bytes[i + 1]) == kStartMark[1];
    const bool good = marked && status.Parse({from, from + static_cast<std::ptrdiff_t>(size)});
    if (good) ++count;
    i += good ? size : 1;
  }
  return count;
}

/// @return "joints 0, 2" of those that fulfil the condition; empty for none
std::string Joints(const RecvPacket& status, const std::function<bool(const rxJoint_t&)>& condition) {
  std::string text;
  for (std::size_t i = 0; i < status.joints.size(); ++i) {
    if (condition(status.joints[i])) text += (text.empty() ? "" : "/") + std::to_string(i);
  }
  return text;
}

}  // namespace

std::optional<int> FitJointCount(const std::vector<char>& bytes, int max_joints) {
  std::optional<int> best;
  int most = 1;  // one frame may be chance
  for (int joints = 0; joints <= max_joints; ++joints) {
    const int count = CountFrames(bytes, joints);
    if (count <= most) continue;
    most = count;
    best = joints;
  }
  return best;
}

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
      holders.push_back(name.append(" (pid ").append(pid).append(")"));
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

void ClockWatch::Add(std::int64_t monotonic_before_ns, std::int64_t system_ns, std::int64_t monotonic_after_ns) {
  constexpr std::int64_t kSlewing = 1'000'000;
  if (monotonic_after_ns - monotonic_before_ns > kSlewing / 2) return;
  const std::int64_t offset = system_ns - monotonic_before_ns;
  const std::int64_t step = std::abs(offset - offset_.value_or(offset));
  if (step > kSlewing) jump_ = std::max(jump_, step);
  offset_ = offset;
}

std::vector<std::string> WhyNothingMoves(const RecvPacket& status) {
  std::vector<std::string> causes;
  const auto add = [&](const std::string& joints, const std::string& cause, const std::string& advice) {
    if (!joints.empty()) causes.push_back("joints " + joints + " " + cause + ": " + advice + " --joints " + joints);
  };
  add(Joints(status, HasFault), "report a fault", "find its cause, then velta send LINK reset");
  add(Joints(status, [](const rxJoint_t& j) { return j.systemMode == 0 && !HasFault(j); }), "have their servo off",
      "velta send LINK servo-on");
  add(Joints(status, [](const rxJoint_t& j) { return j.trjStatus == 'm'; }),
      "refused a trajectory because their servo was off",
      "switch it on, then velta send LINK trajectory-control-start");
  add(Joints(status, [](const rxJoint_t& j) { return j.trjStatus == 'f'; }),
      "refused a trajectory because it had no points", "send points, then velta send LINK trajectory-control-start");
  add(Joints(status, [](const rxJoint_t& j) { return j.trjStatus == 'o'; }),
      "stopped because their servo went off while they moved", "velta send LINK servo-on");
  return causes;
}

}  // namespace velta::tools
