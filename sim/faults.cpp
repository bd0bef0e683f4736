// SPDX-License-Identifier: MIT
#include "faults.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <istream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace velta::sim {

namespace {

using Takes = FaultInfo::Takes;

constexpr double kMaxMs = 3600e3;

// In the order of Fault.
constexpr FaultInfo kInfos[] = {
    {"drop-command", Takes::kRate, "", 0, nullptr, 0, 0, "a command is lost", nullptr},
    {"delay-command", Takes::kRateAndValue, "MS", 20, nullptr, 0, kMaxMs, "a command, and all after it, come MS late",
     nullptr},
    {"drop-status", Takes::kRate, "", 0, nullptr, 0, 0, "a status frame is lost", nullptr},
    {"delay-status", Takes::kRateAndValue, "MS", 20, nullptr, 0, kMaxMs,
     "a status frame comes MS late; over UDP others overtake it", nullptr},
    {"duplicate-status", Takes::kRate, "", 0, nullptr, 0, 0, "a status frame comes twice", nullptr},
    {"corrupt", Takes::kRate, "", 0, nullptr, 0, 0, "one bit of a status frame is flipped", FlipBit},
    {"truncate", Takes::kRate, "", 0, nullptr, 0, 0, "a status frame ends early", CutShort},
    {"garbage", Takes::kRateAndValue, "BYTES", 64, nullptr, 1, 1400,
     "up to BYTES random bytes come before a status frame", PrependGarbage},
    {"byte-writes", Takes::kNothing, "", 0, nullptr, 0, 0, "status frames leave one byte per write", nullptr},
    {"coalesce", Takes::kValue, "FRAMES", 4, nullptr, 2, 1000, "FRAMES status frames leave in one write", nullptr},
    {"no-echo", Takes::kNothing, "", 0, nullptr, 0, 0, "no time stamp is echoed", nullptr},
    {"late-echo", Takes::kValue, "MS", 50, nullptr, 0, kMaxMs, "time stamps are echoed MS late", nullptr},
    {"stale-echo", Takes::kNothing, "", 0, nullptr, 0, 0, "the time stamp before the newest is echoed", nullptr},
    {"freeze", Takes::kNothing, "", 0, nullptr, 0, 0, "the same status comes again and again", nullptr},
    {"close", Takes::kValue, "FRAMES", 0, nullptr, 0, 1e12, "a connection is closed after FRAMES status frames",
     nullptr},
    {"reset", Takes::kValue, "FRAMES", 0, nullptr, 0, 1e12, "a connection is reset after FRAMES status frames",
     nullptr},
    {"refuse", Takes::kDuration, "MS", 0, "always", 0, kMaxMs, "connections are closed and refused for MS", nullptr},
    {"stop-reading", Takes::kDuration, "MS", 0, "always", 0, kMaxMs, "commands are not read for MS", nullptr},
    {"wrong-joints", Takes::kValue, "JOINTS", 0, "one more", 0, 828, "status frames carry JOINTS joints", nullptr},
};
static_assert(std::size(kInfos) == kFaultCount);

/// @param text may quote what the user wrote, control characters and all
[[noreturn]] void Refuse(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < ' '; }, '?');
  throw std::invalid_argument(text);
}

Fault FindFault(const std::string& name) {
  for (std::size_t i = 0; i < kFaultCount; ++i) {
    if (name == kInfos[i].name) return static_cast<Fault>(i);
  }
  Refuse("there is no fault '" + name + "'");
}

std::string Plain(double number) {
  std::string text = std::to_string(number);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

double CheckRange(double number, double min, double max, const std::string& what) {
  if (number >= min && number <= max) return number;  // false for NaN
  Refuse(what + " must be from " + Plain(min) + " to " + Plain(max));
}

double ReadNumber(std::string_view text, double min, double max, const std::string& what) {
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) Refuse(what + " '" + std::string(text) + "' is not a number");
  return CheckRange(number, min, max, what);
}

bool TakesRate(const FaultInfo& info) { return info.takes == Takes::kRate || info.takes == Takes::kRateAndValue; }

FaultRule MakeRule(Fault fault) {
  FaultRule rule;
  rule.fault = fault;
  rule.value = Info(fault).fallback;
  return rule;
}

constexpr std::pair<const char*, Unit> kTriggers[] = {
    {"at_ms", Unit::kMs}, {"at_frame", Unit::kFrame}, {"at_command", Unit::kCommand}};
