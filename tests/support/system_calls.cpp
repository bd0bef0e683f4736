// SPDX-License-Identifier: MIT
#include "support/system_calls.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
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
  if (answers.empty() && !Calls().decide) return std::nullopt;
  const std::optional<SystemCalls::Answer> answer = answers.empty() ? Calls().decide(name) : answers.front();
  if (!answers.empty()) answers.pop_front();
  if (!answer) return std::nullopt;
  errno = answer->error;
  return answer->result;
}

/// The scripted result of a call that moves up to size bytes, or what move(size) moves.
template <typename Move>
ssize_t Moved(const char* name, size_t size, Move move) {
  const auto answer = Scripted(name);
  if (answer && *answer != SystemCalls::kOneByte) return *answer;
  return move(answer ? std::min<size_t>(size, 1) : size);
}

}  // namespace
}  // namespace velta::test

using velta::test::Calls;
using velta::test::Moved;
using velta::test::Scripted;

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
extern "C" {

#define VELTA_TEST_WRAP(name, parameters, arguments)                     \
  int __real_##name parameters;                                          \
  int __wrap_##name parameters {                                         \
    const auto answer = Scripted(#name);                                 \
    return answer ? static_cast<int>(*answer) : __real_##name arguments; \
  }
VELTA_TEST_WRAP(socket, (int domain, int type, int protocol), (domain, type, protocol))
VELTA_TEST_WRAP(getsockopt, (int fd, int level, int name, void* value, socklen_t* size), (fd, level, name, value, size))
VELTA_TEST_WRAP(setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
                (fd, level, name, value, size))
VELTA_TEST_WRAP(tcgetattr, (int fd, termios* settings), (fd, settings))
#undef VELTA_TEST_WRAP

#define VELTA_TEST_WRAP_MOVING(name, parameters, arguments)                          \
  ssize_t __real_##name parameters;                                                  \
  ssize_t __wrap_##name parameters {                                                 \
    return Moved(#name, size, [&](size_t some) { return __real_##name arguments; }); \
  }
VELTA_TEST_WRAP_MOVING(send, (int fd, const void* data, size_t size, int flags), (fd, data, some, flags))
VELTA_TEST_WRAP_MOVING(recv, (int fd, void* data, size_t size, int flags), (fd, data, some, flags))
VELTA_TEST_WRAP_MOVING(read, (int fd, void* data, size_t size), (fd, data, some))
#undef VELTA_TEST_WRAP_MOVING

int __real_connect(int, const sockaddr*, socklen_t);
int __wrap_connect(int fd, const sockaddr* address, socklen_t size) {
  const int result = __real_connect(fd, address, size);  // goes on in the background, whatever is told
  const auto answer = Scripted("connect");
  return answer ? static_cast<int>(*answer) : result;
}

int __real_poll(pollfd*, nfds_t, int);
int __wrap_poll(pollfd* fds, nfds_t count, int timeout) {
  Calls().poll_timeout_ms = timeout;
  if (const auto answer = Scripted("poll")) return static_cast<int>(*answer);
  return __real_poll(fds, count, timeout);
}

ssize_t __real_write(int, const void*, size_t);
ssize_t __wrap_write(int fd, const void* data, size_t size) {
  if (!Calls().capture_writes) return Moved("write", size, [&](size_t some) { return __real_write(fd, data, some); });
  Calls().written.emplace_back(static_cast<const char*>(data), size);
  return Moved("write", size, [](size_t some) { return static_cast<ssize_t>(some); });
}

int __real_open(const char*, int, ...);
int __wrap_open(const char* path, int flags, ...) {
  if (const auto answer = Scripted("open")) return static_cast<int>(*answer);
  return __real_open(path, flags);
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
  if (const auto answer = of_serial || Calls().decide ? Scripted("ioctl") : std::nullopt) {
    return static_cast<int>(*answer);
  }
  if (!of_serial || !Calls().serial) return __real_ioctl(fd, request, argument);
  auto& settings = *static_cast<serial_struct*>(argument);
  if (request == TIOCGSERIAL) settings = *Calls().serial;
  if (request == TIOCSSERIAL) Calls().serial = settings;
  return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
