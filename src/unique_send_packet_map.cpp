// SPDX-License-Identifier: MIT
#include "unique_send_packet_map.h"

#include <atomic>
#include <utility>

struct UniqueSendPacketMap::Parts {
  std::atomic<std::size_t> waiting{0};  ///< keys not sent: with none, the search looks at nothing
  /// A key before which no key waits, or null for the first; the search begins there and starts anew where that fails.
  std::atomic<const std::string*> search_from{nullptr};
};

UniqueSendPacketMap::UniqueSendPacketMap()
    : mutex_(std::make_unique<std::mutex>()), parts_(std::make_unique<Parts>()) {}

UniqueSendPacketMap::~UniqueSendPacketMap() { mutex_.reset(); }

void UniqueSendPacketMap::Insert(const std::string& key, const SendPacket& packet) { Insert(key, SendPacket(packet)); }

void UniqueSendPacketMap::Insert(const std::string& key, SendPacket&& packet) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  bool& sent = sent_map_.try_emplace(key, true).first->second;
  const auto entry = packet_map_.insert_or_assign(key, std::move(packet)).first;
  if (sent) parts_->search_from = parts_->waiting++ == 0 ? &entry->first : nullptr;
  sent = false;
}

SendPacket UniqueSendPacketMap::GetSendPacket(const std::string& key) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  const auto found = packet_map_.find(key);
  if (found == packet_map_.end()) return SendPacket(0);
  SendPacket packet = found->second;
  bool& sent = sent_map_.at(key);
  if (!sent) --parts_->waiting;
  sent = true;
  return packet;
}

// No lock, deliberately: the send step asks once per cycle and takes the packets one by one, each under the lock.
std::vector<std::string> UniqueSendPacketMap::GetNotSentKeys() const {
  std::vector<std::string> keys;
  if (parts_->waiting == 0) return keys;
  for (const auto& entry : packet_map_) {
    if (!sent_map_.at(entry.first)) keys.push_back(entry.first);
  }
  return keys;
}

const std::string* UniqueSendPacketMap::FirstNotSentKey() const {
  if (parts_->waiting == 0) return nullptr;
  const std::string* from = parts_->search_from;
  while (parts_->waiting != 0) {
    for (auto entry = from != nullptr ? packet_map_.find(*from) : packet_map_.begin(); entry != packet_map_.end();
         ++entry) {
      if (sent_map_.at(entry->first)) continue;
      parts_->search_from = &entry->first;
      return &entry->first;
    }
    if (from == nullptr) break;
    from = nullptr;
  }
  return nullptr;
}
