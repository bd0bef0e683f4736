// SPDX-License-Identifier: MIT
#include "server.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace velta::sim {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds kTurn{10};  // the longest wait of the loop: faults and devices are looked at this often
constexpr std::size_t kMaxQueued = 1 << 20;    // bytes on the way to a host that does not read
constexpr std::size_t kMaxHosts = 64;          // more wait in the listener's queue
constexpr std::size_t kMaxAccepted = 1 << 16;  // commands that a late echo can reach back to

using Kind = LinkAddress::Kind;

milliseconds DefaultCycle(Kind kind) { return milliseconds(kind == Kind::kPty ? 10 : 1); }

nanoseconds FromMs(double ms) { return nanoseconds(static_cast<std::int64_t>(ms * 1e6)); }

}  // namespace

// The simulated time advances in steps of at most 10 ms, so that its thread ends soon after a stop.
Server::Server(ServerConfig config)
    : config_(std::move(config)),
      controller_(config_.joints, std::clamp(config_.cycle_ms, 1, 10)),
      faults_(config_.faults, config_.seed) {
  for (const LinkAddress& link : config_.listen) {
    const milliseconds cycle = config_.cycle_ms > 0 ? milliseconds(config_.cycle_ms) : DefaultCycle(link.kind);
    auto end = std::make_unique<wire::ControllerEnd>(link);
    places_.push_back({std::move(end), cycle, now_});
  }
  OpenAndClose();  // a host that comes before the first turn is refused, too
}

std::vector<std::string> Server::Links() const {
  std::vector<std::string> links;
  for (const Place& place : places_) {
    const LinkAddress& link = place.end->Address();
    links.push_back(place.end->Kind() == Kind::kPty ? "serial://" + link.device : ToString(link));  // at any speed
  }
  return links;
}

void Server::Run(int stop_fd, const std::function<void()>& on_tick) {
  do {
    UpdateClock();
    OpenAndClose();
    RunDueCommands();
    RunCycles();
    for (const auto& host : hosts_) {
      RunLate(*host);
      CloseWhereDue(*host);
    }
    Sweep();
    if (on_tick) on_tick();
  } while (WaitAndServe(stop_fd));
}

Summary Server::GetSummary() const {
  Summary summary = summary_;
  summary.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  for (std::size_t i = 0; i < kFaultCount; ++i) {
    const auto fault = static_cast<Fault>(i);
    if (faults_.IsKnown(fault)) summary.faults.emplace_back(Info(fault).name, faults_.Struck(fault));
  }
  return summary;
}

void Server::UpdateClock() {
  now_ = Clock::now();
  faults_.Advance(Unit::kMs,
                  static_cast<std::uint64_t>(std::chrono::duration_cast<milliseconds>(now_ - start_).count()));
}

void Server::OpenAndClose() {
  const bool refuse = faults_.IsActive(Fault::kRefuse);
  if (refuse && !refusing_) {
    faults_.Count(Fault::kRefuse);
    for (const auto& host : hosts_) host->gone = true;
    Sweep();
    for (Place& place : places_) place.end->Close();
  }
  refusing_ = refuse;

  const bool stop_reading = faults_.IsActive(Fault::kStopReading);
  if (stop_reading && reading_) faults_.Count(Fault::kStopReading);
  reading_ = !stop_reading;

  for (Place& place : places_) {
    if (!place.end->IsOpen() && !refusing_) {
      try {
        place.end->Open();
      } catch (const wire::LinkError&) {
        continue;  // someone else has taken the port or the name meanwhile: tried again in the next turn
      }
    }
    if (place.end->Kind() == Kind::kPty && place.end->IsOpen()) LookForDeviceUser(*place.end);
  }
  Sweep();
}

void Server::LookForDeviceUser(wire::ControllerEnd& end) {
  Host* const host = FindHost(end);
  const bool has_user = end.HasDeviceUser();
  if (has_user && host == nullptr) Welcome(end, end.Take());
  if (has_user || host == nullptr) return;
  ReadStream(*host);  // what the user left
  host->gone = true;
  end.Release(false);
}

void Server::RunDueCommands() {
  while (!due_commands_.empty() && due_commands_.front().due <= now_) {
    const DueCommand due = std::move(due_commands_.front());
    due_commands_.pop_front();
    Execute(due.command, due.host_id);
  }
}

void Server::RunCycles() {
  for (Place& place : places_) {
    if (place.next_cycle > now_) continue;
    place.next_cycle = std::max(place.next_cycle + place.cycle, now_);  // late cycles are not made up for
    if (config_.on_command) continue;
    for (const auto& host : hosts_) {
      if (&host->end == place.end.get() && !host->gone) SendStatus(*host);
    }
  }
}

void Server::RunLate(Host& host) {
  while (!host.gone) {
    auto bytes = host.outbox.TakeDue(now_);
    if (!bytes) return;
    Depart(host, std::move(*bytes));
  }
}

