// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_WIRE_BYTES_H_
#define VELTA_TESTS_SUPPORT_WIRE_BYTES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "support/bytes.h"

namespace velta::test {

inline void AppendCrc(std::string& frame) {
  const unsigned crc = BitwiseCrc16({frame.begin(), frame.end()}, frame.size());
  frame += static_cast<char>(crc & 0xFF);
  frame += static_cast<char>(crc >> 8);
}

/// What differs from joint to joint in the status frames of the tools' tests.
struct StatusJoint {
  unsigned char system_mode = 2;
  unsigned char trj_status = 0;
  std::uint32_t ew_status = 0;
  float position = 0;
};

/// A good status frame; as text, so that tests can cut and join it.
inline std::string StatusText(std::uint64_t stamp, std::uint64_t echo, const std::vector<StatusJoint>& joints) {
  Bytes frame;
  frame.U8(0xAB).U8(0xCD).U64(stamp).U64(echo).F32(0);
  for (const StatusJoint& joint : joints) {
    frame.U16(0).U8(joint.system_mode).U8(0).U32(joint.ew_status).U8(joint.trj_status).U16(0);
    frame.Fill(24, 0).F32(joint.position).Fill(40, 0);
  }
  const std::vector<char>& bytes = frame.Crc();
  return {bytes.begin(), bytes.end()};
}

inline std::vector<char> Chars(const std::string& bytes) { return {bytes.begin(), bytes.end()}; }

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_WIRE_BYTES_H_
