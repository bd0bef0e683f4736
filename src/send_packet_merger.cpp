// SPDX-License-Identifier: MIT
#include "send_packet_merger.h"

#include <iterator>
#include <map>
#include <utility>

namespace {

using PacketList = std::vector<SendPacket>;
using PacketQueue = std::deque<SendPacket>;
using PacketMap = std::unordered_map<std::string, SendPacket>;

/// What becomes of the packets in a merge's arguments: left for the caller, or taken where nobody looks again.
enum class Source { Keep, Consume };

SendPacket Take(SendPacket& packet, Source source) { return source == Source::Consume ? std::move(packet) : packet; }

void Append(PacketQueue& packets, PacketList& more) {
  packets.insert(packets.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

SendPacket& Packet(SendPacket& element) { return element; }
SendPacket& Packet(std::pair<const std::int64_t, SendPacket>& arrival) { return arrival.second; }

// A packet that collides is not tried again in a later pass, and follows every merged one, deliberately: sources can
// rely on this order.
template <typename List>
void MergeLists(std::vector<List>& lists, int joint_num, Source source, PacketQueue& merged) {
  PacketList left_over;
  std::vector<typename List::iterator> cursors;
  cursors.reserve(lists.size());
  for (List& list : lists) cursors.push_back(list.begin());
  while (true) {
    SendPacket* fresh = nullptr;
    bool any_merged = false;
    for (std::size_t i = 0; i < lists.size(); ++i) {
      if (cursors[i] == lists[i].end()) continue;
      SendPacket& packet = Packet(*cursors[i]++);
      if (fresh == nullptr) fresh = &merged.emplace_back(joint_num);
      if (SendPacketMerger::mergePacket(*fresh, packet)) {
        any_merged = true;
      } else {
        left_over.push_back(Take(packet, source));
      }
    }
    if (fresh == nullptr) break;
    if (!any_merged) merged.pop_back();
  }
  Append(merged, left_over);
}

void MergeMaps(std::vector<PacketMap>& maps, Source source, PacketQueue& merged) {
  PacketList left_over;
  for (std::size_t i = 0; i < maps.size(); ++i) {
    for (auto& [key, packet] : maps[i]) {
      merged.push_back(Take(packet, source));
      for (std::size_t j = i + 1; j < maps.size(); ++j) {
        const auto same = maps[j].find(key);
        if (same == maps[j].end()) continue;
        if (!SendPacketMerger::mergePacket(merged.back(), same->second)) left_over.push_back(std::move(same->second));
        maps[j].erase(same);
      }
    }
  }
  Append(merged, left_over);
}

}  // namespace

bool SendPacketMerger::mergePacket(SendPacket& dst, const SendPacket& src) {
  const std::size_t count = dst.joints.size();
  if (count != src.joints.size()) return false;
  if (dst.header.armOrder != 0 || src.header.armOrder != 0) return false;
  for (std::size_t i = 0; i < count; ++i) {
    if (dst.joints[i].order != 0 && src.joints[i].order != 0) return false;
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (src.joints[i].order == 0) continue;
    const std::uint8_t id = dst.joints[i].id;
    dst.joints[i] = src.joints[i];
    dst.joints[i].id = id;
    // Only here, deliberately: an idle src asks for nothing, not even for a confirmation.
    dst.SetConfirmReceived(dst.GetConfirmReceived() || src.GetConfirmReceived());
  }
  return true;
}

std::deque<SendPacket> SendPacketMerger::mergeNotUniquePacket(std::vector<PacketList>& packet_lists, int joint_num) {
  PacketQueue packets;
  MergeLists(packet_lists, joint_num, Source::Keep, packets);
  return packets;
}

std::deque<SendPacket> SendPacketMerger::mergeUniquePacket(std::vector<PacketMap>& packet_maps) {
  PacketQueue packets;
  MergeMaps(packet_maps, Source::Keep, packets);
  return packets;
}

std::deque<SendPacket> SendPacketMerger::getMergedPacket(std::vector<std::shared_ptr<SendPacketBuffer>>& buffers,
                                                         int joint_num) {
  std::vector<PacketMap> maps;
  std::vector<std::map<std::int64_t, SendPacket>> lists;
  std::vector<SendPacketBuffer*> sources;  // of the lists
  lists.reserve(buffers.size());
  sources.reserve(buffers.size());
  for (const auto& buffer : buffers) {
    PacketMap map;
    auto list = buffer->TakeAll(map);
    if (!map.empty()) maps.push_back(std::move(map));
    if (list.empty()) continue;
    lists.push_back(std::move(list));
    sources.push_back(buffer.get());
  }
  PacketQueue packets;
  MergeLists(lists, joint_num, Source::Consume, packets);
  MergeMaps(maps, Source::Consume, packets);
  for (std::size_t i = 0; i < lists.size(); ++i) sources[i]->Recycle(lists[i]);
  return packets;
}
