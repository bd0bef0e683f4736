// SPDX-License-Identifier: MIT
#include "session_loop.h"

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "log.h"
#include "send_packet_merger.h"

namespace velta::detail {

namespace {

constexpr std::uint8_t kVelocityMode = 1;
constexpr std::uint64_t kHour = 3'600'000'000'000;

std::string Seconds(Nanos duration) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3g s", static_cast<double>(duration) / 1e9);
  return text;
}

std::unique_ptr<FlightRecorder> MakeRecorder(const SessionOptions& options) {
  if (options.flight_recorder.count() == 0) return nullptr;
  const double loops_per_second = 1e9 / static_cast<double>(options.period.count());
  return std::make_unique<FlightRecorder>(options.joints, options.link, options.flight_recorder.count(),
                                          1.25 * std::max(1000.0, loops_per_second));
}

}  // namespace

// Histogram

std::size_t Histogram::ClassOf(std::uint64_t ns) {
  if (ns < std::uint64_t{1} << kBits) return ns;
  const int power = 63 - __builtin_clzll(ns);
  const auto index =
      (static_cast<std::size_t>(power - kBits + 1) << kBits) + (ns >> (power - kBits)) - (std::size_t{1} << kBits);
  return std::min(index, kClasses - 1);
}

std::uint64_t Histogram::LargestOf(std::size_t index) {
  if (index < std::size_t{1} << kBits) return index;
  const std::size_t shift = (index >> kBits) - 1;
  const std::uint64_t first = (index & ((std::size_t{1} << kBits) - 1)) + (std::size_t{1} << kBits);
  return ((first + 1) << shift) - 1;
}

void Histogram::Add(Nanos duration) {
  const auto ns = static_cast<std::uint64_t>(std::max<Nanos>(duration, 0));
  counts_[ClassOf(ns)].Add(1);
  count_.Add(1);
  if (ns > max_.Get()) max_.Set(ns);
}

Lateness Histogram::Get() const {
  Lateness lateness;
  std::uint64_t total = 0;
  for (const Counter& count : counts_) total += count.Get();
  lateness.count = total;
  const double max = static_cast<double>(max_.Get());
  lateness.max_us = max / 1e3;
  const auto percentile = [&](double share) {
    auto rank = static_cast<std::uint64_t>(share * static_cast<double>(total));
    for (std::size_t i = 0; i < kClasses; ++i) {
      const std::uint64_t count = counts_[i].Get();
      if (count > rank) return std::min(static_cast<double>(LargestOf(i)), max) / 1e3;
      rank -= count;
    }
    return max / 1e3;
  };
  if (total == 0) return lateness;
  lateness.p50_us = percentile(0.5);
  lateness.p99_us = percentile(0.99);
  lateness.p999_us = percentile(0.999);
  return lateness;
}

// Situation

void Situation::Set(bool is_connected, bool is_final, std::string why) {
  {
    const std::lock_guard<InheritingMutex> lock(mutex_);
    why_ = std::move(why);
    is_connected_ = is_connected;
    is_final_ = is_final;
  }
  changed.Raise();
}

std::string Situation::Why() const {
  const std::lock_guard<InheritingMutex> lock(mutex_);
  return why_;
}

// SessionShared

SessionShared::SessionShared(SessionOptions given, LinkAddress link)
    : options(std::move(given)),
      address(std::move(link)),
      recorder(MakeRecorder(options)),
      plain(std::make_shared<Stream>("", options.joints, options.queue_size, admission)),
      keys(options.joints, admission),
      notifier(options.joints, options.status_buffer, recorder.get(), options.flight_record_path),
      latest(options.joints),
      statuses(options.joints, options.status_buffer) {}

// SessionLoop: the link

SessionLoop::SessionLoop(SessionShared& shared, std::unique_ptr<SessionLink> link)
    : MasterControllerClient(shared.options.joints),
      shared_(shared),
      options_(shared.options),
      link_(*link),
      pause_(shared.options.back_off.count()),
      random_(static_cast<std::minstd_rand::result_type>(SteadyNow())),
      candidate_(shared.options.joints),
      idle_(shared.options.joints),
      velocity_mode_(static_cast<std::size_t>(shared.options.joints)) {
  client_ = link.release();
  is_init_ = true;
  carried_.reserve(1);
  carried_from_.reserve(1);
}

