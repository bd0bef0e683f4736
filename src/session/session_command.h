// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_SESSION_COMMAND_H_
#define VELTA_SRC_SESSION_COMMAND_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "SendPacket.h"
#include "session_sync.h"
#include "velta_session.h"

namespace velta::detail {

/// One command that was given to a session, and what became of it: shared by its tickets and by the session. Its joint
/// records lie after it, so that giving a command is one allocation.
class Command {
 public:
  /// A command that waits; two references, for the ticket and for the session.
  /// @param spare  a retired command of as many joints, whose memory is used again; or null
  static Command* Make(const SendPacket& packet, Confirm confirm, Command* spare);
  /// A command that was refused; one reference, for the ticket.
  static Command* MakeRefused(Reason reason);
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  void Retain() { references_.fetch_add(1, std::memory_order_relaxed); }
  void Release() {
    if (IsLastReference()) Free();
  }
  /// Release without a call of the memory's owner, who might make a real-time loop wait: who gives the next command
  /// takes care of what is retired.
  void ReleaseInto(std::atomic<Command*>& retired);
  /// Frees a list of retired commands but the first. @return the first; null for none
  static Command* TakeRetired(std::atomic<Command*>& retired);
  void Free();

  /// @name The ticket's side; any thread
  /// @{
  velta::Outcome Outcome() const { return OutcomeOf(state_.load(std::memory_order_acquire)); }
  velta::Reason Reason() const { return ReasonOf(state_.load(std::memory_order_acquire)); }
  velta::Outcome Wait(std::chrono::nanoseconds timeout) const;
  void OnOutcome(Ticket::Callback callback);
  /// @}

  /// @name The session's side
  /// @{

  /// Sets the final outcome; once.
  /// @return whether a callback waits for RunCallback
  bool Finish(velta::Outcome outcome, velta::Reason reason);
  void RunCallback();

  bool IsConfirmed() const { return confirm_ == Confirm::kYes; }

  /// Makes packet, of as many joints, this command; its stamp stays.
  void CopyTo(SendPacket& packet) const;

  Command* next = nullptr;     ///< in the list that holds it
  std::uint64_t epoch = 0;     ///< of the session when it was given
  std::uint64_t sequence = 0;  ///< within its stream
                               /// @}

 private:
  static constexpr std::uint32_t kWaited = 1U << 16;    ///< somebody waits for the outcome
  static constexpr std::uint32_t kCallback = 1U << 17;  ///< a callback was given before the outcome was final
  static velta::Outcome OutcomeOf(std::uint32_t state) { return static_cast<velta::Outcome>(state & 0xFF); }
  static velta::Reason ReasonOf(std::uint32_t state) { return static_cast<velta::Reason>(state >> 8 & 0xFF); }

  bool IsLastReference() { return references_.fetch_sub(1, std::memory_order_acq_rel) == 1; }
  Command(std::size_t joints, Confirm confirm) : joints_(joints), confirm_(confirm) {}
  ~Command() = default;
  txJoint_t* Records() { return reinterpret_cast<txJoint_t*>(this + 1); }
  const txJoint_t* Records() const { return reinterpret_cast<const txJoint_t*>(this + 1); }

  mutable std::atomic<std::uint32_t> state_{0};  ///< outcome, reason << 8, flags
  std::atomic<std::uint32_t> references_{1};
  const std::size_t joints_;
  const Confirm confirm_;
  std::uint8_t arm_order_ = 0;
  InheritingMutex mutex_;  ///< guards callback_
  Ticket::Callback callback_;
};

/// Commands in the order in which they were given.
struct CommandList {
  void Append(Command* command);
  Command* TakeFront();
  bool IsEmpty() const { return head == nullptr; }

  Command* head = nullptr;
  Command* tail = nullptr;
};

/// Whether commands are taken, and from when on those that were taken are still valid. Outlives the session where a
/// source does.
///
/// Every change begins a new epoch. A command remembers the epoch in which it was given; a barrier invalidates all that
/// were given before it, also those that a sender is about to queue.
class Admission {
 public:
  Admission() = default;
  Admission(const Admission&) = delete;
  Admission& operator=(const Admission&) = delete;
  ~Admission();

  /// The epoch, and why commands are refused in it (Reason::kNone: they are taken).
  struct Ruling {
    std::uint64_t epoch;
    velta::Reason reason;
  };
  Ruling Current() const;

  /// Why a command of that epoch is not valid any more; Reason::kNone if it is.
  velta::Reason Invalid(std::uint64_t epoch) const;
  std::uint64_t Barrier() const { return barrier_.load(); }

  void LinkUp();
  void LinkDown(bool invalidates);
  void Trip();
  /// Trip, if the host is still silent and commands are still taken.
  bool TripIfSilent(Nanos now, Nanos longest);
  void Rearm();
  void Stop();

  bool IsTripped() const { return tripped_; }
  bool IsStopped() const { return stopped_; }

  std::atomic<bool> armed{false};       ///< the dead-man
  std::atomic<Nanos> kept_alive{0};     ///< when the host was well
  std::atomic<bool> stop_asked{false};  ///< the stop is to be sent

  std::atomic<Command*> retired{nullptr};  ///< commands that the loop is done with

 private:
  void Change(bool invalidates, velta::Reason reason);

  InheritingMutex mutex_;  ///< serialises changes
  std::atomic<bool> tripped_{false}, stopped_{false};
  bool link_up_ = false;
  std::uint64_t epoch_ = 1;
  std::atomic<std::uint64_t> ruling_{1U << 8 | static_cast<unsigned>(velta::Reason::kNoLink)};
  std::atomic<std::uint64_t> barrier_{0};
  std::atomic<velta::Reason> barrier_reason_{velta::Reason::kNone};
};

/// The plain queue, or one source. Any thread gives commands without ever waiting; the loop takes them.
class Stream {
 public:
  Stream(std::string name, int joints, std::size_t limit, std::shared_ptr<Admission> admission)
      : name_(std::move(name)), joints_(joints), limit_(limit), admission_(std::move(admission)) {}
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream();

