// SPDX-License-Identifier: MIT
#include "protocol.h"

#include <array>
#include <chrono>

namespace {

/// Byte-wise table of the reflected polynomial 0xA001; entry 1 is 0xC0C1.
constexpr std::array<unsigned short, 256> MakeTable() {
  std::array<unsigned short, 256> table{};
  for (unsigned i = 0; i < table.size(); ++i) {
    unsigned crc = i;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xA001u : 0u);
    table[i] = static_cast<unsigned short>(crc);
  }
  return table;
}

constexpr std::array<unsigned short, 256> kTable = MakeTable();
static_assert(kTable[1] == 0xC0C1);

}  // namespace

unsigned short CalcCrc16(const unsigned char* data, unsigned short length) {
  if (length == 0) return 0;
  unsigned crc = 0xFFFF;
  for (unsigned i = 0; i < length; ++i) crc = (crc >> 8) ^ kTable[(crc ^ data[i]) & 0xFF];
  return static_cast<unsigned short>(crc ^ 0xFFFF);
}

unsigned long GetNowTimeStamp() {
  using std::chrono::nanoseconds;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<unsigned long>(std::chrono::duration_cast<nanoseconds>(now).count());
}
