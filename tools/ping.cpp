// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <iostream>
#include <ostream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "PacketParser.h"
#include "SendPacket.h"
#include "command.h"
#include "link.h"
#include "stop.h"
#include "timing.h"
#include "wire.h"

namespace velta::tools {

namespace {

constexpr int kHopeless = 10;  // so many commands without any echo end the run
constexpr int kAttempts = 5;   // the first and four resends, as the client does

struct PingOptions {
  Link link;
  int joints = 0;
  int count = 1000;
  double interval_ms = 2;
  double timeout_ms = 100;
  bool json = false;
};

/// What one run measured; durations in ns of the monotonic clock.
struct Report {
  int sent = 0;       ///< commands, resends not counted
  int confirmed = 0;  ///< of them, echoed within their time
  int resends = 0;
  std::vector<std::int64_t> round_trips;  ///< of the confirmed ones, from the frame that was echoed
  std::vector<std::int64_t> wakeups;      ///< how much later than planned this process was woken
  Arrivals statuses{true};
  std::uint64_t received = 0;  ///< bytes
  std::uint64_t good = 0;      ///< bytes in frames with a right CRC
  std::string lost;            ///< why the run ended early
};

class Pinger {
 public:
  explicit Pinger(const PingOptions& options) : options_(options), wire_(options.link), parser_(options.joints) {}

  Report Run() {
    try {
      std::int64_t next = MonotonicNs();
      while (report_.sent < options_.count && !StopRequested()) {
        PingOnce();
        ShowProgress();
        if (report_.confirmed == 0 && report_.sent == kHopeless) break;
        next = std::max(next + Ns(options_.interval_ms), MonotonicNs());
        if (report_.sent < options_.count) Receive(next, true);
      }
    } catch (const LinkError& error) {
      if (!StopRequested()) report_.lost = error.what();
    }
    if (next_progress_ != 0) std::cerr << "\r" << std::string(60, ' ') << "\r" << std::flush;
    std::sort(report_.round_trips.begin(), report_.round_trips.end());
    std::sort(report_.wakeups.begin(), report_.wakeups.end());
    return std::move(report_);
  }

 private:
  static std::int64_t Ns(double ms) { return static_cast<std::int64_t>(ms * 1e6); }

  void ShowProgress() {
    if (isatty(STDERR_FILENO) == 0 || MonotonicNs() < next_progress_) return;
    next_progress_ = MonotonicNs() + Ns(200);
    std::cerr << "\r" << report_.sent << " of " << options_.count << " commands, " << report_.confirmed << " echoed "
              << std::flush;
  }

  /// One command that commands nothing, until a status echoes its stamp or all attempts are used up.
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
      Receive(start + Ns(options_.timeout_ms), false);
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
        if (to_the_end && !StopRequested())
          report_.wakeups.push_back(std::max<std::int64_t>(0, MonotonicNs() - deadline));
        return;
      }
      const std::int64_t now = MonotonicNs();
      std::vector<char> bytes;
      report_.received += wire_.Read(bytes);
      parser_.Push(std::move(bytes));
      for (const RecvPacket& status : parser_.Parse()) TakeStatus(status, now);
      if (MonotonicNs() >= deadline) return;
    }
  }

  void TakeStatus(const RecvPacket& status, std::int64_t now) {
    report_.good += static_cast<std::uint64_t>(status.packetSize);
    report_.statuses.Add(now);
    const auto sent = waiting_.find(+status.header.hostTimestamp);
    if (sent == waiting_.end()) return;
    report_.round_trips.push_back(now - sent->second);
    ++report_.confirmed;
    waiting_.clear();
  }

  const PingOptions& options_;
  Wire wire_;
  PacketParser parser_;
  Report report_;
  std::int64_t next_progress_ = 0;
  std::uint64_t stamp_ = 0;
  std::unordered_map<std::uint64_t, std::int64_t> waiting_;  ///< stamps of the current command and when they left
};

double Loss(const Report& report) {
  return report.sent == 0 ? 0 : 100.0 * (report.sent - report.confirmed) / report.sent;
}

/// Bytes that belong to no good frame, not counting one frame that may still be under way.
std::uint64_t Discarded(const Report& report, int joints) {
  const auto frame = static_cast<std::uint64_t>(StatusFrameSizes(joints).packet);
  const std::uint64_t rest = report.received - report.good;
  return rest >= frame ? rest : 0;
}

