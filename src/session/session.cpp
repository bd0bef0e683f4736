// SPDX-License-Identifier: MIT
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "session_loop.h"
#include "velta_session.h"

namespace velta {

namespace detail {

constexpr Nanos kLongestPoll = 10'000'000;  // it does not see Stop(), nor commands

struct SessionParts {
  SessionParts(const SessionOptions& options, const LinkAddress& address)
      : shared(options, address), loop(shared, MakeSessionLink(address, shared.options, shared.recorder.get())) {}

  void Run();
  void Cycle(Nanos now);
  bool Listen(Nanos until);
  void HaveRealTime();
  void Finish();

  SessionShared shared;
  SessionLoop loop;
  std::mutex life;   ///< guards thread; held while the loop is ended
  std::mutex cycle;  ///< held during a cycle of Step()
  std::atomic<bool> has_thread{false}, was_stepped{false}, is_stopping{false}, is_finished{false};
  Signal wake;  ///< raised by Stop()
  std::thread thread;
};

void SessionParts::Cycle(Nanos now) {
  try {
    loop.Cycle(now);
  } catch (const std::exception& error) {  // memory ran out; the next cycle goes on
    shared.notifier.Post(Event::Kind::kNotice, error.what());
  }
}

bool SessionParts::Listen(Nanos until) {
  try {
    return loop.Listen(until);
  } catch (const std::exception& error) {
    shared.notifier.Post(Event::Kind::kNotice, error.what());
    return false;
  }
}

void SessionParts::HaveRealTime() {
  const SessionOptions& options = shared.options;
  const auto report = [&](const char* what, int error) {
    if (error != 0) {
      shared.notifier.Post(Event::Kind::kNotice, std::string(what) + ": " + std::generic_category().message(error));
    }
  };
  prctl(PR_SET_TIMERSLACK, 1UL);  // else the system may wake an ordinary thread 50 us late
  if (options.priority > 0) {
    sched_param priority{};
    priority.sched_priority = options.priority;
    report("no real-time priority", pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority));
  }
  if (options.processor >= 0) {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    if (options.processor < CPU_SETSIZE) CPU_SET(static_cast<unsigned>(options.processor), &processors);
    report("not bound to the processor", pthread_setaffinity_np(pthread_self(), sizeof processors, &processors));
  }
  if (options.lock_memory) report("memory not locked", mlockall(MCL_CURRENT | MCL_FUTURE) == 0 ? 0 : errno);
}

void SessionParts::Run() {
  HaveRealTime();
  const Nanos period = shared.options.period.count();
  Nanos due = SteadyNow();
  std::uint64_t missed = 0;  // not reported yet
  Nanos next_report = 0;
  while (!is_stopping) {
    const std::uint32_t seen = wake.Value();
    Cycle(SteadyNow());
    due += period;
    const Nanos now = SteadyNow();
    if (now >= due) {
      const Nanos passed = (now - due) / period + 1;
      due += passed * period;
      missed += static_cast<std::uint64_t>(passed);
      shared.overruns.Add(static_cast<std::uint64_t>(passed));
    }
    if (missed != 0 && now >= next_report) {
      shared.notifier.Post(Event::Kind::kOverrun, "cycles missed", static_cast<double>(std::exchange(missed, 0)));
      next_report = now + 100'000'000;
    }
    Nanos woken = now;
    bool listens = shared.options.wake_on_arrival;
    while (!is_stopping && woken < due) {
      if (listens) {
        listens = Listen(std::min(due, woken + kLongestPoll));
      } else {
        wake.Wait(seen, due);
      }
      woken = SteadyNow();
    }
    shared.lateness.Add(woken - due);
    if (woken - due > period / 10) shared.late.Add(1);
  }
}

/// Ends the loop, once; the caller holds `life`.
void SessionParts::Finish() {
  if (is_finished) return;
  if (thread.joinable()) thread.join();
  {
    const std::lock_guard<std::mutex> lock(cycle);
    loop.Close();
  }
  is_finished = true;
  shared.notifier.Stop();
}

namespace {

void Require(bool holds, const char* why) {
  if (!holds) throw std::invalid_argument(why);
}

LinkAddress Checked(const SessionOptions& options) {
  LinkAddress address;
  std::string why;
  if (!ParseLinkAddress(options.link, address, why)) throw std::invalid_argument("link: " + why);
  Require(address.kind != LinkAddress::Kind::kPty, "link: a session does not listen on a pty; name its device");
  Require(options.joints >= 1 && options.joints <= 828, "joints: there must be 1 to 828");
  constexpr std::chrono::hours kLongest(24);
  Require(options.period > std::chrono::nanoseconds(0) && options.period <= kLongest,
          "period: it must be above 0 and at most 24 h");
  for (const auto duration : {options.dead_man, options.silence, options.ask, options.back_off, options.back_off_limit,
                              options.flight_recorder}) {
    Require(duration >= std::chrono::nanoseconds(0) && duration <= kLongest, "durations: they must be 0 to 24 h");
  }
  Require(options.connect_timeout > std::chrono::nanoseconds(0) && options.connect_timeout <= kLongest,
          "connect_timeout: it must be above 0 and at most 24 h");
  Require(options.back_off_limit >= options.back_off, "back_off_limit: it must not be below back_off");
  Require(options.priority >= 0 && options.priority <= 99, "priority: it must be 0 to 99");
  Require(options.processor >= -1 && options.processor < CPU_SETSIZE, "processor: there is none of that number");
  Require(options.queue_size >= 1, "queue_size: it must be at least 1");
  Require(options.status_buffer >= 1 && options.status_buffer <= 1'000'000, "status_buffer: it must be 1 to 1,000,000");
  for (const SendPacket& packet : options.stop) {
    Require(packet.jointNum == options.joints && packet.joints.size() == static_cast<std::size_t>(options.joints),
            "stop: its packets must be of as many joints as the session");
  }
  return address;
}

}  // namespace
}  // namespace detail

