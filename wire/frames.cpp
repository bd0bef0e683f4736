// SPDX-License-Identifier: MIT
#include "frames.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "protocol.h"

namespace velta::sim {

namespace {

std::uint16_t Crc(const char* frame, std::size_t covered) {
  return CalcCrc16(reinterpret_cast<const unsigned char*>(frame), static_cast<unsigned short>(covered));
}

bool CrcIsRight(const char* frame, std::size_t size) {
  const std::size_t covered = size - kCrcSize;
  std::uint16_t stored = 0;
  std::memcpy(&stored, frame + covered, sizeof stored);
  return stored == Crc(frame, covered);
}

}  // namespace

CommandFramer::CommandFramer(int joints)
    : joints_(joints), frame_size_(static_cast<std::size_t>(CommandFrameSizes(joints).packet)) {}

std::size_t CommandFramer::SearchMark(std::size_t from) const {
  const char mark[] = {static_cast<char>(kStartMark[0]), static_cast<char>(kStartMark[1])};
  const auto found =
      std::search(buffer_.begin() + static_cast<std::ptrdiff_t>(from), buffer_.end(), std::begin(mark), std::end(mark));
  // Without a mark the last byte stays: it may be the first half of one.
  return found != buffer_.end() ? static_cast<std::size_t>(found - buffer_.begin()) : buffer_.size() - 1;
}

std::vector<SendPacket> CommandFramer::Push(const char* bytes, std::size_t count) {
  std::vector<SendPacket> commands;
  buffer_.insert(buffer_.end(), bytes, bytes + count);
  std::size_t position = 0;
  while (buffer_.size() - position >= frame_size_) {
    const std::size_t mark = SearchMark(position);
    garbage_ += mark - position;
    position = mark;
    if (buffer_.size() - position < frame_size_) break;
    const char* const frame = buffer_.data() + position;
    position += frame_size_;  // a bad CRC costs the whole length
    if (!CrcIsRight(frame, frame_size_)) {
      ++bad_crc_;
      continue;
    }
    SendPacket& command = commands.emplace_back(joints_);
    std::memcpy(&command.header, frame, sizeof command.header);
    std::memcpy(command.joints.data(), frame + sizeof command.header, command.joints.size() * sizeof(txJoint_t));
  }
  buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(position));
  return commands;
}

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

}  // namespace velta::sim
