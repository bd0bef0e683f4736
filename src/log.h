// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_LOG_H_
#define VELTA_SRC_LOG_H_

#include <string>
#include <string_view>

#include "velta_log.h"

/// The one way out for everything that the library prints: to the log sink, or else to standard output and standard
/// error, each line in one write.
namespace velta::detail {

void LogLine(std::string_view line);

/// Reports message and the system's text of error, as perror prints them.
/// @param error  the error number, saved right after the call that failed
void LogError(std::string_view message, int error);

/// While it lives, its thread's lines go nowhere: the session reports by events what a client prints.
class Muted {
 public:
  Muted();
  Muted(const Muted&) = delete;
  Muted& operator=(const Muted&) = delete;
  ~Muted();
};

/// A line whose end is known later only. By default its beginning is printed at once; a sink receives the whole line.
class LogAttempt {
 public:
  explicit LogAttempt(std::string beginning);
  void End(std::string_view end);

 private:
  std::string text_;  ///< what is not printed yet
};

}  // namespace velta::detail

#endif  // VELTA_SRC_LOG_H_
