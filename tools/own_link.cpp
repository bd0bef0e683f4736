// SPDX-License-Identifier: MIT
#include "own_link.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "host_end.h"
#include "stop.h"

namespace velta::tools {

namespace {

template <typename Time>
std::uint64_t Nanoseconds(Time time) {
  return static_cast<std::uint64_t>(std::chrono::nanoseconds(time.time_since_epoch()).count());
}

}  // namespace

OwnLink::OwnLink(const Link& link, SessionOptions options, RelayObserver* observer)
    : link_(link), observer_(observer), reconnects_(options.reconnect), news_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  HostEnd::Check(link);
  options.link = ToString(link);
  options.await_status = false;  // a controller that is silent, or is another one, is watched too
  options.silence = std::chrono::nanoseconds(0);
  options.wake_on_arrival = true;
  if (observer != nullptr) options.on_traffic = [this](const Traffic& traffic) { Keep(traffic); };
  session_ = std::make_unique<Session>(std::move(options));
  session_->OnEvent([this](const Event& event) { Note(event); });
  session_->Start();
  while (!was_opened_) {
    if (StopRequested()) throw LinkError(ToString(link_) + ": interrupted", EINTR);
    if (has_failed_) throw LinkError(Why(), 0);
    AwaitNews(MonotonicNs() + 1'000'000'000);
  }
}

void OwnLink::Keep(const Traffic& traffic) {
  const Stamp at{Nanoseconds(traffic.time), Nanoseconds(traffic.wall_time)};
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    pieces_.push_back({traffic.kind, at, {traffic.bytes.begin(), traffic.bytes.end()}});
  }
  Wake();
}

void OwnLink::Note(const Event& event) {
  if (event.kind == Event::Kind::kConnected) was_opened_ = true;
  const bool is_retried = event.kind == Event::Kind::kTrying && event.value > 0;
  if (is_retried || event.kind == Event::Kind::kNotice) has_failed_ = true;
  Wake();
}

void OwnLink::Wake() {
  const std::uint64_t one = 1;
  static_cast<void>(!write(news_.Get(), &one, sizeof one));
}

void OwnLink::AwaitNews(std::int64_t deadline_ns, int wake) {
  WaitUntil(deadline_ns, news_.Get(), POLLIN, wake);
  std::uint64_t count = 0;
  static_cast<void>(!read(news_.Get(), &count, sizeof count));
}

void OwnLink::Step(std::int64_t deadline_ns, int wake) {
  AwaitNews(deadline_ns, wake);
  const bool is_over = has_failed_ && !reconnects_;  // what passed before is there now
  HandOver();
  if (is_over) throw LinkError(Why(), 0);
}

void OwnLink::Close() {
  session_->Stop();
  HandOver();
}

void OwnLink::HandOver() {
  std::vector<Piece> pieces;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    pieces.swap(pieces_);
  }
  for (const Piece& piece : pieces) {
    if (piece.kind == Traffic::Kind::kOpened) observer_->Opened(piece.at);
    if (piece.kind == Traffic::Kind::kClosed) observer_->Closed(piece.at);
    is_open_ = piece.kind != Traffic::Kind::kClosed;
    const Direction direction =
        piece.kind == Traffic::Kind::kToController ? Direction::kToController : Direction::kToHost;
    for (std::size_t from = 0; from < piece.bytes.size(); from += kMaxChunk) {
      observer_->Passed(direction, piece.bytes.data() + from, std::min(kMaxChunk, piece.bytes.size() - from), piece.at);
    }
  }
}

std::string OwnLink::Trouble() { return is_open_ ? "" : Why() + "; trying again"; }

std::string OwnLink::Why() {
  std::string why;
  session_->WaitConnected(std::chrono::nanoseconds(0), &why);
  const std::string device = link_.device + ": ";
  if (why.rfind(device, 0) == 0) why.erase(0, device.size());  // the link names it
  return ToString(link_) + ": " + why;
}

}  // namespace velta::tools
