// SPDX-License-Identifier: MIT
#include "timing.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace velta::analysis {

std::string RoundedDuration(double ns) {
  struct Unit {
    double ns;
    const char* name;
  };
  for (const Unit& unit : {Unit{1e9, "s"}, Unit{1e6, "ms"}, Unit{1e3, "us"}}) {
    if (ns < unit.ns) continue;
    const double value = ns / unit.ns;
    return fmt::format("{:.{}f} {}", value, value < 10 ? 2 : (value < 100 ? 1 : 0), unit.name);
  }
  return fmt::format("{:.0f} ns", ns);
}

std::int64_t Percentile(const std::vector<std::int64_t>& sorted, double share) {
  if (sorted.empty()) return 0;
  const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
  return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

std::vector<std::string> Histogram(const std::vector<std::int64_t>& sorted, int width) {
  std::vector<std::string> lines;
  if (sorted.empty()) return lines;
  struct Bucket {
    std::int64_t from, to;
    std::ptrdiff_t count;
  };
  std::vector<Bucket> buckets;
  std::int64_t from = 1000;  // shorter ones count in the first bucket
  while (from * 2 <= sorted.front()) from *= 2;
  for (auto it = sorted.begin(); it != sorted.end(); from *= 2) {
    const auto next = std::lower_bound(it, sorted.end(), from * 2);
    buckets.push_back({from, from * 2, next - it});
    it = next;
  }
  const auto most = std::max_element(buckets.begin(), buckets.end(), [](const Bucket& a, const Bucket& b) {
                      return a.count < b.count;
                    })->count;
  for (const Bucket& bucket : buckets) {
    const auto bar = std::max<std::ptrdiff_t>(bucket.count * width / most, bucket.count > 0 ? 1 : 0);
    lines.push_back(fmt::format("{:>8} .. {:>8} |{:{}}| {}", RoundedDuration(bucket.from), RoundedDuration(bucket.to),
                                std::string(static_cast<std::size_t>(bar), '#'), width, bucket.count));
  }
  return lines;
}

void Arrivals::Add(std::int64_t at_ns) {
  constexpr std::int64_t kWindow = 1'000'000'000;
  constexpr double kShortestGap = 5e6;
  if (times_.size() >= 2) {
    const double period = static_cast<double>(times_.back() - times_.front()) / static_cast<double>(times_.size() - 1);
    if (static_cast<double>(at_ns - times_.back()) > std::max(5 * period, kShortestGap)) ++gaps_;
  }
  times_.push_back(at_ns);
  ++count_;
  while (!keep_all_ && times_.size() > 2 && times_.front() < at_ns - kWindow) times_.pop_front();
}

Rhythm Arrivals::Measure() const {
  Rhythm rhythm;
  if (times_.size() < 2) return rhythm;
  const auto intervals = static_cast<double>(times_.size() - 1);
  rhythm.period_ns = static_cast<double>(times_.back() - times_.front()) / intervals;
  if (rhythm.period_ns > 0) rhythm.rate_hz = 1e9 / rhythm.period_ns;
  double squares = 0;
  for (std::size_t i = 1; i < times_.size(); ++i) {
    const std::int64_t interval = times_[i] - times_[i - 1];
    rhythm.longest = std::max(rhythm.longest, interval);
    squares += std::pow(static_cast<double>(interval) - rhythm.period_ns, 2);
  }
  rhythm.jitter_ns = std::sqrt(squares / intervals);
  return rhythm;
}

}  // namespace velta::analysis
