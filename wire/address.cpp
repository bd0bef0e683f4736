// SPDX-License-Identifier: MIT
#include "address.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <system_error>
#include <thread>

#include "clock.h"
#include "stop.h"

namespace velta::wire {

namespace {

constexpr std::int64_t kPatienceNs = 5'000'000'000;

struct Answer {
  int error;  ///< of getaddrinfo
  std::string quad{};
};

Answer Ask(const std::string& name) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(name.c_str(), nullptr, &hints, &found);
  if (error != 0) return {error};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(found, freeaddrinfo);
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr, text, sizeof text);
  return {0, text};
}

}  // namespace

LinkAddress ParseLink(const std::string& text) {
  LinkAddress link;
  std::string why;
  if (!ParseLinkAddress(text, link, why)) throw BadLink("bad link '" + text + "': " + why);
  return link;
}

LinkAddress Resolved(LinkAddress link) {
  in_addr quad{};
  const bool has_host = link.kind == LinkAddress::Kind::kTcp || link.kind == LinkAddress::Kind::kUdp;
  if (!has_host || inet_pton(AF_INET, link.host.c_str(), &quad) == 1) return link;
  const std::string trouble = ToString(link) + ": cannot resolve '" + link.host + "': ";
  // No resolver can be interrupted: one that takes too long is left to itself.
  const auto question = std::make_shared<std::packaged_task<Answer()>>([name = link.host] { return Ask(name); });
  std::future<Answer> coming = question->get_future();
  std::thread([question] { (*question)(); }).detach();
  const std::int64_t deadline = MonotonicNs() + kPatienceNs;
  while (coming.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready) {
    if (StopRequested()) throw LinkError(trouble + "interrupted", EINTR);
    if (MonotonicNs() >= deadline) throw LinkError(trouble + "no answer within 5 s", 0);
  }
  Answer answer = coming.get();
  if (answer.error != 0) throw LinkError(trouble + gai_strerror(answer.error), 0);
  link.host = std::move(answer.quad);
  return link;
}

void FailLink(const LinkAddress& link, int error) {
  throw LinkError(ToString(link) + ": " + std::generic_category().message(error), error);
}

}  // namespace velta::wire
