// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_SESSION_STATUS_H_
#define VELTA_SRC_SESSION_STATUS_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "RecvPacket.h"
#include "session_sync.h"

namespace velta::detail {

/// Places for statuses of n joints, as bytes: allocated once, untouched until they are used.
class StatusStore {
 public:
  StatusStore(int joints, std::size_t places);
  void Put(std::size_t place, const RecvPacket& status);
  RecvPacket Get(std::size_t place) const;

 private:
  int joints_;
  std::size_t size_;  ///< bytes of a place
  std::unique_ptr<char[]> bytes_;
};

/// The newest status: written by the loop without waiting for anybody, read by any thread. Of three places the writer
/// has one, the readers have one, and the newest status passes from one to the other through the third.
class LatestStatus {
 public:
  explicit LatestStatus(int joints) : store_(joints, 3) {}

  void Put(const RecvPacket& status) {
    store_.Put(written_, status);
    written_ = between_.exchange(written_ | kNew | kFull, std::memory_order_acq_rel) & kPlace;
  }
  /// From here on there is none.
  void Clear() { written_ = between_.exchange(written_ | kNew, std::memory_order_acq_rel) & kPlace; }

  std::optional<RecvPacket> Get() const;

 private:
  static constexpr std::uint32_t kPlace = 3;
  static constexpr std::uint32_t kNew = 4;   ///< not seen by a reader yet
  static constexpr std::uint32_t kFull = 8;  ///< holds a status

  StatusStore store_;
  std::uint32_t written_ = 0;
  mutable std::atomic<std::uint32_t> between_{1};
  mutable std::mutex readers_;  ///< the writer never takes it
  mutable std::uint32_t read_ = 2;
};

/// The statuses since the reader's last look, at most `limit`; then the oldest leave. Two stores take turns, so that
/// the writer waits no longer than for an exchange of them.
class StatusQueue {
 public:
  StatusQueue(int joints, std::size_t limit) : limit_(limit), stores_{{joints, limit}, {joints, limit}} {}

  /// @return whether an older one was left out
  bool Put(const RecvPacket& status);

  /// @param[out] left_out  how many older ones were left out
  std::vector<RecvPacket> TakeAll(std::uint64_t& left_out);

 private:
  const std::size_t limit_;
  StatusStore stores_[2];
  std::mutex readers_;  ///< the writer never takes it
  InheritingMutex mutex_;
  std::size_t active_ = 0;  ///< the store that is written; guarded by mutex_, as the rest
  std::size_t first_ = 0;
  std::size_t count_ = 0;
  std::uint64_t left_out_ = 0;
};

}  // namespace velta::detail

#endif  // VELTA_SRC_SESSION_STATUS_H_
