// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_ENDPOINT_H_
#define VELTA_WIRE_ENDPOINT_H_

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fd.h"
#include "pty.h"

namespace velta::sim {

struct EndpointConfig {
  enum class Kind { Tcp, Udp, Pty };

  Kind kind = Kind::Tcp;
  std::string host = "127.0.0.1";  ///< IPv4 address to listen on; TCP and UDP
  int port = 0;                    ///< 0 lets the system choose; TCP and UDP
  std::string path;                ///< symbolic link to the pty's device; may be empty
};

/// The other end of one conversation at an endpoint.
struct Peer {
  Fd connection;          ///< TCP
  sockaddr_in address{};  ///< UDP
};

/// Where hosts find the controller. Nothing blocks.
///
/// TCP takes any number of connections. UDP talks to the peer that sent last. A pty talks to whoever has its device
/// open; what waits in it is flushed when the last one leaves.
///
/// Errors:  Open throws std::runtime_error, one line. Read and Write as the system calls, -1 with errno.
/// Threads: no lock; one thread at a time.
class Endpoint {
 public:
  explicit Endpoint(EndpointConfig config);
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  /// A second Open listens on the port that the first one got; a pty's device may have another name, which the
  /// symbolic link follows.
  void Open();
  void Close();

  EndpointConfig::Kind Kind() const { return config_.kind; }
  bool IsStream() const { return Kind() != EndpointConfig::Kind::Udp; }

  /// "tcp://127.0.0.1:43210", "udp://...", "serial:///dev/pts/3": what a host opens.
  std::string Link() const;

  /// The listener, the datagram socket or the pty's master; -1 while closed.
  int Descriptor() const { return pty_ ? pty_->Master().Get() : fd_.Get(); }

  /// TCP: the next connection that waits.
  std::optional<Peer> Accept() const;

  /// TCP: ends the connection without a goodbye.
  static void Reset(Peer& peer);

  /// The pty, while it is open; null for sockets.
  const Pty* GetPty() const { return pty_.get(); }

  /// @param[in,out] peer UDP: becomes who sent the datagram
  ssize_t Read(Peer& peer, char* bytes, std::size_t size) const;
  ssize_t Write(const Peer& peer, const char* bytes, std::size_t size) const;

 private:
  Fd Bind();

  EndpointConfig config_;
  Fd fd_;
  Fd reserved_;  ///< TCP: bound but not listening, so that nobody gets the port while the endpoint is closed
  std::unique_ptr<Pty> pty_;
};

}  // namespace velta::sim

#endif  // VELTA_WIRE_ENDPOINT_H_
