// SPDX-License-Identifier: MIT
// Any packets from any sources: nothing is lost, nothing comes twice, and the order is the promised one.
#include <cstring>
#include <map>

#include "send_packet_merger.h"
#include "target.h"

namespace velta::fuzz {
namespace {

using Packets = std::vector<SendPacket>;

struct Source {
  Packets ordinary;
  std::map<std::string, SendPacket> unique;
};

/// Everything of a packet but its time stamp.
std::string Content(const SendPacket& packet) {
  std::string text = packet.uniqueKey + char('0' + packet.isUnique) + char('0' + packet.confirmReceived);
  text += static_cast<char>(packet.header.armOrder);
  text.append(reinterpret_cast<const char*>(packet.joints.data()), packet.joints.size() * sizeof(txJoint_t));
  return text;
}

bool Merge(SendPacket& into, const SendPacket& from) {
  if (into.joints.size() != from.joints.size() || into.header.armOrder != 0 || from.header.armOrder != 0) return false;
  Packets whole(1, into);
  for (std::size_t i = 0; i < into.joints.size(); ++i) {
    if (from.joints[i].order == 0) continue;
    if (into.joints[i].order != 0) return false;
    whole[0].joints[i] = from.joints[i];
    whole[0].joints[i].id = into.joints[i].id;
    whole[0].confirmReceived |= from.confirmReceived;
  }
  into = whole[0];
  return true;
}

Packets MergedOrdinary(const std::vector<Source>& sources, int n) {
  Packets merged, later;
  for (std::size_t pass = 0, active = 1; active != 0; ++pass) {
    SendPacket fresh(n);
    std::size_t used = active = 0;
    for (const Source& source : sources) {
      if (pass >= source.ordinary.size()) continue;
      ++active;
      if (Merge(fresh, source.ordinary[pass])) {
        ++used;
      } else {
        later.push_back(source.ordinary[pass]);
      }
    }
    if (used != 0) merged.push_back(fresh);
  }
  merged.insert(merged.end(), later.begin(), later.end());
  return merged;
}

/// By key: the first source's packet with what merges into it, then what did not.
std::map<std::string, Packets> MergedUnique(const std::vector<Source>& sources) {
  std::map<std::string, Packets> merged;
  for (const Source& source : sources) {
    for (const auto& [key, packet] : source.unique) {
      Packets& packets = merged[key];
      if (packets.empty() || !Merge(packets[0], packet)) packets.push_back(packet);
    }
  }
  return merged;
}

SendPacket Compose(Input& in, int n, unsigned serial) {
  SendPacket packet(in.Below(16) == 0 ? n + 1 : n);
  const unsigned commanded = in.Byte();
  for (std::size_t i = 0; i < packet.joints.size(); ++i) {
    if ((commanded >> i & 1) != 0) packet.joints[i].order = static_cast<std::uint8_t>(1 + serial % 255);
    packet.joints[i].id = static_cast<std::uint8_t>(in.Below(32) == 0 ? 99 : i);
    packet.joints[i].value1 = packet.joints[i].value4 = static_cast<float>(serial);
  }
  if (in.Below(8) == 0) packet.header.armOrder = 0xA0;
  packet.confirmReceived = in.Flag();
  packet.isUnique = in.Below(3) == 0;
  packet.uniqueKey = "key" + std::to_string(in.Below(3));
  return packet;
}

void Run(Input& in) {
  const int n = static_cast<int>(in.Below(5));
  std::vector<std::shared_ptr<SendPacketBuffer>> buffers(1 + in.Below(4));
  for (auto& buffer : buffers) buffer = std::make_shared<SendPacketBuffer>();
  for (unsigned serial = 1; !in.Empty();) {
    std::vector<Source> sources(buffers.size());
    for (unsigned count = in.Below(24); count > 0; --count, ++serial) {
      const std::size_t s = in.Byte() % sources.size();
      const SendPacket packet = Compose(in, n, serial);
      buffers[s]->pushBack(packet);
      if (!packet.isUnique) {
        sources[s].ordinary.push_back(packet);
      } else {
        sources[s].unique.insert_or_assign(packet.uniqueKey, packet);
      }
    }
    const std::deque<SendPacket> got = SendPacketMerger::getMergedPacket(buffers, n);
    const Packets ordinary = MergedOrdinary(sources, n);
    auto unique = MergedUnique(sources);
    std::size_t left = 0;
    for (const auto& entry : unique) left += entry.second.size();
    Check(got.size() == ordinary.size() + left, "no packet lost, none twice");
    for (std::size_t i = 0; i < ordinary.size(); ++i) {
      Check(Content(got[i]) == Content(ordinary[i]), "ordinary packets in the promised order");
    }
    for (std::size_t i = ordinary.size(); i < got.size(); ++i) {
      Packets& waiting = unique[got[i].uniqueKey];
      const bool is_first = i < ordinary.size() + unique.size();  // the first packets of all keys precede the rest
      const auto found =
          is_first ? waiting.begin() : std::find_if(waiting.begin(), waiting.end(), [&](const SendPacket& packet) {
            return Content(packet) == Content(got[i]);
          });
      Check(found != waiting.end() && Content(*found) == Content(got[i]), "unique packets by key");
      waiting.erase(found);
    }
    for (const auto& buffer : buffers) Check(buffer->empty(), "merging empties the buffers");
  }
}

const Registered kTarget("merger", Run);

}  // namespace
}  // namespace velta::fuzz
