// SPDX-License-Identifier: MIT
#include "session_sync.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <ctime>
#include <limits>
#include <utility>

namespace velta::detail {

namespace {
constexpr Nanos kSecond = 1'000'000'000;
static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t), "the system waits for a plain word");
}  // namespace

Nanos SteadyNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return Nanos{now.tv_sec} * kSecond + now.tv_nsec;
}

Nanos DeadlineAfter(std::chrono::nanoseconds timeout) {
  const Nanos now = SteadyNow();
  if (timeout.count() <= 0) return now;
  return timeout.count() > std::numeric_limits<Nanos>::max() - now ? std::numeric_limits<Nanos>::max()
                                                                   : now + timeout.count();
}

InheritingMutex::InheritingMutex() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
  pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

void WaitForWord(const std::atomic<std::uint32_t>& word, std::uint32_t value, Nanos deadline) {
  const timespec until{static_cast<time_t>(deadline / kSecond), static_cast<long>(deadline % kSecond)};
  syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, value, &until, nullptr, FUTEX_BITSET_MATCH_ANY);
}

void WakeAll(const std::atomic<std::uint32_t>& word) {
  syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

std::thread StartThread(std::function<void()> body) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  struct Restore {
    ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    const sigset_t& mask;
  } const restore{before};
  return std::thread([body = std::move(body)] {
    const sched_param ordinary{};
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &ordinary);
    body();
  });
}

}  // namespace velta::detail
