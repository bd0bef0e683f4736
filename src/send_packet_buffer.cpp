// SPDX-License-Identifier: MIT
#include "send_packet_buffer.h"

#include <array>
#include <cstddef>
#include <utility>

/// Nodes of packet_map_ that are done with, kept for their memory; guarded by mutex_.
struct SendPacketBuffer::Parts {
  std::array<Nodes::node_type, 16> nodes;
  std::size_t count = 0;
};

SendPacketBuffer::SendPacketBuffer() : parts_(std::make_unique<Parts>()) {}
SendPacketBuffer::~SendPacketBuffer() = default;

void SendPacketBuffer::pushBack(const SendPacket& packet) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto arrival = [&] {
    if (parts_->count == 0) return packet_map_.emplace_hint(packet_map_.end(), index_, packet);
    auto& node = parts_->nodes[parts_->count - 1];
    node.mapped() = packet;
    node.key() = index_;
    --parts_->count;
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

SendPacketBuffer::Nodes SendPacketBuffer::TakeAll(std::unordered_map<std::string, SendPacket>& unique_packets) {
  const std::lock_guard<std::mutex> lock(mutex_);
  TakeUnique(unique_packets);
  Nodes ordinary = std::move(packet_map_);
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

void SendPacketBuffer::Recycle(Nodes& nodes) {
  const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (lock) Keep(nodes);
}

void SendPacketBuffer::Keep(Nodes& nodes) {
  while (!nodes.empty() && parts_->count < parts_->nodes.size()) {
    parts_->nodes[parts_->count++] = nodes.extract(nodes.begin());
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
