// SPDX-License-Identifier: MIT
#include "notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace velta::bridge {

void NotifyManager(const std::string& state) {
  const char* path = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t size = path != nullptr ? std::strlen(path) : 0;
  if (size < 2 || size >= sizeof address.sun_path) return;
  std::memcpy(address.sun_path, path, size);
  if (path[0] == '@') address.sun_path[0] = '\0';  // a name in the abstract namespace
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (socket < 0) return;
  const auto address_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size);
  sendto(socket, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), address_size);
  close(socket);
}

std::chrono::microseconds WatchdogPeriod() {
  const char* limit = std::getenv("WATCHDOG_USEC");
  return std::chrono::microseconds(limit != nullptr ? std::strtoll(limit, nullptr, 10) / 2 : 0);
}

}  // namespace velta::bridge
