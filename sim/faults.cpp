// SPDX-License-Identifier: MIT
#include "faults.h"

#include <picojson.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <istream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace velta::sim {

namespace {

using Takes = FaultInfo::Takes;

constexpr double kMaxMs = 3600e3;

// In the order of Fault.
constexpr FaultInfo kInfos[] = {
    {"drop-command", Takes::Rate, 0, 0, 0, "drop-command[=RATE]", "a command is lost"},
    {"delay-command", Takes::RateAndValue, 20, 0, kMaxMs, "delay-command[=RATE[:MS]]",
     "a command, and all behind it, come MS (20) late"},
    {"drop-status", Takes::Rate, 0, 0, 0, "drop-status[=RATE]", "a status frame is lost"},
    {"delay-status", Takes::RateAndValue, 20, 0, kMaxMs, "delay-status[=RATE[:MS]]",
     "a status frame comes MS (20) late; over UDP others overtake it"},
    {"duplicate-status", Takes::Rate, 0, 0, 0, "duplicate-status[=RATE]", "a status frame comes twice"},
    {"corrupt", Takes::Rate, 0, 0, 0, "corrupt[=RATE]", "one bit of a status frame is flipped"},
    {"truncate", Takes::Rate, 0, 0, 0, "truncate[=RATE]", "a status frame ends early"},
    {"garbage", Takes::RateAndValue, 64, 1, 1400, "garbage[=RATE[:BYTES]]",
     "up to BYTES (64) random bytes come before a status frame"},
    {"byte-writes", Takes::Nothing, 0, 0, 0, "byte-writes", "status frames leave one byte per write"},
    {"coalesce", Takes::Value, 4, 2, 1000, "coalesce[=FRAMES]", "FRAMES (4) status frames leave in one write"},
    {"no-echo", Takes::Nothing, 0, 0, 0, "no-echo", "no time stamp is echoed"},
    {"late-echo", Takes::Value, 50, 0, kMaxMs, "late-echo[=MS]", "time stamps are echoed MS (50) late"},
    {"stale-echo", Takes::Nothing, 0, 0, 0, "stale-echo", "the time stamp before the newest is echoed"},
    {"freeze", Takes::Nothing, 0, 0, 0, "freeze", "the same status comes again and again"},
    {"close", Takes::Value, 0, 0, 1e12, "close[=FRAMES]", "a connection is closed after FRAMES (0) status frames"},
    {"reset", Takes::Value, 0, 0, 1e12, "reset[=FRAMES]", "a connection is reset after FRAMES (0) status frames"},
    {"refuse", Takes::Duration, 0, 0, kMaxMs, "refuse[=MS]", "connections are closed and refused for MS (always)"},
    {"stop-reading", Takes::Duration, 0, 0, kMaxMs, "stop-reading[=MS]", "commands are not read for MS (always)"},
    {"wrong-joints", Takes::Value, 0, 0, 828, "wrong-joints[=JOINTS]", "status frames carry JOINTS (one more) joints"},
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

bool TakesRate(const FaultInfo& info) { return info.takes == Takes::Rate || info.takes == Takes::RateAndValue; }

FaultRule MakeRule(Fault fault) {
  FaultRule rule;
  rule.fault = fault;
  rule.value = Info(fault).default_value;
  return rule;
}

constexpr std::pair<const char*, Unit> kTriggers[] = {
    {"at_ms", Unit::Ms}, {"at_frame", Unit::Frame}, {"at_command", Unit::Command}};
constexpr std::pair<const char*, Unit> kDurations[] = {
    {"for_ms", Unit::Ms}, {"for_frames", Unit::Frame}, {"for_commands", Unit::Command}};

/// Takes a member of type T out of the document.
template <typename T>
std::optional<T> Take(picojson::object& members, const std::string& key, const char* type) {
  const auto found = members.find(key);
  if (found == members.end()) return std::nullopt;
  if (!found->second.is<T>()) Refuse("'" + key + "' must be a " + type);
  T value = found->second.get<T>();
  members.erase(found);
  return value;
}

std::optional<double> TakeNumber(picojson::object& members, const std::string& key, double min, double max) {
  const auto number = Take<double>(members, key, "number");
  if (!number) return std::nullopt;
  return CheckRange(*number, min, max, "'" + key + "'");
}

/// Takes the one member of the group that is there.
template <std::size_t N>
std::optional<FaultRule::Span> TakeSpan(picojson::object& members, const std::pair<const char*, Unit> (&group)[N]) {
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

FaultRule ParseLine(const std::string& line) {
  // The JSON library parses nested objects by recursion without a bound; no fault's line is nearly as long.
  if (line.size() > 4096) Refuse("longer than any fault");
  picojson::value document;
  const std::string error = picojson::parse(document, line);  // reads all of the line or tells why not
  if (!error.empty() || !document.is<picojson::object>()) Refuse("not a JSON object");
  picojson::object members = document.get<picojson::object>();

  const auto name = Take<std::string>(members, "fault", "text");
  if (!name) Refuse("'fault' is missing");
  FaultRule rule = MakeRule(FindFault(*name));
  const FaultInfo& info = Info(rule.fault);

  const auto at = TakeSpan(members, kTriggers);
  if (!at) Refuse("one of 'at_ms', 'at_frame' and 'at_command' is missing");
  rule.at = *at;
  rule.lasts = TakeSpan(members, kDurations);
  const bool strikes_single = TakesRate(info) || rule.fault == Fault::Close || rule.fault == Fault::Reset;
  rule.once = strikes_single && !rule.lasts;
  if (TakesRate(info)) rule.rate = TakeNumber(members, "rate", 0, 1).value_or(1);
  if (info.takes == Takes::RateAndValue || info.takes == Takes::Value) {
    rule.value = TakeNumber(members, "value", info.min_value, info.max_value).value_or(rule.value);
  }
  if (!members.empty()) Refuse("'" + members.begin()->first + "' means nothing to '" + info.name + "'");
  return rule;
}

}  // namespace

const FaultInfo& Info(Fault fault) { return kInfos[static_cast<std::size_t>(fault)]; }

FaultRule ParseFaultFlag(const std::string& text) {
  const std::size_t equals = text.find('=');
  FaultRule rule = MakeRule(FindFault(text.substr(0, equals)));
  if (equals == std::string::npos) return rule;

  const FaultInfo& info = Info(rule.fault);
  const std::string name = info.name;
  std::string_view rest = std::string_view(text).substr(equals + 1);
  switch (info.takes) {
    case Takes::Nothing:
      Refuse("fault '" + name + "' takes no number");
    case Takes::Duration:
      rule.lasts = FaultRule::Span{
          Unit::Ms, static_cast<std::uint64_t>(ReadNumber(rest, info.min_value, info.max_value, "time of " + name))};
      return rule;
    case Takes::Value:
      rule.value = ReadNumber(rest, info.min_value, info.max_value, "value of " + name);
      return rule;
    case Takes::Rate:
    case Takes::RateAndValue:
      break;
  }
  const std::size_t colon = info.takes == Takes::RateAndValue ? rest.find(':') : std::string_view::npos;
  rule.rate = ReadNumber(rest.substr(0, colon), 0, 1, "rate of " + name);
  if (colon != std::string_view::npos) {
    rule.value = ReadNumber(rest.substr(colon + 1), info.min_value, info.max_value, "value of " + name);
  }
  return rule;
}

std::vector<FaultRule> ParseFaultScript(std::istream& script, const std::string& name) {
  std::vector<FaultRule> rules;
  std::string line;
  for (int number = 1; std::getline(script, line); ++number) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    try {
      rules.push_back(ParseLine(line));
    } catch (const std::exception& error) {  // also what the JSON library throws for numbers that it cannot hold
      Refuse(name + ":" + std::to_string(number) + ": " + error.what());
    }
  }
  return rules;
}

Faults::Faults(const std::vector<FaultRule>& rules, std::uint64_t seed) {
  entries_.reserve(rules.size());
  for (const FaultRule& rule : rules) entries_.push_back({rule, Entry::State::Waiting, 0});
  for (std::size_t i = 0; i < kFaultCount; ++i) {
    std::seed_seq sequence{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
                           static_cast<std::uint32_t>(i)};
    generators_[i].seed(sequence);
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
    if (entry.state == Entry::State::Waiting && now(rule.at.unit) >= rule.at.count) {
      entry.state = Entry::State::Active;
      if (rule.lasts) {
        const Unit unit = rule.lasts->unit;
        // A count that did not trigger the rule is of what already passed; the next one is the first to be struck.
        const std::uint64_t first = unit == rule.at.unit ? rule.at.count : now(unit) + (unit == Unit::Ms ? 0 : 1);
        entry.end = first + rule.lasts->count;
      }
    }
    if (entry.state == Entry::State::Active && rule.lasts && now(rule.lasts->unit) >= entry.end) {
      entry.state = Entry::State::Over;
    }
  }
}

bool Faults::IsActive(Fault fault) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) {
    return entry.rule.fault == fault && entry.state == Entry::State::Active;
  });
}

bool Faults::IsKnown(Fault fault) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.rule.fault == fault; });
}

std::optional<double> Faults::Strike(Fault fault, double measure) {
  for (Entry& entry : entries_) {
    if (entry.rule.fault != fault || entry.state != Entry::State::Active || measure < entry.rule.value) continue;
    if (entry.rule.rate < 1) {
      constexpr double kUnit = 0x1p-53;  // the generator's upper 53 bits as a number in [0, 1)
      const std::uint64_t bits = generators_[static_cast<std::size_t>(fault)]() >> 11;
      if (static_cast<double>(bits) * kUnit >= entry.rule.rate) continue;
    }
    Count(fault);
    if (entry.rule.once) entry.state = Entry::State::Over;
    return entry.rule.value;
  }
  return std::nullopt;
}

std::size_t Faults::Random(Fault fault, std::size_t bound) {
  return static_cast<std::size_t>(generators_[static_cast<std::size_t>(fault)]() % bound);
}

}  // namespace velta::sim
