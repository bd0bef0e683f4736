// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_LINK_H_
#define VELTA_WIRE_LINK_H_

#include <string>

class MasterControllerClient;

namespace velta::tools {

/// Where the other end of the wire is.
struct Link {
  enum class Kind { Tcp, Udp, Serial, Pty };

  Kind kind = Kind::Tcp;
  std::string host;        ///< dotted quad; TCP and UDP
  int port = 0;            ///< 0..65535; TCP and UDP; 0 lets the system choose where an endpoint listens
  std::string device;      ///< the tty, or the pty's symlink (may be empty); Serial and Pty
  unsigned baud = 115200;  ///< bits per second; Serial
};

/// tcp://IP:PORT, udp://IP:PORT, serial:///dev/ttyX?baud=115200, pty: or pty:PATH (endpoints only).
/// Throws UsageError, one line, for anything else.
Link ParseLink(const std::string& text);

/// The text that ParseLink reads as link.
std::string ToString(const Link& link);

/// Opens the client on a TCP, UDP or serial link. Nothing is printed.
/// @return false when it cannot be opened (or is a pty endpoint); errno tells why
bool OpenLink(MasterControllerClient& client, const Link& link);

/// Sends standard error nowhere while it lives: the library reports failed system calls there, and a tool tells the
/// user itself, in one line. Keeps errno.
class SilencedErrors {
 public:
  SilencedErrors();
  SilencedErrors(const SilencedErrors&) = delete;
  SilencedErrors& operator=(const SilencedErrors&) = delete;
  ~SilencedErrors();

 private:
  int saved_;
};

}  // namespace velta::tools

#endif  // VELTA_WIRE_LINK_H_
