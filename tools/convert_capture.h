// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_CONVERT_CAPTURE_H_
#define VELTA_TOOLS_CONVERT_CAPTURE_H_

#include <iosfwd>
#include <string>

#include "timeline.h"

/// The half of `velta convert` that is about captures of network packets.
namespace velta::tools {

/// @return whether the file begins like a capture (pcap or pcapng)
bool IsCapture(const std::string& path);

/// Writes the excerpt's records as a pcapng capture.
/// @return bytes that a crash left after the recording's last whole record
std::uint64_t WriteCapture(const recording::Excerpt& excerpt, std::ostream& out);

/// What to take from a capture.
struct CaptureSource {
  std::string file;
  int port = 0;    ///< the controller's; 0 for a serial line
  int joints = 0;  ///< joints per frame (n); 0 finds them
};

/// Writes a recording of what passed in a capture, and what was found to standard output.
/// @throws Failure, one line, when nothing of that port is in the capture, or the joint count cannot be found
void ReadCapture(const CaptureSource& source, const std::string& recording);

}  // namespace velta::tools

#endif  // VELTA_TOOLS_CONVERT_CAPTURE_H_
