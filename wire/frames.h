// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_FRAMES_H_
#define VELTA_WIRE_FRAMES_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "RecvPacket.h"
#include "SendPacket.h"

namespace velta::tools {

/// Joints that one status frame can carry in a datagram (79 n + 24 bytes).
inline constexpr int kMaxJoints = 828;

}  // namespace velta::tools

/// The controller's side of the wire.
namespace velta::sim {

/// Cuts whole command frames out of a byte stream that arrives in pieces of any size.
///
/// Units:   a command frame of n joints is S = 18 n + 13 bytes.
/// Errors:  counted. Garbage before a start mark is dropped; a false start mark or a bad CRC costs S bytes, as on the
///          host's side.
/// Threads: no lock; one thread at a time per object.
class CommandFramer {
 public:
  /// @param joints joints per frame (n), 1 or more
  explicit CommandFramer(int joints);

  /// Appends bytes and cuts what is complete.
  /// @return the commands with a right CRC, oldest first; an incomplete tail waits for more
  std::vector<SendPacket> Push(const char* bytes, std::size_t count);

  /// Forgets an incomplete tail: a new peer starts at a frame's first byte.
  void Reset() { buffer_.clear(); }

  std::uint64_t BadCrc() const { return bad_crc_; }       ///< frames dropped for their CRC
  std::uint64_t Garbage() const { return garbage_; }      ///< bytes dropped in front of start marks
  std::size_t Waiting() const { return buffer_.size(); }  ///< bytes of the incomplete tail

 private:
  std::size_t SearchMark(std::size_t from) const;

  int joints_;
  std::size_t frame_size_;
  std::vector<char> buffer_;
  std::uint64_t bad_crc_ = 0;
  std::uint64_t garbage_ = 0;
};

/// The status frame of a packet: 79 n + 24 bytes with the start mark set, whatever the packet's own first bytes are.
/// @param status n joint records in status.joints
std::vector<char> StatusFrame(const RecvPacket& status);

}  // namespace velta::sim

#endif  // VELTA_WIRE_FRAMES_H_
