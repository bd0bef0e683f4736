// SPDX-License-Identifier: MIT
#include "link_io.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>

#include "log.h"

namespace velta::detail {

namespace {

/// select()'s answer for one descriptor, by poll(), which has no limit at descriptor 1,024.
/// @return 1 ready, 0 not within the time, -1 failed with errno (EBADF for a descriptor that is not open)
int WaitUntilReady(int fd, bool for_write, int timeout_ms) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  pollfd request{fd, static_cast<short>(for_write ? POLLOUT : POLLIN), 0};
  const int answer = poll(&request, 1, timeout_ms);
  if (answer <= 0) return answer;
  if ((request.revents & POLLNVAL) != 0) {
    errno = EBADF;
    return -1;
  }
  return (request.revents & (for_write ? POLLOUT | POLLERR : POLLIN | POLLHUP | POLLERR)) != 0 ? 1 : 0;
}

}  // namespace

int DeliverRead(ssize_t count, const char* bytes, std::vector<char>& data, const char* where) {
  if (count >= 1 && static_cast<std::size_t>(count) < kMaxRead) {
    data.assign(bytes, bytes + count);
    return static_cast<int>(count);
  }
  if (count > 0) LogLine(where + (" Buffer Overflow:" + std::to_string(count)));
  data.clear();
  return 0;
}

std::string Where(const SocketKind& kind, const char* operation) {
  return std::string("[") + kind.tag + "::" + operation + "]";
}

void ReportFailure(const SocketKind& kind, const char* operation, int error, const char* text, std::string_view more) {
  LogError((Where(kind, operation) + " " + text).append(more), error);
  errno = error;
}

void SetAddress(sockaddr_in& address, const std::string& ip, int port) {
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = inet_addr(ip.c_str());
}

int OpenSocket(const SocketKind& kind) {
  const int fd = socket(AF_INET, kind.type, 0);
  if (fd == -1) ReportFailure(kind, "CreateSocket", errno, "socket failed");
  return fd;
}

bool ConnectSocket(const SocketKind& kind, int fd, const sockaddr_in& address, const std::string& ip) {
  const std::string connection = std::string("open ") + kind.link + " Connection to " + ip;
  int on = 1;
  ioctl(fd, FIONBIO, &on);
  // The result is ignored deliberately: in non-blocking mode the wait below has the outcome.
  static_cast<void>(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));

  const int answer = WaitUntilReady(fd, true, kind.connect_timeout_s * 1000);
  if (answer <= 0) {
    ReportFailure(kind, "Connect", answer == 0 ? ETIMEDOUT : errno, "Failed to ", connection);
    return false;
  }
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == -1) {
    ReportFailure(kind, "Connect", errno, "Failed to get SO_ERROR option");
    return false;
  }
  if (error != 0) {
    ReportFailure(kind, "Connect", error, "Failed to ", connection);
    return false;
  }
  LogLine("Success to " + connection);
  return true;
}

int ReadSocket(const SocketKind& kind, bool is_init, int fd, char* buffer, std::vector<char>& data) {
  if (!is_init) {
    LogLine(kind.read_tag + std::string(" This object doesn't init"));
    return -1;
  }
  const int answer = WaitUntilReady(fd, false, 0);
  if (answer == 1) return DeliverRead(recv(fd, buffer, kMaxRead, 0), buffer, data, kind.read_tag);
  if (answer < 0) {
    ReportFailure(kind, "Read", errno, "Read select Failed");
    return -1;
  }
  return 0;
}

int WriteSocket(const SocketKind& kind, bool is_init, int fd, const std::vector<char>& data) {
  if (!is_init) {
    LogLine(Where(kind, "Write") + " This object doesn't init");
    return -1;
  }
  const int answer = WaitUntilReady(fd, true, 0);
  if (answer == 1) {
    const ssize_t count = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (count == -1) ReportFailure(kind, "Write", errno, "Write Failed");
    return static_cast<int>(count);
  }
  if (answer < 0) {
    ReportFailure(kind, "Write", errno, "Write select Failed");
    return -1;
  }
  return 0;
}

}  // namespace velta::detail