void SessionLoop::Cycle(Nanos now) {
  const Muted muted;
  if (state_ == State::kOver && shared_.admission->IsStopped()) return;
  shared_.cycles.Add(1);
  has_sent_ = false;
  if (shared_.admission->stop_asked.exchange(false)) BeginStop("StopArm() was called");
  if (options_.dead_man.count() != 0 && shared_.admission->TripIfSilent(now, options_.dead_man.count())) {
    BeginStop("the host was silent");
  }
  TakeIn();
  RunLink(now);
  if (state_ != State::kOpen) return;
  Receive(now);
  if (state_ == State::kOpen) Send(now);
}

bool SessionLoop::Listen(Nanos until) {
  const Muted muted;
  if (state_ != State::kConnecting && state_ != State::kOpen) return false;
  pollfd request{state_ == State::kOpen ? link_.Descriptor() : -1, POLLIN, 0};
  const Nanos rest = std::max<Nanos>(until - SteadyNow(), 0);
  const timespec timeout{rest / 1'000'000'000, rest % 1'000'000'000};
  const bool has_news = ppoll(&request, 1, &timeout, nullptr) > 0;
  const Nanos now = SteadyNow();
  if (state_ == State::kConnecting) RunLink(now);
  const std::uint64_t bytes = parts_->bytes_received.Get();
  if (has_news) Receive(now);
  const bool may_send = wait_confirm_ ? last_send_timestamp_ == last_recv_host_timestamp_ : !has_sent_;
  if (state_ == State::kOpen && may_send) {
    TakeIn();
    Send(now);
  }
  return !has_news || parts_->bytes_received.Get() != bytes;  // an error would be news again at once
}

void SessionLoop::RunLink(Nanos now) {
  if (state_ == State::kPaused && now >= next_attempt_) Begin(now);
  if (state_ != State::kConnecting) return;
  std::string why;
  switch (link_.Look(why)) {
    case SessionLink::Progress::kConnecting:
      return;
    case SessionLink::Progress::kOpen:
      return Open(now);
    case SessionLink::Progress::kFailed:
      return Pause(now, why);
  }
}

void SessionLoop::Begin(Nanos now) {
  state_ = State::kConnecting;
  if (!was_ever_connected_ && next_attempt_ == 0) {
    shared_.notifier.Post(Event::Kind::kTrying, options_.link);
    shared_.situation.Set(false, false, "no connection yet");
  }
  try {
    link_.Begin();
  } catch (const std::system_error& error) {
    link_.Abort();
    Pause(now, error.what());
  }
}

void SessionLoop::Open(Nanos now) {
  state_ = State::kOpen;
  is_connected_ = true;
  is_connected_now_ = false;
  opened_ = last_heard_ = now;
  next_ask_ = link_.MustBeAsked() ? now : now + options_.ask.count();
  bytes_at_open_ = parts_->bytes_received.Get();
  // Nothing that was half received belongs to this connection, and no echo that was seen before may confirm anything.
  delete std::exchange(packet_parser_, new PacketParser(joint_num_));
  parts_->read_bytes.clear();
  ResetGate();
  if (!options_.await_status) return Greet();
  shared_.situation.Set(false, false, "connected, but no status has come");
}

/// From here on commands are taken.
void SessionLoop::Greet() {
  is_connected_now_ = true;
  shared_.admission->LinkUp();
  pause_ = options_.back_off.count();
  shared_.situation.Set(true, false, "");
  if (was_ever_connected_) shared_.reconnections.Add(1);
  shared_.notifier.Post(was_ever_connected_ ? Event::Kind::kBack : Event::Kind::kConnected, options_.link);
  was_ever_connected_ = true;
}

