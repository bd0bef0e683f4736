// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_CLOCK_H_
#define VELTA_WIRE_CLOCK_H_

#include <chrono>
#include <cstdint>

#include "protocol.h"

namespace velta::wire {

/// @return nanoseconds of the monotonic clock: for durations, untouched by changes of the system time
inline std::int64_t MonotonicNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

/// A moment by both clocks.
struct Stamp {
  std::uint64_t monotonic_ns;  ///< the clock that never jumps
  std::uint64_t wall_ns;       ///< nanoseconds since the Unix epoch
};
inline Stamp StampNow() { return {static_cast<std::uint64_t>(MonotonicNs()), GetNowTimeStamp()}; }

}  // namespace velta::wire

#endif  // VELTA_WIRE_CLOCK_H_
