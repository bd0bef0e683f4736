// SPDX-License-Identifier: MIT
#ifndef VELTA_RECV_PACKET_H_
#define VELTA_RECV_PACKET_H_

#include <vector>

#include "protocol.h"
#include "velta_export.h"

/// One status frame as an object: header and one record per joint, with the controller's codes and units unchanged.
///
/// Units:   the controller's. Time stamps are unsigned 64-bit counts.
/// Errors:  Parse()'s result, and nothing else.
/// Threads: no lock; one thread at a time per object.
class VELTA_API RecvPacket {
 public:
  /// Every byte of header and records is 0, the start mark too.
  /// @param jointNum joints per frame (n); below 1 there are no records
  explicit RecvPacket(int jointNum);
  RecvPacket(const RecvPacket&) = default;
  RecvPacket& operator=(const RecvPacket&) = default;
  RecvPacket(RecvPacket&& other) noexcept;             ///< leaves a packet without joints
  RecvPacket& operator=(RecvPacket&& other) noexcept;  ///< leaves a packet without joints, too
  void swap(RecvPacket& other) noexcept;
  virtual ~RecvPacket();

  rxHeader_t header{};            ///< frame bytes 0..21
  std::vector<rxJoint_t> joints;  ///< jointNum records, record i for joint i
  int jointNum;                   ///< joints per frame (n)
  int headerSize;                 ///< 22 bytes
  int dataSize;                   ///< 79 n bytes
  int packetSize;                 ///< 79 n + 24 bytes

  /// Fills the packet from exactly one whole frame. The start mark is copied, not checked.
  /// @param bytes the frame, 79 n + 24 bytes
  /// @return true for a frame of the right size and CRC. After a wrong size the packet is untouched; after a wrong CRC
  /// it holds the rejected frame's content, which must not be used.
  bool Parse(std::vector<char> bytes);

  int GetDataSize() const { return dataSize; }
  int GetPacketSize() const { return packetSize; }
};

#endif  // VELTA_RECV_PACKET_H_
