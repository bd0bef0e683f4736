// SPDX-License-Identifier: MIT
#ifndef VELTA_UNIQUE_SEND_PACKET_MAP_H_
#define VELTA_UNIQUE_SEND_PACKET_MAP_H_

#include <atomic>
#include <cstddef>
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
/// Threads: Insert and GetSendPacket may overlap; each holds the mutex for its whole body. GetNotSentKeys takes no
/// lock:
///          it belongs to the thread that runs the send step, and its answer is a snapshot.
class VELTA_API UniqueSendPacketMap {
 public:
  UniqueSendPacketMap();
  UniqueSendPacketMap(const UniqueSendPacketMap&) = delete;
  UniqueSendPacketMap& operator=(const UniqueSendPacketMap&) = delete;
  ~UniqueSendPacketMap();

  /// Files a copy of packet under key, whatever the packet's own key, and marks the key as waiting.
  void Insert(const std::string& key, const SendPacket& packet);

  /// @return a copy of the packet under key, which is marked as sent but stays; SendPacket(0) for an unknown key
  SendPacket GetSendPacket(const std::string& key);

  /// @return the waiting keys, in the hash table's order
  std::vector<std::string> GetNotSentKeys() const;

 protected:
  std::unordered_map<std::string, SendPacket> packet_map_;
  std::unordered_map<std::string, bool> sent_map_;  ///< has every key of packet_map_
  std::unique_ptr<std::mutex> mutex_;
  std::atomic<std::size_t> waiting_{0};  ///< keys not sent: with none, the key scan looks at nothing

 private:
  friend class MasterControllerClient;

  /// Insert, taking the packet. key may be the packet's own.
  void Place(const std::string& key, SendPacket&& packet);

  /// @return the first of GetNotSentKeys(), or null; without a lock either
  const std::string* FirstNotSentKey() const;

  /// A key before which no key waits, or null for the first; the search begins there and starts anew where that fails.
  mutable std::atomic<const std::string*> search_from_{nullptr};
};

#endif  // VELTA_UNIQUE_SEND_PACKET_MAP_H_
