// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_PTY_H_
#define VELTA_WIRE_PTY_H_

#include <string>

#include "fd.h"

namespace velta::wire {

/// The controller's end of a pseudo terminal, in raw mode and non-blocking, with a link that leads hosts to its device.
///
/// Threads: no lock; one thread at a time.
class Pty {
 public:
  /// @param path  of the symbolic link, which lasts as long as the object; empty for none. One that leads to a pty
  ///              already is replaced: an earlier run may have left it behind.
  /// @throws LinkError
  explicit Pty(const std::string& path);
  Pty(const Pty&) = delete;
  Pty& operator=(const Pty&) = delete;
  ~Pty();

  const Fd& Master() const { return master_; }

  /// What a host opens: the link, or the device where there is none.
  const std::string& Path() const { return path_.empty() ? device_ : path_; }

  /// Whether someone has the device open.
  bool HasUser() const;

  /// Drops what the host has not read.
  void Flush() const;

 private:
  void Link();

  std::string path_;
  std::string device_;
  Fd master_;
};

}  // namespace velta::wire

#endif  // VELTA_WIRE_PTY_H_
