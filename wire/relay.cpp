// SPDX-License-Identifier: MIT
#include "relay.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include "errors.h"
#include "protocol.h"

namespace velta::tools {

namespace {

constexpr std::chrono::seconds kConnectTimeout{5};  // as long as the library's own link waits

}  // namespace

Passage StampedNow(LinkEvent event, const char* bytes, std::size_t size) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto monotonic =
      static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<std::uint64_t>(now.tv_nsec);
  return {event, bytes, size, monotonic, GetNowTimeStamp()};
}

Relay::Relay(const Link& endpoint, const Link& controller, Observer observer)
    : endpoint_(endpoint), controller_(controller), observer_(std::move(observer)) {
  if ((endpoint.kind == Link::Kind::Udp) != (controller.kind == Link::Kind::Udp)) {
    throw UsageError("'" + ToString(endpoint) + "' cannot stand in for '" + ToString(controller) +
                     "': udp:// goes with udp:// only, a stream would cut datagrams");
  }
  if (controller.kind == Link::Kind::Pty || (controller.kind != Link::Kind::Serial && controller.port == 0)) {
    static_cast<void>(Port::Connect(controller));  // tells what is wrong with it
  }
}

Relay::~Relay() {
  const bool opened = Connected();
  session_.reset();
  if (opened && observer_.passed) observer_.passed(StampedNow(LinkEvent::kClosed));
}

void Relay::Step(int timeout_ms, std::initializer_list<int> wake) {
  std::vector<pollfd> fds;
  for (const int fd : wake) fds.push_back({fd, POLLIN, 0});
  const std::size_t first = fds.size();

  if (!session_) {
    const int fd = endpoint_.WaitFd();
    fds.push_back({fd, POLLIN, 0});
    if (fd < 0 && !endpoint_.HostIsThere()) {
      timeout_ms = timeout_ms < 0 ? Endpoint::kPtyLook : std::min(timeout_ms, Endpoint::kPtyLook);
    }
    if (!endpoint_.HostIsThere() && poll(fds.data(), fds.size(), timeout_ms) <= 0) return;
    if (endpoint_.HostIsThere()) Begin();
    return;
  }

  const bool connecting = session_->controller.Connecting();
  const auto events = [connecting](const Way& from_it, const Way& to_it) {
    const bool read = !connecting && from_it.pending.empty() && !from_it.ended;
    return static_cast<short>((read ? POLLIN : 0) | (to_it.pending.empty() ? 0 : POLLOUT));
  };
  // What nothing is wanted from is not looked at, or its hang-up would be told again and again.
  const auto watch = [&fds](int fd, short wanted) { fds.push_back({wanted != 0 ? fd : -1, wanted, 0}); };
  watch(session_->host.Fd(), events(session_->up, session_->down));
  watch(session_->controller.Fd(), connecting ? short{POLLOUT} : events(session_->down, session_->up));
  // A host that has closed may be back before the controller has: the old connection must not keep it waiting.
  watch(session_->up.ended ? endpoint_.WaitFd() : -1, POLLIN);
  if (connecting) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(session_->connect_by - std::chrono::steady_clock::now());
    if (left.count() <= 0) return Unreachable(ToString(controller_) + ": no answer within 5 s");
    timeout_ms = static_cast<int>(timeout_ms < 0 ? left.count() : std::min<std::int64_t>(timeout_ms, left.count()));
  }
  if (poll(fds.data(), fds.size(), timeout_ms) <= 0) return;

  const short host = fds[first].revents;
  const short controller = fds[first + 1].revents;
  if (connecting) {
    if (controller == 0) return;
    try {
      session_->controller.FinishConnecting();
    } catch (const Failure& failure) {
      return Unreachable(failure.what());
    }
    if (observer_.passed) observer_.passed(StampedNow(LinkEvent::kOpened));
    return;
  }
  if (fds[first + 2].revents != 0) return End();
  Move(Side::kHost, (host & ~POLLOUT) != 0);
  if (session_) Move(Side::kController, (controller & ~POLLOUT) != 0);
}

