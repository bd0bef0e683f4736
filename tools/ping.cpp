// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <unordered_map>
#include <utility>
#include <vector>

#include "SendPacket.h"
#include "answer.h"
#include "clock.h"
#include "command.h"
#include "counted.h"
#include "frame_stream.h"
#include "host_end.h"
#include "ping_report.h"
#include "progress.h"
#include "stop.h"

namespace velta::tools {

namespace {

using namespace std::chrono_literals;

constexpr int kHopeless = 10;  // so many commands without any echo end the run
constexpr int kAttempts = 5;   // the first and four resends, as the client does

struct PingOptions {
  Link link;
  int joints = 0;
  int count = 1000;
  std::chrono::nanoseconds interval = 2ms;
  std::chrono::nanoseconds timeout = 100ms;
  bool check = false;
  bool json = false;
};

class Pinger {
 public:
  explicit Pinger(const PingOptions& options) : options_(options), wire_(options.link, 5000), stream_(options.joints) {
    report_.joints = options.joints;
  }

  PingReport Run() {
    try {
      std::int64_t next = MonotonicNs();
      while (report_.sent < options_.count && !StopRequested()) {
        PingOnce();
        if (progress_.IsDue()) {
          progress_.Show(fmt::format("{} of {}, {} echoed", report_.sent,
                                     Counted(static_cast<std::uint64_t>(options_.count), "command"),
                                     report_.confirmed));
        }
        if (report_.confirmed == 0 && report_.sent == kHopeless) break;
        next = std::max(next + options_.interval.count(), MonotonicNs());
        if (report_.sent < options_.count) Receive(next, true);
      }
    } catch (const LinkError& error) {
      if (!StopRequested()) report_.lost = error.what();
    }
    progress_.Clear();
    report_.received = stream_.Bytes();
    report_.good = stream_.Frames() * stream_.FrameSize();
    std::sort(report_.round_trips.begin(), report_.round_trips.end());
    std::sort(report_.wakeups.begin(), report_.wakeups.end());
    return std::move(report_);
  }

 private:
  /// One idle command, until a status echoes its stamp or all attempts are used up.
  void PingOnce() {
    waiting_.clear();
    SendPacket packet(options_.joints);
    stamp_ = std::max<std::uint64_t>(packet.GetTimeStamp(), stamp_ + 1);  // also when the clock is set back
    ++report_.sent;
    const int confirmed = report_.confirmed;
    for (int attempt = 0; attempt < kAttempts && confirmed == report_.confirmed; ++attempt) {
      if (attempt > 0) {
        ++report_.resends;
        ++stamp_;
      }
      packet.SetTimeStamp(stamp_);
      const std::int64_t start = MonotonicNs();
      waiting_[stamp_] = start;
      wire_.Write(packet.GetCharVector());
      Receive(start + options_.timeout.count(), false);
      if (StopRequested()) {
        if (confirmed == report_.confirmed) --report_.sent;  // its time was not up
        return;
      }
    }
  }

  /// Takes statuses in until the deadline, or until an echo comes.
  void Receive(std::int64_t deadline, bool to_the_end) {
    const int confirmed = report_.confirmed;
    while (to_the_end || confirmed == report_.confirmed) {
      if (!wire_.WaitReadable(deadline)) {
        if (to_the_end && !StopRequested()) {
          report_.wakeups.push_back(std::max<std::int64_t>(0, MonotonicNs() - deadline));
        }
        return;
      }
      const std::int64_t now = MonotonicNs();
      std::vector<char> bytes;
      wire_.Read(bytes);
      for (const RecvPacket& status : stream_.Push(bytes.data(), bytes.size())) TakeStatus(status, now);
      if (MonotonicNs() >= deadline) return;
    }
  }

  void TakeStatus(const RecvPacket& status, std::int64_t now) {
    report_.statuses.Add(now);
    const auto sent = waiting_.find(+status.header.hostTimestamp);
    if (sent == waiting_.end()) return;
    report_.round_trips.push_back(now - sent->second);
    ++report_.confirmed;
    waiting_.clear();
  }

  const PingOptions& options_;
  HostEnd wire_;
  StatusStream stream_;
  PingReport report_;
  Progress progress_;
  std::uint64_t stamp_ = 0;
  std::unordered_map<std::uint64_t, std::int64_t> waiting_;  ///< stamps of the current command and when they left
};

int Ping(const PingOptions& options) {
  InstallStopHandler();
  const PingReport report = Pinger(options).Run();
  if (options.json) {
    Out() << ToJson(report) << std::endl;
  } else {
    Out() << ToText(report) << std::flush;
  }
  if (!report.lost.empty()) throw Failure(report.lost);
  return report.confirmed > 0 || report.sent == 0 ? 0 : 1;
}

}  // namespace

void AddPing(CLI::App& app, Action& action) {
  CLI::App& command = *app.add_subcommand("ping", "Measure the round trip of commands and the rhythm of statuses");
  const auto options = std::make_shared<PingOptions>();
  AddLinkArgument(command, options->link);
  AddJointsOption(command, options->joints);
  command.add_option("-c,--count", options->count, "Commands to send")
      ->check(CLI::Range(1, 100'000'000))
      ->type_name("N");
  AddDurationOption(command, "-i,--interval", options->interval, {0s, 60s},
                    "Time between an echo and the next command");
  auto* const timeout = AddDurationOption(command, "-t,--timeout", options->timeout, {100us, 60s},
                                          "How long to wait for an echo before sending the command again; with --check "
                                          "how long to try, then 2s unless given");
  command.add_flag("--check", options->check, "Only wait until a command is echoed, for scripts");
  AddJsonFlag(command, options->json, "Print one JSON object");
  command.footer(
      "It sends idle commands; the arm does not move.\n"
      "Examples:\n"
      "  velta ping -n 6 tcp://192.168.0.10:5000\n"
      "  velta ping -n 6 tcp://192.168.0.10:5000 --check --timeout 10s");
  command.callback([options, timeout, &action] {
    if (options->check && timeout->count() == 0) options->timeout = 2s;
    action = [options] {
      return options->check ? AwaitAnswer(options->link, options->joints, options->timeout, options->json)
                            : Ping(*options);
    };
  });
}

}  // namespace velta::tools
