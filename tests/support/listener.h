// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_LISTENER_H_
#define VELTA_TESTS_SUPPORT_LISTENER_H_

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "support/process.h"

namespace velta::test {

/// A TCP port that takes one connection, keeps what arrives and never answers.
class Listener {
 public:
  Listener() : listening_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(listening_, reinterpret_cast<sockaddr*>(&address), size);
    listen(listening_, 1);
    getsockname(listening_, reinterpret_cast<sockaddr*>(&address), &size);
    link_ = "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() {
    if (accepted_ >= 0) close(accepted_);
    close(listening_);
  }

  const std::string& Link() const { return link_; }

  /// @return the first bytes that arrive; fewer at the deadline or the connection's end
  std::string Read(std::size_t size) {
    pollfd polled{listening_, POLLIN, 0};
    if (accepted_ < 0 && poll(&polled, 1, static_cast<int>(Process::kPatience.count())) == 1) {
      accepted_ = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC);
    }
    std::string bytes;
    polled.fd = accepted_;
    while (bytes.size() < size && poll(&polled, 1, static_cast<int>(Process::kPatience.count())) == 1) {
      char buffer[4096];
      const ssize_t count = read(accepted_, buffer, std::min(sizeof buffer, size - bytes.size()));
      if (count <= 0) break;
      bytes.append(buffer, static_cast<std::size_t>(count));
    }
    return bytes;
  }

 private:
  int listening_;
  int accepted_ = -1;
  std::string link_;
};

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_LISTENER_H_
