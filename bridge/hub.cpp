// SPDX-License-Identifier: MIT
#include "hub.h"

#include <boost/asio/post.hpp>
#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

#include "protocol.h"
#include "version.h"

namespace velta::bridge {

namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t kKeptEvents = 50;
constexpr unsigned kMaxEventsOnTheWay = 1000;
constexpr std::size_t kMaxSources = 256;
constexpr milliseconds kTimeToStop(100);  ///< for the frames that stop the arm, before the session ends

}  // namespace

Hub::Hub(boost::asio::io_context& io, HubOptions options)
    : io_(io),
      options_(std::move(options)),
      control_(options_.control),
      codec_(options_.session.joints),
      holder_timer_(io),
      session_(options_.session) {
  session_.OnStatus([this](const RecvPacket& status) { OnStatus(status); });
  session_.OnEvent([this](const Event& event) { OnEvent(event); });
}

void Hub::Stop() {
  if (!control_.Holder().empty()) {
    Leave(Commander(control_.Holder()));
    std::this_thread::sleep_for(kTimeToStop);
  }
  session_.Stop();
}

bool Hub::Handle(const Commander& sender, const Message& message, const Reply& reply) {
  using Kind = Message::Kind;
  using Event = Control::Effects (Control::*)(const Commander&, Control::Time);
  constexpr std::pair<Kind, Event> kEvents[] = {{Kind::kTake, &Control::Take},   {Kind::kKeep, &Control::Keep},
                                                {Kind::kGive, &Control::Give},   {Kind::kCommand, &Control::Command},
                                                {Kind::kRearm, &Control::Rearm}, {Kind::kStop, &Control::Stop}};
  Event event = &Control::Unknown;
  for (const auto& [kind, handler] : kEvents) {
    if (kind == message.kind) event = handler;
  }
  Control::Effects effects = (control_.*event)(sender, steady_clock::now());
  const bool is_command = message.kind == Kind::kCommand;
  if (is_command && effects.refusal == Refusal::kNone && session_.IsDeadMan()) effects.refusal = Refusal::kDeadMan;
  Apply(effects);
  const bool is_sent = is_command && effects.refusal == Refusal::kNone && Send(sender, message, reply);
  if (effects.refusal != Refusal::kNone) Refuse(message, effects.refusal, reply);
  const bool is_control = message.kind == Kind::kTake || message.kind == Kind::kKeep || message.kind == Kind::kGive;
  if (is_control && !effects.changed) reply(ControlFor(sender));  // else everybody was told
  return is_sent;
}

void Hub::Refuse(const Message& message, Refusal why, const Reply& reply) {
  reply(OutcomeText(message.id, "refused", ToString(why)));
}

void Hub::Leave(const Commander& sender) {
  Apply(control_.Leave(sender));
  const auto source = sources_.find(sender);
  if (source == sources_.end()) return;
  source->second.Discard();
  sources_.erase(source);
}

void Hub::LeaveAll(const std::string& beginning) {
  std::vector<Commander> leaving{Holder()};
  for (const auto& [name, source] : sources_) leaving.push_back(name);
  for (const Commander& name : leaving) {
    if (name.compare(0, beginning.size(), beginning) == 0) Leave(name);
  }
}

std::string Hub::ControlFor(const Commander& sender) const {
  return ControlText(!Holder().empty(), !Holder().empty() && Holder() == sender);
}

void Hub::Apply(const Control::Effects& effects) {
  if (effects.stop) session_.StopArm();
  if (effects.disarm) session_.Disarm();
  if (effects.keep_alive) session_.KeepAlive();
  if (effects.rearm) session_.Rearm();
  if (effects.changed) {
    for (FrontEnd* front_end : front_ends_) front_end->ShowControl();
  }
  if (effects.changed || effects.keep_alive) WatchHolder();
}

void Hub::WatchHolder() {
  const auto deadline = control_.Deadline();
  if (!deadline) {
    holder_timer_.cancel();
    return;
  }
  holder_timer_.expires_at(*deadline + std::chrono::microseconds(1));
  holder_timer_.async_wait([this](const boost::system::error_code& error) {
    if (!error) Apply(control_.Expire(steady_clock::now()));
  });
}

Source& Hub::SourceOf(const Commander& sender) {
  if (sources_.size() >= kMaxSources && sources_.find(sender) == sources_.end()) {
    for (auto& [name, source] : sources_) source.Discard();
    sources_.clear();
  }
  const auto found = sources_.find(sender);
  return found != sources_.end() ? found->second : sources_.emplace(sender, session_.AddSource(sender)).first->second;
}