using detail::Command;
using detail::DeadlineAfter;
using detail::Nanos;
using detail::SteadyNow;

// Texts

const char* ToString(Outcome outcome) {
  switch (outcome) {
    case Outcome::kPending:
      return "pending";
    case Outcome::kSent:
      return "sent";
    case Outcome::kConfirmed:
      return "confirmed";
    case Outcome::kGaveUp:
      return "gave up";
    case Outcome::kDiscarded:
      return "discarded";
  }
  return "";
}

const char* ToString(Reason reason) {
  switch (reason) {
    case Reason::kNone:
      return "";
    case Reason::kNoLink:
      return "link away";
    case Reason::kLinkLost:
      return "link lost";
    case Reason::kOtherGaveUp:
      return "another command gave up";
    case Reason::kDeadMan:
      return "dead-man";
    case Reason::kStopped:
      return "stopped";
    case Reason::kReplaced:
      return "replaced by a newer command";
    case Reason::kBadCommand:
      return "wrong joint count";
    case Reason::kQueueFull:
      return "too many commands wait";
  }
  return "";
}

const char* ToString(Event::Kind kind) {
  switch (kind) {
    case Event::Kind::kConnected:
      return "connected";
    case Event::Kind::kLost:
      return "lost";
    case Event::Kind::kTrying:
      return "trying";
    case Event::Kind::kBack:
      return "back";
    case Event::Kind::kDeadMan:
      return "dead-man";
    case Event::Kind::kRearmed:
      return "rearmed";
    case Event::Kind::kGaveUp:
      return "gave up";
    case Event::Kind::kOverrun:
      return "overrun";
    case Event::Kind::kNotice:
      return "notice";
    case Event::Kind::kLeftOut:
      return "left out";
  }
  return "";
}

std::string ToJson(const SessionStatistics& statistics) {
  std::string json = ToJson(statistics.client);
  json.pop_back();  // the closing brace
  const std::pair<const char*, std::uint64_t> counts[] = {{"cycles", statistics.cycles},
                                                          {"events_left_out", statistics.events_left_out},
                                                          {"late", statistics.late},
                                                          {"overruns", statistics.overruns},
                                                          {"statuses_left_out", statistics.statuses_left_out}};
  for (const auto& [key, value] : counts) json += std::string(",\"") + key + "\":" + std::to_string(value);
  const Lateness& lateness = statistics.lateness;
  json += ",\"lateness_us\":{\"count\":" + std::to_string(lateness.count);
  const std::pair<const char*, double> durations[] = {
      {"max", lateness.max_us}, {"p50", lateness.p50_us}, {"p99", lateness.p99_us}, {"p99.9", lateness.p999_us}};
  for (const auto& [key, value] : durations) {
    const auto ns = static_cast<std::uint64_t>(std::llround(value * 1e3));  // without the locale's decimal point
    const std::string fraction = std::to_string(1000 + ns % 1000).substr(1);
    json += std::string(",\"") + key + "\":" + std::to_string(ns / 1000) + "." + fraction;
  }
  return json += "}}";
}

