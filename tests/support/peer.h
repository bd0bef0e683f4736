// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_PEER_H_
#define VELTA_TESTS_SUPPORT_PEER_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "link.h"

namespace velta::test {

/// A bare end of a link, with system calls alone: a controller that listens, or a host that connects. All non-blocking.
class Peer {
 public:
  using Kind = tools::Link::Kind;

  /// A controller: a listening TCP socket, a bound UDP socket, a pty.
  /// @param port  to listen on; 0 lets the system choose
  explicit Peer(Kind kind, int port = 0) : kind_(kind) {
    if (kind == Kind::Pty || kind == Kind::Serial) {
      fd_ = Good(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK));
      Good(grantpt(fd_));
      Good(unlockpt(fd_));
      char name[64];
      Good(ptsname_r(fd_, name, sizeof name));
      tty_ = Good(open(name, O_RDWR | O_NOCTTY));  // held open, so that the master never tells a hang-up
      link.kind = Kind::Serial;
      link.device = name;
      return;
    }
    sockaddr_in address = Loopback(port);
    socklen_t size = sizeof address;
    const int fd = Good(socket(AF_INET, (kind == Kind::Tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK, 0));
    Good(bind(fd, reinterpret_cast<sockaddr*>(&address), size));
    Good(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size));
    if (kind == Kind::Tcp) Good(listen(fd, 4));
    (kind == Kind::Tcp ? listener_ : fd_) = fd;
    link.kind = kind;
    link.host = "127.0.0.1";
    link.port = ntohs(address.sin_port);
    answers_ = kind == Kind::Udp;
  }

  /// A host, connected to where a tool listens.
  explicit Peer(const tools::Link& to) : link(to), kind_(to.kind) {
    if (kind_ == Kind::Serial) {
      fd_ = Good(open(to.device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK));
      return;
    }
    const sockaddr_in address = Loopback(to.port);
    fd_ = Good(socket(AF_INET, kind_ == Kind::Tcp ? SOCK_STREAM : SOCK_DGRAM, 0));
    Good(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    Good(fcntl(fd_, F_SETFL, O_NONBLOCK));
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() {
    Close();
    for (const int fd : {listener_, tty_}) {
      if (fd >= 0) close(fd);
    }
  }

  /// A TCP controller's next connection. @return false while nobody has connected
  bool Accept() {
    if (fd_ < 0) fd_ = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK);
    return fd_ >= 0;
  }
  void StopListening() { close(std::exchange(listener_, -1)); }
  void Close() {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }
  void EndWriting() { shutdown(fd_, SHUT_WR); }
  void Reset() {
    const linger at_once{1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    Close();
  }

  /// @return bytes taken
  std::size_t Send(const char* bytes, std::size_t size) {
    if (fd_ < 0 && !Accept()) return 0;
    const ssize_t count = kind_ == Kind::Udp   ? sendto(fd_, bytes, size, 0, To(), to_ ? sizeof *to_ : 0)
                          : kind_ == Kind::Tcp ? send(fd_, bytes, size, MSG_NOSIGNAL)
                                               : write(fd_, bytes, size);
    return count < 0 ? 0 : static_cast<std::size_t>(count);
  }
  std::size_t Send(const std::vector<char>& bytes) { return Send(bytes.data(), bytes.size()); }

  /// What has arrived; a datagram whole. Nothing now, or nothing more: see ended and error.
  std::optional<std::vector<char>> Receive() {
    if (fd_ < 0 && !Accept()) return std::nullopt;
    std::vector<char> bytes(65536);
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t count = kind_ == Kind::Udp
                              ? recvfrom(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), &size)
                              : read(fd_, bytes.data(), bytes.size());
    if (count < 0) {
      error = errno;
      return std::nullopt;
    }
    if (kind_ == Kind::Udp && answers_) to_ = from;
    if (count == 0 && kind_ != Kind::Udp) {
      ended = true;
      return std::nullopt;
    }
    bytes.resize(static_cast<std::size_t>(count));
    return bytes;
  }

  tools::Link link;  ///< how a tool names this controller
  bool ended = false;
  int error = 0;

 private:
  static int Good(int result) {
    if (result < 0) throw std::runtime_error("cannot set a peer up");
    return result;
  }
  static sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  const sockaddr* To() const { return to_ ? reinterpret_cast<const sockaddr*>(&*to_) : nullptr; }

  Kind kind_;
  bool answers_ = false;  ///< a UDP controller: it answers who sent last
  int listener_ = -1;
  int fd_ = -1;
  int tty_ = -1;
  std::optional<sockaddr_in> to_;
};

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_PEER_H_
