// SPDX-License-Identifier: MIT
#include "endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <termios.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace velta::sim {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void Throw(const std::string& what, int error) {
  throw std::runtime_error(what + ": " + std::generic_category().message(error));
}

}  // namespace

Endpoint::Endpoint(EndpointConfig config) : config_(std::move(config)) {
  if (!config_.path.empty()) config_.path = fs::absolute(config_.path).lexically_normal();
}

std::string Endpoint::Link() const {
  if (Kind() == EndpointConfig::Kind::Pty) return "serial://" + (config_.path.empty() ? device_ : config_.path);
  const char* const scheme = Kind() == EndpointConfig::Kind::Tcp ? "tcp://" : "udp://";
  return scheme + config_.host + ":" + std::to_string(config_.port);
}

void Endpoint::Open() {
  if (Kind() == EndpointConfig::Kind::Pty) {
    OpenPty();
  } else {
    OpenSocket();
  }
}

Fd Endpoint::Bind() {
  const std::string what = "cannot listen on " + Link();
  const bool is_tcp = Kind() == EndpointConfig::Kind::Tcp;
  Fd fd(socket(AF_INET, (is_tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd) Throw(what, errno);
  const int on = 1;
  if (is_tcp) setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(config_.port));
  if (inet_pton(AF_INET, config_.host.c_str(), &address.sin_addr) != 1) Throw(what, EINVAL);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  if (bind(fd.Get(), generic, size) != 0 || getsockname(fd.Get(), generic, &size) != 0) Throw(what, errno);
  config_.port = ntohs(address.sin_port);
  return fd;
}

void Endpoint::OpenSocket() {
  if (Kind() == EndpointConfig::Kind::Tcp && !reserved_) reserved_ = Bind();
  Fd fd = Bind();
  if (Kind() == EndpointConfig::Kind::Tcp && listen(fd.Get(), 16) != 0) Throw("cannot listen on " + Link(), errno);
  fd_ = std::move(fd);
}

void Endpoint::OpenPty() {
  Fd fd(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  char name[128];
  if (!fd || grantpt(fd.Get()) != 0 || unlockpt(fd.Get()) != 0) Throw("cannot open a pty", errno);
  if (const int error = ptsname_r(fd.Get(), name, sizeof name); error != 0) Throw("cannot open a pty", error);

  termios settings{};
  tcgetattr(fd.Get(), &settings);
  cfmakeraw(&settings);
  tcsetattr(fd.Get(), TCSANOW, &settings);
  // A device that was never opened counts as in use; one that was closed does not.
  const Fd first(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!first) Throw(std::string("cannot open ") + name, errno);

  if (!config_.path.empty()) {
    std::error_code error;
    // Only what an earlier run may have left behind is replaced.
    const bool is_ours = fs::read_symlink(config_.path, error).string().rfind("/dev/pts/", 0) == 0;
    if (!is_ours && fs::exists(fs::symlink_status(config_.path, error))) {
      throw std::runtime_error("cannot make the link " + config_.path + ": it exists and does not lead to a pty");
    }
    fs::remove(config_.path, error);
    fs::create_symlink(name, config_.path, error);
    if (error) throw std::runtime_error("cannot make the link " + config_.path + ": " + error.message());
  }
  device_ = name;
  fd_ = std::move(fd);
}

void Endpoint::Close() {
  if (!fd_) return;
  fd_.Close();
  if (Kind() != EndpointConfig::Kind::Pty || config_.path.empty()) return;
  std::error_code error;
  if (fs::read_symlink(config_.path, error) == device_) fs::remove(config_.path, error);
}

std::optional<Peer> Endpoint::Accept() const {
  Peer peer;
  peer.connection = Fd(accept4(fd_.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!peer.connection) return std::nullopt;
  const int on = 1;
  setsockopt(peer.connection.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return peer;
}

void Endpoint::Reset(Peer& peer) {
  const linger none{1, 0};
  setsockopt(peer.connection.Get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
  peer.connection.Close();
}

bool Endpoint::HasUser() const {
  pollfd request{fd_.Get(), 0, 0};
  return fd_ && poll(&request, 1, 0) >= 0 && (request.revents & POLLHUP) == 0;
}

void Endpoint::FlushDevice() const {
  const Fd device(open(device_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (device) tcflush(device.Get(), TCIOFLUSH);
}

ssize_t Endpoint::Read(Peer& peer, char* bytes, std::size_t size) const {
  switch (Kind()) {
    case EndpointConfig::Kind::Tcp:
      return recv(peer.connection.Get(), bytes, size, 0);
    case EndpointConfig::Kind::Udp: {
      socklen_t length = sizeof peer.address;
      return recvfrom(fd_.Get(), bytes, size, 0, reinterpret_cast<sockaddr*>(&peer.address), &length);
    }
    case EndpointConfig::Kind::Pty:
      break;
  }
  return read(fd_.Get(), bytes, size);
}

ssize_t Endpoint::Write(const Peer& peer, const char* bytes, std::size_t size) const {
  switch (Kind()) {
    case EndpointConfig::Kind::Tcp:
      return send(peer.connection.Get(), bytes, size, MSG_NOSIGNAL);
    case EndpointConfig::Kind::Udp:
      return sendto(fd_.Get(), bytes, size, 0, reinterpret_cast<const sockaddr*>(&peer.address), sizeof peer.address);
    case EndpointConfig::Kind::Pty:
      break;
  }
  return write(fd_.Get(), bytes, size);
}

}  // namespace velta::sim
