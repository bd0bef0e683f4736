// SPDX-License-Identifier: MIT
#include "timeline.h"

#include <CLI/CLI.hpp>
#include <array>
#include <charconv>
#include <iostream>
#include <utility>

#include "protocol.h"
#include "stop.h"

namespace velta::tools {

void Excerpt::AddOptions(CLI::App& command) {
  command.add_option("FILE", file, "A recording of velta record")->required()->option_text(" ");
  command.add_option("-n,--joints", joints, "Joints of the arm, when the recording was made with a wrong number")
      ->check(CLI::Range(1, kMaxJoints))
      ->option_text("N");
  const double forever = std::numeric_limits<double>::max();
  command.add_option("--from", from, "Begin so many seconds after the recording's start")
      ->check(CLI::Range(0.0, forever))
      ->option_text("S");
  command.add_option("--to", to, "End so many seconds after the recording's start")
      ->check(CLI::Range(0.0, forever))
      ->option_text("S");
}

Timeline::Timeline(const Excerpt& excerpt)
    : excerpt_(excerpt),
      reader_(excerpt.file),
      joints_(excerpt.joints != 0 ? excerpt.joints : reader_.Header().joints),
      commands_(joints_),
      statuses_(joints_) {
  if (excerpt.from > excerpt.to) throw UsageError("--from must not lie behind --to");
}

void Timeline::Rewind() {
  reader_.Rewind();
  start_ns_.reset();
  commands_ = sim::CommandFramer(joints_);
  statuses_.buffer.clear();
  command_bytes_ = good_command_bytes_ = status_bytes_ = good_status_bytes_ = 0;
  ready_.clear();
}

std::optional<Moment> Timeline::Next() {
  Record record;
  for (;;) {
    if (!ready_.empty()) {
      Moment moment = std::move(ready_.front());
      ready_.pop_front();
      return moment;
    }
    if (StopRequested() || !reader_.Next(record)) return std::nullopt;
    if (!start_ns_) start_ns_ = record.monotonic_ns;
    // The clock begins anew when the machine does; a recording ends before that.
    const std::uint64_t since_start_ns = record.monotonic_ns < *start_ns_ ? 0 : record.monotonic_ns - *start_ns_;
    if (static_cast<double>(since_start_ns) > excerpt_.to * 1e9) return std::nullopt;
    Cut(record, since_start_ns);
    if (static_cast<double>(since_start_ns) < excerpt_.from * 1e9) ready_.clear();
  }
}

void Timeline::Cut(const Record& record, std::uint64_t since_start_ns) {
  const auto add = [&](auto&& packet) {
    ready_.push_back({since_start_ns, record.wall_ns, record.event, std::forward<decltype(packet)>(packet)});
  };
  switch (record.event) {
    case LinkEvent::kToController:
      command_bytes_ += record.bytes.size();
      for (SendPacket& command : commands_.Push(record.bytes.data(), record.bytes.size())) {
        good_command_bytes_ += static_cast<std::uint64_t>(command.packetSize);
        add(std::move(command));
      }
      return;
    case LinkEvent::kToHost:
      status_bytes_ += record.bytes.size();
      statuses_.Push(record.bytes);
      for (RecvPacket& status : statuses_.Parse()) {
        good_status_bytes_ += static_cast<std::uint64_t>(status.packetSize);
        add(std::move(status));
      }
      return;
    case LinkEvent::kOpened:
      commands_.Reset();
      statuses_.buffer.clear();
      break;
    case LinkEvent::kClosed:
      break;
  }
  add(std::monostate{});
}

std::uint64_t Timeline::LostCommandBytes() const { return command_bytes_ - good_command_bytes_; }
std::uint64_t Timeline::LostStatusBytes() const { return status_bytes_ - good_status_bytes_; }

void Timeline::TellLostTail() const {
  if (reader_.LostTail() == 0) return;
  std::cerr << "velta: " << excerpt_.file << ": the recording was cut short; " << reader_.LostTail()
            << " bytes of its last record are missing the rest and were left out" << std::endl;
}

const std::vector<JointField>& JointFields() {
#define VELTA_FIELD(name, is_real)                                                          \
  {                                                                                         \
#name, is_real, [](const rxJoint_t& joint) { return static_cast<double>(+joint.name); } \
  }
#define VELTA_GENERAL(i)                                                                               \
  {                                                                                                    \
    "general_" #i, true, [](const rxJoint_t& joint) { return static_cast<double>(+joint.general[i]); } \
  }
  static const std::vector<JointField> fields{VELTA_FIELD(type, false),
                                              VELTA_FIELD(comStatus, false),
                                              VELTA_FIELD(systemMode, false),
                                              VELTA_FIELD(ctrlMode, false),
                                              VELTA_FIELD(ewStatus, false),
                                              VELTA_FIELD(trjStatus, false),
                                              VELTA_FIELD(trjViaRemain, false),
                                              VELTA_FIELD(refCurrent, true),
                                              VELTA_FIELD(refPosition, true),
                                              VELTA_FIELD(refVelocity, true),
                                              VELTA_FIELD(refAcceleration, true),
                                              VELTA_FIELD(refEffort, true),
                                              VELTA_FIELD(current, true),
                                              VELTA_FIELD(position, true),
                                              VELTA_FIELD(velocity, true),
                                              VELTA_FIELD(outConvInVelocity, true),
                                              VELTA_FIELD(acceleration, true),
                                              VELTA_FIELD(outConvInAcceleration, true),
                                              VELTA_FIELD(effort, true),
                                              VELTA_FIELD(temperature, true),
                                              VELTA_GENERAL(0),
                                              VELTA_GENERAL(1),
                                              VELTA_GENERAL(2),
                                              VELTA_GENERAL(3)};
#undef VELTA_FIELD
#undef VELTA_GENERAL
  return fields;
}

std::string Seconds(std::uint64_t ns) {
  const std::string fraction = std::to_string(ns % 1'000'000'000);
  return std::to_string(ns / 1'000'000'000) + "." + std::string(9 - fraction.size(), '0') + fraction;
}

std::string Shortest(float value) {
  std::array<char, 64> text;
  return {text.data(), std::to_chars(text.data(), text.data() + text.size(), value).ptr};
}

}  // namespace velta::tools
