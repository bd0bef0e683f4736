// SPDX-License-Identifier: MIT
#ifndef VELTA_PYTHON_NOTES_H_
#define VELTA_PYTHON_NOTES_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace velta::python {

/// Counts what happened, for threads that wait for it; none of them holds the GIL here.
class Signal {
 public:
  std::uint64_t Value() const { return value_.load(std::memory_order_acquire); }
  void Raise();
  /// Waits until the value differs from seen, or the time is over.
  /// @return whether it differs
  bool Wait(std::uint64_t seen, std::chrono::nanoseconds timeout);

 private:
  std::atomic<std::uint64_t> value_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
};

/// What threads of the library leave for Python, so that none of them ever waits for the GIL: lines of the log, and
/// tokens that coroutines wait for.
struct Note {
  std::uint64_t token = 0;  ///< 0: a line of the log
  bool is_error = false;
  std::string text;
  Note* next = nullptr;
};

class Notes {
 public:
  /// The process's own; another one in a forked child.
  static Notes& Of();
  static void Renew();

  static std::uint64_t NewToken();

  void Log(bool is_error, std::string text);
  void Done(std::uint64_t token);
  bool IsEmpty() const { return newest_.load(std::memory_order_relaxed) == nullptr; }

  /// @return all notes, oldest first; the caller frees them
  Note* TakeAll();

  /// Waits for a note. @return false once End() was called
  bool Wait(std::chrono::nanoseconds timeout);
  void End();

 private:
  void Push(Note* note);

  static constexpr int kMostLines = 10000;
  std::atomic<Note*> newest_{nullptr};
  std::atomic<int> lines_{0};
  std::atomic<bool> is_over_{false};
  Signal signal_;
};

/// Hands what waits in Notes to velta._notes.deliver; with the GIL.
void DeliverNotes();

}  // namespace velta::python

#endif  // VELTA_PYTHON_NOTES_H_