constexpr std::pair<const char*, Unit> kDurations[] = {
    {"for_ms", Unit::kMs}, {"for_frames", Unit::kFrame}, {"for_commands", Unit::kCommand}};

using Json = nlohmann::json;

/// Takes a member out of the document.
std::optional<Json> Take(Json& members, const std::string& key, bool (Json::*is)() const, const char* type) {
  const auto found = members.find(key);
  if (found == members.end()) return std::nullopt;
  if (!((*found).*is)()) Refuse("'" + key + "' must be a " + type);
  Json value = std::move(*found);
  members.erase(found);
  return value;
}

std::optional<double> TakeNumber(Json& members, const std::string& key, double min, double max) {
  const auto number = Take(members, key, &Json::is_number, "number");
  if (!number) return std::nullopt;
  return CheckRange(number->get<double>(), min, max, "'" + key + "'");
}

/// Takes the one member of the group that is there.
template <std::size_t N>
std::optional<FaultRule::Span> TakeSpan(Json& members, const std::pair<const char*, Unit> (&group)[N]) {
  constexpr double kMaxCount = 1e12;
  std::optional<FaultRule::Span> span;
  for (const auto& [key, unit] : group) {
    const auto count = TakeNumber(members, key, 0, kMaxCount);
    if (!count) continue;
    if (*count != std::floor(*count)) Refuse(std::string("'") + key + "' must be a whole number");
    if (span) Refuse(std::string("'") + key + "' comes in addition to another of its kind");
    span = FaultRule::Span{unit, static_cast<std::uint64_t>(*count)};
  }
  return span;
}

}  // namespace

const FaultInfo& Info(Fault fault) { return kInfos[static_cast<std::size_t>(fault)]; }

std::string Usage(const FaultInfo& info) {
  std::string name = info.name;
  const std::string unit = info.unit;
  switch (info.takes) {
    case Takes::kRate:
      return name + "[=RATE]";
    case Takes::kRateAndValue:
      return name + "[=RATE[:" + unit + "]]";
    case Takes::kNothing:
      return name;
    case Takes::kValue:
    case Takes::kDuration:
      break;
  }
  return name + "[=" + unit + "]";
}

std::string Effect(const FaultInfo& info) {
  std::string text = info.effect;
  const std::string unit = info.unit;
  if (!unit.empty()) {
    text.insert(text.find(unit) + unit.size(),
                " (" + (info.absent != nullptr ? info.absent : Plain(info.fallback)) + ")");
  }
  return text;
}

FaultRule ParseFaultFlag(const std::string& text) {
  const std::size_t equals = text.find('=');
  FaultRule rule = MakeRule(FindFault(text.substr(0, equals)));
  if (equals == std::string::npos) return rule;

  const FaultInfo& info = Info(rule.fault);
  const std::string name = info.name;
  std::string_view rest = std::string_view(text).substr(equals + 1);
  switch (info.takes) {
    case Takes::kNothing:
      Refuse("fault '" + name + "' takes no number");
    case Takes::kDuration:
      rule.lasts = FaultRule::Span{Unit::kMs,
                                   static_cast<std::uint64_t>(ReadNumber(rest, info.min, info.max, "time of " + name))};
      return rule;
    case Takes::kValue:
      rule.value = ReadNumber(rest, info.min, info.max, "value of " + name);
      return rule;
    case Takes::kRate:
    case Takes::kRateAndValue:
      break;
  }
  const std::size_t colon = info.takes == Takes::kRateAndValue ? rest.find(':') : std::string_view::npos;
  rule.rate = ReadNumber(rest.substr(0, colon), 0, 1, "rate of " + name);
  if (colon != std::string_view::npos) {
    rule.value = ReadNumber(rest.substr(colon + 1), info.min, info.max, "value of " + name);
  }
  return rule;
}

