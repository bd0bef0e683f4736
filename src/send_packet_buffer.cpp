// SPDX-License-Identifier: MIT
#include "send_packet_buffer.h"

#include <utility>

SendPacketBuffer::SendPacketBuffer() = default;
SendPacketBuffer::~SendPacketBuffer() = default;

void SendPacketBuffer::pushBack(const SendPacket& packet) {
  std::map<int, SendPacket> arrival;  // built before anything changes, so that a failed allocation changes nothing
  const std::lock_guard<std::mutex> lock(mutex_);
  arrival.emplace(index_, packet);
  if (packet.IsUnique()) {
    const auto [entry, is_new] = unique_key_map_.try_emplace(packet.GetUniqueKey(), index_);
    if (!is_new) {
      packet_map_.erase(entry->second);
      entry->second = index_;
    }
  }
  packet_map_.insert(packet_map_.end(), arrival.extract(arrival.begin()));
  ++index_;
}

void SendPacketBuffer::popAllPackets(std::unordered_map<std::string, SendPacket>& unique_packets,
                                     std::vector<SendPacket>& not_unique_packets) {
  const std::lock_guard<std::mutex> lock(mutex_);
  unique_packets.reserve(unique_packets.size() + unique_key_map_.size());
  not_unique_packets.reserve(not_unique_packets.size() + packet_map_.size());
  // Key by key, so that an allocation that fails on the way leaves neither a key without its packet nor half a packet.
  for (auto entry = unique_key_map_.begin(); entry != unique_key_map_.end(); entry = unique_key_map_.erase(entry)) {
    const auto packet = packet_map_.find(entry->second);
    unique_packets.try_emplace(entry->first, std::move(packet->second));
    packet_map_.erase(packet);
  }
  for (auto& entry : packet_map_) not_unique_packets.push_back(std::move(entry.second));
  reset();
}

void SendPacketBuffer::reset() {
  index_ = 0;
  packet_map_.clear();
  unique_key_map_.clear();
}

bool SendPacketBuffer::empty() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return packet_map_.empty();
}