/// What the numbers mean, most urgent first; never empty.
std::vector<std::string> Verdict(const Report& report, int joints) {
  std::vector<std::string> verdict;
  const std::uint64_t discarded = Discarded(report, joints);
  const bool silent = report.received == 0;
  if (!report.lost.empty()) verdict.emplace_back("look at the link: it was lost");
  if (report.sent == 0) return {"nothing was measured"};
  if (report.confirmed == 0) {
    verdict.emplace_back(
        silent ? "no answer at all: look at the link and the controller with velta doctor"
        : report.good == 0
            ? "bytes arrive, but no status of this joint count: look at -n, with velta doctor"
            : "the controller reports, but echoes no command: look at the controller, with velta doctor");
    return verdict;
  }
  const std::int64_t p50 = Percentile(report.round_trips, 0.5);
  const std::int64_t p99 = Percentile(report.round_trips, 0.99);
  const std::int64_t worst = report.round_trips.back();
  const std::int64_t late = Percentile(report.wakeups, 0.99);
  const Rhythm rhythm = report.statuses.Measure();
  if (discarded > 0) {
    verdict.push_back("look at the link: " + std::to_string(discarded) +
                      " bytes belong to no good frame (noise, cut frames, or another joint count)");
  }
  if (report.resends > 0) {
    verdict.push_back("look at the link or the controller: " + std::to_string(report.resends) +
                      " commands had to be sent again, " + Fixed(Loss(report), 1) + " % were never echoed");
  }
  if (late > 1'000'000) {
    verdict.push_back("look at this machine: 1 % of its wake-ups are more than " + Duration(static_cast<double>(late)) +
                      " late (busy processors, power saving, no real-time priority)");
  } else if (worst > 10 * p50 && worst > 5'000'000) {
    verdict.push_back("look at the controller or the link: this machine wakes in time, but the slowest echo took " +
                      Duration(static_cast<double>(worst)) + ", " +
                      std::to_string(worst / std::max<std::int64_t>(p50, 1)) + " times the median");
  }
  if (report.statuses.Count() > 10 && rhythm.jitter_ns > rhythm.period_ns && rhythm.jitter_ns > 1e6) {
    verdict.push_back("look at the controller: its statuses come every " + Duration(rhythm.period_ns) +
                      ", give or take " + Duration(rhythm.jitter_ns));
  }
  if (verdict.empty()) {
    verdict.push_back("good: every command was echoed, 99 % of them within " + Duration(static_cast<double>(p99)));
  }
  return verdict;
}

std::string Us(double ns) { return Fixed(ns / 1e3, 1); }

void PrintJson(std::ostream& out, const Report& report, int joints) {
  const Rhythm rhythm = report.statuses.Measure();
  const auto at = [&](double share) { return Us(static_cast<double>(Percentile(report.round_trips, share))); };
  out << "{\"sent\":" << report.sent << ",\"confirmed\":" << report.confirmed << ",\"resends\":" << report.resends
      << ",\"loss_percent\":" << Fixed(Loss(report), 2) << ",\"round_trip_us\":";
  if (report.round_trips.empty()) {
    out << "null";
  } else {
    out << "{\"min\":" << at(0) << ",\"p50\":" << at(0.5) << ",\"p99\":" << at(0.99) << ",\"p99_9\":" << at(0.999)
        << ",\"max\":" << at(1) << "}";
  }
  out << ",\"status\":{\"count\":" << report.statuses.Count() << ",\"rate_hz\":" << Fixed(rhythm.rate_hz, 1)
      << ",\"jitter_us\":" << Us(rhythm.jitter_ns)
      << ",\"longest_silence_us\":" << Us(static_cast<double>(rhythm.longest)) << ",\"gaps\":" << report.statuses.Gaps()
      << "},\"discarded_bytes\":" << Discarded(report, joints)
      << ",\"late_wakeup_p99_us\":" << Us(static_cast<double>(Percentile(report.wakeups, 0.99))) << ",\"verdict\":[";
  const char* separator = "";
  for (const std::string& line : Verdict(report, joints)) {
    out << separator << '"' << line << '"';  // the texts above hold nothing that needs escaping
    separator = ",";
  }
  out << "]}\n";
}

void PrintText(std::ostream& out, const Report& report, int joints) {
  const Rhythm rhythm = report.statuses.Measure();
  const auto at = [&](double share) { return Duration(static_cast<double>(Percentile(report.round_trips, share))); };
  out << report.sent << " commands, " << report.confirmed << " echoed, " << Fixed(Loss(report), 1) << " % lost, "
      << report.resends << " resends\n";
  if (!report.round_trips.empty()) {
    out << "round trip  min " << at(0) << "  p50 " << at(0.5) << "  p99 " << at(0.99) << "  p99.9 " << at(0.999)
        << "  max " << at(1) << "\n";
    for (const std::string& line : Histogram(report.round_trips, 40)) out << "  " << line << "\n";
  }
  out << "statuses    " << report.statuses.Count() << " at " << Fixed(rhythm.rate_hz, 0) << " Hz  jitter "
      << Duration(rhythm.jitter_ns) << "  longest silence " << Duration(static_cast<double>(rhythm.longest))
      << "  gaps " << report.statuses.Gaps() << "\n";
  for (const std::string& line : Verdict(report, joints)) out << "verdict     " << line << "\n";
}

int Ping(const PingOptions& options) {
  InstallStopHandler();
  const Report report = Pinger(options).Run();
  (options.json ? PrintJson : PrintText)(Out(), report, options.joints);
  Out().flush();
  if (!report.lost.empty()) throw Failure(report.lost);
  return report.confirmed > 0 || report.sent == 0 ? 0 : 1;
}

}  // namespace

void AddPing(CLI::App& app, Action& action) {
  CLI::App& command = *app.add_subcommand("ping", "Measure the round trip of commands and the rhythm of statuses");
  static PingOptions options;
  AddLinkArgument(command, options.link);
  AddJointsOption(command, options.joints);
  command.add_option("-c,--count", options.count, "Commands to send (1000)")
      ->check(CLI::Range(1, 100'000'000))
      ->option_text("N");
  command.add_option("-i,--interval-ms", options.interval_ms, "Time between an echo and the next command (2)")
      ->check(CLI::Range(0.0, 60'000.0))
      ->option_text("MS");
  command.add_option("-t,--timeout-ms", options.timeout_ms, "Wait for an echo before the command is sent again (100)")
      ->check(CLI::Range(0.1, 60'000.0))
      ->option_text("MS");
  command.add_flag("--json", options.json, "Print one JSON object");
  command.footer(
      "It sends commands that command nothing; the arm does not move.\nExample: velta ping -n 6 "
      "tcp://192.168.0.10:5000");
  command.callback([&action] { action = [] { return Ping(options); }; });
}

}  // namespace velta::tools
