// SPDX-License-Identifier: MIT
#ifndef VELTA_BRIDGE_GATE_H_
#define VELTA_BRIDGE_GATE_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace velta::bridge {

/// Decides by a request's head who is let in.
class Gate {
 public:
  /// @param names  host names and addresses that a request may be addressed to, without ports
  /// @param token  empty: none is asked for
  Gate(std::vector<std::string> names, std::string_view token);

  /// @param host    the Host field, "" if there is none
  /// @param origin  the Origin field, "" if there is none
  /// @param local   the connection's own address; a name like the others, for who listens on all addresses
  /// @return nullptr, or what is wrong: "host" or "origin"
  const char* Check(std::string_view host, std::string_view origin, std::string_view local) const;

  bool NeedsToken() const { return !token_digest_.empty(); }
  bool IsToken(std::string_view text) const;            ///< in a time that does not depend on the text
  bool IsBearer(std::string_view authorization) const;  ///< of an Authorization field, "" if there is none

 private:
  std::vector<std::string> names_;
  std::string token_digest_;
};

/// Counts what was refused by reason, and says when a line about it is due: one per peer and minute.
class Refusals {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// @return whether to log this one
  bool Count(const std::string& reason, const std::string& peer, Time now);
  const std::map<std::string, std::uint64_t>& ByReason() const { return counts_; }

 private:
  std::map<std::string, std::uint64_t> counts_;
  std::map<std::string, Time> logged_;
};

/// "[::1]:8080", "localhost:1", "Example" -> "::1", "localhost", "example"; "" for what is no host
std::string HostName(std::string_view host);

}  // namespace velta::bridge

#endif  // VELTA_BRIDGE_GATE_H_
