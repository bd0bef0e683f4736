// SPDX-License-Identifier: MIT
#ifndef VELTA_SEND_PACKET_MERGER_H_
#define VELTA_SEND_PACKET_MERGER_H_

#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "SendPacket.h"
#include "send_packet_buffer.h"
#include "velta_export.h"

/// Folds the commands of several sources into as few packets as possible. Stateless.
///
/// A joint is commanded when its order byte is not 0. Packets that command disjoint joints can share a packet.
///
/// Errors:  none reported; a packet that cannot be merged is sent by itself, never dropped.
/// Threads: no lock of its own; one call at a time per set of arguments.
class VELTA_API SendPacketMerger {
 public:
  /// Empties every buffer, one after the other, and returns what is to be sent, in order: the merged ordinary packets,
  /// the ordinary ones that collided, then the unique ones.
  /// @param buffers   one per source, in the order in which they are emptied
  /// @param joint_num joints of the arm (n)
  static std::deque<SendPacket> getMergedPacket(std::vector<std::shared_ptr<SendPacketBuffer>>& buffers, int joint_num);

  /// Pass k merges the k-th packet of every list into one fresh packet; those that collide, differ in joint count or
  /// carry an arm order follow unchanged, after all merged packets.
  static std::deque<SendPacket> mergeNotUniquePacket(std::vector<std::vector<SendPacket>>& packet_lists, int joint_num);

  /// Merges the packets of equal keys into the first map's packet; those that collide follow at the end. Keys merged
  /// or set aside are erased from the later maps. The order between keys is the hash table's.
  static std::deque<SendPacket> mergeUniquePacket(
      std::vector<std::unordered_map<std::string, SendPacket>>& packet_maps);

  /// Folds src's commanded joints into dst, by position, and its confirmation request if it gave any joint.
  /// @return false, with dst untouched, for different joint counts, an arm order in either, or a joint that both
  /// command
  static bool mergePacket(SendPacket& dst, const SendPacket& src);
};

#endif  // VELTA_SEND_PACKET_MERGER_H_
