// SPDX-License-Identifier: MIT
#include "relay.h"

#include <algorithm>
#include <array>
#include <utility>

namespace velta::wire {

namespace {

using Kind = LinkAddress::Kind;
using Clock = std::chrono::steady_clock;

int Sooner(int timeout_ms, int other_ms) { return timeout_ms < 0 ? other_ms : std::min(timeout_ms, other_ms); }

/// What nothing is wanted from is not looked at, or its hang-up would be reported again and again.
pollfd Watch(int fd, short wanted) { return {wanted != 0 ? fd : -1, wanted, 0}; }

const LinkAddress& Matching(const LinkAddress& listen, const LinkAddress& controller) {
  if ((listen.kind == Kind::kUdp) != (controller.kind == Kind::kUdp)) {
    throw BadLink("'" + ToString(listen) + "' cannot stand in for '" + ToString(controller) +
                  "': udp:// goes with udp:// only, a stream would cut datagrams");
  }
  HostEnd::Check(controller);
  return listen;
}

}  // namespace

Relay::Relay(const LinkAddress& listen, const LinkAddress& controller, RelayObserver& observer, int timeout_ms)
    : end_(Matching(listen, controller)), controller_(controller), observer_(observer), timeout_(timeout_ms) {}

Relay::~Relay() {
  const bool opened = Connected();
  session_.reset();
  if (opened) observer_.Closed(StampNow());
}

void Relay::Step(int timeout_ms, std::initializer_list<int> wake) {
  std::vector<pollfd> fds(3, {-1, 0, 0});  // the first three are the relay's
  for (const int fd : wake) fds.push_back({fd, POLLIN, 0});
  if (!session_) return AwaitHost(fds, timeout_ms);
  if (session_->controller.IsConnecting()) return AwaitConnection(fds, timeout_ms);
  PassOn(fds, timeout_ms);
}

void Relay::AwaitHost(std::vector<pollfd>& fds, int timeout_ms) {
  if (!end_.HostIsThere()) {
    const int fd = end_.WaitDescriptor();
    fds[0] = Watch(fd, POLLIN);
    poll(fds.data(), fds.size(), fd < 0 ? Sooner(timeout_ms, ControllerEnd::kPtyLook) : timeout_ms);
  }
  if (end_.HostIsThere()) Begin();
}

void Relay::AwaitConnection(std::vector<pollfd>& fds, int timeout_ms) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(session_->connect_by - Clock::now()).count();
  if (left <= 0) {
    return TurnAway(ToString(controller_) + ": no answer within " + std::to_string(timeout_.count()) + " ms");
  }
  fds[0] = Watch(session_->controller.Descriptor(), POLLOUT);
  poll(fds.data(), fds.size(), Sooner(timeout_ms, static_cast<int>(left)));
  if (fds[0].revents == 0) return;
  try {
    session_->controller.FinishConnecting();
  } catch (const LinkError& error) {
    return TurnAway(error.what());
  }
  observer_.Opened(StampNow());
}

void Relay::PassOn(std::vector<pollfd>& fds, int timeout_ms) {
  const auto events = [](const Way& from_it, const Way& to_it) {
    const bool read = from_it.pending.empty() && !from_it.ended;
    return static_cast<short>((read ? POLLIN : 0) | (to_it.pending.empty() ? 0 : POLLOUT));
  };
  const Way &up = session_->up, &down = session_->down;
  fds[0] = Watch(session_->host.Descriptor(), events(up, down));
  fds[1] = Watch(session_->controller.Descriptor(), events(down, up));
  // A host that has closed may be back before the controller has: the old connection must not keep it waiting.
  fds[2] = Watch(up.ended ? end_.WaitDescriptor() : -1, POLLIN);
  if (poll(fds.data(), fds.size(), timeout_ms) <= 0) return;
  if (fds[2].revents != 0) return End();
  Move(Side::kHost, (fds[0].revents & ~POLLOUT) != 0);
  if (session_) Move(Side::kController, (fds[1].revents & ~POLLOUT) != 0);
}

void Relay::Begin() {
  std::optional<Channel> host;
  try {
    host = end_.Take();
  } catch (const LinkError&) {
    if (end_.Kind() == Kind::kSerial) throw;
    return;  // gone before it was taken
  }
  try {
    session_.emplace(Session{*host, HostEnd(controller_), Clock::now() + timeout_});
  } catch (const LinkError& error) {
    if (end_.Kind() == Kind::kUdp || end_.Kind() == Kind::kSerial) throw;
    host->Break();
    host.reset();
    end_.Release(true);
    observer_.Failed(error.what());
    return;
  }
  if (Connected()) observer_.Opened(StampNow());
}

void Relay::End() {
  const bool opened = Connected();
  const bool hang_up = !session_->up.ended;  // a host on a pty must learn of the end
  session_.reset();
  end_.Release(hang_up);
  if (opened) observer_.Closed(StampNow());
}

void Relay::EndBrokenBy(Side side) {
  if (side == Side::kHost) {
    session_->controller.GetChannel().Break();
    session_->up.ended = true;
  } else {
    session_->host.Break();
  }
  End();
  if (side == Side::kController && end_.Kind() == Kind::kSerial) {
    throw LinkError(ToString(controller_) + ": the controller's link is gone", 0);
  }
}

void Relay::TurnAway(const std::string& why) {
  session_->host.Break();
  session_.reset();
  end_.Release(true);
  if (end_.Kind() == Kind::kSerial) throw LinkError(why, 0);
  observer_.Failed(why);
}

Io Relay::Flush(Way& way, Channel& to) {
  if (way.pending.empty()) return Io::kDone;
  const IoResult result = to.Write(way.pending.data() + way.written, way.pending.size() - way.written);
  way.written += result.size;
  if (result.io == Io::kDone && way.written == way.pending.size()) {
    way.pending.clear();
    way.written = 0;
  }
  return result.io;
}

void Relay::Move(Side from, bool readable) {
  const bool is_host = from == Side::kHost;
  const Side other = is_host ? Side::kController : Side::kHost;
  Way& way = is_host ? session_->up : session_->down;
  Channel& controller = session_->controller.GetChannel();
  Channel& source = is_host ? session_->host : controller;
  Channel& target = is_host ? controller : session_->host;

  if (Flush(way, target) == Io::kBroken) return EndBrokenBy(other);
  if (!way.pending.empty() || !readable || way.ended) return;

  std::array<char, kMaxChunk> buffer;
  const IoResult result = source.Read(buffer.data(), buffer.size());
  const Stamp now = StampNow();
  switch (result.io) {
    case Io::kLater:
      return;
    case Io::kBroken:
      return EndBrokenBy(from);
    case Io::kEnded:
      way.ended = true;
      break;
    case Io::kDone: {
      const IoResult written = target.Write(buffer.data(), result.size);
      way.pending.assign(buffer.data() + written.size, buffer.data() + result.size);
      observer_.Passed(is_host ? Direction::kToController : Direction::kToHost, buffer.data(), result.size, now);
      if (written.io == Io::kBroken) return EndBrokenBy(other);
      return;
    }
  }
  // The source has closed its side. Only TCP can close one side and keep the other.
  const bool half = end_.Kind() == Kind::kTcp && controller_.kind == Kind::kTcp;
  if (!half || (session_->up.ended && session_->down.ended)) return End();
  target.EndWriting();
}

}  // namespace velta::wire
