// SPDX-License-Identifier: MIT
// Any script is refused in one line, or gives rules within their bounds that strike the same twice.
#include <sstream>
#include <stdexcept>

#include "faults.h"
#include "target.h"

namespace velta::fuzz {
namespace {

/// Lines of a script, more or less right.
std::string Compose(Input& in) {
  static const char* const keys[] = {"at_ms",        "at_frame", "at_command", "for_ms", "for_frames",
                                     "for_commands", "rate",     "value",      "seed",   "fault"};
  std::string script;
  while (!in.Empty() && script.size() < 4000) {
    const auto fault = static_cast<sim::Fault>(in.Below(sim::kFaultCount));
    script += std::string("{\"fault\":\"") + sim::Info(fault).name + "\",\"" + keys[in.Below(3)] +
              "\":" + std::to_string(in.Byte());
    for (unsigned more = in.Below(4); more > 0; --more) {
      script += std::string(",\"") + keys[3 + in.Below(7)] + "\":" + std::to_string(in.Byte() / 64.0);
    }
    script += in.Below(16) == 0 ? "\n" : "}\n";
  }
  return script;
}

std::string Strikes(const std::vector<sim::FaultRule>& rules, const std::vector<char>& times) {
  sim::Faults faults(rules, 7);
  std::string strikes;
  std::uint64_t now = 0;
  for (const char time : times) {
    now += static_cast<unsigned char>(time);
    for (const auto unit : {sim::Unit::kMs, sim::Unit::kFrame, sim::Unit::kCommand}) faults.Advance(unit, now);
    for (std::size_t i = 0; i < sim::kFaultCount; ++i) {
      const auto fault = static_cast<sim::Fault>(i);
      const auto struck = faults.Strike(fault, static_cast<double>(now));
      if (struck) strikes += std::string(sim::Info(fault).name) + std::to_string(*struck) + ' ';
      Check(!struck || faults.IsKnown(fault), "only known faults strike");
    }
  }
  return strikes;
}

void Run(Input& in) {
  const std::vector<char> times = in.Take(in.Below(64));
  const bool is_flag = in.Below(3) == 0;
  const std::string text = in.Flag() ? in.Rest() : Compose(in);
  std::vector<sim::FaultRule> rules;
  try {
    if (is_flag) {
      rules.push_back(sim::ParseFaultFlag(text));
    } else {
      std::istringstream script(text);
      rules = sim::ParseFaultScript(script, "script");
    }
  } catch (const std::invalid_argument& error) {
    const std::string reason = error.what();
    Check(is_flag || reason.rfind("script:", 0) == 0, "a refusal names its line");
    Check(std::none_of(reason.begin(), reason.end(), [](char c) { return c >= 0 && c < ' '; }), "in one line");
    return;
  }
  for (const sim::FaultRule& rule : rules) {
    const sim::FaultInfo& info = sim::Info(rule.fault);
    Check(rule.rate >= 0 && rule.rate <= 1, "rates are probabilities");
    const bool has_value =
        info.takes == sim::FaultInfo::Takes::kRateAndValue || info.takes == sim::FaultInfo::Takes::kValue;
    Check(!has_value || (rule.value >= info.min && rule.value <= info.max), "values are within bounds");
  }
  Check(Strikes(rules, times) == Strikes(rules, times), "the same strikes for the same seed");
}

const Registered kTarget("fault_script", Run);

}  // namespace
}  // namespace velta::fuzz
