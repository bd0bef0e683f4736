// SPDX-License-Identifier: MIT
#include "send_packet_buffer.h"

#include <utility>

SendPacketBuffer::SendPacketBuffer() = default;
SendPacketBuffer::~SendPacketBuffer() = default;

void SendPacketBuffer::pushBack(const SendPacket& packet) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto arrival = [&] {
    if (spare_count_ == 0) return packet_map_.emplace_hint(packet_map_.end(), index_, packet);
    auto& node = spare_nodes_[spare_count_ - 1];
    node.mapped() = packet;
    node.key() = index_;
    --spare_count_;
    return packet_map_.insert(packet_map_.end(), std::move(node));
  }();
  if (packet.IsUnique()) {
    try {
      const auto [entry, is_new] = unique_key_map_.try_emplace(packet.GetUniqueKey(), index_);
      if (!is_new) packet_map_.erase(std::exchange(entry->second, index_));
    } catch (...) {  // a failed allocation changes nothing
      packet_map_.erase(arrival);
      throw;
    }
  }
  ++index_;
}

void SendPacketBuffer::popAllPackets(std::unordered_map<std::string, SendPacket>& unique_packets,
                                     std::vector<SendPacket>& not_unique_packets) {
  const std::lock_guard<std::mutex> lock(mutex_);
  not_unique_packets.reserve(not_unique_packets.size() + packet_map_.size());
  TakeUnique(unique_packets);
  for (auto& entry : packet_map_) not_unique_packets.push_back(std::move(entry.second));
  Keep(packet_map_);
  reset();
}

std::map<int, SendPacket> SendPacketBuffer::TakeAll(std::unordered_map<std::string, SendPacket>& unique_packets) {
  const std::lock_guard<std::mutex> lock(mutex_);
  TakeUnique(unique_packets);
  std::map<int, SendPacket> ordinary = std::move(packet_map_);
  reset();
  return ordinary;
}

// Key by key, so that an allocation that fails on the way leaves neither a key without its packet nor half a packet.
void SendPacketBuffer::TakeUnique(std::unordered_map<std::string, SendPacket>& unique_packets) {
  if (unique_key_map_.empty()) return;
  unique_packets.reserve(unique_packets.size() + unique_key_map_.size());
  for (auto entry = unique_key_map_.begin(); entry != unique_key_map_.end(); entry = unique_key_map_.erase(entry)) {
    unique_packets.try_emplace(entry->first, std::move(packet_map_.at(entry->second)));
    packet_map_.erase(entry->second);
  }
}

void SendPacketBuffer::Recycle(std::map<int, SendPacket>& nodes) {
  const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (lock) Keep(nodes);
}

void SendPacketBuffer::Keep(std::map<int, SendPacket>& nodes) {
  while (!nodes.empty() && spare_count_ < spare_nodes_.size()) {
    spare_nodes_[spare_count_++] = nodes.extract(nodes.begin());
  }
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
