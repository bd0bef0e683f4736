// SPDX-License-Identifier: MIT
#include <algorithm>
#include <charconv>
#include <cstddef>
#include <optional>
#include <utility>

#include "velta_link.h"

namespace velta {

namespace {

constexpr const char* kForms =
    "expected tcp://HOST:PORT, udp://HOST:PORT, serial:///dev/ttyX?baud=115200, sim: or pty:PATH";
constexpr unsigned kMaxBaud = 100'000'000;
constexpr int kMaxCycle = 10'000;
constexpr std::size_t kMaxName = 253;  // of a host name in all
constexpr std::size_t kMaxLabel = 63;  // of one part of it

/// All of text as a decimal number from min to max.
template <typename Number>
std::optional<Number> ReadNumber(std::string_view text, Number min, Number max) {
  if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
  Number value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || value < min || value > max) return std::nullopt;
  return value;
}

/// Takes prefix off the front of text.
bool Consume(std::string_view& text, std::string_view prefix) {
  if (text.substr(0, prefix.size()) != prefix) return false;
  text.remove_prefix(prefix.size());
  return true;
}

/// The part of text before mark, which is taken off with mark; all of it without one.
std::string_view TakeUntil(std::string_view& text, char mark) {
  const std::size_t at = text.find(mark);
  const std::string_view part = text.substr(0, at);
  text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
  return part;
}

bool IsDottedQuad(std::string_view host) {
  int numbers = 0;
  while (!host.empty()) {
    const bool more = host.find('.') != std::string_view::npos;
    const std::string_view number = TakeUntil(host, '.');
    if (!ReadNumber(number, 0, 255) || (number.size() > 1 && number.front() == '0')) return false;
    if (++numbers > 4 || (more && host.empty())) return false;
  }
  return numbers == 4;
}

bool IsNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

/// Parts of letters, digits, '-' and '_' between dots, also one dot at the end; not only digits in the last part,
/// which is what a mistyped address has.
bool IsHostName(std::string_view host) {
  if (!host.empty() && host.back() == '.') host.remove_suffix(1);
  if (host.empty() || host.size() > kMaxName || host.back() == '.') return false;
  std::string_view part;
  while (!host.empty()) {
    part = TakeUntil(host, '.');
    if (part.empty() || part.size() > kMaxLabel || part.front() == '-' || part.back() == '-') return false;
    if (!std::all_of(part.begin(), part.end(), IsNameCharacter)) return false;
  }
  return !std::all_of(part.begin(), part.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string ParseSocket(std::string_view rest, LinkAddress& link) {
  const std::size_t colon = rest.rfind(':');
  if (colon == std::string_view::npos) return "the port is missing";
  link.host = rest.substr(0, colon);
  if (link.host.empty()) return "the host is missing";
  if (!IsDottedQuad(link.host) && !IsHostName(link.host)) {
    return "'" + link.host + "' is neither an IPv4 address such as 192.168.0.10 nor a host name";
  }
  const std::optional<int> port = ReadNumber(rest.substr(colon + 1), 0, 65535);
  if (!port) return "the port must be 0 to 65535";
  link.port = *port;
  return {};
}

std::string ParseSerial(std::string_view rest, LinkAddress& link) {
  const bool has_query = rest.find('?') != std::string_view::npos;
  link.device = TakeUntil(rest, '?');
  if (link.device.empty() || link.device.front() != '/') return "a serial link names a device: serial:///dev/ttyX";
  if (!has_query) return {};
  if (!Consume(rest, "baud=")) return "only ?baud=N may follow the device";
  const std::optional<unsigned> baud = ReadNumber(rest, 1U, kMaxBaud);
  if (!baud) return "the baud rate must be 1 to " + std::to_string(kMaxBaud);
  link.baud = *baud;
  return {};
}

std::string ParseSimulator(std::string_view rest, LinkAddress& link) {
  if (rest.empty()) return {};
  if (!Consume(rest, "?cycle=")) return "only ?cycle=N may follow sim:";
  const std::optional<int> cycle = ReadNumber(rest, 1, kMaxCycle);
  if (!cycle) return "the cycle must be 1 to " + std::to_string(kMaxCycle) + " ms";
  link.cycle_ms = *cycle;
  return {};
}

/// @return what is wrong, or nothing
std::string Parse(std::string_view text, LinkAddress& link) {
  using Kind = LinkAddress::Kind;
  if (std::any_of(text.begin(), text.end(), [](char c) { return (c >= 0 && c < ' ') || c == 127; })) {
    return "it has a control character";
  }
  std::string_view rest = text;
  if (Consume(rest, "tcp://")) {
    link.kind = Kind::kTcp;
    return ParseSocket(rest, link);
  }
  if (Consume(rest, "udp://")) {
    link.kind = Kind::kUdp;
    return ParseSocket(rest, link);
  }
  if (Consume(rest, "serial://")) {
    link.kind = Kind::kSerial;
    return ParseSerial(rest, link);
  }
  if (Consume(rest, "sim:")) {
    link.kind = Kind::kSimulator;
    return ParseSimulator(rest, link);
  }
  if (!Consume(rest, "pty:")) return kForms;
  link.kind = Kind::kPty;
  link.device = rest;
  return {};
}

}  // namespace

bool ParseLinkAddress(std::string_view text, LinkAddress& address, std::string& why) {
  LinkAddress link;
  std::string wrong = Parse(text, link);
  if (!wrong.empty()) {
    why = std::move(wrong);
    return false;
  }
  address = std::move(link);
  return true;
}

std::string ToString(const LinkAddress& address) {
  switch (address.kind) {
    case LinkAddress::Kind::kTcp:
      return "tcp://" + address.host + ":" + std::to_string(address.port);
    case LinkAddress::Kind::kUdp:
      return "udp://" + address.host + ":" + std::to_string(address.port);
    case LinkAddress::Kind::kSerial:
      return "serial://" + address.device + "?baud=" + std::to_string(address.baud);
    case LinkAddress::Kind::kSimulator:
      return address.cycle_ms == LinkAddress{}.cycle_ms ? "sim:" : "sim:?cycle=" + std::to_string(address.cycle_ms);
    case LinkAddress::Kind::kPty:
      break;
  }
  return "pty:" + address.device;
}

}  // namespace velta
