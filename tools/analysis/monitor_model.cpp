// SPDX-License-Identifier: MIT
#include "monitor_model.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "counted.h"
#include "status_words.h"

namespace velta::analysis {

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

/// A value in few characters: fixed where that is readable, else with an exponent.
std::string Value(float value, int digits) {
  if (std::fabs(value) < 1e6f || !std::isfinite(value)) return fmt::format("{:.{}f}", value, digits);
  return fmt::format("{:.3e}", value);
}

/// Bit for bit, so that a value that is no number does not change for ever.
bool Differ(float a, float b) {
  std::uint32_t bits[2];
  std::memcpy(&bits[0], &a, sizeof a);
  std::memcpy(&bits[1], &b, sizeof b);
  return bits[0] != bits[1];
}

}  // namespace

MonitorModel::MonitorModel(int joints) : stream_(joints), last_(joints), joints_(last_.joints.size()) {}

void MonitorModel::Take(const std::vector<char>& bytes, std::int64_t now_ns) {
  const std::vector<RecvPacket> statuses = stream_.Push(bytes.data(), bytes.size());
  for (const RecvPacket& status : statuses) {
    if (HasStatus()) Compare(status, now_ns);
    arrivals_.Add(now_ns);
    last_ = status;
    if (on_status_) on_status_(status);
  }
  if (statuses.empty() || now_ns < next_sample_) return;
  next_sample_ = now_ns + kSampleNs;
  for (std::size_t i = 0; i < joints_.size(); ++i) {
    joints_[i].positions.push_back(+last_.joints[i].position);
    if (joints_[i].positions.size() > kMostSamples) joints_[i].positions.pop_front();
  }
}

void MonitorModel::Restart() {
  cut_off_ += stream_.Lost() - stream_.Discarded();
  stream_.Restart();
}

void MonitorModel::Compare(const RecvPacket& status, std::int64_t now_ns) {
  for (std::size_t i = 0; i < joints_.size(); ++i) {
    const rxJoint_t& a = last_.joints[i];
    const rxJoint_t& b = status.joints[i];
    const std::array<bool, kColumns.size()> changed = {Differ(a.position, b.position),
                                                       Differ(a.velocity, b.velocity),
                                                       Differ(a.effort, b.effort),
                                                       Differ(a.current, b.current),
                                                       Differ(a.temperature, b.temperature),
                                                       a.systemMode != b.systemMode,
                                                       a.ctrlMode != b.ctrlMode,
                                                       a.ewStatus != b.ewStatus,
                                                       a.trjStatus != b.trjStatus};
    for (std::size_t column = 0; column < changed.size(); ++column) {
      if (changed[column]) joints_[i].changed_at[column] = now_ns;
    }
  }
}

std::string MonitorModel::Traffic(std::int64_t now_ns) const {
  if (!HasStatus()) return fmt::format("no status yet  discarded {}", wire::Counted(Discarded(), "byte"));
  const Rhythm rhythm = arrivals_.Measure();
  const std::int64_t age = now_ns - arrivals_.Last();
  return fmt::format("{:.0f} Hz  age {}  jitter {}  gaps {}  statuses {}  discarded {}  bad CRC {}",
                     age > kSecond ? 0 : rhythm.rate_hz, RoundedDuration(age), RoundedDuration(rhythm.jitter_ns),
                     arrivals_.Gaps(), arrivals_.Count(), wire::Counted(Discarded(), "byte"), stream_.BadCrc());
}

std::vector<MonitorModel::Cell> MonitorModel::Row(std::size_t joint, std::int64_t now_ns) const {
  const rxJoint_t& state = last_.joints[joint];
  std::vector<Cell> row = {
      {Value(state.position, 4)},        {Value(state.velocity, 4)},    {Value(state.effort, 4)},
      {Value(state.current, 4)},         {Value(state.temperature, 1)}, {SystemModeWord(state.systemMode)},
      {ControlModeWord(state.ctrlMode)}, {StatusWord(state.ewStatus)},  {TrajectoryWord(state.trjStatus)}};
  for (std::size_t column = 0; column < row.size(); ++column) {
    const std::int64_t at = joints_[joint].changed_at[column];
    row[column].changed = at != 0 && now_ns - at < kSecond;
    row[column].fault = HasFault(state) && (kColumns[column].title == std::string("servo") ||
                                            kColumns[column].title == std::string("status"));
  }
  return row;
}

std::vector<std::string> MonitorModel::History(std::size_t joint, std::size_t width, std::size_t height) const {
  const std::deque<float>& all = joints_[joint].positions;
  const std::size_t count = std::min(all.size(), width);
  std::vector<float> shown(all.end() - static_cast<std::ptrdiff_t>(count), all.end());
  std::vector<float> finite;
  std::copy_if(shown.begin(), shown.end(), std::back_inserter(finite), [](float v) { return std::isfinite(v); });
  std::vector<std::string> lines(height + 1, std::string(width, ' '));
  lines.front() = "position of joint " + std::to_string(joint);
  if (finite.empty()) return lines;
  const auto [least, most] = std::minmax_element(finite.begin(), finite.end());
  const double low = *least;
  const double range = static_cast<double>(*most) - low;
  lines.front() += fmt::format(", last {:.1f} s, {} to {}", static_cast<double>(count) * kSampleNs / 1e9,
                               Value(*least, 4), Value(*most, 4));
  for (std::size_t i = 0; i < count; ++i) {
    if (!std::isfinite(shown[i])) continue;
    const double share = range > 0 ? (shown[i] - low) / range : 0;
    const auto row = static_cast<std::size_t>(std::lround((1 - share) * static_cast<double>(height - 1)));
    lines[1 + row][width - count + i] = '*';
  }
  return lines;
}

std::string MonitorModel::Line(std::int64_t now_ns) const {
  std::string line = Traffic(now_ns);
  if (!HasStatus()) return line;
  for (std::size_t i = 0; i < joints_.size(); ++i) {
    const rxJoint_t& state = last_.joints[i];
    line += fmt::format(" | J{} {} {}", i, Value(state.position, 4), SystemModeWord(state.systemMode));
    if (state.ewStatus != 0) line += " " + StatusWord(state.ewStatus);
  }
  return line;
}

std::string LinkLine(const SessionStatistics& statistics) {
  const Statistics& client = statistics.client;
  return fmt::format("received {}  sent {}  reconnections {}  woke up late p99 {}, missed {}",
                     wire::Counted(client.bytes_received, "byte"), wire::Counted(client.frames_sent, "frame"),
                     client.reconnections, RoundedDuration(statistics.lateness.p99_us * 1e3),
                     wire::Counted(statistics.overruns, "cycle"));
}

}  // namespace velta::analysis
