// SPDX-License-Identifier: MIT
#ifndef VELTA_PYTHON_FEED_H_
#define VELTA_PYTHON_FEED_H_

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "RecvPacket.h"
#include "notes.h"
#include "velta_session.h"

namespace velta::python {

/// The newest items of a stream, numbered from 0. The writer never waits for a reader: it leaves items in slots, from
/// which the readers take them; what nobody took in time is left out.
///
/// Threads: one at a time calls Put; the readers' side belongs to who holds the GIL.
template <typename Item>
class Ring {
 public:
  explicit Ring(std::size_t capacity) : slots_(capacity) {}
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;
  ~Ring() {
    for (auto& slot : slots_) delete slot.load();
  }

  void Put(std::unique_ptr<Item> item) {
    const std::uint64_t number = end_.load(std::memory_order_relaxed);
    item->number = number;
    delete slots_[number % slots_.size()].exchange(item.release(), std::memory_order_acq_rel);
    end_.store(number + 1, std::memory_order_release);
  }

  std::uint64_t End() const { return end_.load(std::memory_order_acquire); }  ///< number of the next item

  /// @return the oldest item from that number on; null if there is none yet
  std::shared_ptr<const Item> From(std::uint64_t number) {
    Collect();
    const auto found = Find(number);
    return found == kept_.end() ? nullptr : *found;
  }

  std::vector<std::shared_ptr<const Item>> AllFrom(std::uint64_t number) {
    Collect();
    return {Find(number), kept_.end()};
  }

  std::shared_ptr<const Item> Newest() {
    Collect();
    return kept_.empty() ? nullptr : kept_.back();
  }

 private:
  using Kept = std::deque<std::shared_ptr<const Item>>;

  static bool IsOlder(const std::shared_ptr<const Item>& a, const std::shared_ptr<const Item>& b) {
    return a->number < b->number;
  }

  typename Kept::iterator Find(std::uint64_t number) {
    return std::lower_bound(kept_.begin(), kept_.end(), number,
                            [](const auto& item, std::uint64_t wanted) { return item->number < wanted; });
  }

  void Collect() {
    const std::uint64_t end = End();
    const std::size_t known = kept_.size();
    std::uint64_t number = std::max(collected_, end - std::min<std::uint64_t>(end, slots_.size()));
    for (; number < end; ++number) {
      Item* const item = slots_[number % slots_.size()].exchange(nullptr, std::memory_order_acq_rel);
      if (item != nullptr) kept_.emplace_back(item);
    }
    collected_ = end;
    // A writer that laps the reader leaves newer items in places of older ones.
    const auto doubtful = kept_.begin() + static_cast<std::ptrdiff_t>(known == 0 ? 0 : known - 1);
    if (!std::is_sorted(doubtful, kept_.end(), IsOlder)) {
      std::sort(kept_.begin(), kept_.end(), IsOlder);
    }
    while (kept_.size() > slots_.size()) kept_.pop_front();
  }

  std::vector<std::atomic<Item*>> slots_;
  std::atomic<std::uint64_t> end_{0};
  Kept kept_;
  std::uint64_t collected_ = 0;
};

/// A status and when the host had it.
struct StampedStatus {
  StampedStatus(std::uint64_t received_ns, RecvPacket&& status) : received(received_ns), packet(std::move(status)) {}
  std::uint64_t number = 0;
  std::uint64_t received;  ///< ns since the Unix epoch
  RecvPacket packet;
};

struct NumberedEvent {
  explicit NumberedEvent(Event what) : event(std::move(what)) {}
  std::uint64_t number = 0;
  Event event;
};

/// What a session has reported, for any number of readers, which may outlive it.
struct Feed {
  explicit Feed(std::size_t statuses_kept) : statuses(statuses_kept) {}

  /// Takes what the session has received; from the session's callbacks and from readers, without the GIL.
  void Pull(Session& session) {
    {
      const std::lock_guard<std::mutex> lock(pull);
      std::uint64_t missed = 0;
      std::vector<RecvPacket> packets = session.Drain(&missed);
      left_out += missed;
      if (packets.empty()) return;
      const std::uint64_t now = GetNowTimeStamp();
      for (RecvPacket& packet : packets) statuses.Put(std::make_unique<StampedStatus>(now, std::move(packet)));
    }
    changed.Raise();
  }

  void Report(const Event& event) {
    events.Put(std::make_unique<NumberedEvent>(event));
    changed.Raise();
    if (is_watched.exchange(false)) Notes::Of().Done(token);
  }

  /// Ends all iterators.
  void Close() {
    is_closed = true;
    changed.Raise();
    Notes::Of().Done(token);
  }

  static constexpr std::size_t kEvents = 1024;
  Ring<StampedStatus> statuses;
  Ring<NumberedEvent> events{kEvents};
  Signal changed;
  std::atomic<bool> is_closed{false};
  std::atomic<bool> is_watched{false};  ///< a coroutine waits for `token`
  const std::uint64_t token = Notes::NewToken();
  std::atomic<std::uint64_t> left_out{0};
  std::mutex pull;  ///< one Put of a status at a time
};

}  // namespace velta::python

#endif  // VELTA_PYTHON_FEED_H_
