// SPDX-License-Identifier: MIT
#include "session_notifier.h"

#include <limits>
#include <mutex>
#include <utility>
#include <vector>

namespace velta::detail {

namespace {

constexpr Nanos kNever = std::numeric_limits<Nanos>::max();
constexpr Nanos kGrace = 1'000'000'000;  // spent in callbacks after the end; quick ones take far less

template <typename Callback, typename... Arguments>
void Call(const Callback& callback, const Arguments&... arguments) {
  try {
    callback(arguments...);
  } catch (...) {  // what a callback throws is the host's own matter
  }
}

/// "arm.vrec", "arm-2.vrec", ...
std::string NumberedPath(const std::string& path, int number) {
  if (number <= 1) return path;
  const std::size_t slash = path.rfind('/');
  const std::size_t name = slash == std::string::npos ? 0 : slash + 1;
  std::size_t dot = path.rfind('.');
  if (dot == std::string::npos || dot <= name) dot = path.size();
  return path.substr(0, dot) + "-" + std::to_string(number) + path.substr(dot);
}

}  // namespace

Notifier::~Notifier() {
  Stop();
  Join();
  for (Command* command = commands_.exchange(nullptr); command != nullptr;) {
    Command* const next = command->next;
    command->Release();
    command = next;
  }
}

void Notifier::OnEvent(Session::EventCallback callback) {
  auto shared = callback ? std::make_shared<const Session::EventCallback>(std::move(callback)) : nullptr;
  const std::lock_guard<InheritingMutex> lock(mutex_);
  has_event_callback_ = shared != nullptr;
  std::swap(event_callback_, shared);
  if (!has_event_callback_) event_count_ = 0;
}

void Notifier::OnStatus(Session::StatusCallback callback) {
  auto shared = callback ? std::make_shared<const Session::StatusCallback>(std::move(callback)) : nullptr;
  const std::lock_guard<InheritingMutex> lock(mutex_);
  if (shared != nullptr && owned_statuses_ == nullptr) {
    owned_statuses_ = std::make_unique<StatusQueue>(joints_, status_limit_);
    statuses_ = owned_statuses_.get();
  }
  has_status_callback_ = shared != nullptr;
  std::swap(status_callback_, shared);
}

void Notifier::Post(Event::Kind kind, std::string text, double value) {
  if (!has_event_callback_) return;
  {
    const std::lock_guard<InheritingMutex> lock(mutex_);
    if (event_count_ == kMaxEvents) {
      first_event_ = (first_event_ + 1) % kMaxEvents;
      --event_count_;
      ++left_out_;
      ++events_left_out_;
    }
    events_[(first_event_ + event_count_++) % kMaxEvents] = {kind, std::chrono::system_clock::now(), value,
                                                             std::move(text)};
  }
  work_.Raise();
}

void Notifier::Post(Command* command) {
  command->next = commands_.load(std::memory_order_relaxed);
  while (!commands_.compare_exchange_weak(command->next, command)) {
  }
  work_.Raise();
}

void Notifier::PostStatus(const RecvPacket& status) {
  if (!has_status_callback_) return;
  if (statuses_.load()->Put(status)) ++statuses_left_out_;
  has_statuses_ = true;
  work_.Raise();
}

void Notifier::RequestRecord() {
  if (recorder_ == nullptr || record_path_.empty()) return;
  is_record_asked_ = true;
  work_.Raise();
}

void Notifier::Start() {
  thread_ = StartThread([this] {
    while (true) {
      const std::uint32_t seen = work_.Value();
      const bool is_last = is_stopping_;
      Deliver();
      if (is_last) return;
      work_.Wait(seen, kNever);
    }
  });
}

void Notifier::Stop() {
  if (is_stopping_) return;
  is_stopping_ = true;
  work_.Raise();
}

void Notifier::Join() {
  if (thread_.joinable()) thread_.join();
}

void Notifier::Deliver() {
  if (is_delivering_.exchange(true)) return;
  if (is_record_asked_.exchange(false)) WriteRecord();
  bool more = true;
  while (more && !IsOver()) {
    more = DeliverEvent();
    more = DeliverCommands() || more;
    more = DeliverStatuses() || more;
  }
  is_delivering_ = false;
}

bool Notifier::IsOver() const { return is_stopping_ && spent_ >= kGrace; }

template <typename Act>
void Notifier::Timed(Act act) {
  if (!is_stopping_) return act();
  const Nanos begin = SteadyNow();
  act();
  spent_ += SteadyNow() - begin;
}

bool Notifier::DeliverEvent() {
  if (!has_event_callback_) return false;
  Event event;
  std::shared_ptr<const Session::EventCallback> callback;
  {
    const std::lock_guard<InheritingMutex> lock(mutex_);
    if (event_count_ == 0 || event_callback_ == nullptr) return false;
    callback = event_callback_;
    Event& first = events_[first_event_];
    if (left_out_ != 0) {
      event = {Event::Kind::kLeftOut, first.time, static_cast<double>(left_out_), "the callback was too slow"};
      left_out_ = 0;
    } else {
      event = std::move(first);
      first_event_ = (first_event_ + 1) % kMaxEvents;
      --event_count_;
    }
  }
  Timed([&] { Call(*callback, event); });
  return true;
}

bool Notifier::DeliverCommands() {
  if (commands_.load(std::memory_order_relaxed) == nullptr) return false;
  CommandList oldest_first;
  for (Command* command = commands_.exchange(nullptr); command != nullptr;) {
    Command* const next = command->next;
    command->next = oldest_first.head;
    oldest_first.head = command;
    command = next;
  }
  while (Command* const command = oldest_first.TakeFront()) {
    if (!IsOver()) Timed([&] { command->RunCallback(); });
    command->Release();
  }
  return true;
}

bool Notifier::DeliverStatuses() {
  if (!has_statuses_.exchange(false)) return false;
  std::shared_ptr<const Session::StatusCallback> callback;
  {
    const std::lock_guard<InheritingMutex> lock(mutex_);
    callback = status_callback_;
  }
  std::uint64_t left_out = 0;
  for (const RecvPacket& status : statuses_.load()->TakeAll(left_out)) {
    if (callback == nullptr || is_stopping_) break;
    Call(*callback, status);
  }
  return true;
}

void Notifier::WriteRecord() {
  if (records_ >= kMaxRecords) return;
  const std::string path = NumberedPath(record_path_, ++records_);
  std::string why;
  if (!recorder_->Write(path, why)) {
    Post(Event::Kind::kNotice, "no flight record: " + why);
  } else {
    Post(Event::Kind::kNotice, (records_ < kMaxRecords ? "flight record " : "last flight record ") + path);
  }
}

}  // namespace velta::detail