/// Until the next attempt.
void SessionLoop::Pause(Nanos now, const std::string& why) {
  if (!options_.reconnect) {
    state_ = State::kOver;
    shared_.situation.Set(false, true, why);
    shared_.notifier.Post(Event::Kind::kNotice, "not connected, and not tried again: " + why);
    return;
  }
  state_ = State::kPaused;
  const double jitter = std::uniform_real_distribution<double>(0.9, 1.1)(random_);
  const auto pause = static_cast<Nanos>(static_cast<double>(pause_) * jitter);
  next_attempt_ = now + pause;
  pause_ = std::min(2 * pause_, Nanos{options_.back_off_limit.count()});
  shared_.situation.Set(false, false, why);
  shared_.notifier.Post(Event::Kind::kTrying, "in " + Seconds(pause) + ": " + why, static_cast<double>(pause) / 1e9);
}

void SessionLoop::Lose(Nanos now, const std::string& why) {
  shared_.notifier.Post(Event::Kind::kLost, why);
  is_connected_ = is_connected_now_ = false;
  shared_.admission->LinkDown(options_.on_loss == SessionOptions::OnLoss::kDiscard);
  link_.Abort();
  Finish(velta::Outcome::kDiscarded, velta::Reason::kLinkLost);
  stop_index_ = 0;  // of a stop that was not through, everything is sent again
  ResetGate();
  shared_.latest.Clear();
  TakeIn();
  shared_.notifier.RequestRecord();
  Pause(now, why);
}

void SessionLoop::Close() {
  const Muted muted;
  if (shared_.admission->stop_asked.exchange(false)) BeginStop("StopArm() was called");
  if (is_stop_carried_) EndStopFrame();
  while (state_ == State::kOpen && ChooseStop()) {  // a stop that is due still leaves, once
    SetStamp(cur_send_packet_);
    SendChosen();
    EndStopFrame();
  }
  if (state_ == State::kOpen) {
    link_.Flush();
    link_.Disconnect();
  } else {
    link_.Abort();
  }
  state_ = State::kOver;
  is_connected_ = is_connected_now_ = false;
  Finish(velta::Outcome::kDiscarded, velta::Reason::kStopped);
  TakeIn();
  shared_.keys.DropAll([this](Command* command, velta::Reason reason) { Drop(command, reason); });
  shared_.latest.Clear();
  shared_.situation.Set(false, true, "the session is stopped");
}

// SessionLoop: statuses

void SessionLoop::Receive(Nanos now) {
  const std::size_t count = CutStatus(received_);
  if (!is_connected_) return Lose(now, link_.Why());
  bool is_confirmed = false;
  for (std::size_t i = 0; i < count; ++i) {
    const RecvPacket& status = received_[i];
    // Of several echoes in one step the awaited one counts.
    const std::uint64_t echo = status.header.hostTimestamp;
    if (!is_confirmed) last_recv_host_timestamp_ = echo;
    is_confirmed = is_confirmed || (wait_confirm_ && echo == last_send_timestamp_);
    if (shared_.statuses.Put(status)) shared_.statuses_left_out.Add(1);
    shared_.notifier.PostStatus(status);
  }
  if (count != 0) {
    const RecvPacket& newest = received_[count - 1];
    for (std::size_t i = 0; i < velocity_mode_.size(); ++i) {
      velocity_mode_[i] = newest.joints[i].ctrlMode == kVelocityMode;
    }
    shared_.latest.Put(newest);
    last_heard_ = now;
    if (!is_connected_now_) Greet();
    return;
  }
  if (options_.silence.count() == 0 || now - last_heard_ < options_.silence.count()) return;
  const std::uint64_t bytes = parts_->bytes_received.Get() - bytes_at_open_;
  std::string why = "no status for " + Seconds(options_.silence.count());
  if (bytes != 0 && !is_connected_now_) {
    why += ": " + std::to_string(bytes) + " bytes came, but no status of " + std::to_string(joint_num_) + " joints";
  }
  Lose(now, why);
}

// SessionLoop: commands

