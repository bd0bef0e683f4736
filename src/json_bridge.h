// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_JSON_BRIDGE_H_
#define VELTA_SRC_JSON_BRIDGE_H_

#include <string>
#include <vector>

#include "RecvPacket.h"
#include "SendPacket.h"

/// Status packets as JSON documents, and a command packet from one. The only unit that uses the JSON library.
namespace velta::detail {

/// @param joint_num joints that each document shows, as far as the packet has them
/// @return one compact document per packet
std::vector<std::string> StatesToJson(const std::vector<RecvPacket>& packets, int joint_num);

/// @param joint_num joints of the packet
/// @return the document's command
/// Throws std::exception for text that is no command document, also what the JSON library throws for numbers that it
/// cannot hold.
SendPacket CommandFromJson(const std::string& json, int joint_num);

}  // namespace velta::detail

#endif  // VELTA_SRC_JSON_BRIDGE_H_
