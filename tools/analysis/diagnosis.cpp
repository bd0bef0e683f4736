// SPDX-License-Identifier: MIT
#include "diagnosis.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>

#include "counted.h"
#include "protocol.h"
#include "status_words.h"
#include "timing.h"

namespace velta::analysis {

namespace {

using Kind = Finding::Kind;
using LinkKind = LinkAddress::Kind;
using wire::Counted;

constexpr int kMostJoints = 64;            // joint counts that are tried when the given one does not fit
constexpr std::size_t kMostBytes = 32768;  // enough to judge, and quick for every joint count
constexpr std::int64_t kMs = 1'000'000;

std::string Joints(int count) { return Counted(static_cast<std::uint64_t>(count), "joint"); }

int CountFrames(const std::vector<char>& bytes, int joints) {
  RecvPacket status(joints);
  const auto size = static_cast<std::size_t>(status.GetPacketSize());
  const std::size_t length = std::min(bytes.size(), kMostBytes);
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

Finding Silence(const Observation& seen) {
  if (seen.kind == LinkKind::kSerial) {
    return {
        Kind::kFailure,
        fmt::format("the device is open, but silent: check the wiring, the baud rate and that the controller is on{}",
                    seen.is_shared ? "; the other process may take its bytes" : "")};
  }
  return {Kind::kFailure,
          fmt::format("{}: check the port, that the controller runs, and that {} is its joint count",
                      seen.kind == LinkKind::kUdp ? "nothing came back, to no command" : "connected, but silent",
                      seen.joints)};
}

Finding NoFrame(const Observation& seen) {
  const std::string bytes =
      Counted(seen.bytes.size(), "byte") + " arrived, but no good frame of " + Joints(seen.joints);
  if (const std::optional<int> fit = FitJointCount(seen.bytes, kMostJoints)) {
    return {Kind::kFailure, fmt::format("{}: the controller is set to {}; use -n {}", bytes, Joints(*fit), *fit)};
  }
  return {Kind::kFailure,
          fmt::format("{}, nor of 0 to {} joints: {}", bytes, kMostJoints,
                      seen.kind == LinkKind::kSerial ? "check the baud rate and the wiring"
                                                     : "this is another service, or the bytes are damaged on the way")};
}

void JudgeStream(const Observation& seen, Findings& findings) {
  const auto frame = static_cast<std::size_t>(seen.statuses.front().packetSize);
  const std::size_t discarded = seen.bytes.size() - seen.statuses.size() * frame;
  const std::string count = fmt::format(
      "{} of {}{}", seen.statuses.size() == 1 ? "1 good status" : fmt::format("{} good statuses", seen.statuses.size()),
      Joints(seen.joints), seen.unasked == 0 ? ", only in answer to commands" : "");
  if (discarded >= frame) {
    findings.push_back({Kind::kWarning, fmt::format("{}, but {} outside them: look for noise or lost bytes", count,
                                                    Counted(discarded, "byte"))});
  } else {
    findings.push_back({Kind::kGood, count});
  }
  const auto stamp = [](const RecvPacket& status) { return status.header.timestamp; };
  if (seen.statuses.size() > 3 && stamp(seen.statuses.front()) == stamp(seen.statuses.back())) {
    findings.push_back({Kind::kFailure, "the status is frozen: its time stamp never changes; restart the controller"});
  }
}

void JudgeEcho(const Observation& seen, Findings& findings) {
  if (seen.foreign_echoes.size() > 1) {
    findings.push_back(
        {Kind::kWarning, "the controller also echoes commands that are not from here: another host drives it"});
  }
  if (seen.commands.empty()) return;  // the link was lost before
  std::vector<std::int64_t> delays;
  for (const auto& [stamp, command] : seen.commands) {
    if (command.delay) delays.push_back(*command.delay);
  }
  if (delays.empty()) {
    findings.push_back(
        {Kind::kFailure,
         fmt::format(
             "statuses arrive, but the echo never comes: the controller accepts no command from here; check that "
             "it is in remote mode, is set to {} for commands too, and that the line to it is connected",
             Joints(seen.joints))});
    return;
  }
  std::sort(delays.begin(), delays.end());
  const std::string count = fmt::format("{} of {}", delays.size(), Counted(seen.commands.size(), "command"));
  const std::int64_t usual = Percentile(delays, 0.5);
  const bool last_missing = !seen.commands.rbegin()->second.delay;
  if (last_missing && delays.front() > 35 * kMs) {
    findings.push_back(
        {Kind::kFailure,
         "the echo is stale: a command is echoed only after the next one, so no confirmation ever comes"});
  } else if (last_missing || delays.size() + 1 < seen.commands.size()) {
    findings.push_back({Kind::kWarning, "the controller echoes only " + count + ": the others are lost on the way"});
  } else if (usual > 20 * kMs) {
    findings.push_back({Kind::kWarning, "the echo comes late, usually after " + RoundedDuration(usual) +
                                            ": confirmed commands wait that long"});
  } else {
    findings.push_back({Kind::kGood, "the controller echoes " + count + ", usually after " + RoundedDuration(usual)});
  }
}

Finding JudgeClocks(const Observation& seen) {
  if (seen.clock_jump > 0) {
    return {Kind::kFailure, fmt::format("this machine's clock jumps by {}: time stamps repeat or leap; let the time "
                                        "service slew instead of step",
                                        RoundedDuration(seen.clock_jump))};
  }
  const auto backwards = std::adjacent_find(
      seen.statuses.begin(), seen.statuses.end(),
      [](const RecvPacket& a, const RecvPacket& b) { return b.header.timestamp < a.header.timestamp; });
  if (backwards == seen.statuses.end()) return {Kind::kGood, "clocks run steadily"};
  return {Kind::kWarning,
          "the controller's time stamps run backwards at times: it restarted, or statuses overtake each other"};
}

void JudgeJoints(const RecvPacket& status, Findings& findings) {
  const std::size_t before = findings.size();
  const auto look = [&](const std::function<bool(const rxJoint_t&)>& condition, const char* cause, const char* advice) {
    std::vector<std::size_t> joints;
    for (std::size_t i = 0; i < status.joints.size(); ++i) {
      if (condition(status.joints[i])) joints.push_back(i);
    }
    if (joints.empty()) return;
    findings.push_back(
        {Kind::kWarning, fmt::format("{} on joint{} {}: {} --select {}", cause, joints.size() == 1 ? "" : "s",
                                     fmt::join(joints, "/"), advice, fmt::join(joints, "/"))});
  };
  look(HasFault, "fault reported", "find its cause, then velta send LINK reset");
  look([](const rxJoint_t& j) { return j.systemMode == 0 && !HasFault(j); }, "servo off", "velta send LINK servo-on");
  look([](const rxJoint_t& j) { return j.trjStatus == 'm'; }, "trajectory refused with the servo off",
       "switch it on, then velta send LINK trajectory-control-start");
  look([](const rxJoint_t& j) { return j.trjStatus == 'f'; }, "trajectory refused without points",
       "send points, then velta send LINK trajectory-control-start");
  look([](const rxJoint_t& j) { return j.trjStatus == 'o'; }, "servo switched off while moving",
       "velta send LINK servo-on");
  if (findings.size() == before) {
    findings.push_back({Kind::kGood, "no joint reports anything that keeps it from moving"});
  }
}

}  // namespace

Findings Diagnose(const Observation& seen) {
  if (seen.bytes.empty()) return {Silence(seen)};
  if (seen.statuses.empty()) return {NoFrame(seen)};
  Findings findings;
  JudgeStream(seen, findings);
  JudgeEcho(seen, findings);
  findings.push_back(JudgeClocks(seen));
  JudgeJoints(seen.statuses.back(), findings);
  return findings;
}

std::string Conclusion(const Findings& findings) {
  const auto count = [&](Kind kind) {
    return std::count_if(findings.begin(), findings.end(), [kind](const Finding& f) { return f.kind == kind; });
  };
  if (count(Kind::kFailure) > 1) return "begin with the first failure";
  if (count(Kind::kFailure) == 1) return "this keeps the link from working";
  return count(Kind::kWarning) > 0 ? "the link works; mind the warnings" : "healthy";
}

Finding ExplainOpening(const LinkAddress& link, int error, const std::string& what) {
  switch (error) {
    case ECONNREFUSED:
      return {Kind::kFailure, fmt::format("{} refuses: the machine is there, but nothing listens on port {}; start the "
                                          "controller, or check the port",
                                          ToString(link), link.port)};
    case ETIMEDOUT:
    case EHOSTUNREACH:
    case ENETUNREACH:
    case EHOSTDOWN:
      return {Kind::kFailure, "cannot reach " + link.host + ": check power, cable, address, netmask and firewall"};
    case EBUSY:
      return {Kind::kFailure, link.device + " is busy: another process opened it exclusively"};
    case EINVAL:
      return {Kind::kFailure, fmt::format("{} cannot be set to {} baud: try a standard rate", link.device, link.baud)};
    default:
      return {Kind::kFailure, what};
  }
}

Finding ExplainLoss(const LinkAddress& link, int error, const std::string& what) {
  if (link.kind == LinkKind::kUdp && error == ECONNREFUSED) {
    return {Kind::kFailure, ToString(link) + " refuses: the machine is there, but nothing listens on that UDP port"};
  }
  if (error == ECONNABORTED || error == ECONNRESET || error == EPIPE) {
    return {Kind::kFailure, "the controller closed the link: it may serve another host already, or have restarted"};
  }
  if (error == ETIMEDOUT) {
    return {Kind::kFailure, "the controller takes no more bytes: it is stuck, or this is another service"};
  }
  return {Kind::kFailure, what};
}

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

void ClockWatch::Add(std::int64_t monotonic_before_ns, std::int64_t system_ns, std::int64_t monotonic_after_ns) {
  constexpr std::int64_t kSlewing = 1'000'000;
  if (monotonic_after_ns - monotonic_before_ns > kSlewing / 2) return;
  const std::int64_t offset = system_ns - monotonic_before_ns;
  const std::int64_t step = std::abs(offset - offset_.value_or(offset));
  if (step > kSlewing) jump_ = std::max(jump_, step);
  offset_ = offset;
}

}  // namespace velta::analysis
