// SPDX-License-Identifier: MIT
#ifndef VELTA_PACKET_PARSER_H_
#define VELTA_PACKET_PARSER_H_

#include <deque>
#include <memory>
#include <vector>

#include "RecvPacket.h"
#include "velta_export.h"

/// Cuts whole status frames out of a byte stream that arrives in pieces of any size.
///
/// Units:   counts are bytes; a status frame of n joints is S = 79 n + 24 bytes.
/// Errors:  none reported. Garbage before a start mark is dropped; a false start mark or a bad CRC costs S bytes, and a
///          true frame that began inside them is lost with them.
/// Threads: no lock. Push and Parse belong to the one thread that runs the receive step.
class VELTA_API PacketParser {
 public:
  /// @param jointNum joints per frame (n), as configured at both ends of the link; below 0 no frame ever completes
  explicit PacketParser(int jointNum);
  PacketParser(const PacketParser& other);
  PacketParser& operator=(const PacketParser& other);
  virtual ~PacketParser();

  /// Appends all bytes at the back of the buffer.
  /// @return 0, always
  int Push(std::vector<char> bytes);

  /// Drops bytes from the front until the buffer starts with 0xAB 0xCD or holds fewer than 2 bytes.
  void SearchHeader();

  /// @return all complete frames with a right CRC, oldest first. Their bytes leave the buffer, an incomplete tail
  /// stays. With fewer than S bytes buffered nothing is searched or dropped.
  std::vector<RecvPacket> Parse();

  std::deque<char> buffer;  ///< bytes received and not yet consumed, oldest at the front; unbounded
  int state;                ///< 0; kept for the object's layout, never used
  int jointNum;             ///< joints per frame (n)

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

#endif  // VELTA_PACKET_PARSER_H_
