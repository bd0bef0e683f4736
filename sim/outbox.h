// SPDX-License-Identifier: MIT
#ifndef VELTA_SIM_OUTBOX_H_
#define VELTA_SIM_OUTBOX_H_

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <vector>

#include "channel.h"

namespace velta::sim {

using Clock = std::chrono::steady_clock;

/// What is on its way to one host: frames that are late, frames that wait for company, and writes that the host has not
/// taken yet.
///
/// Threads: no lock.
class Outbox {
 public:
  /// Over a stream nothing overtakes: what is added after a late frame leaves after it.
  explicit Outbox(bool is_stream) : is_stream_(is_stream) {}

  std::size_t Bytes() const { return bytes_; }  ///< on their way

  /// Keeps bytes until they are due.
  /// @return the bytes, when they are due now already
  std::optional<std::vector<char>> Delay(std::vector<char> bytes, Clock::time_point due, Clock::time_point now);

  /// @return the next bytes that are due
  std::optional<std::vector<char>> TakeDue(Clock::time_point now);

  /// @return when TakeDue has something; nothing when no bytes are late
  std::optional<Clock::time_point> NextDue() const;

  /// Adds a frame to be written.
  /// @param frames    how many leave in one write
  /// @param bytewise  whether the write is done byte by byte
  void Add(std::vector<char> bytes, int frames, bool bytewise);

  bool HasWrites() const { return !writes_.empty(); }

  /// Writes what the channel takes.
  /// @param[in,out] lost  counts datagrams that the system did not take
  /// @return false when the channel is broken
  bool Flush(wire::Channel& channel, std::uint64_t& lost);

 private:
  struct Write {
    std::vector<char> bytes;
    bool bytewise;
  };
  struct Late {
    Clock::time_point due;
    std::vector<char> bytes;
  };

  void Push(std::vector<char> bytes, bool bytewise);

  bool is_stream_;
  std::size_t bytes_ = 0;      ///< in late_ and writes_
  std::deque<Late> late_;      ///< soonest first
  std::vector<char> company_;  ///< frames that wait for company
  int company_frames_ = 0;
  std::deque<Write> writes_;
  std::size_t written_ = 0;  ///< bytes of the first write that have left
};

}  // namespace velta::sim

#endif  // VELTA_SIM_OUTBOX_H_
