// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_STATUS_FRAME_H_
#define VELTA_SRC_STATUS_FRAME_H_

#include <cstddef>

#include "RecvPacket.h"

namespace velta::detail {

/// @return whether the CRC of a status frame is right
/// @param frame  the frame's bytes
/// @param size   their count, at least 24
bool StatusCrcIsRight(const char* frame, std::size_t size);

/// Copies header and records of a frame of packet.packetSize bytes into packet, unchecked.
void CopyStatusFrame(const char* frame, RecvPacket& packet);

}  // namespace velta::detail

#endif  // VELTA_SRC_STATUS_FRAME_H_