void Relay::Begin() {
  std::optional<Port> host;
  try {
    host = endpoint_.Take();
  } catch (const Failure&) {
    if (endpoint_.Kind() == Link::Kind::Serial) throw;
    return;  // gone before it was taken
  }
  try {
    session_.emplace(Session{
        std::move(*host), Port::Connect(controller_), std::chrono::steady_clock::now() + kConnectTimeout, {}, {}});
  } catch (const Failure& failure) {
    if (endpoint_.Kind() == Link::Kind::Udp || endpoint_.Kind() == Link::Kind::Serial) throw;
    host->Break();
    host.reset();
    endpoint_.Release(true);
    if (observer_.failed) observer_.failed(failure.what());
    return;
  }
  if (!session_->controller.Connecting() && observer_.passed) observer_.passed(StampedNow(LinkEvent::kOpened));
}

void Relay::End() {
  const bool opened = Connected();
  const bool hang_up = !session_->up.ended;  // a host on a pty must learn of the end
  session_.reset();
  endpoint_.Release(hang_up);
  if (opened && observer_.passed) observer_.passed(StampedNow(LinkEvent::kClosed));
}

void Relay::EndBrokenBy(Side side) {
  if (side == Side::kHost) {
    session_->controller.Break();
    session_->up.ended = true;
  } else {
    session_->host.Break();
  }
  End();
  if (side == Side::kController && endpoint_.Kind() == Link::Kind::Serial) {
    throw Failure(ToString(controller_) + ": the controller's link is gone");
  }
}

void Relay::Unreachable(const std::string& why) {
  session_->host.Break();
  session_.reset();
  endpoint_.Release(true);
  if (endpoint_.Kind() == Link::Kind::Serial) throw Failure(why);
  if (observer_.failed) observer_.failed(why);
}

Port::Io Relay::Flush(Way& way, Port& to) {
  if (way.pending.empty()) return Port::Io::kDone;
  const Port::Result result = to.Write(way.pending.data() + way.written, way.pending.size() - way.written);
  way.written += result.size;
  if (result.io == Port::Io::kDone && way.written == way.pending.size()) {
    way.pending.clear();
    way.written = 0;
  }
  return result.io;
}

void Relay::Move(Side from, bool readable) {
  const bool is_host = from == Side::kHost;
  const Side other = is_host ? Side::kController : Side::kHost;
  Way& way = is_host ? session_->up : session_->down;
  Port& source = is_host ? session_->host : session_->controller;
  Port& target = is_host ? session_->controller : session_->host;

  if (Flush(way, target) == Port::Io::kBroken) return EndBrokenBy(other);
  if (!way.pending.empty() || !readable || way.ended) return;

  std::array<char, kMaxChunk> buffer;
  const Port::Result result = source.Read(buffer.data(), buffer.size());
  const auto passage = StampedNow(is_host ? LinkEvent::kToController : LinkEvent::kToHost, buffer.data(), result.size);
  switch (result.io) {
    case Port::Io::kLater:
      return;
    case Port::Io::kBroken:
      return EndBrokenBy(from);
    case Port::Io::kEnded:
      way.ended = true;
      break;
    case Port::Io::kDone: {
      const Port::Result written = target.Write(buffer.data(), result.size);
      way.pending.assign(buffer.data() + written.size, buffer.data() + result.size);
      if (observer_.passed) observer_.passed(passage);
      if (written.io == Port::Io::kBroken) return EndBrokenBy(other);
      return;
    }
  }
  // The source has closed its side. Only TCP can close one side alone.
  const bool half = endpoint_.Kind() == Link::Kind::Tcp && controller_.kind == Link::Kind::Tcp;
  if (!half || (session_->up.ended && session_->down.ended)) return End();
  target.EndWriting();
}

}  // namespace velta::tools
