// SPDX-License-Identifier: MIT
#include "wire.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "stop.h"
#include "timing.h"

namespace velta::tools {

namespace {

/// The library's serial link with its descriptor shown.
class SerialPort : public SerialClient {
 public:
  using SerialClient::SerialClient;
  int Fd() const { return fd_; }
};

/// @return 1 when fd is ready for any of the events, 0 at the deadline, -1 when a stop was requested
int Wait(int fd, short events, std::int64_t deadline_ns) {
  pollfd polled[] = {{fd, events, 0}, {StopFd(), POLLIN, 0}};
  for (;;) {
    const std::int64_t left = std::max<std::int64_t>(deadline_ns - MonotonicNs(), 0);
    const timespec timeout{left / 1'000'000'000, left % 1'000'000'000};
    const int answer = ppoll(polled, 2, &timeout, nullptr);
    if (StopRequested() || (answer > 0 && polled[1].revents != 0)) return -1;
    if (answer > 0) return 1;
    if (answer == 0 || errno != EINTR) return 0;
  }
}

std::int64_t After(int timeout_ms) { return MonotonicNs() + std::int64_t{timeout_ms} * 1'000'000; }

}  // namespace

Wire::Wire(const Link& link, int timeout_ms) : name_(ToString(link)), kind_(link.kind) {
  try {
    switch (link.kind) {
      case Link::Kind::Tcp:
      case Link::Kind::Udp:
        OpenSocket(link, timeout_ms);
        break;
      case Link::Kind::Serial:
        OpenSerial(link);
        break;
      case Link::Kind::Pty:
        throw UsageError(name_ + " is an endpoint of velta sim; reach it as serial://" + link.device);
    }
  } catch (...) {
    if (!serial_ && fd_ != -1) close(fd_);
    throw;
  }
}

Wire::~Wire() {
  if (serial_) {
    serial_->Disconnect();
  } else {
    close(fd_);
  }
}

void Wire::Fail(const std::string& what, int error) const {
  throw WireError(name_ + ": " + what + (error > 0 ? ": " + std::generic_category().message(error) : ""), error);
}

void Wire::OpenSocket(const Link& link, int timeout_ms) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(link.port));
  if (inet_pton(AF_INET, link.host.c_str(), &address.sin_addr) != 1) {
    throw UsageError(name_ + ": '" + link.host + "' is not an IPv4 address such as 192.168.0.10");
  }
  const bool is_tcp = link.kind == Link::Kind::Tcp;
  fd_ = socket(AF_INET, (is_tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ == -1) Fail("no socket", errno);
  if (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
    if (errno != EINPROGRESS) Fail("cannot connect", errno);
    const int answer = Wait(fd_, POLLOUT, After(timeout_ms));
    if (answer == 0) Fail("cannot connect", ETIMEDOUT);
    if (answer < 0) throw WireError(name_ + ": interrupted while connecting", EINTR);
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size) == -1) error = errno;
    if (error != 0) Fail("cannot connect", error);
  }
  const int on = 1;
  if (is_tcp) setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void Wire::OpenSerial(const Link& link) {
  // The library's link tells no reason: the first opening is for its errno alone.
  const int probe = open(link.device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (probe == -1) Fail("cannot open", errno);
  const bool is_tty = isatty(probe) == 1;
  close(probe);
  if (!is_tty) throw WireError(name_ + ": not a serial device", ENOTTY);
  auto port = std::make_unique<SerialPort>(link.device, link.baud);
  if (!port->Init()) throw WireError(name_ + ": cannot set " + std::to_string(link.baud) + " baud", EINVAL);
  fd_ = port->Fd();
  serial_ = std::move(port);
  fcntl(fd_, F_SETFL, O_NONBLOCK);
}

bool Wire::WaitReadable(std::int64_t deadline_ns) const { return Wait(fd_, POLLIN, deadline_ns) == 1; }

std::size_t Wire::Read(std::vector<char>& bytes) {
  char buffer[65536];
  const ssize_t count = read(fd_, buffer, sizeof buffer);
  if (count > 0) {
    bytes.insert(bytes.end(), buffer, buffer + count);
    return static_cast<std::size_t>(count);
  }
  if (count == -1) {
    if (errno == EAGAIN || errno == EINTR) return 0;
    Fail("link lost", errno);
  }
  pollfd polled{fd_, POLLIN, 0};
  const bool hung_up = kind_ == Link::Kind::Serial && poll(&polled, 1, 0) == 1 && (polled.revents & POLLHUP) != 0;
  if (kind_ == Link::Kind::Tcp || hung_up) {
    throw WireError(name_ + ": the other end closed the link", ECONNABORTED);
  }
  return 0;  // an empty datagram, or a serial line with nothing to read
}

void Wire::Write(const std::vector<char>& frame) {
  std::size_t done = 0;
  const std::int64_t deadline = After(1000);
  while (done < frame.size()) {
    const ssize_t count = serial_ ? write(fd_, frame.data() + done, frame.size() - done)
                                  : send(fd_, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
    if (count > 0) {
      done += static_cast<std::size_t>(count);
    } else if (count == -1 && errno != EAGAIN && errno != EINTR) {
      Fail("link lost", errno);
    } else {
      const int answer = Wait(fd_, POLLOUT, deadline);
      if (answer == 0) throw WireError(name_ + ": the other end takes no more bytes", ETIMEDOUT);
      if (answer < 0) throw WireError(name_ + ": interrupted", EINTR);
    }
  }
}

}  // namespace velta::tools
