// SPDX-License-Identifier: MIT
#include "support/system_calls.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdarg>

namespace velta::test {

SystemCalls& Calls() {
  static SystemCalls calls;
  return calls;
}

namespace {

/// The scripted answer of this call, if there is one; sets errno.
std::optional<long> Scripted(const char* name) {
  auto& answers = Calls().answers[name];
  if (answers.empty()) return std::nullopt;
  const std::optional<long> answer = answers.front();
  answers.pop_front();
  if (answer == -1) errno = EIO;
  return answer;
}

}  // namespace
}  // namespace velta::test

using velta::test::Calls;
using velta::test::Scripted;

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
extern "C" {

#define VELTA_TEST_WRAP(type, name, parameters, arguments)                \
  type __real_##name parameters;                                          \
  type __wrap_##name parameters {                                         \
    const auto answer = Scripted(#name);                                  \
    return answer ? static_cast<type>(*answer) : __real_##name arguments; \
  }
VELTA_TEST_WRAP(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
VELTA_TEST_WRAP(int, getsockopt, (int fd, int level, int name, void* value, socklen_t* size),
                (fd, level, name, value, size))
VELTA_TEST_WRAP(int, setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
                (fd, level, name, value, size))
VELTA_TEST_WRAP(ssize_t, send, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags))
VELTA_TEST_WRAP(ssize_t, recv, (int fd, void* data, size_t size, int flags), (fd, data, size, flags))
VELTA_TEST_WRAP(ssize_t, read, (int fd, void* data, size_t size), (fd, data, size))
#undef VELTA_TEST_WRAP

int __real_poll(pollfd*, nfds_t, int);
int __wrap_poll(pollfd* fds, nfds_t count, int timeout) {
  Calls().poll_timeout_ms = timeout;
  if (const auto answer = Scripted("poll")) return static_cast<int>(*answer);
  return __real_poll(fds, count, timeout);
}

ssize_t __real_write(int, const void*, size_t);
ssize_t __wrap_write(int fd, const void* data, size_t size) {
  if (!Calls().capture_writes) return __real_write(fd, data, size);
  Calls().written.emplace_back(static_cast<const char*>(data), size);
  return Scripted("write").value_or(static_cast<long>(size));
}

int __real_tcsetattr(int, int, const termios*);
int __wrap_tcsetattr(int fd, int when, const termios* settings) {
  Calls().applied.push_back(*settings);
  if (const auto answer = Scripted("tcsetattr")) return static_cast<int>(*answer);
  return __real_tcsetattr(fd, when, settings);
}

int __real_ioctl(int, unsigned long, void*);
int __wrap_ioctl(int fd, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  const bool of_serial = request == TIOCGSERIAL || request == TIOCSSERIAL;
  if (const auto answer = of_serial ? Scripted("ioctl") : std::nullopt) return static_cast<int>(*answer);
  if (!of_serial || !Calls().serial) return __real_ioctl(fd, request, argument);
  auto& settings = *static_cast<serial_struct*>(argument);
  if (request == TIOCGSERIAL) settings = *Calls().serial;
  if (request == TIOCSSERIAL) Calls().serial = settings;
  return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
