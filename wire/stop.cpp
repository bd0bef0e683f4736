// SPDX-License-Identifier: MIT
#include "stop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "clock.h"

namespace velta::wire {

namespace {

int stop_fd = -1;
volatile std::sig_atomic_t stop_requested = 0;

void RequestStop(int /*signal*/) {
  const int error = errno;
  stop_requested = 1;
  const std::uint64_t one = 1;
  static_cast<void>(!write(stop_fd, &one, sizeof one));
  errno = error;
}

}  // namespace

void InstallStopHandler() {
  if (stop_fd >= 0) return;
  stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  struct sigaction action {};
  action.sa_handler = RequestStop;  // without SA_RESTART, so that a blocking call returns
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool StopRequested() { return stop_requested != 0; }

int StopFd() { return stop_fd; }

bool WaitUntil(std::int64_t at_ns, int fd, short events, int another) {
  pollfd polled[] = {{fd, events, 0}, {stop_fd, POLLIN, 0}, {another, POLLIN, 0}};
  for (;;) {
    const std::int64_t left = std::max<std::int64_t>(at_ns - MonotonicNs(), 0);
    const timespec timeout{left / 1'000'000'000, left % 1'000'000'000};
    const int answer = ppoll(polled, 3, &timeout, nullptr);
    if (answer >= 0 || errno != EINTR || StopRequested()) return answer > 0 && polled[0].revents != 0;
  }
}

}  // namespace velta::wire