Clock::time_point Server::NextWake() const {
  Clock::time_point wake = now_ + kTurn;
  if (!due_commands_.empty()) wake = std::min(wake, due_commands_.front().due);
  for (const auto& host : hosts_) {
    if (const auto due = host->outbox.NextDue()) wake = std::min(wake, *due);
    if (config_.on_command) continue;
    for (const Place& place : places_) {
      if (place.end.get() == &host->end) wake = std::min(wake, place.next_cycle);
    }
  }
  return wake;
}

bool Server::WaitAndServe(int stop_fd) {
  std::vector<pollfd> requests{{stop_fd, POLLIN, 0}};
  std::vector<std::pair<wire::ControllerEnd*, Host*>> owners{{nullptr, nullptr}};  // a host, or where one may come
  const auto add = [&](int fd, bool in, bool out, wire::ControllerEnd* end, Host* host) {
    requests.push_back({fd, static_cast<short>((in ? POLLIN : 0) | (out ? POLLOUT : 0)), 0});
    owners.emplace_back(end, host);
  };
  for (const Place& place : places_) {
    wire::ControllerEnd& end = *place.end;
    if (!end.IsOpen() || end.Kind() == Kind::kPty) continue;
    const bool wants = end.Kind() == Kind::kTcp ? hosts_.size() < kMaxHosts : reading_;
    if (wants) add(end.WaitDescriptor(), true, false, &end, nullptr);
  }
  for (const auto& host : hosts_) {
    if (!host->channel.IsStream()) continue;
    add(host->channel.Descriptor(), reading_, host->outbox.HasWrites(), nullptr, host.get());
  }

  const nanoseconds wait = std::max(nanoseconds(0), nanoseconds(NextWake() - Clock::now()));
  const timespec timeout{0, static_cast<long>(wait.count())};  // below a second
  if (ppoll(requests.data(), requests.size(), &timeout, nullptr) <= 0) return true;
  if (requests[0].revents != 0) return false;
  UpdateClock();
  for (std::size_t i = 1; i < requests.size(); ++i) {
    const auto [end, host] = owners[i];
    const short events = requests[i].revents;
    if (events == 0 || (host != nullptr && host->gone)) continue;
    if (host == nullptr) {
      end->Kind() == Kind::kUdp ? ReadDatagram(*end) : Accept(*end);
      continue;
    }
    if ((events & POLLIN) != 0) {
      ReadStream(*host);
    } else if ((events & (POLLERR | POLLHUP)) != 0 && host->end.Kind() == Kind::kTcp) {
      host->gone = true;
    }
    if ((events & POLLOUT) != 0 && !host->gone) Flush(*host);
  }
  return true;
}

Server::Host* Server::FindHost(const wire::ControllerEnd& end) const {
  const auto found =
      std::find_if(hosts_.begin(), hosts_.end(), [&](const auto& host) { return &host->end == &end && !host->gone; });
  return found != hosts_.end() ? found->get() : nullptr;
}

Server::Host& Server::Welcome(wire::ControllerEnd& end, wire::Channel channel) {
  ++summary_.connections;
  hosts_.push_back(std::make_unique<Host>(next_host_id_++, end, std::move(channel), config_.joints));
  return *hosts_.back();
}

void Server::Accept(wire::ControllerEnd& end) {
  try {
    Welcome(end, end.Take());
  } catch (const wire::LinkError&) {  // gone before it was taken
  }
}

void Server::ReadDatagram(wire::ControllerEnd& end) {
  std::array<char, 65536> bytes;
  wire::Channel channel = end.Take();
  const wire::IoResult result = channel.Read(bytes.data(), bytes.size());
  if (result.io != wire::Io::kDone) return;
  Host* host = FindHost(end);
  if (host != nullptr && !host->channel.HasPeerOf(channel)) {
    host->gone = true;
    host = nullptr;
  }
  if (host == nullptr) host = &Welcome(end, std::move(channel));
  Receive(*host, bytes.data(), result.size);
}

void Server::ReadStream(Host& host) {
  std::array<char, 65536> bytes;
  const wire::IoResult result = host.channel.Read(bytes.data(), bytes.size());
  if (result.io == wire::Io::kDone && reading_) Receive(host, bytes.data(), result.size);
  const bool has_ended = result.io == wire::Io::kEnded || result.io == wire::Io::kBroken;
  if (has_ended && host.end.Kind() == Kind::kTcp) host.gone = true;  // the user of a pty is looked for in every turn
}

