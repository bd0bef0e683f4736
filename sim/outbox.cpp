// SPDX-License-Identifier: MIT
#include "outbox.h"

#include <algorithm>
#include <utility>

namespace velta::sim {

std::optional<std::vector<char>> Outbox::Delay(std::vector<char> bytes, Clock::time_point due, Clock::time_point now) {
  const bool keeps_order = is_stream_ && !late_.empty();
  if (keeps_order) due = std::max(due, late_.back().due);
  if (due <= now && !keeps_order) return bytes;
  bytes_ += bytes.size();
  const auto place = std::upper_bound(late_.begin(), late_.end(), due,
                                      [](Clock::time_point time, const Late& late) { return time < late.due; });
  late_.insert(place, {due, std::move(bytes)});
  return std::nullopt;
}

std::optional<std::vector<char>> Outbox::TakeDue(Clock::time_point now) {
  if (late_.empty() || late_.front().due > now) return std::nullopt;
  std::vector<char> bytes = std::move(late_.front().bytes);
  late_.pop_front();
  bytes_ -= bytes.size();
  return bytes;
}

std::optional<Clock::time_point> Outbox::NextDue() const {
  if (late_.empty()) return std::nullopt;
  return late_.front().due;
}

void Outbox::Add(std::vector<char> bytes, int frames, bool bytewise) {
  const bool is_full = !is_stream_ && company_.size() + bytes.size() > wire::kMaxChunk;
  if (!company_.empty() && (frames <= 1 || is_full)) {
    Push(std::exchange(company_, {}), bytewise);
    company_frames_ = 0;
  }
  if (frames > 1) {
    company_.insert(company_.end(), bytes.begin(), bytes.end());
    if (++company_frames_ < frames) return;
    bytes = std::exchange(company_, {});
    company_frames_ = 0;
  }
  Push(std::move(bytes), bytewise);
}

void Outbox::Push(std::vector<char> bytes, bool bytewise) {
  bytes_ += bytes.size();
  writes_.push_back({std::move(bytes), bytewise});
}

bool Outbox::Flush(wire::Channel& channel, std::uint64_t& lost) {
  while (!writes_.empty()) {
    const Write& write = writes_.front();
    const std::size_t rest = write.bytes.size() - written_;
    wire::IoResult result =
        channel.Write(write.bytes.data() + written_, write.bytewise ? std::min<std::size_t>(rest, 1) : rest);
    if (result.io == wire::Io::kBroken) return false;
    if (result.io == wire::Io::kLater) {
      if (is_stream_) return true;
      ++lost;
      result.size = rest;
    }
    written_ += result.size;
    bytes_ -= result.size;
    if (written_ < write.bytes.size()) continue;
    written_ = 0;
    writes_.pop_front();
  }
  return true;
}

}  // namespace velta::sim