void SessionLoop::Send(Nanos now) {
  if (!link_.Flush()) return Lose(now, link_.Why());
  if (!wait_confirm_ && link_.IsFlushed()) Finish(velta::Outcome::kSent, velta::Reason::kNone);

  const bool was_waiting = wait_confirm_;
  const bool is_confirmed = was_waiting && last_send_timestamp_ == last_recv_host_timestamp_;
  const bool is_open = PassGate();
  if (!is_connected_) return Lose(now, link_.Why());
  if (was_waiting && !wait_confirm_) {
    if (is_stop_carried_) EndStopFrame();
    if (is_confirmed) {
      Finish(velta::Outcome::kConfirmed, velta::Reason::kNone);
    } else {
      shared_.notifier.Post(Event::Kind::kGaveUp, "a command was sent 5 times and never echoed");
      shared_.notifier.RequestRecord();
      for (Stream* const stream : carried_from_) {
        if (stream != shared_.plain.get()) DropAll(*stream, velta::Reason::kOtherGaveUp);
      }
      DropAll(*shared_.plain, velta::Reason::kOtherGaveUp);
      Finish(velta::Outcome::kGaveUp, velta::Reason::kNone);
    }
  }
  if (is_open && link_.IsFlushed() && (ChooseStop() || Choose())) {
    SetStamp(cur_send_packet_);
    has_sent_ = true;
    if (!SendChosen()) return Lose(now, link_.Why());
    next_ask_ = now + options_.ask.count();
    if (!wait_confirm_ && link_.IsFlushed()) Finish(velta::Outcome::kSent, velta::Reason::kNone);
    return;
  }
  if (options_.ask.count() == 0 || wait_confirm_ || now < next_ask_ || !link_.IsFlushed()) return;
  if (now - last_heard_ < options_.ask.count() && !(link_.MustBeAsked() && !is_connected_now_)) return;
  next_ask_ = now + options_.ask.count();
  SetStamp(idle_);
  if (!SendOnce(idle_, false)) Lose(now, link_.Why());
}

// Stamps rise over all connections, and are never one that the controller has echoed: whatever it echoes belongs to the
// frame that carried it.
void SessionLoop::SetStamp(SendPacket& packet) {
  std::uint64_t stamp = std::max<std::uint64_t>(GetNowTimeStamp(), last_send_timestamp_ + 1);
  if (last_recv_host_timestamp_ >= stamp && last_recv_host_timestamp_ - stamp < kHour) {
    stamp = last_recv_host_timestamp_ + 1;  // the clock was set back
  }
  packet.SetTimeStamp(stamp);
}

void SessionLoop::TakeIn() {
  const auto drop = [this](Command* command, velta::Reason reason) { Drop(command, reason); };
  if (shared_.has_new_sources) {
    const std::lock_guard<InheritingMutex> lock(shared_.new_sources_mutex);
    shared_.has_new_sources = false;
    for (auto& source : shared_.new_sources) sources_.push_back(std::move(source));
    shared_.new_sources.clear();
    carried_.reserve(sources_.size() + 1);
    carried_from_.reserve(sources_.size() + 1);
  }
  shared_.plain->TakeIn(drop);
  for (std::size_t i = 0; i < sources_.size(); ++i) {
    Stream& source = *sources_[i];
    source.TakeIn(drop);
    if (sources_[i].use_count() > 1 || !source.IsEmpty()) continue;
    // Nobody can send through it any more.
    if (std::find(carried_from_.begin(), carried_from_.end(), &source) != carried_from_.end()) continue;
    sources_.erase(sources_.begin() + static_cast<std::ptrdiff_t>(i--));
  }
  shared_.keys.TakeIn(drop);
}

bool SessionLoop::Choose() {
  if (shared_.admission->IsTripped()) return false;
  for (int tries = 0; tries < 3; ++tries) {
    const int turn = std::exchange(turn_, (turn_ + 1) % 3);
    const bool found = turn == 0 ? ChooseFrom(*shared_.plain) : turn == 1 ? ChooseFromSources() : ChooseFromKeys();
    if (found) return true;
  }
  return false;
}

/// The oldest command of the stream that is still valid.
Command* SessionLoop::ValidFront(Stream& stream) {
  while (Command* const command = stream.Front()) {
    const velta::Reason reason = shared_.admission->Invalid(command->epoch);
    if (reason == velta::Reason::kNone) return command;
    Drop(stream.TakeFront(), reason);
  }
  return nullptr;
}

bool SessionLoop::ChooseFrom(Stream& stream) {
  if (ValidFront(stream) == nullptr) return false;
  stream.Front()->CopyTo(cur_send_packet_);
  Carry(stream.TakeFront());
  carried_from_.push_back(&stream);
  return true;
}

