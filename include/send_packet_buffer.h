// SPDX-License-Identifier: MIT
#ifndef VELTA_SEND_PACKET_BUFFER_H_
#define VELTA_SEND_PACKET_BUFFER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "SendPacket.h"
#include "velta_export.h"

/// The commands of one source between two merge passes: ordinary packets in the order of their arrival, and of each
/// unique key the newest packet, at the place of that newest arrival.
///
/// Errors:  std::system_error when the mutex cannot be locked.
/// Threads: pushBack, popAllPackets and empty may overlap; each holds the buffer's mutex for its whole body.
class VELTA_API SendPacketBuffer {
 public:
  SendPacketBuffer();
  SendPacketBuffer(const SendPacketBuffer&) = delete;
  SendPacketBuffer& operator=(const SendPacketBuffer&) = delete;
  ~SendPacketBuffer();

  /// Buffers a copy of packet; a unique one replaces the packet of the same key.
  void pushBack(const SendPacket& packet);

  /// Moves every packet out and starts anew.
  /// @param[in,out] unique_packets      gains the unique packets by key; keys that it already holds are kept
  /// @param[in,out] not_unique_packets  gains the ordinary packets at its end, oldest first
  void popAllPackets(std::unordered_map<std::string, SendPacket>& unique_packets,
                     std::vector<SendPacket>& not_unique_packets);

  /// Empties the buffer and restarts the arrival count. Takes no lock: popAllPackets calls it while it holds the mutex.
  void reset();

  /// @return true when nothing is buffered
  bool empty() const;

 protected:
  std::int64_t index_ = 0;                                        ///< number of the next arrival
  std::map<std::int64_t, SendPacket> packet_map_;                 ///< every packet, by arrival
  std::unordered_map<std::string, std::int64_t> unique_key_map_;  ///< arrival of each unique key's packet
  mutable std::mutex mutex_;

 private:
  friend class SendPacketMerger;

  using Nodes = std::map<std::int64_t, SendPacket>;
  struct Parts;

  /// popAllPackets that leaves the ordinary packets in their nodes.
  Nodes TakeAll(std::unordered_map<std::string, SendPacket>& unique_packets);
  /// Takes nodes back that are done with, for their memory; none where the mutex is held right now.
  void Recycle(Nodes& nodes);

  void TakeUnique(std::unordered_map<std::string, SendPacket>& unique_packets);
  void Keep(Nodes& nodes);

  std::unique_ptr<Parts> parts_;
};

#endif  // VELTA_SEND_PACKET_BUFFER_H_
