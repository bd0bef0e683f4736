// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_LINK_H_
#define VELTA_TOOLS_LINK_H_

#include "address.h"
#include "clock.h"

class MasterControllerClient;

namespace velta::tools {

using namespace wire;  // the tools live on the wire
using Link = LinkAddress;

/// Opens the client on a TCP, UDP or serial link; a host name is resolved first. Nothing is printed.
/// @return false when it cannot be opened (or is no way to a controller); errno says why
/// Throws LinkError for a name that cannot be resolved.
bool OpenLink(MasterControllerClient& client, const Link& link);

/// Sends standard error nowhere while it lives: the library reports failed system calls there, and a tool does so
/// itself, in one line. Keeps errno.
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

#endif  // VELTA_TOOLS_LINK_H_