bool SessionLoop::ChooseFromKeys() {
  Command* const command = shared_.keys.Take([this](Command* old, velta::Reason reason) { Drop(old, reason); });
  if (command == nullptr) return false;
  command->CopyTo(cur_send_packet_);
  Carry(command);
  return true;
}

// One pass: of each source the oldest command, if it commands no joint that the frame commands already. What does not
// fit stays where it is, so that the commands of one source keep their order.
bool SessionLoop::ChooseFromSources() {
  bool is_confirmed = false;
  const std::size_t first = first_source_;
  for (std::size_t i = 0; i < sources_.size(); ++i) {
    const std::size_t at = (first + i) % sources_.size();
    Stream& source = *sources_[at];
    if (ValidFront(source) == nullptr) continue;
    if (carried_.empty()) {
      static_cast<void>(ChooseFrom(source));
      is_confirmed = carried_.front()->IsConfirmed();
      first_source_ = (at + 1) % sources_.size();
      continue;
    }
    source.Front()->CopyTo(candidate_);
    if (!SendPacketMerger::mergePacket(cur_send_packet_, candidate_)) continue;
    is_confirmed = is_confirmed || source.Front()->IsConfirmed();
    Carry(source.TakeFront());
    carried_from_.push_back(&source);
  }
  cur_send_packet_.SetConfirmReceived(is_confirmed);  // also for a command that commands no joint
  return !carried_.empty();
}

void SessionLoop::Carry(Command* command) { carried_.push_back(command); }

void SessionLoop::Finish(velta::Outcome outcome, velta::Reason reason) {
  for (Command* const command : carried_) {
    if (command->Finish(outcome, reason)) {
      shared_.notifier.Post(command);
    } else {
      command->ReleaseInto(shared_.admission->retired);
    }
  }
  carried_.clear();
  carried_from_.clear();
}

void SessionLoop::Drop(Command* command, velta::Reason reason) {
  if (command->Finish(velta::Outcome::kDiscarded, reason)) {
    shared_.notifier.Post(command);
  } else {
    command->ReleaseInto(shared_.admission->retired);
  }
}

void SessionLoop::DropAll(Stream& stream, velta::Reason reason) {
  while (stream.Front() != nullptr) Drop(stream.TakeFront(), reason);
}

void SessionLoop::ResetGate() {
  wait_confirm_ = false;
  ready_to_send_ = true;
  wait_count_ = timeout_count_ = 0;
  is_stop_carried_ = false;
}

// SessionLoop: the stop

void SessionLoop::BeginStop(const char* why) {
  Finish(velta::Outcome::kDiscarded, velta::Reason::kDeadMan);
  ResetGate();
  is_stopping_arm_ = true;
  stop_index_ = 0;
  shared_.notifier.Post(Event::Kind::kDeadMan,
                        std::string(why) + (state_ == State::kOpen ? ": the arm is stopped"
                                                                   : ": the arm is stopped when the link is back"));
  shared_.notifier.RequestRecord();
}

void SessionLoop::EndStopFrame() {
  is_stop_carried_ = false;
  ++stop_index_;
}

/// The next frame of the stop into cur_send_packet_; false when it is through.
bool SessionLoop::ChooseStop() {
  if (!is_stopping_arm_) return false;
  bool found = false;
  if (!options_.stop.empty()) {
    found = stop_index_ < options_.stop.size();
    if (found) cur_send_packet_ = options_.stop[stop_index_];
  } else if (stop_index_ == 0) {
    cur_send_packet_ = SendPacket(joint_num_);
    cur_send_packet_.SetTrajectoryControlCancel("all");
    found = true;
  } else if (stop_index_ == 1) {
    cur_send_packet_ = SendPacket(joint_num_);
    for (std::size_t i = 0; i < velocity_mode_.size(); ++i) {
      if (!velocity_mode_[i]) continue;
      cur_send_packet_.SetRefVelocity(std::to_string(i), 0);
      found = true;
    }
  }
  is_stopping_arm_ = is_stop_carried_ = found;
  cur_send_packet_.SetConfirmReceived(true);
  return found;
}

}  // namespace velta::detail
