// SPDX-License-Identifier: MIT
#include "port.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "SerialClient.h"

namespace velta::tools {

namespace {

[[noreturn]] void Fail(const std::string& what, int error) {
  throw LinkError(what + ": " + std::generic_category().message(error), error);
}
[[noreturn]] void Fail(const Link& link, int error) { Fail(ToString(link), error); }

sockaddr_in AddressOf(const Link& link) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(link.port));
  inet_pton(AF_INET, link.host.c_str(), &address.sin_addr);
  return address;
}

const sockaddr* Generic(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }

std::shared_ptr<const sim::Fd> Own(int fd) { return std::make_shared<const sim::Fd>(fd); }

std::shared_ptr<const sim::Fd> Socket(const Link& link) {
  const int type = link.kind == Link::Kind::Tcp ? SOCK_STREAM : SOCK_DGRAM;
  const int fd = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) Fail(link, errno);
  return Own(fd);
}

void SendAtOnce(int fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool IsPoll(int fd, short events, short wanted) {
  pollfd request{fd, events, 0};
  return poll(&request, 1, 0) == 1 && (request.revents & wanted) != 0;
}

/// Opens a serial device with the settings of the library's own link, which stay while `settings` lives.
std::shared_ptr<const sim::Fd> OpenSerial(const Link& link, std::unique_ptr<SerialClient>& settings) {
  auto fd = Own(open(link.device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (fd->Get() < 0) Fail(link, errno);
  if (isatty(fd->Get()) == 0) throw LinkError(ToString(link) + ": not a serial device", ENOTTY);
  settings = std::make_unique<SerialClient>(link.device, link.baud);
  if (!settings->Init()) {
    throw LinkError(link.device + ": cannot be set to " + std::to_string(link.baud) + " baud", EINVAL);
  }
  return fd;
}

}  // namespace

Port::Port(std::shared_ptr<const sim::Fd> fd, Link::Kind kind) : fd_(std::move(fd)), kind_(kind) {}
Port::Port(Port&&) noexcept = default;
Port& Port::operator=(Port&&) noexcept = default;
Port::~Port() = default;

Port Port::Connect(const Link& link) {
  if (link.kind == Link::Kind::Pty) {
    throw UsageError(ToString(link) + " is an endpoint, a place to listen on; a controller's tty is serial://" +
                     (link.device.empty() ? "/dev/pts/N" : link.device));
  }
  if (link.kind == Link::Kind::Serial) {
    std::unique_ptr<SerialClient> settings;
    Port port(OpenSerial(link, settings), link.kind);
    port.settings_ = std::move(settings);
    return port;
  }
  if (link.port == 0) throw UsageError("'" + ToString(link) + "': a controller has a port other than 0");
  Port port(Socket(link), link.kind);
  port.link_ = link;
  const sockaddr_in address = AddressOf(link);
  if (connect(port.Fd(), Generic(address), sizeof address) != 0) {
    if (errno != EINPROGRESS) Fail(link, errno);
    port.connecting_ = true;
  }
  if (link.kind == Link::Kind::Tcp) SendAtOnce(port.Fd());
  return port;
}

void Port::FinishConnecting() {
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(Fd(), SOL_SOCKET, SO_ERROR, &error, &size);
  if (error != 0) Fail(link_, error);
  connecting_ = false;
}

Port::Result Port::Read(char* buffer, std::size_t size) {
  ssize_t count = 0;
  if (answers_last_peer_) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    count = recvfrom(Fd(), buffer, size, 0, reinterpret_cast<sockaddr*>(&peer), &length);
    if (count >= 0) peer_ = peer;
  } else {
    count = read(Fd(), buffer, size);
  }
  if (count > 0) return {Io::kDone, static_cast<std::size_t>(count)};
  switch (kind_) {
    case Link::Kind::Udp:  // an ICMP message about an earlier datagram is no end
      return {count == 0 ? Io::kDone : Io::kLater, 0, count == 0 ? 0 : errno};
    case Link::Kind::Tcp:
      if (count == 0) return {Io::kEnded, 0};
      break;
    case Link::Kind::Pty:
      if (count == 0 || errno == EIO) return {Io::kEnded, 0};
      break;
    case Link::Kind::Serial:  // a tty that never waits reads 0 bytes for nothing, and for a device that is gone
      if (count == 0) return {IsPoll(Fd(), 0, POLLHUP | POLLERR) ? Io::kBroken : Io::kLater, 0};
      break;
  }
  return {errno == EAGAIN || errno == EINTR ? Io::kLater : Io::kBroken, 0, errno};
}

Port::Result Port::Write(const char* bytes, std::size_t size) {
  if (kind_ == Link::Kind::Udp) {
    if (answers_last_peer_ && peer_.sin_family == 0) return {Io::kDone, size};  // nobody to answer yet
    for (int attempt = 0; attempt < 2; ++attempt) {  // the first may only report what became of an earlier datagram
      const ssize_t count =
          answers_last_peer_ ? sendto(Fd(), bytes, size, 0, Generic(peer_), sizeof peer_) : send(Fd(), bytes, size, 0);
      if (count >= 0) break;
      if (errno == EAGAIN || errno == EINTR) return {Io::kLater, 0};
    }
    return {Io::kDone, size};  // the network may lose a datagram, and so may this machine
  }
  const ssize_t count = kind_ == Link::Kind::Tcp ? send(Fd(), bytes, size, MSG_NOSIGNAL) : write(Fd(), bytes, size);
  if (count >= 0) return {count > 0 || size == 0 ? Io::kDone : Io::kLater, static_cast<std::size_t>(count)};
  return {errno == EAGAIN || errno == EINTR ? Io::kLater : Io::kBroken, 0, errno};
}

void Port::EndWriting() {
  if (kind_ == Link::Kind::Tcp) shutdown(Fd(), SHUT_WR);
}

void Port::Break() {
  const linger at_once{1, 0};
  if (kind_ == Link::Kind::Tcp) setsockopt(Fd(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

Endpoint::Endpoint(const Link& link) : kind_(link.kind), address_(link) {
  if (kind_ == Link::Kind::Pty) {
    path_ = link.device;
    address_.kind = Link::Kind::Serial;
    OpenPty();
    return;
  }
  if (kind_ == Link::Kind::Serial) return;  // opened for each host by Take()
  fd_ = Socket(link);
  const int on = 1;
  if (kind_ == Link::Kind::Tcp) setsockopt(fd_->Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = AddressOf(link);
  socklen_t size = sizeof address;
  if (bind(fd_->Get(), Generic(address), size) != 0 ||
      (kind_ == Link::Kind::Tcp && listen(fd_->Get(), SOMAXCONN) != 0) ||
      getsockname(fd_->Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    Fail(link, errno);
  }
  address_.port = ntohs(address.sin_port);
}

void Endpoint::OpenPty() {
  try {
    pty_ = std::make_shared<sim::Pty>(path_);
  } catch (const std::system_error& error) {
    throw LinkError(error.what(), error.code().value());
  }
  fd_ = {pty_, &pty_->Master()};
  address_.device = pty_->Path();
}

int Endpoint::WaitFd() const {
  if (kind_ == Link::Kind::Serial || (kind_ == Link::Kind::Pty && !HostIsThere())) return -1;
  return fd_->Get();
}

bool Endpoint::HostIsThere() const {
  if (kind_ == Link::Kind::Serial) return true;
  if (kind_ != Link::Kind::Pty) return IsPoll(fd_->Get(), POLLIN, POLLIN);
  return IsPoll(fd_->Get(), POLLIN, POLLIN) || pty_->HasUser();
}

Port Endpoint::Take() {
  if (kind_ == Link::Kind::Serial) return Port::Connect(address_);
  if (kind_ == Link::Kind::Tcp) {
    const int fd = accept4(fd_->Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) Fail(address_, errno);
    SendAtOnce(fd);
    return Port(Own(fd), kind_);
  }
  Port port(fd_, kind_);
  port.answers_last_peer_ = kind_ == Link::Kind::Udp;
  return port;
}

void Endpoint::Release(bool hang_up) {
  if (kind_ != Link::Kind::Pty) return;
  if (!hang_up) return pty_->Flush(TCIFLUSH);
  fd_.reset();
  pty_.reset();
  OpenPty();
}

}  // namespace velta::tools
