// SPDX-License-Identifier: MIT
#ifndef VELTA_LINK_H_
#define VELTA_LINK_H_

#include <string>
#include <string_view>

#include "velta_export.h"

namespace velta {

/// Where the other end of the wire is, as a text names it:
///
///   tcp://HOST:PORT, udp://HOST:PORT   HOST a dotted quad or a name; PORT 0 to 65,535
///   serial:///dev/ttyX?baud=115200     baud 1 to 100,000,000, or missing (115,200)
///   sim:  or  sim:?cycle=10            a simulated controller inside the process; cycle 1 to 10,000 ms, 1 if missing
///   pty:  or  pty:PATH                 a pseudo terminal, only where something listens; PATH is a symbolic link to it
struct LinkAddress {
  enum class Kind { kTcp, kUdp, kSerial, kSimulator, kPty };

  Kind kind = Kind::kTcp;
  std::string host;        ///< TCP and UDP
  int port = 0;            ///< TCP and UDP; 0 lets the system choose where something listens
  std::string device;      ///< the tty of a serial link, or the pty's symbolic link (may be empty)
  unsigned baud = 115200;  ///< bits per second; serial
  int cycle_ms = 1;        ///< simulation step; simulator
};

/// Reads a link's text. Nothing is opened or resolved.
/// @param text  the link, as LinkAddress lists the forms
/// @param[out] address  the link; untouched by a false result
/// @param[out] why      one line that says what is wrong, without the text itself; untouched by a true result
/// Thread-safe.
VELTA_API bool ParseLinkAddress(std::string_view text, LinkAddress& address, std::string& why);

/// @return the text that ParseLinkAddress reads as address
VELTA_API std::string ToString(const LinkAddress& address);

}  // namespace velta

#endif  // VELTA_LINK_H_
