// SPDX-License-Identifier: MIT
#ifndef VELTA_SIM_CONTROL_H_
#define VELTA_SIM_CONTROL_H_

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "fd.h"

namespace velta::sim {

/// An endpoint for control lines that is odd, or cannot be used; one line that names it.
struct ControlError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Takes lines of a fault script from other programs while a server runs, and answers each with one JSON line:
/// {"ok":true}, or {"ok":false,"error":"why"}. Blank lines are skipped. Any number of programs at a time; none is
/// waited for.
///
/// Errors:  the constructor throws ControlError; a program that sends a line of more than 64 KiB, or does not read its
///          answers, is disconnected.
/// Threads: no lock; one thread at a time.
class Control {
 public:
  /// @param endpoint  "unix:PATH", for this user only, or "tcp://127.0.0.1:PORT"; port 0 lets the system choose. What a
  ///                  dead program left at PATH is replaced.
  /// @param take      carries a line out, or throws std::invalid_argument with one line
  Control(const std::string& endpoint, std::function<void(const std::string& line)> take);
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;
  ~Control();  ///< removes PATH

  const std::string& Endpoint() const { return endpoint_; }  ///< with the port that the system chose

  /// Takes and answers what has come. Never waits.
  void Step();

 private:
  struct Client {
    std::unique_ptr<wire::Fd> fd;
    std::string line;
  };

  bool Serve(Client& client);
  std::string Answer(const std::string& line) const;

  std::string endpoint_;
  std::string path_;
  std::function<void(const std::string& line)> take_;
  wire::Fd listener_;
  std::vector<Client> clients_;
};

/// Sends one line to a Control, and waits up to five seconds for the answer.
/// @return the answer, without the end of the line
/// @throws ControlError
std::string SendControlLine(const std::string& endpoint, const std::string& line);

}  // namespace velta::sim

#endif  // VELTA_SIM_CONTROL_H_
