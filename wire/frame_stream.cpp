// SPDX-License-Identifier: MIT
#include "frame_stream.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "protocol.h"

namespace velta::wire {

namespace {

std::uint16_t Crc(const char* frame, std::size_t covered) {
  return CalcCrc16(reinterpret_cast<const unsigned char*>(frame), static_cast<unsigned short>(covered));
}

}  // namespace

bool CrcIsRight(const char* block, std::size_t size) {
  const std::size_t covered = size - kCrcSize;
  std::uint16_t stored = 0;
  std::memcpy(&stored, block + covered, sizeof stored);
  return stored == Crc(block, covered);
}

template <typename Packet>
FrameStream<Packet>::FrameStream(int joints)
    : joints_(joints), frame_size_(static_cast<std::size_t>(Packet(joints).packetSize)) {}

template <typename Packet>
std::size_t FrameStream<Packet>::SearchMark(std::size_t from) const {
  const char mark[] = {static_cast<char>(kStartMark[0]), static_cast<char>(kStartMark[1])};
  const auto found =
      std::search(tail_.begin() + static_cast<std::ptrdiff_t>(from), tail_.end(), std::begin(mark), std::end(mark));
  // Without a mark the last byte stays: it may be the first half of one.
  return found != tail_.end() ? static_cast<std::size_t>(found - tail_.begin()) : tail_.size() - 1;
}

template <typename Packet>
std::vector<Packet> FrameStream<Packet>::Push(const char* bytes, std::size_t size) {
  std::vector<Packet> packets;
  bytes_ += size;
  tail_.insert(tail_.end(), bytes, bytes + size);
  std::size_t position = 0;
  while (tail_.size() - position >= frame_size_) {
    const std::size_t mark = SearchMark(position);
    garbage_ += mark - position;
    position = mark;
    if (tail_.size() - position < frame_size_) break;
    const char* const frame = tail_.data() + position;
    position += frame_size_;  // also with a wrong CRC
    if (!CrcIsRight(frame, frame_size_)) {
      ++bad_crc_;
      continue;
    }
    ++frames_;
    Packet& packet = packets.emplace_back(joints_);
    std::memcpy(&packet.header, frame, sizeof packet.header);
    const std::size_t records = packet.joints.size() * sizeof packet.joints[0];
    if (records != 0) std::memcpy(packet.joints.data(), frame + sizeof packet.header, records);
  }
  tail_.erase(tail_.begin(), tail_.begin() + static_cast<std::ptrdiff_t>(position));
  return packets;
}

template <typename Packet>
void FrameStream<Packet>::Restart() {
  garbage_ += tail_.size();
  tail_.clear();
}

template class FrameStream<SendPacket>;
template class FrameStream<RecvPacket>;

std::vector<char> StatusFrame(const RecvPacket& status) {
  const std::size_t records = status.joints.size() * sizeof(rxJoint_t);
  const std::size_t covered = sizeof status.header + records;
  std::vector<char> frame(covered + kCrcSize);
  std::memcpy(frame.data(), &status.header, sizeof status.header);
  std::memcpy(frame.data(), kStartMark, sizeof kStartMark);
  if (records != 0) std::memcpy(frame.data() + sizeof status.header, status.joints.data(), records);
  const std::uint16_t crc = Crc(frame.data(), covered);
  std::memcpy(frame.data() + covered, &crc, sizeof crc);
  return frame;
}

}  // namespace velta::wire
