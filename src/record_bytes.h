// SPDX-License-Identifier: MIT
#ifndef VELTA_RECORD_BYTES_H_
#define VELTA_RECORD_BYTES_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

/// @file
/// The bytes of a recording. docs/recording.md describes the file for readers in other languages.
///
/// All numbers are little-endian; each CRC is the frames' CRC-16 (CalcCrc16), over all bytes of its block before it.
///
///   file header                                  record, repeated to the end of the file
///   0   8  89 56 52 45 43 0D 0A 1A               0      1  52 ('R')
///   8   2  version, 1                            1      1  event: 0 to controller, 1 to host, 2 opened, 3 closed
///   10  2  joint count n                         2      2  bytes that passed (L), 0..65,507
///   12  2  length of the link's text (T), 0..1024  4    8  monotonic clock, ns
///   14  T  the link, as the tools take it        12     8  wall clock, ns since the Unix epoch
///   14+T 2 CRC                                   20     L  the bytes, unchanged
///                                                20+L   2  CRC
///
/// Built into the library, whose flight recorder writes it, and into the room that reads it.
namespace velta::recording {

inline constexpr std::array<char, 8> kMagic{'\x89', 'V', 'R', 'E', 'C', '\r', '\n', '\x1a'};
inline constexpr std::uint16_t kVersion = 1;
inline constexpr char kRecordMark = 'R';
inline constexpr std::size_t kMaxLinkText = 1024;
inline constexpr std::size_t kMaxRecordBytes = 65507;  ///< L; the most that a datagram carries

/// What happens on a link.
enum class Event : std::uint8_t {
  kToController = 0,  ///< bytes from the host
  kToHost = 1,        ///< bytes from the controller
  kOpened = 2,        ///< host and controller are connected: both streams begin at a frame's first byte
  kClosed = 3         ///< the connection ended
};

struct __attribute__((packed)) FileHead {
  std::array<char, 8> magic;
  std::uint16_t version;
  std::uint16_t joints;
  std::uint16_t link_length;
};
static_assert(sizeof(FileHead) == 14);

struct __attribute__((packed)) RecordHead {
  char mark;
  std::uint8_t event;
  std::uint16_t length;
  std::uint64_t monotonic_ns;
  std::uint64_t wall_ns;
};
static_assert(sizeof(RecordHead) == 20);
static_assert(sizeof(RecordHead) + kMaxRecordBytes <= 0xFFFF, "one CRC covers a whole record");

/// @param joints  joints per frame (n), 1 to 828
/// @param link    the controller's link; what exceeds kMaxLinkText is cut off
/// @return the file header, 16 + T bytes
std::vector<char> HeaderBytes(int joints, std::string_view link);

/// @param monotonic_ns  when it happened, by CLOCK_MONOTONIC
/// @param wall_ns       the same moment, nanoseconds since the Unix epoch
/// @param bytes         size bytes, 0 to kMaxRecordBytes; none for kOpened and kClosed
/// @return the record, 22 + L bytes
std::vector<char> RecordBytes(Event event, std::uint64_t monotonic_ns, std::uint64_t wall_ns,
                              const char* bytes = nullptr, std::size_t size = 0);

}  // namespace velta::recording

#endif  // VELTA_RECORD_BYTES_H_
