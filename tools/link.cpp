// SPDX-License-Identifier: MIT
#include "link.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "MasterControllerClient.h"

namespace velta::tools {

SilencedErrors::SilencedErrors() : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null < 0) return;
  if (saved_ >= 0) dup2(null, STDERR_FILENO);
  close(null);
}

SilencedErrors::~SilencedErrors() {
  if (saved_ < 0) return;
  const int error = errno;
  dup2(saved_, STDERR_FILENO);
  close(saved_);
  errno = error;
}

bool OpenLink(MasterControllerClient& client, const Link& link) {
  const Link resolved = Resolved(link);
  const SilencedErrors silenced;
  errno = 0;
  switch (link.kind) {
    case Link::Kind::kTcp:
      return client.InitAsTcpClient(resolved.host, link.port);
    case Link::Kind::kUdp:
      return client.InitAsUdpClient(resolved.host, link.port);
    case Link::Kind::kSerial:
      return client.InitAsSerialClient(link.device, link.baud);
    case Link::Kind::kSimulator:
    case Link::Kind::kPty:
      break;
  }
  errno = EINVAL;
  return false;
}

}  // namespace velta::tools
