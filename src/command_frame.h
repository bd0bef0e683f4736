// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_COMMAND_FRAME_H_
#define VELTA_SRC_COMMAND_FRAME_H_

#include <vector>

#include "SendPacket.h"

namespace velta::detail {

/// SendPacket::GetCharVector into memory that is there already.
/// @param[out] frame  the frame, 18 n + 13 bytes, in place of what it held
void WriteCommandFrame(const SendPacket& packet, std::vector<char>& frame);

}  // namespace velta::detail

#endif  // VELTA_SRC_COMMAND_FRAME_H_
