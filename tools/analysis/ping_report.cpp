// SPDX-License-Identifier: MIT
#include "ping_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "RecvPacket.h"
#include "counted.h"

namespace velta::analysis {

namespace {

using wire::Counted;

constexpr std::int64_t kMs = 1'000'000;

double Loss(const PingReport& report) {
  return report.sent == 0 ? 0 : 100.0 * (report.sent - report.confirmed) / report.sent;
}

/// Bytes of no good frame. Less than a frame may still be under way.
std::uint64_t Discarded(const PingReport& report) {
  const auto frame = static_cast<std::uint64_t>(RecvPacket(report.joints).GetPacketSize());
  const std::uint64_t rest = report.received - report.good;
  return rest >= frame ? rest : 0;
}

std::string WithoutEcho(const PingReport& report) {
  if (report.received == 0) return "no answer at all: look at the link and the controller with velta doctor";
  if (report.good == 0) return "bytes arrive, but no status of this joint count: check -n with velta doctor";
  return "the controller sends statuses, but echoes no command: look at the controller with velta doctor";
}

/// What an echo that came late, or a status, says about this machine, the link and the controller.
void JudgeTimes(const PingReport& report, std::vector<std::string>& verdict) {
  const std::int64_t p50 = Percentile(report.round_trips, 0.5);
  const std::int64_t worst = report.round_trips.back();
  const std::int64_t late = Percentile(report.wakeups, 0.99);
  if (late > kMs) {
    verdict.push_back(fmt::format(
        "look at this machine: 1 % of its wake-ups are more than {} late (busy processors, power saving, no real-time "
        "priority)",
        RoundedDuration(late)));
  } else if (worst > 10 * p50 && worst > 5 * kMs) {
    verdict.push_back(fmt::format(
        "look at the controller or the link: this machine wakes in time, but the slowest echo took {}, {} times the "
        "median",
        RoundedDuration(worst), worst / std::max<std::int64_t>(p50, 1)));
  }
  const Rhythm rhythm = report.statuses.Measure();
  if (report.statuses.Count() > 10 && rhythm.jitter_ns > rhythm.period_ns && rhythm.jitter_ns > kMs) {
    verdict.push_back(fmt::format("look at the controller: its statuses come every {}, give or take {}",
                                  RoundedDuration(rhythm.period_ns), RoundedDuration(rhythm.jitter_ns)));
  }
}

}  // namespace

std::vector<std::string> Verdict(const PingReport& report) {
  if (report.sent == 0 && report.lost.empty()) return {"nothing was measured"};
  std::vector<std::string> verdict;
  if (!report.lost.empty()) verdict.emplace_back("look at the link: it was lost");
  if (report.confirmed == 0) {
    if (report.lost.empty() || report.received != 0) verdict.push_back(WithoutEcho(report));
    return verdict;
  }
  if (const std::uint64_t discarded = Discarded(report); discarded > 0) {
    verdict.push_back(
        fmt::format("look at the link: {} outside good frames (noise, cut frames, or another joint count)",
                    Counted(discarded, "byte")));
  }
  if (report.resends > 0) {
    verdict.push_back(std::string("look at the link or the controller: some commands were ") +
                      (report.confirmed < report.sent ? "never echoed" : "echoed only after a resend"));
  }
  JudgeTimes(report, verdict);
  if (verdict.empty()) {
    verdict.push_back(fmt::format("good: every command was echoed, 99 % of them within {}",
                                  RoundedDuration(Percentile(report.round_trips, 0.99))));
  }
  return verdict;
}

std::string ToText(const PingReport& report) {
  const Rhythm rhythm = report.statuses.Measure();
  const auto at = [&](double share) { return RoundedDuration(Percentile(report.round_trips, share)); };
  std::string text =
      fmt::format("{}, {} echoed, {:.1f} % lost, {}\n", Counted(static_cast<std::uint64_t>(report.sent), "command"),
                  report.confirmed, Loss(report), Counted(static_cast<std::uint64_t>(report.resends), "resend"));
  if (!report.round_trips.empty()) {
    text += fmt::format("round trip  min {}  p50 {}  p99 {}  p99.9 {}  max {}\n", at(0), at(0.5), at(0.99), at(0.999),
                        at(1));
    for (const std::string& line : Histogram(report.round_trips, 40)) text += "  " + line + "\n";
  }
  text += fmt::format("statuses    {} at {:.0f} Hz  jitter {}  longest silence {}  gaps {}\n", report.statuses.Count(),
                      rhythm.rate_hz, RoundedDuration(rhythm.jitter_ns), RoundedDuration(rhythm.longest),
                      report.statuses.Gaps());
  for (const std::string& line : Verdict(report)) text += "verdict     " + line + "\n";
  return text;
}

nlohmann::ordered_json ToJson(const PingReport& report) {
  const auto tenths = [](double value) { return std::round(10 * value) / 10; };
  const auto us = [&](auto ns) { return tenths(static_cast<double>(ns) / 1e3); };
  const Rhythm rhythm = report.statuses.Measure();
  nlohmann::ordered_json round_trip;  // null without an echo
  if (!report.round_trips.empty()) {
    constexpr std::pair<const char*, double> kRanks[] = {
        {"min", 0}, {"p50", 0.5}, {"p99", 0.99}, {"p99_9", 0.999}, {"max", 1}};
    for (const auto& [name, share] : kRanks) round_trip[name] = us(Percentile(report.round_trips, share));
  }
  return {{"sent", report.sent},
          {"confirmed", report.confirmed},
          {"resends", report.resends},
          {"loss_percent", tenths(Loss(report))},
          {"round_trip_us", round_trip},
          {"status",
           {{"count", report.statuses.Count()},
            {"rate_hz", tenths(rhythm.rate_hz)},
            {"jitter_us", us(rhythm.jitter_ns)},
            {"longest_silence_us", us(rhythm.longest)},
            {"gaps", report.statuses.Gaps()}}},
          {"discarded_bytes", Discarded(report)},
          {"late_wakeup_p99_us", us(Percentile(report.wakeups, 0.99))},
          {"verdict", Verdict(report)}};
}

}  // namespace velta::analysis
