// SPDX-License-Identifier: MIT
#include "RecvPacket.h"

#include <algorithm>
#include <utility>

#include "packet_frames.h"

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
  header = other.header;
  joints = std::move(other.joints);
  jointNum = std::exchange(other.jointNum, 0);
  headerSize = other.headerSize;
  dataSize = std::exchange(other.dataSize, kNoJoints.data);
  packetSize = std::exchange(other.packetSize, kNoJoints.packet);
  return *this;
}

void RecvPacket::swap(RecvPacket& other) noexcept {
  std::swap(header, other.header);
  joints.swap(other.joints);
  std::swap(jointNum, other.jointNum);
  std::swap(headerSize, other.headerSize);
  std::swap(dataSize, other.dataSize);
  std::swap(packetSize, other.packetSize);
}

RecvPacket::~RecvPacket() = default;

bool RecvPacket::Parse(std::vector<char> bytes) {
  if (bytes.size() != velta::detail::StatusFrameSize(jointNum)) return false;
  velta::detail::CopyStatusFrame(bytes.data(), *this);  // before the CRC is judged, deliberately
  return velta::detail::StatusCrcIsRight(bytes.data(), bytes.size());
}
