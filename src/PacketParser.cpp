// SPDX-License-Identifier: MIT
#include "PacketParser.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "status_frame.h"

namespace {

std::deque<char>::difference_type Steps(std::size_t n) { return static_cast<std::deque<char>::difference_type>(n); }

}  // namespace

PacketParser::PacketParser(int jointNum_) : state(0), jointNum(jointNum_) {}

PacketParser::~PacketParser() = default;

int PacketParser::Push(std::vector<char> bytes) {
  buffer.insert(buffer.end(), bytes.begin(), bytes.end());
  return 0;
}

void PacketParser::SearchHeader() {
  constexpr char kFirst = static_cast<char>(velta::kStartMark[0]);
  constexpr char kSecond = static_cast<char>(velta::kStartMark[1]);
  std::array<char, 4096> run;  // the queue's bytes in one piece, so that memchr can search them
  while (buffer.size() >= 2) {
    if (buffer[0] == kFirst && buffer[1] == kSecond) return;
    const std::size_t length = std::min(run.size(), buffer.size());
    std::copy_n(buffer.begin(), length, run.begin());
    // Drop up to the next mark in the run, or to its last byte, which may be the first half of one.
    const char* const last = run.data() + length - 1;
    const char* p = run.data() + 1;
    while ((p = static_cast<const char*>(std::memchr(p, kFirst, static_cast<std::size_t>(last - p)))) != nullptr &&
           p[1] != kSecond) {
      ++p;
    }
    const auto drop = static_cast<std::size_t>((p != nullptr ? p : last) - run.data());
    buffer.erase(buffer.begin(), buffer.begin() + Steps(drop));
  }
}

std::vector<RecvPacket> PacketParser::Parse() {
  std::vector<RecvPacket> packets;
  // A negative size becomes one that no buffer reaches.
  const auto frame_size = static_cast<std::size_t>(velta::StatusFrameSizes(jointNum).packet);
  std::vector<char> frame;
  while (buffer.size() >= frame_size) {
    SearchHeader();
    if (buffer.size() < frame_size) break;
    const auto end = buffer.begin() + Steps(frame_size);
    frame.assign(buffer.begin(), end);
    buffer.erase(buffer.begin(), end);
    if (!velta::detail::StatusCrcIsRight(frame.data(), frame_size)) continue;  // costs the whole length, deliberately
    packets.emplace_back(jointNum);
    velta::detail::CopyStatusFrame(frame.data(), packets.back());
  }
  return packets;
}