// Ticket

Ticket::Ticket() = default;
Ticket::Ticket(const Ticket& other) : command_(other.command_) {
  if (command_ != nullptr) command_->Retain();
}
Ticket::Ticket(Ticket&& other) noexcept : command_(std::exchange(other.command_, nullptr)) {}
Ticket& Ticket::operator=(const Ticket& other) { return *this = Ticket(other); }
Ticket& Ticket::operator=(Ticket&& other) noexcept {
  std::swap(command_, other.command_);
  return *this;
}
Ticket::~Ticket() {
  if (command_ != nullptr) command_->Release();
}

Outcome Ticket::Outcome() const { return command_ != nullptr ? command_->Outcome() : velta::Outcome::kDiscarded; }
Reason Ticket::Reason() const { return command_ != nullptr ? command_->Reason() : velta::Reason::kNone; }

Outcome Ticket::Wait(std::chrono::nanoseconds timeout) const {
  return command_ != nullptr ? command_->Wait(timeout) : velta::Outcome::kDiscarded;
}

void Ticket::OnOutcome(Callback callback) const {
  if (!callback) return;
  if (command_ != nullptr) return command_->OnOutcome(std::move(callback));
  try {
    callback(velta::Outcome::kDiscarded, velta::Reason::kNone);
  } catch (...) {  // what a callback throws is the host's own matter
  }
}

// Source

Source::Source(std::shared_ptr<detail::Stream> stream) : stream_(std::move(stream)) {}
Source::Source(const Source&) = default;
Source::Source(Source&&) noexcept = default;
Source& Source::operator=(const Source&) = default;
Source& Source::operator=(Source&&) noexcept = default;
Source::~Source() = default;

const std::string& Source::Name() const { return stream_->Name(); }
Ticket Source::Send(const SendPacket& command, Confirm confirm) { return Ticket(stream_->Send(command, confirm)); }
void Source::Discard() { stream_->Discard(); }

// Session

Session::Session(SessionOptions options)
    : parts_([&options] {
        const LinkAddress address = detail::Checked(options);
        return std::make_unique<detail::SessionParts>(std::move(options), address);
      }()) {}

Session::~Session() {
  Stop();
  parts_->shared.notifier.Join();
}

void Session::Start() {
  const std::lock_guard<std::mutex> lock(parts_->life);
  if (parts_->has_thread || parts_->is_stopping) return;
  // The simulator is there at once: whoever starts with it need not wait for the connection.
  if (parts_->shared.address.kind == LinkAddress::Kind::kSimulator) {
    const std::lock_guard<std::mutex> cycle(parts_->cycle);
    for (int i = 0; i < 2 && !IsConnected(); ++i) parts_->Cycle(SteadyNow());
  }
  parts_->shared.situation.Set(IsConnected(), false, "no connection yet");
  parts_->shared.notifier.Start();
  parts_->has_thread = true;
  parts_->thread = detail::StartThread([parts = parts_.get()] { parts->Run(); });
}

void Session::Step() {
  detail::SessionParts& parts = *parts_;
  if (parts.has_thread || parts.is_stopping) return;
  parts.was_stepped = true;
  if (parts.cycle.try_lock()) {  // else another thread is in the middle of one
    const std::lock_guard<std::mutex> lock(parts.cycle, std::adopt_lock);
    parts.Cycle(SteadyNow());
  }
  parts.shared.notifier.Deliver();
}

void Session::Stop() {
  detail::SessionParts& parts = *parts_;
  parts.is_stopping = true;
  parts.shared.admission->Stop();
  parts.wake.Raise();
  bool has_thread = false;
  {
    const std::lock_guard<std::mutex> lock(parts.life);
    parts.Finish();
    has_thread = parts.has_thread;
  }
  if (!has_thread) parts.shared.notifier.Deliver();
}

