// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_PEER_H_
#define VELTA_TESTS_SUPPORT_PEER_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "address.h"
#include "fd.h"

namespace velta::test {

/// Awaits a condition, far longer than any case takes. @return whether it came true in time
inline bool Until(const std::function<bool()>& done) {
  for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30); !done();) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

/// A bare end of a link, with system calls alone: a controller that listens and never answers by itself, or a host that
/// connects. Non-blocking.
class Peer {
 public:
  using Kind = LinkAddress::Kind;

  /// A controller: a listening TCP socket, a bound UDP socket, a pty.
  /// @param port  to listen on; 0 lets the system choose
  explicit Peer(Kind kind, int port = 0) : kind_(kind) {
    link.kind = kind;
    if (kind == Kind::kSerial) {
      fd_ = wire::Fd(Good(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK)));
      Good(grantpt(fd_.Get()));
      Good(unlockpt(fd_.Get()));
      link.device = ptsname(fd_.Get());
      tty_ = wire::Fd(
          Good(open(link.device.c_str(), O_RDWR | O_NOCTTY)));  // held, so that the master never tells a hang-up
      return;
    }
    sockaddr_in address = Loopback(port);
    socklen_t size = sizeof address;
    wire::Fd& fd = kind == Kind::kTcp ? listener_ : fd_;
    fd = wire::Fd(Good(socket(AF_INET, (kind == Kind::kTcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK, 0)));
    Good(bind(fd.Get(), Any(address), size));
    Good(getsockname(fd.Get(), Any(address), &size));
    if (kind == Kind::kTcp) Good(listen(fd.Get(), 4));
    link.host = "127.0.0.1";
    link.port = ntohs(address.sin_port);
  }

  /// A host, connected to where a tool listens.
  explicit Peer(const LinkAddress& to) : link(to), kind_(to.kind) {
    if (kind_ == Kind::kSerial) {
      fd_ = wire::Fd(Good(open(to.device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK)));
      return;
    }
    sockaddr_in address = Loopback(to.port);
    fd_ = wire::Fd(Good(socket(AF_INET, kind_ == Kind::kTcp ? SOCK_STREAM : SOCK_DGRAM, 0)));
    Good(connect(fd_.Get(), Any(address), sizeof address));
    Good(fcntl(fd_.Get(), F_SETFL, O_NONBLOCK));
  }

  /// A TCP controller's next connection. @return false while nobody has connected
  bool Accept() {
    if (!fd_) fd_ = wire::Fd(accept4(listener_.Get(), nullptr, nullptr, SOCK_NONBLOCK));
    return static_cast<bool>(fd_);
  }
  void StopListening() { listener_.Close(); }
  void Close() { fd_.Close(); }
  void EndWriting() { shutdown(fd_.Get(), SHUT_WR); }
  void Reset() {
    const linger at_once{1, 0};
    setsockopt(fd_.Get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    Close();
  }

  /// @return bytes taken
  std::size_t Send(const char* bytes, std::size_t size) {
    if (!Accept()) return 0;
    const ssize_t count = kind_ == Kind::kSerial ? write(fd_.Get(), bytes, size)
                          : to_                  ? sendto(fd_.Get(), bytes, size, 0, Any(*to_), sizeof *to_)
                                                 : send(fd_.Get(), bytes, size, MSG_NOSIGNAL);
    if (count < 0) error = errno;
    return count < 0 ? 0 : static_cast<std::size_t>(count);
  }
  std::size_t Send(const std::vector<char>& bytes) { return Send(bytes.data(), bytes.size()); }

  /// What has arrived; a datagram whole. Nothing now, or nothing more: see ended and error.
  std::optional<std::vector<char>> Receive() {
    if (!Accept()) return std::nullopt;
    std::vector<char> bytes(65536);
    sockaddr_in from{};
    socklen_t from_size = sizeof from;
    const ssize_t count = kind_ == Kind::kUdp
                              ? recvfrom(fd_.Get(), bytes.data(), bytes.size(), 0, Any(from), &from_size)
                              : read(fd_.Get(), bytes.data(), bytes.size());
    if (count < 0) error = errno;
    if (count == 0 && kind_ != Kind::kUdp) ended = true;
    if (count < 0 || ended) return std::nullopt;
    if (kind_ == Kind::kUdp) to_ = from;  // answers go to who sent last
    bytes.resize(static_cast<std::size_t>(count));
    return bytes;
  }

  LinkAddress link;
  bool ended = false;
  int error = 0;

 private:
  static sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  static sockaddr* Any(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }
  static int Good(int result) {
    if (result < 0) throw std::runtime_error("cannot set a peer up");
    return result;
  }

  Kind kind_;
  wire::Fd listener_, fd_, tty_;
  std::optional<sockaddr_in> to_;
};

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_PEER_H_
