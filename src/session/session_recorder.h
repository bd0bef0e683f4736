// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_SESSION_RECORDER_H_
#define VELTA_SRC_SESSION_RECORDER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "record_bytes.h"
#include "session_sync.h"

namespace velta::detail {

/// The last seconds of a link, byte for byte, in memory that is allocated once. The oldest records leave first.
///
/// Threads: Add by the loop; it waits for a writer of a file no longer than for a copy of some thousand bytes.
class FlightRecorder {
 public:
  using Event = recording::Event;

  /// @param length  how much is written of what is kept
  /// @param rate    records of the largest size that are expected per second
  FlightRecorder(int joints, std::string link, Nanos length, double rate);

  void Add(Event event, const char* bytes = nullptr, std::size_t size = 0);

  /// Writes a recording.
  /// @param[out] why  one line, when the result is false
  bool Write(const std::string& path, std::string& why);

 private:
  /// What precedes the bytes of a record in memory.
  struct Head {
    Nanos steady_ns;
    std::uint64_t wall_ns;
    std::uint32_t size;
    Event event;
  };
  void CopyIn(std::uint64_t at, const void* bytes, std::size_t size);
  void CopyOut(std::uint64_t at, void* bytes, std::size_t size) const;

  const int joints_;
  const std::string link_;
  const Nanos length_;
  const std::size_t capacity_;  ///< bytes
  const std::unique_ptr<char[]> ring_;
  InheritingMutex mutex_;
  std::uint64_t begin_ = 0, end_ = 0;  ///< counts of bytes since the start; position % capacity_ is the place
};

}  // namespace velta::detail

#endif  // VELTA_SRC_SESSION_RECORDER_H_
