// SPDX-License-Identifier: MIT
#include "velta_log.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <utility>

#include "log.h"

namespace {

using SharedSink = std::shared_ptr<const velta::LogSink>;

struct Log {
  std::mutex sink_mutex;
  SharedSink sink;  ///< null: the default
  std::mutex output_mutex;
};

/// Never destroyed: objects with static storage may print while the process ends.
Log& TheLog() {
  static Log& log = *new Log;
  return log;
}

SharedSink CurrentSink() {
  const std::lock_guard<std::mutex> lock(TheLog().sink_mutex);
  return TheLog().sink;
}

/// Prints text, with its line end if it has one, in one write.
void Print(velta::LogLevel level, const std::string& text) {
  const std::lock_guard<std::mutex> lock(TheLog().output_mutex);
  if (level == velta::LogLevel::kError) {
    std::fwrite(text.data(), 1, text.size(), stderr);
  } else {
    std::cout << text << std::flush;
  }
}

thread_local int muted = 0;

void Emit(velta::LogLevel level, std::string line) {
  if (muted != 0) return;
  const SharedSink sink = CurrentSink();
  if (sink == nullptr) return Print(level, line += '\n');
  try {
    (*sink)(level, line);
  } catch (...) {  // a log that fails must not stop an arm's steps
  }
}

}  // namespace

namespace velta {

void SetLogSink(LogSink sink) {
  SharedSink shared = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  const std::lock_guard<std::mutex> lock(TheLog().sink_mutex);
  TheLog().sink.swap(shared);
}  // the lock goes first, then the old sink

namespace detail {

void LogLine(std::string_view line) { Emit(LogLevel::kInformation, std::string(line)); }

void LogError(std::string_view message, int error) {
  char buffer[256];
  std::string line(message);
  if (!line.empty()) line += ": ";
  Emit(LogLevel::kError, line += strerror_r(error, buffer, sizeof buffer));
}

Muted::Muted() { ++muted; }
Muted::~Muted() { --muted; }

LogAttempt::LogAttempt(std::string beginning) : text_(std::move(beginning)) {
  if (CurrentSink() != nullptr) return;
  Print(LogLevel::kInformation, text_);
  text_.clear();
}

void LogAttempt::End(std::string_view end) { LogLine(text_.append(end)); }

}  // namespace detail
}  // namespace velta
