// SPDX-License-Identifier: MIT
#include "channel.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "SerialClient.h"
#include "address.h"

namespace velta::wire {

namespace {

using Kind = LinkAddress::Kind;

bool IsTransient(int error) { return error == EAGAIN || error == EINTR; }

}  // namespace

Channel::Channel(std::shared_ptr<const Fd> fd, Kind kind, Peer peer) : fd_(std::move(fd)), kind_(kind), who_(peer) {}

IoResult Channel::Read(char* buffer, std::size_t size) {
  ssize_t count = 0;
  if (who_ == Peer::kLastToSend) {
    sockaddr_in from{};
    socklen_t length = sizeof from;
    count = recvfrom(Descriptor(), buffer, size, 0, Generic(from), &length);
    if (count >= 0) peer_ = from;
  } else {
    count = read(Descriptor(), buffer, size);
  }
  if (count > 0) return {Io::kDone, static_cast<std::size_t>(count)};
  switch (kind_) {
    case Kind::kUdp:  // an ICMP message about an earlier datagram is no end
      return {count == 0 ? Io::kDone : Io::kLater, 0, count == 0 ? 0 : errno};
    case Kind::kPty:
      if (count == 0 || errno == EIO) return {Io::kEnded, 0};
      break;
    case Kind::kSerial:  // a tty that never waits reads 0 bytes for nothing, and for a device that is gone
      if (count == 0) return {IsReady(Descriptor(), POLLHUP | POLLERR) ? Io::kBroken : Io::kLater, 0};
      break;
    case Kind::kTcp:
    case Kind::kSimulator:
      if (count == 0) return {Io::kEnded, 0};
      break;
  }
  return {IsTransient(errno) ? Io::kLater : Io::kBroken, 0, errno};
}

IoResult Channel::Write(const char* bytes, std::size_t size) {
  if (!IsStream()) return WriteDatagram(bytes, size);
  const ssize_t count =
      kind_ == Kind::kTcp ? send(Descriptor(), bytes, size, MSG_NOSIGNAL) : write(Descriptor(), bytes, size);
  if (count >= 0) return {count > 0 || size == 0 ? Io::kDone : Io::kLater, static_cast<std::size_t>(count)};
  return {IsTransient(errno) ? Io::kLater : Io::kBroken, 0, errno};
}

IoResult Channel::WriteDatagram(const char* bytes, std::size_t size) {
  const bool is_connected = who_ == Peer::kFixed;
  if (!is_connected && peer_.sin_family == 0) return {Io::kDone, size};  // nobody to answer yet
  for (int attempt = 0; attempt < 2; ++attempt) {  // the first may only report what became of an earlier datagram
    const ssize_t count = is_connected ? send(Descriptor(), bytes, size, 0)
                                       : sendto(Descriptor(), bytes, size, 0, Generic(peer_), sizeof peer_);
    if (count >= 0) break;
    if (IsTransient(errno)) return {Io::kLater, 0, errno};
  }
  return {Io::kDone, size};  // the network may lose a datagram, and so may this machine
}

bool Channel::HasPeerOf(const Channel& other) const {
  return peer_.sin_addr.s_addr == other.peer_.sin_addr.s_addr && peer_.sin_port == other.peer_.sin_port;
}

void Channel::EndWriting() {
  if (kind_ == Kind::kTcp) shutdown(Descriptor(), SHUT_WR);
}

void Channel::Break() {
  const linger at_once{1, 0};
  if (kind_ == Kind::kTcp) setsockopt(Descriptor(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

std::shared_ptr<const Fd> OpenSocket(const LinkAddress& link) {
  const int type = link.kind == Kind::kTcp ? SOCK_STREAM : SOCK_DGRAM;
  auto fd = std::make_shared<const Fd>(socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!*fd) FailLink(link, errno);
  return fd;
}

std::shared_ptr<const Fd> OpenSerial(const LinkAddress& link) {
  struct Device {
    explicit Device(const LinkAddress& link)
        : fd(open(link.device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)), settings(link.device, link.baud) {}
    Fd fd;
    SerialClient settings;  ///< puts the device's earlier settings back when it goes
  };
  const auto device = std::make_shared<Device>(link);
  if (!device->fd) FailLink(link, errno);
  if (isatty(device->fd.Get()) == 0) throw LinkError(ToString(link) + ": not a serial device", ENOTTY);
  if (!device->settings.Init()) {
    throw LinkError(link.device + ": cannot be set to " + std::to_string(link.baud) + " baud", EINVAL);
  }
  return {device, &device->fd};
}

sockaddr_in SocketAddress(const LinkAddress& link) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(link.port));
  inet_pton(AF_INET, link.host.c_str(), &address.sin_addr);
  return address;
}

void SetNoDelay(int fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool IsReady(int fd, short wanted) {
  pollfd request{fd, wanted, 0};
  return poll(&request, 1, 0) == 1 && (request.revents & wanted) != 0;
}

}  // namespace velta::wire