bool Session::WaitConnected(std::chrono::nanoseconds timeout, std::string* why) {
  detail::SessionParts& parts = *parts_;
  detail::Situation& situation = parts.shared.situation;
  const Nanos deadline = DeadlineAfter(timeout);
  while (true) {
    const std::uint32_t seen = situation.changed.Value();
    if (situation.IsConnected()) return true;
    if (SteadyNow() >= deadline || situation.IsFinal() || !(parts.has_thread || parts.was_stepped)) break;
    if (parts.has_thread) {
      situation.changed.Wait(seen, deadline);
    } else {
      Step();
      situation.changed.Wait(situation.changed.Value(),
                             std::min(deadline, SteadyNow() + Nanos{parts.shared.options.period.count()}));
    }
  }
  if (why != nullptr) *why = situation.Why();
  return false;
}

bool Session::IsConnected() const { return parts_->shared.situation.IsConnected(); }
const SessionOptions& Session::Options() const { return parts_->shared.options; }

Ticket Session::Send(const SendPacket& command, Confirm confirm) {
  return Ticket(parts_->shared.plain->Send(command, confirm));
}

Ticket Session::SendNewest(const std::string& key, const SendPacket& command, Confirm confirm) {
  Command* replaced = nullptr;
  Ticket ticket(parts_->shared.keys.Send(key, command, confirm, replaced));
  if (replaced != nullptr) {
    if (replaced->Finish(Outcome::kDiscarded, Reason::kReplaced)) {
      parts_->shared.notifier.Post(replaced);
    } else {
      replaced->Release();
    }
  }
  return ticket;
}

Source Session::AddSource(std::string name) {
  detail::SessionShared& shared = parts_->shared;
  auto stream = std::make_shared<detail::Stream>(std::move(name), shared.options.joints, shared.options.queue_size,
                                                 shared.admission);
  const std::lock_guard<detail::InheritingMutex> lock(shared.new_sources_mutex);
  shared.new_sources.push_back(stream);
  shared.has_new_sources = true;
  return Source(std::move(stream));
}

void Session::KeepAlive() {
  detail::Admission& admission = *parts_->shared.admission;
  admission.kept_alive = SteadyNow();
  admission.armed = true;
}

void Session::Disarm() { parts_->shared.admission->armed = false; }

void Session::Rearm() {
  if (!IsDeadMan()) {
    parts_->shared.admission->kept_alive = SteadyNow();
    return;
  }
  parts_->shared.admission->Rearm();
  parts_->shared.notifier.Post(Event::Kind::kRearmed, "commands are taken again");
}

bool Session::IsDeadMan() const { return parts_->shared.admission->IsTripped(); }
void Session::StopArm() { parts_->shared.admission->Trip(); }

std::optional<RecvPacket> Session::Latest() const { return parts_->shared.latest.Get(); }

std::vector<RecvPacket> Session::Drain(std::uint64_t* left_out) {
  std::uint64_t count = 0;
  std::vector<RecvPacket> statuses = parts_->shared.statuses.TakeAll(count);
  if (left_out != nullptr) *left_out = count;
  return statuses;
}

void Session::OnStatus(StatusCallback callback) { parts_->shared.notifier.OnStatus(std::move(callback)); }
void Session::OnEvent(EventCallback callback) { parts_->shared.notifier.OnEvent(std::move(callback)); }

SessionStatistics Session::GetStatistics() const {
  const detail::SessionShared& shared = parts_->shared;
  SessionStatistics statistics;
  statistics.client = parts_->loop.GetStatistics();
  statistics.reconnections = statistics.client.reconnections = shared.reconnections.Get();
  statistics.client.commands_queued = shared.plain->Waiting();
  statistics.cycles = shared.cycles.Get();
  statistics.overruns = shared.overruns.Get();
  statistics.late = shared.late.Get();
  statistics.events_left_out = shared.notifier.EventsLeftOut();
  statistics.statuses_left_out = shared.statuses_left_out.Get() + shared.notifier.StatusesLeftOut();
  statistics.lateness = shared.lateness.Get();
  return statistics;
}

bool Session::WriteFlightRecord(const std::string& path, std::string* why) {
  std::string text = "there is no flight recorder: SessionOptions::flight_recorder is 0";
  detail::FlightRecorder* const recorder = parts_->shared.recorder.get();
  if (recorder != nullptr && recorder->Write(path, text)) return true;
  if (why != nullptr) *why = text;
  return false;
}

}  // namespace velta
