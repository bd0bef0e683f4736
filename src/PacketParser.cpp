// SPDX-License-Identifier: MIT
#include "PacketParser.h"

#include <algorithm>
#include <iterator>

#include "packet_frames.h"

/// Working memory, kept between calls.
struct PacketParser::Parts {
  std::vector<char> joined;
};

PacketParser::PacketParser(int jointNum_) : state(0), jointNum(jointNum_), parts_(std::make_unique<Parts>()) {}

PacketParser::PacketParser(const PacketParser& other)
    : buffer(other.buffer), state(other.state), jointNum(other.jointNum), parts_(std::make_unique<Parts>()) {}

PacketParser& PacketParser::operator=(const PacketParser& other) {
  buffer = other.buffer;
  state = other.state;
  jointNum = other.jointNum;
  return *this;
}

PacketParser::~PacketParser() = default;

// Flattened: for a byte per push, the calls that copy it cost as much as the copy.
__attribute__((flatten)) int PacketParser::Push(std::vector<char> bytes) {
  buffer.insert(buffer.end(), bytes.begin(), bytes.end());
  return 0;
}

void PacketParser::SearchHeader() {
  if (buffer.size() < 2) return;
  constexpr char kMark[2] = {static_cast<char>(velta::kStartMark[0]), static_cast<char>(velta::kStartMark[1])};
  const auto mark = std::search(buffer.begin(), buffer.end(), std::begin(kMark), std::end(kMark));
  buffer.erase(buffer.begin(), mark != buffer.end() ? mark : mark - 1);
}

std::vector<RecvPacket> PacketParser::Parse() {
  std::vector<char> nothing_more;
  std::vector<RecvPacket> packets;
  if (buffer.size() < velta::detail::StatusFrameSize(jointNum)) return packets;
  velta::detail::ReceiveFrames(*this, nothing_more, parts_->joined, packets);
  constexpr std::size_t kMostKept = 1 << 17;  // twice what one read can bring
  if (parts_->joined.capacity() > kMostKept) std::vector<char>().swap(parts_->joined);
  return packets;
}