FaultRule ParseFaultLine(const std::string& line) {
  Json members = Json::parse(line, nullptr, false);
  if (!members.is_object()) Refuse("not a JSON object");
  const auto name = Take(members, "fault", &Json::is_string, "text");
  if (!name) Refuse("'fault' is missing");
  FaultRule rule = MakeRule(FindFault(name->get<std::string>()));
  const FaultInfo& info = Info(rule.fault);
  rule.at = TakeSpan(members, kTriggers);
  rule.lasts = TakeSpan(members, kDurations);
  const bool strikes_single = TakesRate(info) || rule.fault == Fault::kClose || rule.fault == Fault::kReset;
  rule.once = strikes_single && !rule.lasts;
  if (TakesRate(info)) rule.rate = TakeNumber(members, "rate", 0, 1).value_or(1);
  if (info.takes == Takes::kRateAndValue || info.takes == Takes::kValue) {
    rule.value = TakeNumber(members, "value", info.min, info.max).value_or(rule.value);
  }
  if (!members.empty()) Refuse("'" + members.begin().key() + "' means nothing to '" + info.name + "'");
  return rule;
}

std::vector<FaultRule> ParseFaultScript(std::istream& script, const std::string& name) {
  std::vector<FaultRule> rules;
  std::string line;
  for (int number = 1; std::getline(script, line); ++number) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    try {
      rules.push_back(ParseFaultLine(line));
      if (!rules.back().at) Refuse("one of 'at_ms', 'at_frame' and 'at_command' is missing");
    } catch (const std::invalid_argument& error) {
      Refuse(name + ":" + std::to_string(number) + ": " + error.what());
    }
  }
  return rules;
}

Faults::Faults(const std::vector<FaultRule>& rules, std::uint64_t seed) {
  for (std::size_t i = 0; i < kFaultCount; ++i) {
    std::seed_seq sequence{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
                           static_cast<std::uint32_t>(i)};
    generators_[i].seed(sequence);
  }
  for (const FaultRule& rule : rules) Add(rule);
}

void Faults::Add(const FaultRule& rule) {
  Entry& entry = entries_.emplace_back();
  entry.rule = rule;
  if (!rule.at) {
    // A count is of what already passed: the next frame or command is the first to be struck.
    const Unit unit = rule.lasts ? rule.lasts->unit : Unit::kMs;
    entry.rule.at = FaultRule::Span{unit, now_[static_cast<std::size_t>(unit)] + (unit == Unit::kMs ? 0 : 1)};
  }
  Update();
}

void Faults::Advance(Unit unit, std::uint64_t now) {
  now_[static_cast<std::size_t>(unit)] = now;
  Update();
}

void Faults::Update() {
  const auto now = [this](Unit unit) { return now_[static_cast<std::size_t>(unit)]; };
  for (Entry& entry : entries_) {
    const FaultRule& rule = entry.rule;
    if (entry.state == Entry::State::kWaiting && now(rule.at->unit) >= rule.at->count) {
      entry.state = Entry::State::kActive;
      if (rule.lasts) {
        const Unit unit = rule.lasts->unit;
        // A count that did not trigger the rule is of what already passed; the next one is the first to be struck.
        const std::uint64_t first = unit == rule.at->unit ? rule.at->count : now(unit) + (unit == Unit::kMs ? 0 : 1);
        entry.end = first + rule.lasts->count;
      }
    }
    if (entry.state == Entry::State::kActive && rule.lasts && now(rule.lasts->unit) >= entry.end) {
      entry.state = Entry::State::kOver;
    }
  }
}

bool Faults::IsActive(Fault fault) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) {
    return entry.rule.fault == fault && entry.state == Entry::State::kActive;
  });
}

bool Faults::IsKnown(Fault fault) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.rule.fault == fault; });
}

std::optional<double> Faults::Strike(Fault fault, double measure) {
  for (Entry& entry : entries_) {
    if (entry.rule.fault != fault || entry.state != Entry::State::kActive || measure < entry.rule.value) continue;
    if (entry.rule.rate < 1) {
      constexpr double kUnit = 0x1p-53;  // the generator's upper 53 bits as a number in [0, 1)
      const std::uint64_t bits = generators_[static_cast<std::size_t>(fault)]() >> 11;
      if (static_cast<double>(bits) * kUnit >= entry.rule.rate) continue;
    }
    Count(fault);
    if (entry.rule.once) entry.state = Entry::State::kOver;
    return entry.rule.value;
  }
  return std::nullopt;
}

std::vector<char> Faults::Damaged(std::vector<char> frame) {
  for (std::size_t i = 0; i < kFaultCount; ++i) {
    if (kInfos[i].damage == nullptr) continue;
    const auto value = Strike(static_cast<Fault>(i));
    if (value) frame = kInfos[i].damage(std::move(frame), *value, generators_[i]);
  }
  return frame;
}

}  // namespace velta::sim
