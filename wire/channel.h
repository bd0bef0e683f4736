// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_CHANNEL_H_
#define VELTA_WIRE_CHANNEL_H_

#include <netinet/in.h>

#include <cstddef>
#include <memory>

#include "fd.h"
#include "velta_link.h"

/// Links at byte level, both ends, for programs that need every byte as it travels.
namespace velta::wire {

/// Bytes that one read may bring and one write may take: the most that a datagram carries.
inline constexpr std::size_t kMaxChunk = 65507;

/// What became of a read or a write.
enum class Io {
  kDone,   ///< so many bytes moved; 0 bytes are an empty datagram
  kLater,  ///< nothing can move now
  kEnded,  ///< the peer closed its side in order (reads only)
  kBroken  ///< the link is gone
};
struct IoResult {
  Io io;
  std::size_t size;
  int error = 0;  ///< errno of kLater and kBroken, 0 for a serial device that is gone
};

/// One open end of a link, at the host or at the controller. Reads and writes never wait.
///
/// Threads: no lock; one thread at a time per object.
class Channel {
 public:
  enum class Peer {
    kFixed,       ///< the one that the descriptor is connected to
    kLastToSend,  ///< UDP: whoever sent the last datagram
  };

  /// @param fd  shared, since a controller's end that stays open lends its own
  Channel(std::shared_ptr<const Fd> fd, LinkAddress::Kind kind, Peer peer = Peer::kFixed);

  int Descriptor() const { return fd_->Get(); }
  bool IsStream() const { return kind_ != LinkAddress::Kind::kUdp; }

  /// @param buffer  room for size bytes; kMaxChunk and more take any datagram whole
  IoResult Read(char* buffer, std::size_t size);

  /// A datagram goes in one piece, and may be lost; a stream takes what it can.
  IoResult Write(const char* bytes, std::size_t size);

  /// Whether both talk to the same address over UDP.
  bool HasPeerOf(const Channel& other) const;

  /// Lets the peer know that no more bytes follow; it may still send. Links without such a notion ignore it.
  void EndWriting();

  /// Makes the close, when this object goes, one that the peer sees as a broken connection (TCP).
  void Break();

 private:
  IoResult WriteDatagram(const char* bytes, std::size_t size);

  std::shared_ptr<const Fd> fd_;
  LinkAddress::Kind kind_;
  Peer who_;
  sockaddr_in peer_{};  ///< of Peer::kLastToSend; without a family before the first datagram
};

/// @return a socket of the link's kind
std::shared_ptr<const Fd> OpenSocket(const LinkAddress& link);

/// @return a serial device with exactly the settings that the library's own link gives it, which stay as long
std::shared_ptr<const Fd> OpenSerial(const LinkAddress& link);

/// The link's socket address; the host must be a dotted quad.
sockaddr_in SocketAddress(const LinkAddress& link);
inline const sockaddr* Generic(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }
inline sockaddr* Generic(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

/// Has TCP send at once what is written.
void SetNoDelay(int fd);

/// @return whether poll reports one of these events now
bool IsReady(int fd, short wanted);

}  // namespace velta::wire

#endif  // VELTA_WIRE_CHANNEL_H_
