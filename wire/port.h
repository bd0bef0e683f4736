// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_PORT_H_
#define VELTA_WIRE_PORT_H_

#include <netinet/in.h>

#include <cstddef>
#include <memory>
#include <string>

#include "errors.h"
#include "fd.h"
#include "link.h"
#include "pty.h"

class SerialClient;

/// Raw, non-blocking ends of links, for the tools that need every byte as it travels.
namespace velta::tools {

/// Bytes that one read may bring and one write may take: the most that a datagram carries.
inline constexpr std::size_t kMaxChunk = 65507;

/// Why a link did not open or stopped working.
struct LinkError : Failure {
  LinkError(const std::string& text, int error_number) : Failure(text), error(error_number) {}
  int error;  ///< errno
};

/// One end of a link, open or still connecting (TCP). Reads and writes never wait.
///
/// Threads: no lock; one thread at a time per object.
class Port {
 public:
  enum class Io {
    kDone,   ///< so many bytes moved; 0 bytes are an empty datagram
    kLater,  ///< nothing can move now
    kEnded,  ///< the peer closed its side in order (reads only)
    kBroken  ///< the link is gone
  };
  struct Result {
    Io io;
    std::size_t size;
    int error = 0;  ///< errno behind kLater and kBroken, 0 for a serial device that is gone
  };

  /// Starts to open the way to a controller. A serial device gets exactly the settings that the library's own link
  /// gives it. Throws LinkError, which tells the link and the reason.
  static Port Connect(const Link& link);

  /// Takes an open descriptor over; kind tells how to read and write it. Shared, since an endpoint that stays open
  /// lends its own.
  Port(std::shared_ptr<const sim::Fd> fd, Link::Kind kind);
  Port(Port&&) noexcept;
  Port& operator=(Port&&) noexcept;
  ~Port();

  int Fd() const { return fd_->Get(); }
  bool Connecting() const { return connecting_; }

  /// To be called when a connecting port is writable. Throws LinkError when the connection did not come about.
  void FinishConnecting();

  /// @param buffer  room for size bytes; kMaxChunk and more take any datagram whole
  Result Read(char* buffer, std::size_t size);

  /// A datagram goes in one piece, a stream takes what it can.
  Result Write(const char* bytes, std::size_t size);

  /// Tells the peer that no more bytes follow; it may still send. Links without such a notion ignore it.
  void EndWriting();

  /// Makes the close, when this object goes, one that the peer sees as a broken connection (TCP).
  void Break();

 private:
  friend class Endpoint;

  std::shared_ptr<const sim::Fd> fd_;
  Link::Kind kind_;
  Link link_;  ///< for messages of a connecting port
  bool connecting_ = false;
  bool answers_last_peer_ = false;  ///< an unconnected UDP socket
  sockaddr_in peer_{};
  std::unique_ptr<SerialClient> settings_;  ///< holds the device's settings, and puts the earlier ones back
};

/// A place where a host can come: a listening TCP socket, a UDP socket, a pty, a serial device.
class Endpoint {
 public:
  /// Opens it. Throws LinkError, which tells the endpoint and the reason.
  explicit Endpoint(const Link& link);
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  /// The endpoint as a host names it, with the port that the system chose; a pty is a serial link to its device.
  const Link& Address() const { return address_; }

  /// What the endpoint is; a pty differs here from a serial device.
  Link::Kind Kind() const { return kind_; }

  /// Readable when a host may have come; -1 for a pty that no host holds open, to be looked at every kPtyLook ms.
  int WaitFd() const;
  static constexpr int kPtyLook = 10;

  /// Whether a host is there to be taken: a TCP connection waits, a datagram arrived, the pty is open. A serial line
  /// always has one.
  bool HostIsThere() const;

  /// The host's port; the endpoint must outlive it. Only when HostIsThere(); may still fail with LinkError when a TCP
  /// host has gone again.
  Port Take();

  /// Forgets the host. A pty's leftover bytes are dropped, so that the next host does not read them.
  /// @param hang_up  take a pty away from a host that still holds it, as an unplugged adapter would
  void Release(bool hang_up);

 private:
  void OpenPty();

  Link::Kind kind_;
  Link address_;
  std::string path_;  ///< of the pty's symbolic link; may be empty
  std::shared_ptr<sim::Pty> pty_;
  std::shared_ptr<const sim::Fd> fd_;  ///< a socket, or the pty's
};

}  // namespace velta::tools

#endif  // VELTA_WIRE_PORT_H_
