// SPDX-License-Identifier: MIT
#include "session_command.h"

#include <cstring>
#include <mutex>
#include <new>
#include <utility>

namespace velta::detail {

namespace {

/// Turns a list round.
Command* Reverse(Command* list) {
  Command* reversed = nullptr;
  while (list != nullptr) {
    Command* const next = list->next;
    list->next = reversed;
    reversed = list;
    list = next;
  }
  return reversed;
}

}  // namespace

// Command

Command* Command::Make(const SendPacket& packet, Confirm confirm, Command* spare) {
  const std::size_t size = packet.joints.size() * sizeof(txJoint_t);
  void* memory = spare;
  if (spare != nullptr) {
    spare->~Command();
  } else {
    memory = ::operator new(sizeof(Command) + size);
  }
  auto* const command = new (memory) Command(packet.joints.size(), confirm);
  if (size != 0) std::memcpy(static_cast<void*>(command->Records()), packet.joints.data(), size);
  command->arm_order_ = packet.header.armOrder;
  command->references_ = 2;
  return command;
}

Command* Command::MakeRefused(velta::Reason reason) {
  auto* const command = new (::operator new(sizeof(Command))) Command(0, Confirm::kNo);
  command->Finish(velta::Outcome::kDiscarded, reason);
  return command;
}

void Command::ReleaseInto(std::atomic<Command*>& retired) {
  if (!IsLastReference()) return;
  next = retired.load(std::memory_order_relaxed);
  while (!retired.compare_exchange_weak(next, this)) {
  }
}

Command* Command::TakeRetired(std::atomic<Command*>& retired) {
  if (retired.load(std::memory_order_relaxed) == nullptr) return nullptr;
  Command* const first = retired.exchange(nullptr);
  for (Command* command = first != nullptr ? first->next : nullptr; command != nullptr;) {
    Command* const following = command->next;
    command->Free();
    command = following;
  }
  return first;
}

void Command::Free() {
  this->~Command();
  ::operator delete(this);
}

velta::Outcome Command::Wait(std::chrono::nanoseconds timeout) const {
  const Nanos deadline = DeadlineAfter(timeout);
  while (true) {
    std::uint32_t state = state_.load(std::memory_order_acquire);
    if (OutcomeOf(state) != velta::Outcome::kPending || SteadyNow() >= deadline) return OutcomeOf(state);
    if ((state & kWaited) == 0) state = state_.fetch_or(kWaited) | kWaited;
    if (OutcomeOf(state) == velta::Outcome::kPending) WaitForWord(state_, state, deadline);
  }
}

void Command::OnOutcome(Ticket::Callback callback) {
  {
    const std::lock_guard<InheritingMutex> lock(mutex_);
    std::uint32_t state = state_.load(std::memory_order_acquire);
    if (OutcomeOf(state) == velta::Outcome::kPending) {
      std::swap(callback_, callback);
      state = state_.fetch_or(kCallback);
      if (OutcomeOf(state) == velta::Outcome::kPending || (state & kCallback) != 0) return;  // the session will call it
      std::swap(callback_, callback);
    } else if (callback_) {  // the session is about to call the earlier one
      std::swap(callback_, callback);
      return;
    }
  }
  try {
    if (callback) callback(Outcome(), Reason());
  } catch (...) {  // what a callback throws is the host's own matter
  }
}

bool Command::Finish(velta::Outcome outcome, velta::Reason reason) {
  const std::uint32_t before =
      state_.fetch_or(static_cast<std::uint32_t>(outcome) | static_cast<std::uint32_t>(reason) << 8);
  if ((before & kWaited) != 0) WakeAll(state_);
  return (before & kCallback) != 0;
}

void Command::RunCallback() {
  Ticket::Callback callback;
  {
    const std::lock_guard<InheritingMutex> lock(mutex_);
    std::swap(callback, callback_);
  }
  try {
    if (callback) callback(Outcome(), Reason());
  } catch (...) {  // what a callback throws is the host's own matter
  }
}

void Command::CopyTo(SendPacket& packet) const {
  packet.header.armOrder = arm_order_;
  if (joints_ != 0) std::memcpy(static_cast<void*>(packet.joints.data()), Records(), joints_ * sizeof(txJoint_t));
  packet.SetConfirmReceived(IsConfirmed());
}

// CommandList

void CommandList::Append(Command* command) {
  command->next = nullptr;
  (tail != nullptr ? tail->next : head) = command;
  tail = command;
}

Command* CommandList::TakeFront() {
  Command* const command = head;
  if (command == nullptr) return nullptr;
  head = command->next;
  if (head == nullptr) tail = nullptr;
  command->next = nullptr;
  return command;
}

// Admission

Admission::~Admission() {
  if (Command* const last = Command::TakeRetired(retired)) last->Free();
}

Admission::Ruling Admission::Current() const {
  const std::uint64_t ruling = ruling_.load();
  return {ruling >> 8, static_cast<velta::Reason>(ruling & 0xFF)};
}

velta::Reason Admission::Invalid(std::uint64_t epoch) const {
  return epoch < barrier_.load() ? barrier_reason_.load() : velta::Reason::kNone;
}

void Admission::Change(bool invalidates, velta::Reason reason) {
  ++epoch_;
  if (invalidates) {
    barrier_reason_ = reason;  // before the barrier that it explains
    barrier_ = epoch_;
  }
  const velta::Reason refusal = stopped_    ? velta::Reason::kStopped
                                : tripped_  ? velta::Reason::kDeadMan
                                : !link_up_ ? velta::Reason::kNoLink
                                            : velta::Reason::kNone;
  ruling_ = epoch_ << 8 | static_cast<std::uint64_t>(refusal);
}

void Admission::LinkUp() {
  const std::lock_guard<InheritingMutex> lock(mutex_);
  link_up_ = true;
  Change(false, velta::Reason::kNone);
}

void Admission::LinkDown(bool invalidates) {
  const std::lock_guard<InheritingMutex> lock(mutex_);
  link_up_ = false;
  Change(invalidates, velta::Reason::kLinkLost);
}

void Admission::Trip() {
  const std::lock_guard<InheritingMutex> lock(mutex_);
  tripped_ = true;
  Change(true, velta::Reason::kDeadMan);
  stop_asked = true;
}

bool Admission::TripIfSilent(Nanos now, Nanos longest) {
  if (!armed || tripped_ || now - kept_alive <= longest) return false;
  const std::lock_guard<InheritingMutex> lock(mutex_);
  if (!armed || tripped_ || now - kept_alive <= longest) return false;  // the host has just come back
  tripped_ = true;
  Change(true, velta::Reason::kDeadMan);
  return true;
}

void Admission::Rearm() {
  const std::lock_guard<InheritingMutex> lock(mutex_);
  kept_alive = SteadyNow();
  tripped_ = false;
  Change(false, velta::Reason::kNone);
}

void Admission::Stop() {
  const std::lock_guard<InheritingMutex> lock(mutex_);
  stopped_ = true;
  Change(true, velta::Reason::kStopped);
}

// Stream

Stream::~Stream() {
  DropLate();
  while (Command* const command = commands_.TakeFront()) command->Release();
}

Command* Stream::Send(const SendPacket& packet, Confirm confirm) {
  const Admission::Ruling ruling = admission_->Current();
  if (packet.jointNum != joints_ || packet.joints.size() != static_cast<std::size_t>(joints_)) {
    return Command::MakeRefused(velta::Reason::kBadCommand);
  }
  if (ruling.reason != velta::Reason::kNone) return Command::MakeRefused(ruling.reason);
  Command* const command = Command::Make(packet, confirm, Command::TakeRetired(admission_->retired));
  if (++waiting_ > limit_) {
    --waiting_;
    command->Free();
    return Command::MakeRefused(velta::Reason::kQueueFull);
  }
  command->epoch = ruling.epoch;
  command->sequence = sequence_++;
  command->next = incoming_.load(std::memory_order_relaxed);
  while (!incoming_.compare_exchange_weak(command->next, command)) {
  }
  if (admission_->IsStopped()) DropLate();  // the session's last look may have been before
  return command;
}

Command* Stream::Oldest() { return Reverse(incoming_.exchange(nullptr)); }

void Stream::DropLate() {
  for (Command* command = Oldest(); command != nullptr;) {
    Command* const next = command->next;
    --waiting_;
    if (command->Finish(velta::Outcome::kDiscarded, velta::Reason::kStopped)) command->RunCallback();
    command->Release();
    command = next;
  }
}

// Keys

Keys::~Keys() {
  DropAll([](Command* command, velta::Reason reason) {
    command->Finish(velta::Outcome::kDiscarded, reason);
    command->Release();
  });
}

Command* Keys::Send(const std::string& key, const SendPacket& packet, Confirm confirm, Command*& replaced) {
  replaced = nullptr;
  const Admission::Ruling ruling = admission_->Current();
  if (packet.jointNum != joints_ || packet.joints.size() != static_cast<std::size_t>(joints_)) {
    return Command::MakeRefused(velta::Reason::kBadCommand);
  }
  if (ruling.reason != velta::Reason::kNone) return Command::MakeRefused(ruling.reason);
  Command* const command = Command::Make(packet, confirm, Command::TakeRetired(admission_->retired));
  command->epoch = ruling.epoch;
  Slot* slot = nullptr;
  {
    const std::lock_guard<InheritingMutex> lock(mutex_);
    std::unique_ptr<Slot>& place = slots_[key];
    if (place == nullptr) place = std::make_unique<Slot>();
    slot = place.get();
  }
  replaced = slot->waiting.exchange(command);
  if (!slot->is_queued.exchange(true)) {
    slot->next = ready_.load(std::memory_order_relaxed);
    while (!ready_.compare_exchange_weak(slot->next, slot)) {
    }
  }
  if (admission_->IsStopped()) {  // the session's last look may have been before
    if (Command* const late = slot->waiting.exchange(nullptr)) {
      if (late->Finish(velta::Outcome::kDiscarded, velta::Reason::kStopped)) late->RunCallback();
      late->Release();
    }
  }
  return command;
}

void Keys::TakeReady() {
  if (ready_.load(std::memory_order_relaxed) == nullptr) return;
  Slot* newest = ready_.exchange(nullptr);
  Slot* oldest = nullptr;
  Slot* const last = newest;
  while (newest != nullptr) {
    Slot* const next = newest->next;
    newest->next = oldest;
    oldest = newest;
    newest = next;
  }
  (tail_ != nullptr ? tail_->next : head_) = oldest;
  tail_ = last;
}

}  // namespace velta::detail
