// SPDX-License-Identifier: MIT
#include "PacketParser.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "status_frame.h"

namespace {

constexpr char kMark[2] = {static_cast<char>(velta::kStartMark[0]), static_cast<char>(velta::kStartMark[1])};

std::deque<char>::difference_type Steps(std::size_t n) { return static_cast<std::deque<char>::difference_type>(n); }

/// @return the first start mark; without one the last byte, which may be the first half of one
const char* FindMark(const char* at, const char* end) {
  while (end - at >= 2) {
    if (at[0] == kMark[0] && at[1] == kMark[1]) return at;
    const void* const next = std::memchr(at + 1, kMark[0], static_cast<std::size_t>(end - at - 1));
    if (next == nullptr) return end - 1;
    at = static_cast<const char*>(next);
  }
  return at;
}

/// A negative joint count gives a size that no buffer reaches.
std::size_t FrameSize(int jointNum) { return static_cast<std::size_t>(velta::StatusFrameSizes(jointNum).packet); }

/// Calls put(frame) for every whole frame with a right CRC.
/// @return bytes consumed
template <typename Put>
std::size_t CutFrames(const std::vector<char>& bytes, std::size_t frame_size, Put put) {
  const char* at = bytes.data();
  const char* const end = at + bytes.size();
  const auto left = [&] { return static_cast<std::size_t>(end - at); };
  while (left() >= frame_size) {
    at = FindMark(at, end);
    if (left() < frame_size) break;
    if (velta::detail::StatusCrcIsRight(at, frame_size)) put(at);
    at += frame_size;  // also with a wrong CRC, deliberately
  }
  return bytes.size() - left();
}

}  // namespace

PacketParser::PacketParser(int jointNum_) : state(0), jointNum(jointNum_) {}

PacketParser::~PacketParser() = default;

int PacketParser::Push(std::vector<char> bytes) {
  buffer.insert(buffer.end(), bytes.begin(), bytes.end());
  return 0;
}

void PacketParser::SearchHeader() {
  if (buffer.size() < 2) return;
  const auto mark = std::search(buffer.begin(), buffer.end(), std::begin(kMark), std::end(kMark));
  buffer.erase(buffer.begin(), mark != buffer.end() ? mark : mark - 1);
}

std::vector<RecvPacket> PacketParser::Parse() {
  std::vector<RecvPacket> packets;
  const std::size_t frame_size = FrameSize(jointNum);
  if (buffer.size() < frame_size) return packets;
  contiguous_.assign(buffer.begin(), buffer.end());
  packets.reserve(contiguous_.size() / frame_size);
  const std::size_t consumed = CutFrames(contiguous_, frame_size, [&](const char* frame) {
    packets.emplace_back(jointNum);
    velta::detail::CopyStatusFrame(frame, packets.back());
  });
  buffer.erase(buffer.begin(), buffer.begin() + Steps(consumed));
  return packets;
}

std::size_t PacketParser::Cut(std::vector<char>& bytes, std::vector<RecvPacket>& packets) {
  const std::size_t frame_size = FrameSize(jointNum);
  const bool direct = buffer.empty();
  if (!direct) {
    buffer.insert(buffer.end(), bytes.begin(), bytes.end());
    if (buffer.size() < frame_size) return 0;
    bytes.assign(buffer.begin(), buffer.end());
  }
  std::size_t count = 0;
  const std::size_t consumed = CutFrames(bytes, frame_size, [&](const char* frame) {
    if (count == packets.size()) packets.emplace_back(jointNum);
    RecvPacket& packet = packets[count++];
    if (packet.jointNum != jointNum) packet = RecvPacket(jointNum);
    velta::detail::CopyStatusFrame(frame, packet);
  });
  if (direct) {
    buffer.insert(buffer.end(), bytes.begin() + Steps(consumed), bytes.end());
  } else {
    buffer.erase(buffer.begin(), buffer.begin() + Steps(consumed));
  }
  return count;
}
