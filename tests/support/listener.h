// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_LISTENER_H_
#define VELTA_TESTS_SUPPORT_LISTENER_H_

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>

#include "support/peer.h"
#include "support/process.h"

namespace velta::test {

/// A TCP controller that takes one host, keeps what arrives and never answers.
class Listener : public Peer {
 public:
  Listener() : Peer(Kind::Tcp) {}

  std::string Link() const { return tools::ToString(link); }

  /// @return the next bytes that arrive; fewer at the deadline or the connection's end
  std::string Read(std::size_t size) {
    const auto end = std::chrono::steady_clock::now() + Process::kPatience;
    while (taken_.size() < size && !ended && error != ECONNRESET && std::chrono::steady_clock::now() < end) {
      if (const auto bytes = Receive()) {
        taken_.append(bytes->begin(), bytes->end());
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    const std::string bytes = taken_.substr(0, size);
    taken_.erase(0, bytes.size());
    return bytes;
  }

 private:
  std::string taken_;
};

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_LISTENER_H_
