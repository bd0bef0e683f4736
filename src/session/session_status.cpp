// SPDX-License-Identifier: MIT
#include "session_status.h"

#include <cstring>

namespace velta::detail {

// The memory is not set to zero, deliberately: of many places few are ever touched.
StatusStore::StatusStore(int joints, std::size_t places)
    : joints_(joints),
      size_(sizeof(rxHeader_t) + static_cast<std::size_t>(joints) * sizeof(rxJoint_t)),
      bytes_(new char[size_ * places]) {}

void StatusStore::Put(std::size_t place, const RecvPacket& status) {
  char* const to = bytes_.get() + place * size_;
  std::memcpy(to, &status.header, sizeof status.header);
  std::memcpy(to + sizeof status.header, status.joints.data(), size_ - sizeof status.header);
}

RecvPacket StatusStore::Get(std::size_t place) const {
  RecvPacket status(joints_);
  const char* const from = bytes_.get() + place * size_;
  std::memcpy(&status.header, from, sizeof status.header);
  std::memcpy(static_cast<void*>(status.joints.data()), from + sizeof status.header, size_ - sizeof status.header);
  return status;
}

std::optional<RecvPacket> LatestStatus::Get() const {
  const std::lock_guard<std::mutex> lock(readers_);
  if ((between_.load(std::memory_order_relaxed) & kNew) != 0) {
    read_ = between_.exchange(read_ & kPlace, std::memory_order_acq_rel);
  }
  if ((read_ & kFull) == 0) return std::nullopt;
  return store_.Get(read_ & kPlace);
}

bool StatusQueue::Put(const RecvPacket& status) {
  const std::lock_guard<InheritingMutex> lock(mutex_);
  stores_[active_].Put((first_ + count_) % limit_, status);
  if (count_ < limit_) {
    ++count_;
    return false;
  }
  first_ = (first_ + 1) % limit_;
  ++left_out_;
  return true;
}

std::vector<RecvPacket> StatusQueue::TakeAll(std::uint64_t& left_out) {
  const std::lock_guard<std::mutex> lock(readers_);
  std::size_t store = 0;
  std::size_t first = 0;
  std::size_t count = 0;
  {
    const std::lock_guard<InheritingMutex> exchange(mutex_);
    store = active_;
    first = first_;
    count = count_;
    left_out = left_out_;
    active_ = 1 - active_;
    first_ = count_ = 0;
    left_out_ = 0;
  }
  std::vector<RecvPacket> statuses;
  statuses.reserve(count);
  for (std::size_t i = 0; i < count; ++i) statuses.push_back(stores_[store].Get((first + i) % limit_));
  return statuses;
}

}  // namespace velta::detail
