// SPDX-License-Identifier: MIT
#include "server.h"

#include <poll.h>
#include <termios.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace velta::sim {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds kTurn{10};  // the longest wait of the loop: faults and devices are looked at this often
constexpr std::size_t kMaxQueued = 1 << 20;    // bytes on the way to a host that does not read
constexpr std::size_t kMaxHosts = 64;          // more wait in the listener's queue
constexpr std::size_t kMaxAccepted = 1 << 16;  // commands that a late echo can reach back to
constexpr std::size_t kMaxDatagram = 65507;

milliseconds DefaultCycle(EndpointConfig::Kind kind) {
  return milliseconds(kind == EndpointConfig::Kind::Pty ? 10 : 1);
}

nanoseconds FromMs(double ms) { return nanoseconds(static_cast<std::int64_t>(ms * 1e6)); }

bool IsSame(const sockaddr_in& a, const sockaddr_in& b) {
  return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

bool IsTransient(int error) { return error == EAGAIN || error == EINTR; }

}  // namespace

// The simulated time advances in steps of at most 10 ms, so that its thread ends soon after a stop.
Server::Server(ServerConfig config)
    : config_(std::move(config)),
      controller_(config_.joints, std::clamp(config_.cycle_ms, 1, 10)),
      faults_(config_.faults, config_.seed) {
  for (const EndpointConfig& endpoint : config_.endpoints) {
    Port& port = ports_.emplace_back();
    port.endpoint = std::make_unique<Endpoint>(endpoint);
    port.endpoint->Open();
    port.cycle = config_.cycle_ms > 0 ? milliseconds(config_.cycle_ms) : DefaultCycle(endpoint.kind);
    port.next_cycle = now_;
  }
  OpenAndClose();  // a host that comes before the first turn is refused, too
}

std::vector<std::string> Server::Links() const {
  std::vector<std::string> links;
  for (const Port& port : ports_) links.push_back(port.endpoint->Link());
  return links;
}

