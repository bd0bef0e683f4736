// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_PACKET_FRAMES_H_
#define VELTA_SRC_PACKET_FRAMES_H_

#include <cstddef>
#include <limits>
#include <vector>

#include "PacketParser.h"
#include "RecvPacket.h"
#include "SendPacket.h"

/// Packets to frames and frames to packets.
namespace velta::detail {

/// SendPacket::GetCharVector into memory that is there already.
/// @param[out] frame  the frame, 18 n + 13 bytes, in place of what it held
void WriteCommandFrame(const SendPacket& packet, std::vector<char>& frame);

/// @return bytes of a status frame of n joints; for an n that no frame can have, a size that no buffer has
constexpr std::size_t StatusFrameSize(int jointNum) {
  constexpr unsigned kMaxJoints =
      (std::numeric_limits<int>::max() - StatusFrameSizes(0).packet) / int{sizeof(rxJoint_t)};
  return static_cast<unsigned>(jointNum) <= kMaxJoints
             ? sizeof(rxHeader_t) + sizeof(rxJoint_t) * static_cast<std::size_t>(jointNum) + kCrcSize
             : std::numeric_limits<std::size_t>::max();
}

/// @return whether the CRC of a status frame is right
/// @param frame  the frame's bytes
/// @param size   their count, at least 24
bool StatusCrcIsRight(const char* frame, std::size_t size);

/// Copies header and records of a frame of StatusFrameSize(packet.jointNum) bytes into packet, unchecked.
void CopyStatusFrame(const char* frame, RecvPacket& packet);

/// What became of a piece of a stream.
struct Received {
  std::size_t packets = 0;    ///< frames with a right CRC
  std::size_t bad_crc = 0;    ///< frames with a wrong one
  std::size_t discarded = 0;  ///< bytes of no good frame
};

/// PacketParser's Push and Parse in one; where nothing is buffered, the bytes are cut where they lie. When memory runs
/// out, nothing of the stream is lost if what is left in bytes is pushed later.
/// @param[in,out] bytes    what arrived; empty afterwards, or when memory ran out, what the parser has not taken
/// @param[out]    joined   working memory
/// @param[in,out] packets  overwritten from the front, made longer where that is not enough
Received ReceiveFrames(PacketParser& parser, std::vector<char>& bytes, std::vector<char>& joined,
                       std::vector<RecvPacket>& packets);

}  // namespace velta::detail

#endif  // VELTA_SRC_PACKET_FRAMES_H_
