// SPDX-License-Identifier: MIT
#include "record_bytes.h"

#include <algorithm>
#include <cstring>

#include "protocol.h"

namespace velta::recording {

namespace {

/// head, then bytes, then the CRC over both.
template <typename Head>
std::vector<char> Block(const Head& head, const char* bytes, std::size_t size) {
  const std::size_t covered = sizeof head + size;
  std::vector<char> block(covered + kCrcSize);
  std::memcpy(block.data(), &head, sizeof head);
  if (size != 0) std::memcpy(block.data() + sizeof head, bytes, size);
  const std::uint16_t crc =
      CalcCrc16(reinterpret_cast<const unsigned char*>(block.data()), static_cast<unsigned short>(covered));
  std::memcpy(block.data() + covered, &crc, sizeof crc);
  return block;
}

}  // namespace

std::vector<char> HeaderBytes(int joints, std::string_view link) {
  const std::size_t length = std::min(link.size(), kMaxLinkText);
  const FileHead head{kMagic, kVersion, static_cast<std::uint16_t>(joints), static_cast<std::uint16_t>(length)};
  return Block(head, link.data(), length);
}

std::vector<char> RecordBytes(Event event, std::uint64_t monotonic_ns, std::uint64_t wall_ns, const char* bytes,
                              std::size_t size) {
  const RecordHead head{kRecordMark, static_cast<std::uint8_t>(event), static_cast<std::uint16_t>(size), monotonic_ns,
                        wall_ns};
  return Block(head, bytes, size);
}

}  // namespace velta::recording
