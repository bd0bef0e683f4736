// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_JSON_BRIDGE_H_
#define VELTA_SRC_JSON_BRIDGE_H_

#include <memory>
#include <string>

#include "RecvPacket.h"
#include "SendPacket.h"

/// Status packets as JSON documents, and a command packet from one. The only unit that uses the JSON library.
namespace velta::detail {

/// A status packet's document. Its tree is kept and overwritten by the next packet.
class StateDocument {
 public:
  StateDocument();
  StateDocument(const StateDocument&) = delete;
  StateDocument& operator=(const StateDocument&) = delete;
  ~StateDocument();

  /// @param joint_num joints that the document shows, as far as the packet has them
  /// @return the compact text
  std::string Text(const RecvPacket& packet, int joint_num);

 private:
  struct Tree;
  std::unique_ptr<Tree> tree_;
};

/// @param joint_num joints of the packet
/// @return the document's command
/// Throws std::exception for text that is no command document, also what the JSON library throws for numbers that it
/// cannot hold.
SendPacket CommandFromJson(const std::string& json, int joint_num);

}  // namespace velta::detail

#endif  // VELTA_SRC_JSON_BRIDGE_H_
