// SPDX-License-Identifier: MIT
#ifndef VELTA_UNIQUE_SEND_PACKET_MAP_H_
#define VELTA_UNIQUE_SEND_PACKET_MAP_H_

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "SendPacket.h"
#include "velta_export.h"

/// Keeps the newest command per key. Per key: absent -> waiting (Insert) -> sent (GetSendPacket) -> waiting (Insert)...
/// Keys are never removed.
///
/// Errors:  std::system_error when the mutex cannot be locked.
/// Threads: Insert and GetSendPacket may overlap; each holds the mutex for its whole body. GetNotSentKeys and
///          FirstNotSentKey take no lock: no Insert may run meanwhile.
class VELTA_API UniqueSendPacketMap {
 public:
  UniqueSendPacketMap();
  UniqueSendPacketMap(const UniqueSendPacketMap&) = delete;
  UniqueSendPacketMap& operator=(const UniqueSendPacketMap&) = delete;
  ~UniqueSendPacketMap();

  /// Files a copy of packet under key, whatever the packet's own key, and marks the key as waiting.
  void Insert(const std::string& key, const SendPacket& packet);

  /// The same, with the packet taken instead of copied. key may be the packet's own.
  void Insert(const std::string& key, SendPacket&& packet);

  /// @return a copy of the packet under key, which is marked as sent but stays; SendPacket(0) for an unknown key
  SendPacket GetSendPacket(const std::string& key);

  /// @return the waiting keys, in the hash table's order
  std::vector<std::string> GetNotSentKeys() const;

  /// @return the first of GetNotSentKeys(), or null; the text lives as long as the map
  const std::string* FirstNotSentKey() const;

 protected:
  std::unordered_map<std::string, SendPacket> packet_map_;
  std::unordered_map<std::string, bool> sent_map_;  ///< has every key of packet_map_
  std::unique_ptr<std::mutex> mutex_;

 private:
  struct Parts;  ///< where the search for waiting keys stands
  std::unique_ptr<Parts> parts_;
};

#endif  // VELTA_UNIQUE_SEND_PACKET_MAP_H_
