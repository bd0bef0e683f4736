// SPDX-License-Identifier: MIT
#include "check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "counted.h"

namespace velta::recording {

namespace {

constexpr std::uint64_t kEnoughStatuses = 3;  // of which one has the echo of a command that was accepted
constexpr std::uint64_t kEnoughTime = 1'000'000'000;
constexpr std::uint64_t kHighestRaise = 4;  // a command is sent again up to four times, its stamp one higher each time
constexpr double kJumpFactor = 2;           // positions and velocities are not of quite the same moment

std::string Milliseconds(std::uint64_t ns) { return fmt::format("{:.1f} ms", static_cast<double>(ns) / 1e6); }

bool SameRecords(const SendPacket& a, const SendPacket& b) {
  return a.header.armOrder == b.header.armOrder && a.joints.size() == b.joints.size() &&
         std::memcmp(a.joints.data(), b.joints.data(), a.joints.size() * sizeof(txJoint_t)) == 0;
}

/// Cuts the records of an excerpt into frames. What comes before the excerpt is cut too, so that no frame begins in the
/// middle.
///
/// @tparam Watcher  OnConnection(), OnCommand(packet), OnStatus(packet), each with the time since the first record; and
///                  AfterRecord(time, commands, statuses) with both streams
template <typename Watcher>
void Watch(RecordingReader& reader, const Excerpt& excerpt, int joints, Watcher& watcher) {
  wire::CommandStream commands(joints);
  wire::StatusStream statuses(joints);
  std::optional<std::uint64_t> start;
  for (Record record; reader.Next(record);) {
    if (!start) start = record.monotonic_ns;
    const std::uint64_t time = record.monotonic_ns < *start ? 0 : record.monotonic_ns - *start;
    if (time > excerpt.to_ns) break;
    const bool is_in = time >= excerpt.from_ns;
    if (record.event == Event::kToController) {
      for (const SendPacket& command : commands.Push(record.bytes.data(), record.bytes.size())) {
        if (is_in) watcher.OnCommand(time, command);
      }
    } else if (record.event == Event::kToHost) {
      for (const RecvPacket& status : statuses.Push(record.bytes.data(), record.bytes.size())) {
        if (is_in) watcher.OnStatus(time, status);
      }
    } else {
      commands.Restart();
      statuses.Restart();
      if (is_in) watcher.OnConnection(time);
    }
    watcher.AfterRecord(time, is_in, commands, statuses);
  }
}

/// First reading: the usual interval between status frames.
class IntervalWatcher {
 public:
  void OnConnection(std::uint64_t) { last_.reset(); }
  void OnCommand(std::uint64_t, const SendPacket&) {}
  void OnStatus(std::uint64_t time, const RecvPacket&) {
    if (last_) intervals_.push_back(time - *last_);
    last_ = time;
  }
  void AfterRecord(std::uint64_t, bool, const wire::CommandStream&, const wire::StatusStream&) {}

  std::uint64_t Median() {
    if (intervals_.empty()) return 0;
    const auto middle = intervals_.begin() + static_cast<std::ptrdiff_t>(intervals_.size() / 2);
    std::nth_element(intervals_.begin(), middle, intervals_.end());
    return *middle;
  }

 private:
  std::optional<std::uint64_t> last_;
  std::vector<std::uint64_t> intervals_;
};

/// Second reading: everything else.
class TroubleWatcher {
 public:
  TroubleWatcher(const CheckSettings& settings, CheckResult& result, int joints)
      : settings_(settings),
        result_(result),
        faults_(static_cast<std::size_t>(joints)),
        crossed_(static_cast<std::size_t>(joints)),
        last_(joints) {}

  void OnConnection(std::uint64_t time) {
    JudgeCommand(time, true);
    command_.reset();
    has_last_ = false;
  }

  void OnCommand(std::uint64_t time, const SendPacket& command) {
    ++result_.commands;
    if (command_ && SameRecords(command_->first, command)) {
      const std::uint64_t raised = command.header.timeStamp - command_->first.header.timeStamp;
      if (raised >= 1 && raised <= kHighestRaise) {
        command_->newest = command.header.timeStamp;
        Found(Trouble::kResend, time, -1,
              fmt::format("command {} sent again, stamp raised by {}", +command_->first.header.timeStamp, raised));
        return;
      }
    }
    JudgeCommand(time, false);
    command_ = Sent{time, command, command.header.timeStamp};
  }

  void OnStatus(std::uint64_t time, const RecvPacket& status) {
    ++result_.statuses;
    if (command_) {
      const std::uint64_t echo = status.header.hostTimestamp;
      command_->echoed |= echo >= command_->first.header.timeStamp && echo <= command_->newest;
      ++command_->statuses;
    }
    NoteEcho(status.header.hostTimestamp);
    if (has_last_) CheckInterval(time);
    for (std::size_t i = 0; i < status.joints.size(); ++i) CheckJoint(time, i, status.joints[i]);
    last_ = status;
    last_time_ = time;
    has_last_ = true;
  }