void Server::Run(int stop_fd, const std::function<void()>& on_tick) {
  do {
    UpdateClock();
    OpenAndClose();
    RunDueCommands();
    RunCycles();
    for (const auto& host : hosts_) {
      RunDelayed(*host);
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
  faults_.Advance(Unit::Ms,
                  static_cast<std::uint64_t>(std::chrono::duration_cast<milliseconds>(now_ - start_).count()));
}

void Server::OpenAndClose() {
  const bool refuse = faults_.IsActive(Fault::Refuse);
  if (refuse && !refusing_) {
    faults_.Count(Fault::Refuse);
    for (const auto& host : hosts_) host->gone = true;
    Sweep();
    for (Port& port : ports_) port.endpoint->Close();
  }
  refusing_ = refuse;

  const bool stop_reading = faults_.IsActive(Fault::StopReading);
  if (stop_reading && reading_) faults_.Count(Fault::StopReading);
  reading_ = !stop_reading;

  for (Port& port : ports_) {
    Endpoint& endpoint = *port.endpoint;
    if (endpoint.Descriptor() < 0 && !refusing_) {
      try {
        endpoint.Open();
      } catch (const std::runtime_error&) {
        continue;  // someone else has taken the port or the name meanwhile: tried again in the next turn
      }
    }
    if (endpoint.Kind() == EndpointConfig::Kind::Pty) LookForDeviceUser(endpoint);
  }
  Sweep();
}

void Server::LookForDeviceUser(Endpoint& endpoint) {
  Host* const host = FindHost(endpoint);
  const bool has_user = endpoint.GetPty() != nullptr && endpoint.GetPty()->HasUser();
  if (has_user && host == nullptr) Welcome(endpoint, {});
  if (has_user || host == nullptr) return;
  if (reading_) ReadStream(*host);  // what the user left behind
  host->gone = true;
  if (endpoint.GetPty() != nullptr) endpoint.GetPty()->Flush(TCIOFLUSH);
}

void Server::RunDueCommands() {
  while (!due_commands_.empty() && due_commands_.front().due <= now_) {
    const DueCommand due = std::move(due_commands_.front());
    due_commands_.pop_front();
    Execute(due.command, due.host_id);
  }
}

void Server::RunCycles() {
  for (Port& port : ports_) {
    if (port.next_cycle > now_) continue;
    port.next_cycle = std::max(port.next_cycle + port.cycle, now_);  // late cycles are not made up for
    if (config_.on_command) continue;
    for (const auto& host : hosts_) {
      if (host->endpoint == port.endpoint.get() && !host->gone) SendStatus(*host);
    }
  }
}

void Server::RunDelayed(Host& host) {
  while (!host.gone && !host.delayed.empty() && host.delayed.front().due <= now_) {
    std::vector<char> bytes = std::move(host.delayed.front().bytes);
    host.delayed.pop_front();
    host.queued -= bytes.size();
    Depart(host, std::move(bytes));
  }
}

Server::Clock::time_point Server::NextWake() const {
  Clock::time_point wake = now_ + kTurn;
  if (!due_commands_.empty()) wake = std::min(wake, due_commands_.front().due);
  for (const auto& host : hosts_) {
    if (!host->delayed.empty()) wake = std::min(wake, host->delayed.front().due);
    if (config_.on_command) continue;
    for (const Port& port : ports_) {
      if (port.endpoint.get() == host->endpoint) wake = std::min(wake, port.next_cycle);
    }
  }
  return wake;
}

bool Server::WaitAndServe(int stop_fd) {
  std::vector<pollfd> requests{{stop_fd, POLLIN, 0}};
  std::vector<std::pair<Endpoint*, Host*>> owners{{nullptr, nullptr}};
  const auto add = [&](int fd, bool in, bool out, Endpoint* endpoint, Host* host) {
    requests.push_back({fd, static_cast<short>((in ? POLLIN : 0) | (out ? POLLOUT : 0)), 0});
    owners.emplace_back(endpoint, host);
  };
  for (const Port& port : ports_) {
    Endpoint& endpoint = *port.endpoint;
    if (endpoint.Descriptor() < 0 || endpoint.Kind() == EndpointConfig::Kind::Pty) continue;
    const bool is_tcp = endpoint.Kind() == EndpointConfig::Kind::Tcp;
    if (is_tcp ? hosts_.size() < kMaxHosts : reading_) add(endpoint.Descriptor(), true, false, &endpoint, nullptr);
  }
  for (const auto& host : hosts_) {
    if (!host->endpoint->IsStream()) continue;
    const bool is_tcp = host->endpoint->Kind() == EndpointConfig::Kind::Tcp;
    add(is_tcp ? host->peer.connection.Get() : host->endpoint->Descriptor(), reading_, !host->chunks.empty(),
        host->endpoint, host.get());
  }

  const nanoseconds wait = std::max(nanoseconds(0), nanoseconds(NextWake() - Clock::now()));
  const timespec timeout{0, static_cast<long>(wait.count())};  // below a second
  if (ppoll(requests.data(), requests.size(), &timeout, nullptr) <= 0) return true;
  if (requests[0].revents != 0) return false;
  UpdateClock();
  for (std::size_t i = 1; i < requests.size(); ++i) {
    const auto [endpoint, host] = owners[i];
    const short events = requests[i].revents;
    if (events == 0 || (host != nullptr && host->gone)) continue;
    if (host == nullptr) {
      if (endpoint->Kind() == EndpointConfig::Kind::Udp) {
        ReadDatagram(*endpoint);
      } else if (auto peer = endpoint->Accept()) {
        Welcome(*endpoint, std::move(*peer));
      }
      continue;
    }
    if ((events & POLLIN) != 0) {
      ReadStream(*host);
    } else if ((events & (POLLERR | POLLHUP)) != 0 && endpoint->Kind() == EndpointConfig::Kind::Tcp) {
      host->gone = true;
    }
    if ((events & POLLOUT) != 0 && !host->gone) Flush(*host);
  }
  return true;
}

Server::Host* Server::FindHost(const Endpoint& endpoint) const {
  const auto found = std::find_if(hosts_.begin(), hosts_.end(),
                                  [&](const auto& host) { return host->endpoint == &endpoint && !host->gone; });
  return found != hosts_.end() ? found->get() : nullptr;
}

Server::Host& Server::Welcome(Endpoint& endpoint, Peer peer) {
  ++summary_.connections;
  hosts_.push_back(std::make_unique<Host>(next_host_id_++, &endpoint, std::move(peer), config_.joints));
  return *hosts_.back();
}

void Server::ReadDatagram(Endpoint& endpoint) {
  std::array<char, 65536> bytes;
  Peer from;
  const ssize_t count = endpoint.Read(from, bytes.data(), bytes.size());
  if (count < 0) return;
  Host* host = FindHost(endpoint);
  if (host != nullptr && !IsSame(host->peer.address, from.address)) {
    host->gone = true;
    host = nullptr;
  }
  if (host == nullptr) host = &Welcome(endpoint, std::move(from));
  Receive(*host, bytes.data(), static_cast<std::size_t>(count));
}

void Server::ReadStream(Host& host) {
  std::array<char, 65536> bytes;
  const ssize_t count = host.endpoint->Read(host.peer, bytes.data(), bytes.size());
  if (count > 0) {
    Receive(host, bytes.data(), static_cast<std::size_t>(count));
  } else if (host.endpoint->Kind() == EndpointConfig::Kind::Tcp && (count == 0 || !IsTransient(errno))) {
    host.gone = true;
  }
}

void Server::Receive(Host& host, const char* bytes, std::size_t count) {
  const std::uint64_t bad_crc = host.framer.BadCrc();
  const std::uint64_t garbage = host.framer.Garbage();
  std::vector<SendPacket> commands = host.framer.Push(bytes, count);
  summary_.bad_crc += host.framer.BadCrc() - bad_crc;
  summary_.garbage += host.framer.Garbage() - garbage;
  for (SendPacket& command : commands) {
    faults_.Advance(Unit::Command, ++summary_.commands);
    if (faults_.Strike(Fault::DropCommand)) continue;
    const auto delay_ms = faults_.Strike(Fault::DelayCommand);
    if (!delay_ms && due_commands_.empty()) {
      Execute(command, host.id);
      continue;
    }
    Clock::time_point due = now_ + FromMs(delay_ms.value_or(0));
    if (!due_commands_.empty()) due = std::max(due, due_commands_.back().due);
    due_commands_.push_back({due, host.id, std::move(command)});
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
  if (const auto late_ms = faults_.Strike(Fault::LateEcho)) {
    const Clock::time_point since = now_ - FromMs(*late_ms);
    const auto found = std::find_if(accepted_.rbegin(), accepted_.rend(),
                                    [&](const Accepted& accepted) { return accepted.time <= since; });
    echo = found != accepted_.rend() ? found->stamp : 0;
  }
  if (faults_.Strike(Fault::StaleEcho)) echo = accepted_.size() >= 2 ? std::next(accepted_.rbegin())->stamp : 0;
  if (faults_.Strike(Fault::NoEcho)) echo = 0;
  return echo;
}

void Server::SendStatus(Host& host) {
  faults_.Advance(Unit::Frame, ++summary_.status_frames);
  ++host.frames;
  RecvPacket status = controller_.Status();
  status.header.hostTimestamp = Echo(status.header.hostTimestamp);
  if (faults_.Strike(Fault::Freeze)) {
    if (!frozen_) frozen_ = status;
    status = *frozen_;
  } else {
    frozen_.reset();
  }
  if (const auto joints = faults_.Strike(Fault::WrongJoints)) {
    status.joints.resize(*joints > 0 ? static_cast<std::size_t>(*joints) : status.joints.size() + 1);
  }
  std::vector<char> frame = StatusFrame(status);
  if (config_.on_status) config_.on_status(frame);

  if (host.queued > kMaxQueued) {
    ++summary_.overruns;
  } else if (!faults_.Strike(Fault::DropStatus)) {
    if (faults_.Strike(Fault::Corrupt)) {
      const std::size_t bit = faults_.Random(Fault::Corrupt, 8 * frame.size());
      frame[bit / 8] = static_cast<char>(frame[bit / 8] ^ (1 << bit % 8));
    }
    if (faults_.Strike(Fault::Truncate)) frame.resize(1 + faults_.Random(Fault::Truncate, frame.size() - 1));
    if (const auto most = faults_.Strike(Fault::Garbage)) {
      std::vector<char> garbage(1 + faults_.Random(Fault::Garbage, static_cast<std::size_t>(*most)));
      for (char& byte : garbage) byte = static_cast<char>(faults_.Random(Fault::Garbage, 256));
      frame.insert(frame.begin(), garbage.begin(), garbage.end());
    }
    if (faults_.Strike(Fault::DuplicateStatus)) Enqueue(host, frame);
    Enqueue(host, std::move(frame));
  }
  CloseWhereDue(host);
}

void Server::Enqueue(Host& host, std::vector<char> bytes) {
  Clock::time_point due = now_ + FromMs(faults_.Strike(Fault::DelayStatus).value_or(0));
  if (host.endpoint->IsStream() && !host.delayed.empty()) due = std::max(due, host.delayed.back().due);
  if (due <= now_) {
    Depart(host, std::move(bytes));
    return;
  }
  host.queued += bytes.size();
  const auto place = std::upper_bound(host.delayed.begin(), host.delayed.end(), due,
                                      [](Clock::time_point time, const auto& delayed) { return time < delayed.due; });
  host.delayed.insert(place, {due, std::move(bytes)});
}

void Server::Depart(Host& host, std::vector<char> bytes) {
  const auto company = faults_.Strike(Fault::Coalesce);
  const bool bytewise = faults_.Strike(Fault::ByteWrites).has_value();
  const bool is_full = !host.endpoint->IsStream() && host.coalesced.size() + bytes.size() > kMaxDatagram;
  if (!host.coalesced.empty() && (!company || is_full)) {
    PushChunk(host, std::exchange(host.coalesced, {}), bytewise);
    host.coalesced_frames = 0;
  }
  if (company) {
    host.coalesced.insert(host.coalesced.end(), bytes.begin(), bytes.end());
    if (++host.coalesced_frames < *company) return;
    bytes = std::exchange(host.coalesced, {});
    host.coalesced_frames = 0;
  }
  PushChunk(host, std::move(bytes), bytewise);
  Flush(host);
}

void Server::PushChunk(Host& host, std::vector<char> bytes, bool bytewise) {
  host.queued += bytes.size();
  host.chunks.push_back({std::move(bytes), bytewise});
}

void Server::Flush(Host& host) {
  while (!host.gone && !host.chunks.empty()) {
    const Host::Chunk& chunk = host.chunks.front();
    const std::size_t rest = chunk.bytes.size() - host.position;
    const ssize_t count = host.endpoint->Write(host.peer, chunk.bytes.data() + host.position,
                                               chunk.bytewise ? std::min<std::size_t>(rest, 1) : rest);
    if (count < 0 && host.endpoint->IsStream()) {
      if (errno == EINTR) continue;
      // A pty without a user is noticed in the next turn.
      if (errno != EAGAIN && host.endpoint->Kind() == EndpointConfig::Kind::Tcp) host.gone = true;
      return;
    }
    // A datagram that the system does not take is lost.
    const std::size_t left = count < 0 ? rest : static_cast<std::size_t>(count);
    if (count < 0) ++summary_.overruns;
    host.position += left;
    host.queued -= left;
    if (host.position < chunk.bytes.size()) continue;
    host.position = 0;
    host.chunks.pop_front();
  }
}

void Server::CloseWhereDue(Host& host) {
  if (host.gone) return;
  const auto frames = static_cast<double>(host.frames);
  const bool reset = faults_.Strike(Fault::Reset, frames).has_value();
  if (!reset && !faults_.Strike(Fault::Close, frames)) return;
  if (reset && host.endpoint->Kind() == EndpointConfig::Kind::Tcp) Endpoint::Reset(host.peer);
  // A pty has no connection but its device, which is made anew. Over UDP the host is forgotten until it sends again.
  if (host.endpoint->Kind() == EndpointConfig::Kind::Pty) host.endpoint->Close();
  host.gone = true;
}

void Server::Sweep() {
  hosts_.erase(std::remove_if(hosts_.begin(), hosts_.end(), [](const auto& host) { return host->gone; }), hosts_.end());
}

}  // namespace velta::sim
