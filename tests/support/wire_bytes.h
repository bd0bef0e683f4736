// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_WIRE_BYTES_H_
#define VELTA_TESTS_SUPPORT_WIRE_BYTES_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

/// Frames put together byte by byte from the wire format, without the code under test.
namespace velta::test {

/// The frames' CRC, bit by bit.
inline unsigned Crc(const std::string& bytes) {
  unsigned crc = 0xFFFF;
  for (const char c : bytes) {
    crc ^= static_cast<unsigned char>(c);
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xA001U : crc >> 1;
  }
  return crc ^ 0xFFFFU;
}

inline void AppendU64(std::string& bytes, std::uint64_t value) {
  for (int i = 0; i < 8; ++i, value >>= 8) bytes += static_cast<char>(value & 0xFF);
}

inline void AppendCrc(std::string& bytes) {
  const unsigned crc = Crc(bytes);
  bytes += static_cast<char>(crc & 0xFF);
  bytes += static_cast<char>(crc >> 8);
}

/// What differs from joint to joint in the status frames of tests.
struct StatusJoint {
  unsigned char system_mode = 2;
  unsigned char trj_status = 0;
  std::uint32_t ew_status = 0;
  float position = 0;
};

inline std::string StatusBytes(std::uint64_t stamp, std::uint64_t echo, const std::vector<StatusJoint>& joints) {
  std::string bytes = "\xAB\xCD";
  AppendU64(bytes, stamp);
  AppendU64(bytes, echo);
  bytes.append(4, '\0');
  for (const StatusJoint& joint : joints) {
    std::string record(79, '\0');
    record[2] = static_cast<char>(joint.system_mode);
    for (std::size_t i = 0; i < 4; ++i) record[4 + i] = static_cast<char>(joint.ew_status >> (8 * i) & 0xFF);
    record[8] = static_cast<char>(joint.trj_status);
    std::memcpy(&record[35], &joint.position, 4);
    bytes += record;
  }
  AppendCrc(bytes);
  return bytes;
}

inline std::vector<char> Chars(const std::string& bytes) { return {bytes.begin(), bytes.end()}; }

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_WIRE_BYTES_H_
