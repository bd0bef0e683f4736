// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_SESSION_SYNC_H_
#define VELTA_SRC_SESSION_SYNC_H_

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>

/// What the session's threads meet at.
namespace velta::detail {

/// Nanoseconds of CLOCK_MONOTONIC, or a duration in nanoseconds.
using Nanos = std::int64_t;
Nanos SteadyNow();

/// now + timeout, held at the largest value.
Nanos DeadlineAfter(std::chrono::nanoseconds timeout);

/// A mutex whose holder runs with the priority of the thread that waits for it: a real-time loop never waits for an
/// ordinary thread that does not get the processor.
class InheritingMutex {
 public:
  InheritingMutex();
  InheritingMutex(const InheritingMutex&) = delete;
  InheritingMutex& operator=(const InheritingMutex&) = delete;
  ~InheritingMutex() { pthread_mutex_destroy(&mutex_); }

  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }
  bool try_lock() { return pthread_mutex_trylock(&mutex_) == 0; }

 private:
  pthread_mutex_t mutex_{};
};

/// Sleeps until word differs from value, somebody wakes it, or the deadline (CLOCK_MONOTONIC) has come.
void WaitForWord(const std::atomic<std::uint32_t>& word, std::uint32_t value, Nanos deadline);
void WakeAll(const std::atomic<std::uint32_t>& word);

/// A counter that threads can wait for. Raising it is one system call where somebody waits, and none elsewhere.
class Signal {
 public:
  std::uint32_t Value() const { return value_.load(); }
  void Raise() {
    ++value_;
    if (waiting_ != 0) WakeAll(value_);
  }
  /// Waits until the value is not seen any more, or the deadline; may also return early.
  void Wait(std::uint32_t seen, Nanos deadline) {
    ++waiting_;
    WaitForWord(value_, seen, deadline);
    --waiting_;
  }

 private:
  std::atomic<std::uint32_t> value_{0};
  std::atomic<std::uint32_t> waiting_{0};
};

/// A thread that runs no signal handler of the host's and has the ordinary scheduler, whoever starts it.
/// Throws std::system_error.
std::thread StartThread(std::function<void()> body);

}  // namespace velta::detail

#endif  // VELTA_SRC_SESSION_SYNC_H_