void Server::Receive(Host& host, const char* bytes, std::size_t count) {
  const std::uint64_t bad_crc = host.commands.BadCrc();
  const std::uint64_t garbage = host.commands.Garbage();
  const std::uint64_t discarded = host.commands.Discarded();
  std::vector<SendPacket> commands = host.commands.Push(bytes, count);
  summary_.bad_crc += host.commands.BadCrc() - bad_crc;
  summary_.garbage += host.commands.Garbage() - garbage;
  summary_.bytes_received += count;
  summary_.bytes_discarded += host.commands.Discarded() - discarded;
  for (SendPacket& command : commands) {
    faults_.Advance(Unit::kCommand, ++summary_.commands);
    if (faults_.Strike(Fault::kDropCommand)) continue;
    const auto delay_ms = faults_.Strike(Fault::kDelayCommand);
    if (!delay_ms && due_commands_.empty()) {
      Execute(command, host.id);
      continue;
    }
    due_commands_.push_back({now_ + FromMs(delay_ms.value_or(0)), host.id, std::move(command)});  // none overtakes
  }
}

void Server::Execute(const SendPacket& command, std::uint64_t host_id) {
  controller_.ParseSendPacket(command);
  ++summary_.executed;
  accepted_.push_back({now_, command.GetTimeStamp()});
  if (accepted_.size() > kMaxAccepted) accepted_.pop_front();
  if (!config_.on_command) return;
  for (const auto& host : hosts_) {
    if (host->id == host_id && !host->gone) SendStatus(*host);
  }
}

std::uint64_t Server::Echo(std::uint64_t newest) {
  std::uint64_t echo = newest;
  if (const auto late_ms = faults_.Strike(Fault::kLateEcho)) {
    const Clock::time_point since = now_ - FromMs(*late_ms);
    const auto found = std::find_if(accepted_.rbegin(), accepted_.rend(),
                                    [&](const Accepted& accepted) { return accepted.time <= since; });
    echo = found != accepted_.rend() ? found->stamp : 0;
  }
  if (faults_.Strike(Fault::kStaleEcho)) echo = accepted_.size() >= 2 ? std::next(accepted_.rbegin())->stamp : 0;
  if (faults_.Strike(Fault::kNoEcho)) echo = 0;
  return echo;
}

RecvPacket Server::ComposeStatus() {
  RecvPacket status = controller_.Status();
  status.header.hostTimestamp = Echo(status.header.hostTimestamp);
  if (faults_.Strike(Fault::kFreeze)) {
    if (!frozen_) frozen_ = status;
    status = *frozen_;
  } else {
    frozen_.reset();
  }
  if (const auto joints = faults_.Strike(Fault::kWrongJoints)) {
    status.joints.resize(*joints > 0 ? static_cast<std::size_t>(*joints) : status.joints.size() + 1);
  }
  return status;
}

void Server::SendStatus(Host& host) {
  faults_.Advance(Unit::kFrame, ++summary_.status_frames);
  ++host.frames;
  std::vector<char> frame = wire::StatusFrame(ComposeStatus());
  if (config_.on_status) config_.on_status(frame);

  if (host.outbox.Bytes() > kMaxQueued) {
    ++summary_.overruns;
  } else if (!faults_.Strike(Fault::kDropStatus)) {
    frame = faults_.Damaged(std::move(frame));
    if (faults_.Strike(Fault::kDuplicateStatus)) Send(host, frame);
    Send(host, std::move(frame));
  }
  CloseWhereDue(host);
}

void Server::Send(Host& host, std::vector<char> bytes) {
  const Clock::time_point due = now_ + FromMs(faults_.Strike(Fault::kDelayStatus).value_or(0));
  auto ready = host.outbox.Delay(std::move(bytes), due, now_);
  if (ready) Depart(host, std::move(*ready));
}

void Server::Depart(Host& host, std::vector<char> bytes) {
  ++summary_.frames_sent;
  const auto frames = static_cast<int>(faults_.Strike(Fault::kCoalesce).value_or(1));
  host.outbox.Add(std::move(bytes), frames, faults_.Strike(Fault::kByteWrites).has_value());
  Flush(host);
}

void Server::Flush(Host& host) {
  // A pty without a user is noticed in the next turn.
  if (!host.outbox.Flush(host.channel, summary_.overruns) && host.end.Kind() == Kind::kTcp) host.gone = true;
}

void Server::CloseWhereDue(Host& host) {
  if (host.gone) return;
  const auto frames = static_cast<double>(host.frames);
  const bool reset = faults_.Strike(Fault::kReset, frames).has_value();
  if (!reset && !faults_.Strike(Fault::kClose, frames)) return;
  if (reset) host.channel.Break();
  // A pty has no connection but its device, which is made anew. Over UDP the host is forgotten until it sends again.
  if (host.end.Kind() == Kind::kPty) host.end.Close();
  host.gone = true;
}

void Server::Sweep() {
  hosts_.erase(std::remove_if(hosts_.begin(), hosts_.end(), [](const auto& host) { return host->gone; }), hosts_.end());
}

}  // namespace velta::sim