  void AfterRecord(std::uint64_t time, bool is_in, const wire::CommandStream& commands,
                   const wire::StatusStream& statuses) {
    CheckBytes(time, is_in, "command", commands, command_counts_);
    CheckBytes(time, is_in, "status", statuses, status_counts_);
    end_ = time;
  }

  void End() {
    JudgeCommand(end_, true);
    // An echo may come while the next command is on its way already: only now is it known who got none.
    for (const auto& [stamp, suspect] : suspects_) {
      Found(Trouble::kUnconfirmed, suspect, -1, fmt::format("command {} was never confirmed", stamp));
    }
    result_.length_ns = end_;
  }

 private:
  struct Sent {
    std::uint64_t time;
    SendPacket first;
    std::uint64_t newest;  ///< stamp of the last resend
    bool echoed = false;
    std::uint64_t statuses = 0;  ///< that came since
  };
  struct Counts {
    std::uint64_t bad = 0, garbage = 0;
  };

  void Found(Trouble trouble, std::uint64_t time, int joint, std::string text) {
    result_.findings.push_back({trouble, time, joint, std::move(text)});
  }

  void JudgeCommand(std::uint64_t time, bool is_last) {
    if (!command_ || command_->echoed) return;
    const bool was_waited_for =
        command_->statuses >= kEnoughStatuses || (is_last && time - command_->time >= kEnoughTime);
    if (was_waited_for) suspects_[+command_->first.header.timeStamp] = command_->time;
  }

  void NoteEcho(std::uint64_t echo) {
    const auto after = suspects_.upper_bound(echo);
    if (after == suspects_.begin()) return;
    const auto suspect = std::prev(after);
    if (echo - suspect->first <= kHighestRaise) suspects_.erase(suspect);
  }

  void CheckInterval(std::uint64_t time) {
    const std::uint64_t interval = time - last_time_;
    const std::uint64_t usual = result_.usual_interval_ns;
    const auto gap = static_cast<std::uint64_t>(settings_.gap.count());
    const auto jitter = static_cast<std::uint64_t>(settings_.jitter.count());
    if (gap != 0 && interval > usual + gap) {
      Found(Trouble::kGap, last_time_, -1,
            fmt::format("no status frame for {} (usually {})", Milliseconds(interval), Milliseconds(usual)));
    } else if (jitter != 0 && (interval > usual + jitter || interval + jitter < usual)) {
      Found(Trouble::kJitter, time, -1,
            fmt::format("status frame after {} (usually {})", Milliseconds(interval), Milliseconds(usual)));
    }
  }

  void CheckJoint(std::uint64_t time, std::size_t index, const rxJoint_t& joint) {
    const int id = static_cast<int>(index);
    if (has_last_) {
      const rxJoint_t& before = last_.joints[index];
      const double change = std::abs(static_cast<double>(joint.position) - static_cast<double>(before.position));
      const double velocity =
          std::max(std::abs(static_cast<double>(joint.velocity)), std::abs(static_cast<double>(before.velocity)));
      // Frames that one read brings have one time.
      const double seconds = static_cast<double>(std::max(time - last_time_, result_.usual_interval_ns)) / 1e9;
      if (!(change <= kJumpFactor * velocity * seconds + settings_.jump)) {
        Found(Trouble::kJump, time, id,
              fmt::format("joint {} jumps from {} to {} at velocity {}", id, +before.position, +joint.position,
                          static_cast<float>(velocity)));
      }
    }
    const bool fault = joint.systemMode == 3 || joint.ewStatus != 0;
    if (fault && !faults_[index]) {
      Found(Trouble::kFault, time, id,
            fmt::format("joint {} reports a fault: systemMode {}, ewStatus 0x{:08x}", id, +joint.systemMode,
                        +joint.ewStatus));
    }
    faults_[index] = fault;
    CheckLimits(time, index, joint);
  }

  void CheckLimits(std::uint64_t time, std::size_t index, const rxJoint_t& joint) {
    const auto& limits = settings_.limits.Of(index);
    std::vector<bool>& crossed = crossed_[index];
    crossed.resize(limits.size());
    for (std::size_t i = 0; i < limits.size(); ++i) {
      const Limits::Limit& limit = limits[i];
      const double value = limit.field->value(joint);
      const bool is_out = !(value >= limit.least && value <= limit.most);
      if (is_out && !crossed[i]) {
        const int id = static_cast<int>(index);
        Found(Trouble::kLimit, time, id,
              fmt::format("joint {}: {} {} is not within {} to {}", id, limit.field->name, static_cast<float>(value),
                          limit.least, limit.most));
      }
      crossed[i] = is_out;
    }
  }

