// SPDX-License-Identifier: MIT
#include "packet_frames.h"

#include <algorithm>
#include <cstring>

namespace velta::detail {

namespace {

/// @return the first start mark; without one the last byte, which may be the first half of one
const char* FindMark(const char* at, const char* end) {
  constexpr char kMark[2] = {static_cast<char>(kStartMark[0]), static_cast<char>(kStartMark[1])};
  while (end - at >= 2) {
    if (at[0] == kMark[0] && at[1] == kMark[1]) return at;
    const void* const next = std::memchr(at + 1, kMark[0], static_cast<std::size_t>(end - at - 1));
    if (next == nullptr) return end - 1;
    at = static_cast<const char*>(next);
  }
  return at;
}

/// The packet that the next good frame goes to. Room is made when a frame is found, not for bytes that may be garbage.
/// @param left  bytes from this frame on
RecvPacket& NextPacket(std::vector<RecvPacket>& packets, std::size_t used, std::size_t left, int jointNum) {
  constexpr std::size_t kMostAtOnce = 1024;
  if (used == packets.size()) {
    if (used == 0) packets.reserve(std::min(left / StatusFrameSize(jointNum), kMostAtOnce));
    return packets.emplace_back(jointNum);
  }
  RecvPacket& packet = packets[used];
  if (packet.jointNum != jointNum) packet = RecvPacket(jointNum);
  return packet;
}

}  // namespace

void WriteCommandFrame(const SendPacket& packet, std::vector<char>& frame) {
  const auto* const header = reinterpret_cast<const char*>(&packet.header);
  const auto* const records = reinterpret_cast<const char*>(packet.joints.data());
  const std::size_t records_size = packet.joints.size() * sizeof(txJoint_t);
  const std::size_t covered = sizeof packet.header + records_size;
  frame.clear();
  frame.reserve(covered + kCrcSize);
  frame.insert(frame.end(), header, header + sizeof packet.header);
  frame.insert(frame.end(), records, records + records_size);
  const unsigned short crc =
      CalcCrc16(reinterpret_cast<const unsigned char*>(frame.data()), static_cast<unsigned short>(covered));
  frame.push_back(static_cast<char>(crc & 0xFF));
  frame.push_back(static_cast<char>(crc >> 8));
}

bool StatusCrcIsRight(const char* frame, std::size_t size) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(frame);
  const std::size_t covered = size - kCrcSize;
  return (bytes[covered] | bytes[covered + 1] << 8) == CalcCrc16(bytes, static_cast<unsigned short>(covered));
}

void CopyStatusFrame(const char* frame, RecvPacket& packet) {
  std::memcpy(&packet.header, frame, sizeof packet.header);
  packet.joints.resize(static_cast<std::size_t>(packet.jointNum));
  if (!packet.joints.empty()) {
    std::memcpy(packet.joints.data(), frame + sizeof packet.header, packet.joints.size() * sizeof(rxJoint_t));
  }
}

Received ReceiveFrames(PacketParser& parser, std::vector<char>& bytes, std::vector<char>& joined,
                       std::vector<RecvPacket>& packets) {
  Received received;
  std::deque<char>& buffer = parser.buffer;
  const std::size_t frame_size = StatusFrameSize(parser.jointNum);
  const bool direct = buffer.empty();
  if (!direct) {
    if (!bytes.empty()) buffer.insert(buffer.end(), bytes.begin(), bytes.end());
    bytes.clear();
    if (buffer.size() < frame_size) return received;
    joined.assign(buffer.begin(), buffer.end());
  }

  const std::vector<char>& stream = direct ? bytes : joined;
  const char* at = stream.data();
  const char* const end = at + stream.size();
  const auto left = [&] { return static_cast<std::size_t>(end - at); };
  while (left() >= frame_size) {
    const char* const mark = FindMark(at, end);
    received.discarded += static_cast<std::size_t>(mark - at);
    at = mark;
    if (left() < frame_size) break;
    if (StatusCrcIsRight(at, frame_size)) {
      CopyStatusFrame(at, NextPacket(packets, received.packets, left(), parser.jointNum));
      ++received.packets;
    } else {
      ++received.bad_crc;
      received.discarded += frame_size;
    }
    at += frame_size;  // also with a wrong CRC, deliberately
  }

  // Nothing is consumed before everything is found: an allocation that fails on the way leaves the stream whole.
  if (direct) {
    buffer.insert(buffer.end(), at, end);
    bytes.clear();
  } else if (at == end) {
    buffer.clear();  // which is cheaper
  } else {
    buffer.erase(buffer.begin(), buffer.end() - (end - at));
  }
  return received;
}

}  // namespace velta::detail
