// SPDX-License-Identifier: MIT
#include "link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <string_view>

#include "MasterControllerClient.h"
#include "errors.h"

namespace velta::tools {

namespace {

constexpr std::string_view kForms = "tcp://IP:PORT, udp://IP:PORT, serial:///dev/ttyX?baud=115200 or pty:PATH";

[[noreturn]] void Refuse(const std::string& text, const std::string& why) {
  throw UsageError("bad link '" + text + "': " + why);
}

/// All of text as a decimal number in [0, max]; -1 for anything else.
long ParseNumber(std::string_view text, long max) {
  long value = -1;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && stop == end && value >= 0 && value <= max ? value : -1;
}

/// Takes prefix off the front of text.
bool Consume(std::string_view& text, std::string_view prefix) {
  if (text.substr(0, prefix.size()) != prefix) return false;
  text.remove_prefix(prefix.size());
  return true;
}

}  // namespace

Link ParseLink(const std::string& text) {
  Link link;
  std::string_view rest = text;
  if (Consume(rest, "pty:")) {
    link.kind = Link::Kind::Pty;
    link.device = rest;
    return link;
  }
  if (Consume(rest, "serial://")) {
    link.kind = Link::Kind::Serial;
    const std::size_t query = rest.find('?');
    link.device = rest.substr(0, query);
    if (link.device.empty() || link.device[0] != '/') Refuse(text, "a serial link names a device, serial:///dev/ttyX");
    if (query == std::string_view::npos) return link;
    rest.remove_prefix(query + 1);
    const long baud = Consume(rest, "baud=") ? ParseNumber(rest, 100'000'000) : -1;
    if (baud <= 0) Refuse(text, "only ?baud=N may follow the device, N bits per second");
    link.baud = static_cast<unsigned>(baud);
    return link;
  }
  if (Consume(rest, "udp://")) {
    link.kind = Link::Kind::Udp;
  } else if (!Consume(rest, "tcp://")) {
    Refuse(text, "expected " + std::string(kForms));
  }
  const std::size_t colon = rest.rfind(':');
  if (colon == std::string_view::npos) Refuse(text, "the port is missing");
  link.host = rest.substr(0, colon);
  in_addr address{};
  if (inet_pton(AF_INET, link.host.c_str(), &address) != 1) {
    Refuse(text, "'" + link.host + "' is not an IPv4 address such as 192.168.0.10");
  }
  const long port = ParseNumber(rest.substr(colon + 1), 65535);
  if (port < 0) Refuse(text, "the port is a number from 0 to 65535");
  link.port = static_cast<int>(port);
  return link;
}

std::string ToString(const Link& link) {
  switch (link.kind) {
    case Link::Kind::Tcp:
      return "tcp://" + link.host + ":" + std::to_string(link.port);
    case Link::Kind::Udp:
      return "udp://" + link.host + ":" + std::to_string(link.port);
    case Link::Kind::Serial:
      return "serial://" + link.device + "?baud=" + std::to_string(link.baud);
    case Link::Kind::Pty:
      break;
  }
  return "pty:" + link.device;
}

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
  const SilencedErrors silenced;
  errno = 0;
  switch (link.kind) {
    case Link::Kind::Tcp:
      return client.InitAsTcpClient(link.host, link.port);
    case Link::Kind::Udp:
      return client.InitAsUdpClient(link.host, link.port);
    case Link::Kind::Serial:
      return client.InitAsSerialClient(link.device, link.baud);
    case Link::Kind::Pty:
      break;
  }
  errno = EINVAL;
  return false;
}

}  // namespace velta::tools
