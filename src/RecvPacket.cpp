// SPDX-License-Identifier: MIT
#include "RecvPacket.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "status_frame.h"

namespace velta::detail {

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

}  // namespace velta::detail

namespace {
constexpr velta::FrameSizes kNoJoints = velta::StatusFrameSizes(0);
}

RecvPacket::RecvPacket(int jointNum_)
    : joints(static_cast<std::size_t>(std::max(jointNum_, 0))),
      jointNum(jointNum_),
      headerSize(velta::StatusFrameSizes(jointNum_).header),
      dataSize(velta::StatusFrameSizes(jointNum_).data),
      packetSize(velta::StatusFrameSizes(jointNum_).packet) {}

RecvPacket::RecvPacket(RecvPacket&& other) noexcept
    : header(other.header),
      joints(std::move(other.joints)),
      jointNum(std::exchange(other.jointNum, 0)),
      headerSize(other.headerSize),
      dataSize(std::exchange(other.dataSize, kNoJoints.data)),
      packetSize(std::exchange(other.packetSize, kNoJoints.packet)) {}

RecvPacket& RecvPacket::operator=(RecvPacket&& other) noexcept {
  std::swap(header, other.header);
  joints.swap(other.joints);
  std::swap(jointNum, other.jointNum);
  std::swap(headerSize, other.headerSize);
  std::swap(dataSize, other.dataSize);
  std::swap(packetSize, other.packetSize);
  return *this;
}

RecvPacket::~RecvPacket() = default;

bool RecvPacket::Parse(std::vector<char> bytes) {
  if (packetSize < 0 || bytes.size() != static_cast<std::size_t>(packetSize)) return false;
  velta::detail::CopyStatusFrame(bytes.data(), *this);  // before the CRC is judged, deliberately
  return velta::detail::StatusCrcIsRight(bytes.data(), bytes.size());
}
