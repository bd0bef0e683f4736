// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_COUNTED_H_
#define VELTA_WIRE_COUNTED_H_

#include <cstdint>
#include <string>

namespace velta::wire {

/// @return "1 frame", "2 frames"
inline std::string Counted(std::uint64_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

}  // namespace velta::wire

#endif  // VELTA_WIRE_COUNTED_H_
