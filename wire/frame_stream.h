// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_FRAME_STREAM_H_
#define VELTA_WIRE_FRAME_STREAM_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "RecvPacket.h"
#include "SendPacket.h"

namespace velta::wire {

/// Joints that one status frame can carry in a datagram (79 n + 24 bytes).
inline constexpr int kMaxJoints = 828;

/// Whether a block's last two bytes are the CRC of all before them, as of frames and of a recording's records.
/// @param size bytes of the block, 2 to 65,537
bool CrcIsRight(const char* block, std::size_t size);

/// Cuts whole frames out of a byte stream that arrives in pieces of any size, and accounts for every byte.
///
/// Units:   a frame of n joints is S bytes: 18 n + 13 for a command, 79 n + 24 for a status.
/// Errors:  counted. Garbage before a start mark is dropped; a false start mark or a bad CRC costs S bytes, as it does
///          in the library.
/// Threads: no lock; one thread at a time per object.
///
/// @tparam Packet  SendPacket or RecvPacket
template <typename Packet>
class FrameStream {
 public:
  /// @param joints joints per frame (n), 0 or more
  explicit FrameStream(int joints);

  /// Appends bytes and cuts what is complete.
  /// @return the packets with a right CRC, oldest first; an incomplete tail waits for more
  std::vector<Packet> Push(const char* bytes, std::size_t size);

  /// Drops an incomplete tail: a new connection starts at a frame's first byte.
  void Restart();

  std::uint64_t Bytes() const { return bytes_; }         ///< pushed
  std::uint64_t Frames() const { return frames_; }       ///< with a right CRC
  std::uint64_t BadCrc() const { return bad_crc_; }      ///< frames dropped for their CRC
  std::uint64_t Garbage() const { return garbage_; }     ///< bytes dropped before start marks, or by Restart
  std::size_t FrameSize() const { return frame_size_; }  ///< S, bytes

  /// Bytes dropped, garbage and frames with a wrong CRC.
  std::uint64_t Discarded() const { return garbage_ + bad_crc_ * frame_size_; }

  /// Bytes of no good frame up to here, those of an incomplete tail too.
  std::uint64_t Lost() const { return bytes_ - frames_ * frame_size_; }

 private:
  std::size_t SearchMark(std::size_t from) const;

  int joints_;
  std::size_t frame_size_;
  std::vector<char> tail_;
  std::uint64_t bytes_ = 0, frames_ = 0, bad_crc_ = 0, garbage_ = 0;
};

using CommandStream = FrameStream<SendPacket>;
using StatusStream = FrameStream<RecvPacket>;

/// The status frame of a packet: 79 n + 24 bytes with the start mark set, whatever the packet's own first bytes are.
/// (SendPacket::GetCharVector makes the frame of a command.)
/// @param status n joint records in status.joints
std::vector<char> StatusFrame(const RecvPacket& status);

}  // namespace velta::wire

#endif  // VELTA_WIRE_FRAME_STREAM_H_
