// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_CRC16_H_
#define VELTA_SRC_CRC16_H_

#include <cstddef>

/// CRC-16/USB in two ways that give the same result for every input; protocol.h says which.
namespace velta::detail {

/// Eight independent look-ups per eight bytes.
unsigned short Crc16Sliced(const unsigned char* data, std::size_t length);

/// Folds 64 bytes at a time by carry-less multiplication.
/// @param length at least kCrc16FoldFrom
/// The processor must have what Crc16CanFold() asks for.
unsigned short Crc16Folded(const unsigned char* data, std::size_t length);
bool Crc16CanFold();
inline constexpr std::size_t kCrc16FoldFrom = 17;

}  // namespace velta::detail

#endif  // VELTA_SRC_CRC16_H_
