// SPDX-License-Identifier: MIT
#include "endpoint.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

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
  if (Kind() == EndpointConfig::Kind::Pty) return "serial://" + (pty_ ? pty_->Path() : config_.path);
  const char* const scheme = Kind() == EndpointConfig::Kind::Tcp ? "tcp://" : "udp://";
  return scheme + config_.host + ":" + std::to_string(config_.port);
}

void Endpoint::Open() {
  if (Kind() == EndpointConfig::Kind::Pty) {
    pty_ = std::make_unique<Pty>(config_.path);
    return;
  }
  const bool is_tcp = Kind() == EndpointConfig::Kind::Tcp;
  if (is_tcp && !reserved_) reserved_ = Bind();
  Fd fd = Bind();
  if (is_tcp && listen(fd.Get(), 16) != 0) Throw("cannot listen on " + Link(), errno);
  fd_ = std::move(fd);
}

void Endpoint::Close() {
  fd_.Close();
  pty_.reset();
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
  return read(Descriptor(), bytes, size);
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
  return write(Descriptor(), bytes, size);
}

}  // namespace velta::sim
