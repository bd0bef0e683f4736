// SPDX-License-Identifier: MIT
#ifndef VELTA_ANALYSIS_PING_REPORT_H_
#define VELTA_ANALYSIS_PING_REPORT_H_

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "timing.h"

namespace velta::analysis {

/// What one run of `velta ping` measured, and what the numbers mean.
///
/// Units: durations in ns of the monotonic clock, counts of bytes.
struct PingReport {
  int joints = 0;
  int sent = 0;       ///< commands, resends not counted
  int confirmed = 0;  ///< of them, echoed within their time
  int resends = 0;
  std::vector<std::int64_t> round_trips;  ///< ascending; of the confirmed ones, from the frame that was echoed
  std::vector<std::int64_t> wakeups;      ///< ascending; how much later than planned this process was woken
  Arrivals statuses{true};
  std::uint64_t received = 0;
  std::uint64_t good = 0;  ///< in frames with a right CRC
  std::string lost;        ///< why the run ended early; empty when it did not
};

/// @return what to look at, most urgent first; never empty
std::vector<std::string> Verdict(const PingReport& report);

std::string ToText(const PingReport& report);  ///< several lines
nlohmann::ordered_json ToJson(const PingReport& report);

}  // namespace velta::analysis

#endif  // VELTA_ANALYSIS_PING_REPORT_H_
