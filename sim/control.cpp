// SPDX-License-Identifier: MIT
#include "control.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "velta_link.h"

namespace velta::sim {

namespace {

constexpr std::size_t kMaxLine = 65536;
constexpr int kMaxWaiting = 8;
constexpr const char* kUnix = "unix:";

[[noreturn]] void Fail(const std::string& endpoint, const std::string& why) {
  throw ControlError(endpoint + ": " + why);
}

[[noreturn]] void FailWithReason(const std::string& endpoint) {
  Fail(endpoint, std::generic_category().message(errno));
}

struct Address {
  sockaddr_storage bytes{};
  socklen_t size = 0;
  std::string path;  ///< of a Unix socket

  sockaddr* Generic() { return reinterpret_cast<sockaddr*>(&bytes); }
};

Address Parse(const std::string& endpoint) {
  Address address;
  if (endpoint.rfind(kUnix, 0) == 0) {
    auto& local = reinterpret_cast<sockaddr_un&>(address.bytes);
    address.path = endpoint.substr(std::strlen(kUnix));
    if (address.path.empty()) Fail(endpoint, "a path must follow 'unix:'");
    if (address.path.size() >= sizeof local.sun_path) Fail(endpoint, "the path is too long for a socket");
    local.sun_family = AF_UNIX;
    std::copy(address.path.begin(), address.path.end(), local.sun_path);
    address.size = sizeof local;
    return address;
  }
  LinkAddress link;
  std::string why;
  if (!ParseLinkAddress(endpoint, link, why)) Fail(endpoint, why);
  if (link.kind != LinkAddress::Kind::kTcp || link.host != "127.0.0.1") {
    Fail(endpoint, "only unix:PATH and tcp://127.0.0.1:PORT are for control lines");
  }
  auto& loopback = reinterpret_cast<sockaddr_in&>(address.bytes);
  loopback.sin_family = AF_INET;
  loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  loopback.sin_port = htons(static_cast<std::uint16_t>(link.port));
  address.size = sizeof loopback;
  return address;
}

wire::Fd OpenSocket(const Address& address, int flags) {
  return wire::Fd(socket(address.path.empty() ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

/// @return whether a socket is at the path that nobody listens on any more
bool IsLeftOver(Address& address) {
  struct stat info {};
  if (lstat(address.path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) return false;
  const wire::Fd probe = OpenSocket(address, 0);
  return connect(probe.Get(), address.Generic(), address.size) != 0 && errno == ECONNREFUSED;
}

}  // namespace

Control::Control(const std::string& endpoint, std::function<void(const std::string& line)> take)
    : endpoint_(endpoint), take_(std::move(take)) {
  Address address = Parse(endpoint);
  if (IsLeftOver(address)) unlink(address.path.c_str());
  listener_ = OpenSocket(address, SOCK_NONBLOCK);
  const mode_t mask = umask(0077);
  const bool is_bound = bind(listener_.Get(), address.Generic(), address.size) == 0;
  const int error = errno;
  umask(mask);
  errno = error;
  if (!is_bound) FailWithReason(endpoint);
  path_ = address.path;
  if (listen(listener_.Get(), kMaxWaiting) != 0) FailWithReason(endpoint);
  if (!path_.empty()) return;
  getsockname(listener_.Get(), address.Generic(), &address.size);
  endpoint_ = "tcp://127.0.0.1:" + std::to_string(ntohs(reinterpret_cast<sockaddr_in&>(address.bytes).sin_port));
}

Control::~Control() {
  if (!path_.empty()) unlink(path_.c_str());
}

void Control::Step() {
  for (;;) {
    auto fd = std::make_unique<wire::Fd>(accept4(listener_.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!*fd) break;
    clients_.push_back({std::move(fd), ""});
  }
  clients_.erase(std::remove_if(clients_.begin(), clients_.end(), [this](Client& client) { return !Serve(client); }),
                 clients_.end());
}

/// @return whether the client is still there
bool Control::Serve(Client& client) {
  char bytes[4096];
  const ssize_t count = recv(client.fd->Get(), bytes, sizeof bytes, 0);
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  if (count == 0) return false;
  client.line.append(bytes, static_cast<std::size_t>(count));
  for (std::size_t end; (end = client.line.find('\n')) != std::string::npos; client.line.erase(0, end + 1)) {
    const std::string line = client.line.substr(0, end);
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    const std::string answer = Answer(line) + "\n";
    const auto size = static_cast<ssize_t>(answer.size());
    if (send(client.fd->Get(), answer.data(), answer.size(), MSG_NOSIGNAL) != size) return false;
  }
  return client.line.size() <= kMaxLine;
}

std::string Control::Answer(const std::string& line) const {
  try {
    take_(line);
    return R"({"ok":true})";
  } catch (const std::invalid_argument& error) {
    return nlohmann::ordered_json{{"ok", false}, {"error", error.what()}}.dump(
        -1, ' ', false, nlohmann::json::error_handler_t::replace);
  }
}

std::string SendControlLine(const std::string& endpoint, const std::string& line) {
  Address address = Parse(endpoint);
  const wire::Fd fd = OpenSocket(address, 0);
  const timeval patience{5, 0};
  setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  const std::string sent = line + "\n";
  if (connect(fd.Get(), address.Generic(), address.size) != 0 ||
      send(fd.Get(), sent.data(), sent.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(sent.size())) {
    FailWithReason(endpoint);
  }
  std::string answer;
  while (answer.empty() || answer.back() != '\n') {
    char bytes[4096];
    const ssize_t count = recv(fd.Get(), bytes, sizeof bytes, 0);
    if (count == 0) Fail(endpoint, "the connection ended without an answer");
    if (count < 0) errno == EAGAIN ? Fail(endpoint, "no answer within 5 s") : FailWithReason(endpoint);
    answer.append(bytes, static_cast<std::size_t>(count));
  }
  answer.pop_back();
  return answer;
}

}  // namespace velta::sim