bool Hub::Send(const Commander& sender, const Message& message, const Reply& reply) {
  const auto packet = codec_.ReadCommand(message.text);
  if (!packet) {
    Refuse(message, Refusal::kNotCommand, reply);
    return false;
  }
  const Ticket ticket = SourceOf(sender).Send(*packet, message.confirm ? Confirm::kYes : Confirm::kNo);
  if (message.id.empty()) return true;
  ticket.OnOutcome([this, id = message.id, reply](Outcome outcome, Reason reason) {
    boost::asio::post(io_, [text = OutcomeText(id, ToString(outcome), ToString(reason)), reply] { reply(text); });
  });
  return true;
}

std::shared_ptr<const std::string> Hub::State() {
  if (!IsConnected()) return nullptr;
  std::optional<RecvPacket> status;
  {
    const std::lock_guard lock(latest_mutex_);
    if (!latest_) return nullptr;
    if (state_ && state_count_ == status_count_) return state_;
    status = latest_;
    state_count_ = status_count_;
  }
  state_ = std::make_shared<const std::string>(codec_.WriteState(*status));
  return state_;
}

std::string Hub::Statistics() const {
  json document{{"version", VELTA_VERSION::major + "." + VELTA_VERSION::minor + "." + VELTA_VERSION::revision},
                {"link", options_.session.link},
                {"joints", options_.session.joints},
                {"arm", IsConnected() ? "connected" : "away"},
                {"commands", options_.control.allow_commands},
                {"control_timeout", std::chrono::duration<double>(options_.control.timeout).count()},
                {"held", !Holder().empty()},
                {"stopped", control_.IsStopped() || session_.IsDeadMan()},
                {"statuses", status_count_.load()},
                {"events", json::array()}};
  if (const auto latency = latency_ns_.load(std::memory_order_relaxed); latency != 0) {
    document["latency_ms"] = static_cast<double>(latency) / 1e6;
  }
  for (const std::string& event : events_) document["events"].push_back(json::parse(event)["event"]);
  document["session"] = json::parse(ToJson(session_.GetStatistics()));
  for (const FrontEnd* front_end : front_ends_) front_end->AddStatistics(document);
  return document.dump();
}

void Hub::OnStatus(const RecvPacket& status) {
  {
    const std::lock_guard lock(latest_mutex_);
    latest_ = status;
    ++status_count_;
  }
  const std::uint64_t echo = status.header.hostTimestamp;
  if (echo == last_echo_) return;
  last_echo_ = echo;
  const std::uint64_t now = GetNowTimeStamp();
  constexpr std::uint64_t kOld = 10'000'000'000;  // an echo of an earlier host, or no stamp of the clock at all
  if (now > echo && now - echo < kOld) latency_ns_.store(now - echo, std::memory_order_relaxed);
}

void Hub::OnEvent(const Event& event) {
  if (event.kind == Event::Kind::kLost) {
    const std::lock_guard lock(latest_mutex_);
    latest_.reset();
  }
  if (events_on_the_way_.fetch_add(1) >= kMaxEventsOnTheWay) {
    events_on_the_way_.fetch_sub(1);
    return;
  }
  boost::asio::post(io_, [this, event] {
    events_on_the_way_.fetch_sub(1);
    Show(event);
  });
}

void Hub::Show(Event event) {
  if (event.kind == Event::Kind::kOverrun) {  // a busy machine has many; one line a second says as much
    overruns_ += event.value;
    const auto now = steady_clock::now();
    if (now - overrun_at_ < std::chrono::seconds(1)) return;
    overrun_at_ = now;
    event.value = std::exchange(overruns_, 0);
  }
  if (event.kind == Event::Kind::kDeadMan && session_.IsDeadMan()) control_.StoppedElsewhere();
  events_.push_back(EventText(event));
  if (events_.size() > kKeptEvents) events_.pop_front();
  using Kind = Event::Kind;
  const bool is_link = event.kind == Kind::kConnected || event.kind == Kind::kLost || event.kind == Kind::kBack;
  if (is_link) is_arm_there_ = event.kind != Kind::kLost;
  for (FrontEnd* front_end : front_ends_) {
    front_end->ShowEvent(events_.back());
    if (is_link) front_end->ShowArm();
  }
}

}  // namespace velta::bridge
