// SPDX-License-Identifier: MIT
#include "timeline.h"

#include <utility>

#include "stop.h"

namespace velta::recording {

Timeline::Timeline(const Excerpt& excerpt)
    : excerpt_(excerpt),
      reader_(excerpt.file),
      joints_(excerpt.joints != 0 ? excerpt.joints : reader_.Header().joints),
      commands_(joints_),
      statuses_(joints_) {}

void Timeline::Rewind() {
  reader_.Rewind();
  start_ns_.reset();
  commands_ = wire::CommandStream(joints_);
  statuses_ = wire::StatusStream(joints_);
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
    if (wire::StopRequested() || !reader_.Next(record)) return std::nullopt;
    if (!start_ns_) start_ns_ = record.monotonic_ns;
    // The clock begins anew when the machine does; a recording ends before that.
    const std::uint64_t since_start_ns = record.monotonic_ns < *start_ns_ ? 0 : record.monotonic_ns - *start_ns_;
    if (since_start_ns > excerpt_.to_ns) return std::nullopt;
    Cut(record, since_start_ns);
    if (since_start_ns < excerpt_.from_ns) ready_.clear();
  }
}

void Timeline::Cut(const Record& record, std::uint64_t since_start_ns) {
  const auto add = [&](auto&& packet) {
    ready_.push_back({since_start_ns, record.wall_ns, record.event, std::forward<decltype(packet)>(packet)});
  };
  switch (record.event) {
    case Event::kToController:
      for (SendPacket& command : commands_.Push(record.bytes.data(), record.bytes.size())) add(std::move(command));
      return;
    case Event::kToHost:
      for (RecvPacket& status : statuses_.Push(record.bytes.data(), record.bytes.size())) add(std::move(status));
      return;
    case Event::kOpened:
      commands_.Restart();
      statuses_.Restart();
      break;
    case Event::kClosed:
      break;
  }
  add(std::monostate{});
}

}  // namespace velta::recording
