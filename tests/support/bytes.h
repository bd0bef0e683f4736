// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_BYTES_H_
#define VELTA_TESTS_SUPPORT_BYTES_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace velta::test {

/// CRC-16/USB bit by bit, on purpose not the way the library does it.
inline unsigned BitwiseCrc16(const std::vector<char>& bytes, std::size_t length) {
  if (length == 0) return 0;
  unsigned crc = 0xFFFF;
  for (std::size_t i = 0; i < length; ++i) {
    crc ^= static_cast<unsigned char>(bytes[i]);
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? crc >> 1 ^ 0xA001 : crc >> 1;
  }
  return crc ^ 0xFFFF;
}

/// A frame built by hand, little-endian.
class Bytes {
 public:
  Bytes& U8(unsigned v) { return Append(v, 1); }
  Bytes& U16(unsigned v) { return Append(v, 2); }
  Bytes& U32(std::uint64_t v) { return Append(v, 4); }
  Bytes& U64(std::uint64_t v) { return Append(v, 8); }
  Bytes& F32(float v) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, &v, sizeof bits);
    return U32(bits);
  }
  Bytes& Fill(std::size_t count, unsigned v) {
    bytes_.insert(bytes_.end(), count, static_cast<char>(v));
    return *this;
  }
  Bytes& Add(const std::vector<char>& more) {
    bytes_.insert(bytes_.end(), more.begin(), more.end());
    return *this;
  }
  /// Ends a frame: its CRC over everything so far, the length cut to 16 bits.
  Bytes& Crc() { return U16(BitwiseCrc16(bytes_, bytes_.size() & 0xFFFF)); }

  operator const std::vector<char>&() const { return bytes_; }  // NOLINT(google-explicit-constructor)

 private:
  Bytes& Append(std::uint64_t v, int count) {
    for (int i = 0; i < count; ++i) bytes_.push_back(static_cast<char>(v >> (8 * i) & 0xFF));
    return *this;
  }
  std::vector<char> bytes_;
};

/// A good status frame of n joints; every record byte is `fill`.
inline std::vector<char> StatusFrame(int n, std::uint64_t timestamp, std::uint64_t host_timestamp = 0,
                                     unsigned fill = 0) {
  Bytes frame;
  frame.U8(0xAB).U8(0xCD).U64(timestamp).U64(host_timestamp).F32(0).Fill(79 * static_cast<std::size_t>(n), fill);
  return frame.Crc();
}

/// A command document: 8 to the position of joint 0.
inline constexpr const char* kDocument =
    R"({"armOrder":"0","jointCommand":[{"jointName":"1","jointOrder":"17","value1":"8",)"
    R"("value2":"0","value3":"0","value4":"0"}]})";

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_BYTES_H_