  template <typename Stream>
  void CheckBytes(std::uint64_t time, bool is_in, const char* what, const Stream& stream, Counts& counts) {
    if (const std::uint64_t bad = stream.BadCrc() - counts.bad; is_in && bad != 0) {
      Found(Trouble::kBadFrame, time, -1, wire::Counted(bad, fmt::format("{} frame", what)) + " with a wrong CRC");
    }
    if (const std::uint64_t garbage = stream.Garbage() - counts.garbage; is_in && garbage != 0) {
      Found(Trouble::kGarbage, time, -1, fmt::format("{} outside {} frames", wire::Counted(garbage, "byte"), what));
    }
    counts = {stream.BadCrc(), stream.Garbage()};
  }

  const CheckSettings& settings_;
  CheckResult& result_;
  std::optional<Sent> command_;                      ///< the last one
  std::map<std::uint64_t, std::uint64_t> suspects_;  ///< commands without an echo so far: stamp, time
  Counts command_counts_, status_counts_;
  std::vector<bool> faults_;                ///< by joint
  std::vector<std::vector<bool>> crossed_;  ///< by joint and limit
  RecvPacket last_;
  std::uint64_t last_time_ = 0;
  bool has_last_ = false;  ///< in this connection
  std::uint64_t end_ = 0;
};

}  // namespace

const char* TroubleWord(Trouble trouble) {
  static constexpr const char* kWords[] = {"gap",         "jitter", "bad_frame", "garbage", "resend",
                                           "unconfirmed", "jump",   "limit",     "fault"};
  static_assert(std::size(kWords) == kTroubles);
  return kWords[static_cast<std::size_t>(trouble)];
}

namespace {

Limits::Limit ReadLimit(const std::string& name, const nlohmann::json& value) {
  const auto& fields = JointFields();
  const auto field = std::find_if(fields.begin(), fields.end(), [&](const JointField& f) { return name == f.name; });
  if (field == fields.end()) throw BadLimits("a status has no '" + name + "'");
  if (value.is_number()) {
    const double most = value.get<double>();
    if (most >= 0) return {&*field, -most, most};
  } else if (value.is_array() && value.size() == 2 && value[0].is_number() && value[1].is_number()) {
    const double least = value[0].get<double>(), most = value[1].get<double>();
    if (least <= most) return {&*field, least, most};
  }
  throw BadLimits("'" + name + "' needs a number from 0, or the least and the greatest value, not " + value.dump());
}

}  // namespace

Limits::Limits(const std::string& text, int joints) : limits_(static_cast<std::size_t>(joints)) {
  const nlohmann::json document = nlohmann::json::parse(text, nullptr, false);
  if (!document.is_object()) throw BadLimits("it is no JSON object");
  std::vector<std::map<std::string, Limit>> by_name(limits_.size());
  const auto set = [&](const nlohmann::json& limits, std::size_t joint) {
    if (!limits.is_object()) throw BadLimits("a joint's limits are no JSON object: " + limits.dump());
    for (const auto& [name, value] : limits.items()) {
      by_name[joint].emplace(name, ReadLimit(name, value));
    }
  };
  for (const auto& [key, limits] : document.items()) {  // in their order, in which a joint's own come before "all"
    if (key == "all") {
      for (std::size_t i = 0; i < by_name.size(); ++i) set(limits, i);
      continue;
    }
    std::size_t joint = 0;
    while (joint < by_name.size() && std::to_string(joint) != key) ++joint;
    if (joint == by_name.size())
      throw BadLimits(fmt::format("'{}' is no joint from 0 to {}, and not 'all'", key, joints - 1));
    set(limits, joint);
  }
  for (std::size_t i = 0; i < by_name.size(); ++i) {
    for (const auto& [name, limit] : by_name[i]) limits_[i].push_back(limit);
  }
}

const std::vector<Limits::Limit>& Limits::Of(std::size_t joint) const {
  static const std::vector<Limit> none;
  return joint < limits_.size() ? limits_[joint] : none;
}

CheckResult CheckRecording(const Excerpt& excerpt, const CheckSettings& settings) {
  CheckResult result;
  RecordingReader reader(excerpt.file);
  const int joints = excerpt.joints != 0 ? excerpt.joints : reader.Header().joints;
  IntervalWatcher intervals;
  Watch(reader, excerpt, joints, intervals);
  result.usual_interval_ns = intervals.Median();
  reader.Rewind();
  TroubleWatcher troubles(settings, result, joints);
  Watch(reader, excerpt, joints, troubles);
  troubles.End();
  result.lost_tail = reader.LostTail();
  std::stable_sort(result.findings.begin(), result.findings.end(),
                   [](const Finding& a, const Finding& b) { return a.since_start_ns < b.since_start_ns; });
  return result;
}

}  // namespace velta::recording
