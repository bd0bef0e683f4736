// SPDX-License-Identifier: MIT
#ifndef VELTA_ANALYSIS_TIMING_H_
#define VELTA_ANALYSIS_TIMING_H_

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace velta::analysis {

/// @return a duration in the unit that suits it, with three digits: "850 ns", "12.3 us", "4.56 ms", "1.20 s"
std::string RoundedDuration(double ns);
inline std::string RoundedDuration(std::int64_t ns) { return RoundedDuration(static_cast<double>(ns)); }

/// @param sorted  ascending
/// @param share   0..1
/// @return the smallest value that at least this share of all values does not exceed; 0 for no values
std::int64_t Percentile(const std::vector<std::int64_t>& sorted, double share);

/// Counts per doubling of the duration, as lines "    64 us .. 128 us  |######      |  123".
std::vector<std::string> Histogram(const std::vector<std::int64_t>& sorted, int width);

/// How regularly something arrives; all zero for fewer than two arrivals.
struct Rhythm {
  double rate_hz = 0;
  double period_ns = 0;      ///< mean interval
  double jitter_ns = 0;      ///< standard deviation of the intervals
  std::int64_t longest = 0;  ///< longest interval, ns
};

/// Follows arrivals: their rhythm over the last second, or over all when told to keep all, and their gaps.
class Arrivals {
 public:
  explicit Arrivals(bool keep_all = false) : keep_all_(keep_all) {}

  /// @param at_ns  MonotonicNs() at the arrival, never before an earlier one's
  void Add(std::int64_t at_ns);

  Rhythm Measure() const;
  std::int64_t Last() const { return times_.empty() ? 0 : times_.back(); }
  std::int64_t Count() const { return count_; }

  /// Silences of more than five mean periods (and 5 ms) between two arrivals.
  std::int64_t Gaps() const { return gaps_; }

 private:
  bool keep_all_;
  std::deque<std::int64_t> times_;
  std::int64_t count_ = 0;
  std::int64_t gaps_ = 0;
};

}  // namespace velta::analysis

#endif  // VELTA_ANALYSIS_TIMING_H_
