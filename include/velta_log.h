// SPDX-License-Identifier: MIT
#ifndef VELTA_LOG_H_
#define VELTA_LOG_H_

#include <functional>
#include <string_view>

#include "velta_export.h"

namespace velta {

enum class LogLevel {
  kInformation,  ///< by default a line on standard output
  kError         ///< by default a line on standard error: a failed system call with the system's text
};

/// Receives one line that the library would print, without its line end. The text lives as long as the call.
using LogSink = std::function<void(LogLevel, std::string_view)>;

/// Sends every line of the library to sink instead of standard output and standard error, for the whole process; an
/// empty sink restores the default.
///
/// Threads: any thread, at any time. The sink is called from the thread that logs, possibly from several at once, and
///          never with a lock of the library held: it may call any operation, also this one. A call that has begun when
///          the sink is replaced still runs the old one.
/// Errors:  what the sink throws is dropped.
VELTA_API void SetLogSink(LogSink sink);

}  // namespace velta

#endif  // VELTA_LOG_H_