  const std::string& Name() const { return name_; }

  /// @return the command, with a reference for the ticket
  Command* Send(const SendPacket& packet, Confirm confirm);
  void Discard() { discard_before_ = sequence_.load(); }
  std::size_t Waiting() const { return waiting_; }

  /// @name The loop's side
  /// @{

  /// Takes over what was given since the last call, and calls drop(command, reason) for all that is not valid any more.
  template <typename Drop>
  void TakeIn(Drop drop) {
    const std::uint64_t barrier = admission_->Barrier();
    const std::uint64_t discard_before = discard_before_;
    if (barrier != swept_barrier_ || discard_before != swept_discard_) {
      swept_barrier_ = barrier;
      swept_discard_ = discard_before;
      CommandList kept;
      while (Command* const command = commands_.TakeFront()) Sort(command, kept, drop);
      commands_ = kept;
    }
    if (incoming_.load(std::memory_order_relaxed) == nullptr) return;
    for (Command* command = Oldest(); command != nullptr;) {
      Command* const next = command->next;
      Sort(command, commands_, drop);
      command = next;
    }
  }

  Command* Front() const { return commands_.head; }
  Command* TakeFront() {
    --waiting_;
    return commands_.TakeFront();
  }
  bool IsEmpty() const { return commands_.IsEmpty() && incoming_ == nullptr; }
  /// @}

  /// Ends what was given after the session had been stopped: whoever comes last takes it.
  void DropLate();

 private:
  /// What was given since the last call, oldest first.
  Command* Oldest();

  template <typename Drop>
  void Sort(Command* command, CommandList& valid, Drop drop) {
    const velta::Reason reason =
        command->sequence < swept_discard_ ? velta::Reason::kStopped : admission_->Invalid(command->epoch);
    if (reason == velta::Reason::kNone) {
      valid.Append(command);
      return;
    }
    --waiting_;
    drop(command, reason);
  }

  const std::string name_;
  const int joints_;
  const std::size_t limit_;
  const std::shared_ptr<Admission> admission_;
  std::atomic<Command*> incoming_{nullptr};  ///< newest first
  std::atomic<std::size_t> waiting_{0};
  std::atomic<std::uint64_t> sequence_{0}, discard_before_{0};

  // Only the loop's.
  CommandList commands_;
  std::uint64_t swept_barrier_ = 0, swept_discard_ = 0;
};

/// The newest command per key.
class Keys {
 public:
  Keys(int joints, std::shared_ptr<Admission> admission) : joints_(joints), admission_(std::move(admission)) {}
  Keys(const Keys&) = delete;
  Keys& operator=(const Keys&) = delete;
  ~Keys();

  /// @param[out] replaced  the command that waited under the key, with its reference; or null
  /// @return the command, with a reference for the ticket
  Command* Send(const std::string& key, const SendPacket& packet, Confirm confirm, Command*& replaced);

  /// @name The loop's side
  /// @{
  template <typename Drop>
  void TakeIn(Drop drop) {
    TakeReady();
    const std::uint64_t barrier = admission_->Barrier();
    if (barrier == swept_barrier_) return;
    swept_barrier_ = barrier;
    for (Slot* slot = head_; slot != nullptr; slot = slot->next) {
      Command* const command = slot->waiting.exchange(nullptr);
      if (command == nullptr) continue;
      velta::Reason reason = admission_->Invalid(command->epoch);
      if (reason == velta::Reason::kNone) {
        Command* none = nullptr;
        if (slot->waiting.compare_exchange_strong(none, command)) continue;
        reason = velta::Reason::kReplaced;  // a newer one came just now
      }
      drop(command, reason);
    }
  }

  /// @return the command of the key that waits longest, with its reference; null when none waits
  template <typename Drop>
  Command* Take(Drop drop) {
    while (head_ != nullptr) {
      Slot* const slot = head_;
      head_ = slot->next;
      if (head_ == nullptr) tail_ = nullptr;
      slot->next = nullptr;
      // From here on the key may be filed again.
      slot->is_queued.store(false);
      Command* const command = slot->waiting.exchange(nullptr);
      if (command == nullptr) continue;
      const velta::Reason reason = admission_->Invalid(command->epoch);
      if (reason == velta::Reason::kNone) return command;
      drop(command, reason);
    }
    return nullptr;
  }
  bool IsEmpty() const { return head_ == nullptr; }
  /// @}

  /// Ends what waits when the session has been stopped.
  template <typename Drop>
  void DropAll(Drop drop) {
    const std::lock_guard<InheritingMutex> lock(mutex_);
    for (auto& [key, slot] : slots_) {
      if (Command* const command = slot->waiting.exchange(nullptr)) drop(command, velta::Reason::kStopped);
    }
  }

 private:
  struct Slot {
    std::atomic<Command*> waiting{nullptr};
    std::atomic<bool> is_queued{false};
    Slot* next = nullptr;
  };
  void TakeReady();

  const int joints_;
  const std::shared_ptr<Admission> admission_;
  InheritingMutex mutex_;  ///< guards slots_; never taken by the loop
  std::unordered_map<std::string, std::unique_ptr<Slot>> slots_;
  std::atomic<Slot*> ready_{nullptr};  ///< newest first

  // Only the loop's.
  Slot* head_ = nullptr;
  Slot* tail_ = nullptr;
  std::uint64_t swept_barrier_ = 0;
};

}  // namespace velta::detail

#endif  // VELTA_SRC_SESSION_COMMAND_H_
