// SPDX-License-Identifier: MIT
#include "protocol.h"

#include <chrono>

#include "crc16.h"

namespace {

using velta::detail::Crc16Folded;
using velta::detail::Crc16Sliced;

/// Chosen when the library is loaded; null in constructors that run before.
const auto long_crc = velta::detail::Crc16CanFold() ? &Crc16Folded : &Crc16Sliced;

}  // namespace

unsigned short CalcCrc16(const unsigned char* data, unsigned short length) {
  if (length < velta::detail::kCrc16FoldFrom || long_crc == nullptr) return Crc16Sliced(data, length);
  return long_crc(data, length);
}

unsigned long GetNowTimeStamp() {
  using std::chrono::nanoseconds;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<unsigned long>(std::chrono::duration_cast<nanoseconds>(now).count());
}
