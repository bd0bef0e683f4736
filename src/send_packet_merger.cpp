// SPDX-License-Identifier: MIT
#include "send_packet_merger.h"

#include <iterator>
#include <optional>
#include <utility>

namespace {

using PacketList = std::vector<SendPacket>;
using PacketMap = std::unordered_map<std::string, SendPacket>;

/// What becomes of the packets in a merge's arguments: left for the caller, or taken where nobody looks again.
enum class Source { Keep, Consume };

SendPacket Take(SendPacket& packet, Source source) { return source == Source::Consume ? std::move(packet) : packet; }

void Append(std::deque<SendPacket>& packets, std::deque<SendPacket>& more) {
  packets.insert(packets.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

// A packet that collides is not tried again in a later pass, and follows every merged one, deliberately: sources can
// rely on this order.
std::deque<SendPacket> MergeLists(std::vector<PacketList>& lists, int joint_num, Source source) {
  std::deque<SendPacket> merged;
  std::deque<SendPacket> left_over;
  for (std::size_t pass = 0;; ++pass) {
    std::optional<SendPacket> fresh;
    bool any_merged = false;
    for (PacketList& list : lists) {
      if (pass >= list.size()) continue;
      if (!fresh) fresh.emplace(joint_num);
      if (SendPacketMerger::mergePacket(*fresh, list[pass])) {
        any_merged = true;
      } else {
        left_over.push_back(Take(list[pass], source));
      }
    }
    if (!fresh) break;
    if (any_merged) merged.push_back(std::move(*fresh));
  }
  Append(merged, left_over);
  return merged;
}

std::deque<SendPacket> MergeMaps(std::vector<PacketMap>& maps, Source source) {
  std::deque<SendPacket> merged;
  std::deque<SendPacket> left_over;
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
  return merged;
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
  return MergeLists(packet_lists, joint_num, Source::Keep);
}

std::deque<SendPacket> SendPacketMerger::mergeUniquePacket(std::vector<PacketMap>& packet_maps) {
  return MergeMaps(packet_maps, Source::Keep);
}

std::deque<SendPacket> SendPacketMerger::getMergedPacket(std::vector<std::shared_ptr<SendPacketBuffer>>& buffers,
                                                         int joint_num) {
  std::vector<PacketMap> maps;
  std::vector<PacketList> lists;
  for (const auto& buffer : buffers) {
    PacketMap map;
    PacketList list;
    buffer->popAllPackets(map, list);
    if (!map.empty()) maps.push_back(std::move(map));
    if (!list.empty()) lists.push_back(std::move(list));
  }
  std::deque<SendPacket> packets = MergeLists(lists, joint_num, Source::Consume);
  std::deque<SendPacket> unique = MergeMaps(maps, Source::Consume);
  Append(packets, unique);
  return packets;
}
