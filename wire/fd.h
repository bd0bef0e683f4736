// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_FD_H_
#define VELTA_WIRE_FD_H_

#include <unistd.h>

#include <utility>

namespace velta::wire {

/// Owns a descriptor.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    other.Close();
    return *this;
  }
  ~Fd() { Close(); }

  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  int Get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace velta::wire

#endif  // VELTA_WIRE_FD_H_
