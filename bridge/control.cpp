// SPDX-License-Identifier: MIT
#include "control.h"

#include <functional>

namespace velta::bridge {

namespace {

std::size_t HashOf(const Commander& sender, const std::string& id) {
  return std::hash<std::string>{}(sender + '\0' + id);
}

}  // namespace

const char* ToString(Refusal refusal) {
  switch (refusal) {
    case Refusal::kNone:
      return "";
    case Refusal::kNotAllowed:
      return "commands not allowed";
    case Refusal::kNotHeld:
      return "control not held";
    case Refusal::kHeldByAnother:
      return "control held by another";
    case Refusal::kDeadMan:
      return "dead-man";
    case Refusal::kNoStop:
      return "stop not allowed";
    case Refusal::kNotCommand:
      return "not a command document";
    case Refusal::kRepeated:
      return "repeated or retained";
    case Refusal::kExpired:
      return "expired";
  }
  return "";
}

/// Every message: a holder whose time is over has lost control before it is heard.
Control::Effects Control::Begin(const Commander& sender, Time now) {
  Effects effects = Expire(now);
  if (!holder_.empty() && sender == holder_) {
    heard_ = now;
    effects.keep_alive = true;
  }
  return effects;
}

/// Messages that only the holder may send.
Control::Effects Control::BeginHeld(const Commander& sender, Time now) {
  Effects effects = Begin(sender, now);
  if (!options_.allow_commands) {
    effects.refusal = Refusal::kNotAllowed;
  } else if (!effects.keep_alive) {
    effects.refusal = Refusal::kNotHeld;
  }
  return effects;
}

void Control::Drop(Effects& effects) {
  holder_.clear();
  effects.changed = true;
  effects.keep_alive = false;
}

Control::Effects Control::Take(const Commander& sender, Time now) {
  Effects effects = Begin(sender, now);
  if (!options_.allow_commands) {
    effects.refusal = Refusal::kNotAllowed;
  } else if (holder_.empty()) {
    holder_ = sender;
    heard_ = now;
    effects.changed = effects.keep_alive = true;
  } else if (holder_ != sender) {
    effects.refusal = Refusal::kHeldByAnother;
  }
  return effects;
}

Control::Effects Control::Keep(const Commander& sender, Time now) { return BeginHeld(sender, now); }

Control::Effects Control::Give(const Commander& sender, Time now) {
  Effects effects = BeginHeld(sender, now);
  if (effects.refusal != Refusal::kNone) return effects;
  Drop(effects);
  effects.disarm = true;
  return effects;
}

Control::Effects Control::Command(const Commander& sender, Time now) {
  Effects effects = BeginHeld(sender, now);
  if (effects.refusal == Refusal::kNone && is_stopped_) effects.refusal = Refusal::kDeadMan;
  return effects;
}

Control::Effects Control::Rearm(const Commander& sender, Time now) {
  Effects effects = BeginHeld(sender, now);
  if (effects.refusal != Refusal::kNone) return effects;
  is_stopped_ = false;
  effects.rearm = true;
  return effects;
}

Control::Effects Control::Stop(const Commander& sender, Time now) {
  Effects effects = Begin(sender, now);
  if (!options_.viewer_stop && !effects.keep_alive) {
    effects.refusal = Refusal::kNoStop;
  } else {
    effects.stop = is_stopped_ = true;
  }
  return effects;
}

Control::Effects Control::Unknown(const Commander& sender, Time now) {
  Effects effects = Begin(sender, now);
  effects.refusal = Refusal::kNotCommand;
  return effects;
}

Control::Effects Control::Leave(const Commander& sender) {
  Effects effects;
  if (holder_.empty() || sender != holder_) return effects;
  effects.stop = is_stopped_ = true;
  Drop(effects);
  return effects;
}

Control::Effects Control::Expire(Time now) {
  const auto deadline = Deadline();
  return deadline && now > *deadline ? Leave(Commander(holder_)) : Effects{};
}

std::optional<Control::Time> Control::Deadline() const {
  if (holder_.empty()) return std::nullopt;
  return heard_ + options_.timeout;
}

bool ExecutedIds::Contains(const Commander& sender, const std::string& id) const {
  return known_.count(HashOf(sender, id)) > 0;
}

void ExecutedIds::Add(const Commander& sender, const std::string& id) {
  const std::size_t hash = HashOf(sender, id);
  if (!known_.insert(hash).second) return;
  order_.push_back(hash);
  if (order_.size() <= kept_) return;
  known_.erase(order_.front());
  order_.pop_front();
}

}  // namespace velta::bridge
