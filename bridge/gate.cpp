// SPDX-License-Identifier: MIT
#include "gate.h"

#include <openssl/crypto.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <utility>

namespace velta::bridge {

namespace {

constexpr std::size_t kMaxPeers = 1024;  ///< remembered for the log

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

/// Texts of any length become equally long ones, which compare in constant time.
std::string Digest(std::string_view text) {
  std::string digest(SHA256_DIGEST_LENGTH, '\0');
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(),
         reinterpret_cast<unsigned char*>(digest.data()));
  return digest;
}

bool RemovePrefix(std::string_view& text, std::string_view prefix) {
  if (LowerCase(text.substr(0, prefix.size())) != prefix) return false;
  text.remove_prefix(prefix.size());
  return true;
}

}  // namespace

std::string HostName(std::string_view host) {
  std::string_view name = host;
  std::string_view port;
  if (!host.empty() && host.front() == '[') {
    const auto end = host.find(']');
    if (end == std::string_view::npos) return {};
    name = host.substr(1, end - 1);
    port = host.substr(end + 1);
  } else if (const auto colon = host.find(':'); colon != std::string_view::npos) {
    name = host.substr(0, colon);
    port = host.substr(colon);
  }
  const bool is_port = port.empty() || (port.size() > 1 && port.front() == ':' &&
                                        port.find_first_not_of("0123456789", 1) == std::string_view::npos);
  return is_port ? LowerCase(name) : std::string();
}

Gate::Gate(std::vector<std::string> names, std::string_view token) : names_(std::move(names)) {
  for (std::string& name : names_) name = LowerCase(name);
  if (!token.empty()) token_digest_ = Digest(token);
}

const char* Gate::Check(std::string_view host, std::string_view origin, std::string_view local) const {
  const std::string name = HostName(host);
  const bool is_known = name == LowerCase(local) || std::find(names_.begin(), names_.end(), name) != names_.end();
  if (name.empty() || !is_known) return "host";
  if (origin.empty()) return nullptr;
  const bool is_web = RemovePrefix(origin, "http://") || RemovePrefix(origin, "https://");
  return is_web && HostName(origin) == name ? nullptr : "origin";
}

bool Gate::IsToken(std::string_view text) const {
  return NeedsToken() && CRYPTO_memcmp(Digest(text).data(), token_digest_.data(), token_digest_.size()) == 0;
}

bool Gate::IsBearer(std::string_view authorization) const {
  return RemovePrefix(authorization, "bearer ") && IsToken(authorization);
}

bool Refusals::Count(const std::string& reason, const std::string& peer, Time now) {
  constexpr std::chrono::minutes kQuiet(1);
  ++counts_[reason];
  const auto logged = logged_.find(peer);
  if (logged != logged_.end() && now - logged->second < kQuiet) return false;
  if (logged_.size() >= kMaxPeers) logged_.clear();
  logged_[peer] = now;
  return true;
}

}  // namespace velta::bridge
