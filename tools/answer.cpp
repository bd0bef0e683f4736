// SPDX-License-Identifier: MIT
#include "answer.h"

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "PacketParser.h"
#include "SendPacket.h"
#include "clock.h"
#include "command.h"
#include "host_end.h"
#include "stop.h"
#include "timing.h"

namespace velta::tools {

namespace {

constexpr std::int64_t kMs = 1'000'000;

/// One connection's attempt.
/// @return what is missing; empty when a command was echoed
std::string Ask(const Link& link, int joints, std::int64_t deadline_ns) try {
  HostEnd wire(link, static_cast<int>(std::max<std::int64_t>((deadline_ns - MonotonicNs()) / kMs, 1)));
  PacketParser parser(joints);
  bool has_bytes = false;
  bool has_status = false;
  std::set<std::uint64_t> stamps;  // exactly these: another host's echo proves nothing
  for (std::int64_t next = MonotonicNs(); MonotonicNs() < deadline_ns && !StopRequested();) {
    if (MonotonicNs() >= next) {
      next += 50 * kMs;
      const SendPacket idle(joints);
      wire.Write(idle.GetCharVector());
      stamps.insert(idle.GetTimeStamp());
    }
    if (!wire.WaitReadable(std::min(next, deadline_ns))) continue;
    std::vector<char> bytes;
    if (wire.Read(bytes) > 0) has_bytes = true;
    parser.Push(std::move(bytes));
    for (const RecvPacket& status : parser.Parse()) {
      has_status = true;
      if (stamps.count(+status.header.hostTimestamp) != 0) return "";
    }
  }
  return ToString(link) + (has_status  ? ": status frames arrive, but none echoes a command"
                           : has_bytes ? ": no status frame arrives, but other bytes do; check the joint count"
                                       : ": no status frame arrives");
} catch (const LinkError& error) {
  return error.what();
}

}  // namespace

int AwaitAnswer(const Link& link, int joints, std::chrono::nanoseconds timeout, bool json) {
  if (link.kind == Link::Kind::kPty) throw UsageError("--check takes the device of a pty, serial:///dev/pts/N");
  InstallStopHandler();
  const std::int64_t start = MonotonicNs();
  const std::int64_t deadline = start + timeout.count();
  std::string trouble;
  do {
    trouble = Ask(link, joints, deadline);
    if (trouble.empty()) {
      const std::int64_t took = MonotonicNs() - start;
      if (json) {
        Out() << nlohmann::ordered_json{{"event", "check"}, {"link", ToString(link)}, {"us", took / 1000}} << std::endl;
      } else {
        Out() << ToString(link) << " answers, after " << RoundedDuration(took) << std::endl;
      }
      return 0;
    }
    WaitUntil(std::min(deadline, MonotonicNs() + 10 * kMs));
  } while (MonotonicNs() < deadline && !StopRequested());
  throw Failure("no controller answers: " + trouble);
}

}  // namespace velta::tools
