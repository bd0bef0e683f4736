// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_CLOCK_H_
#define VELTA_WIRE_CLOCK_H_

#include <chrono>
#include <cstdint>

namespace velta::tools {

/// @return nanoseconds of the monotonic clock: for durations, untouched by changes of the system time
inline std::int64_t MonotonicNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace velta::tools

#endif  // VELTA_WIRE_CLOCK_H_
