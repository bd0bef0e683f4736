// SPDX-License-Identifier: MIT
#include "argument_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <numeric>
#include <optional>
#include <string_view>
#include <system_error>

#include "errors.h"

namespace velta::analysis {

namespace {

using std::chrono::nanoseconds;

struct Unit {
  const char* name;
  std::int64_t ns;
};
constexpr Unit kUnits[] = {{"min", 60'000'000'000}, {"s", 1'000'000'000}, {"ms", 1'000'000}, {"us", 1'000}, {"ns", 1}};

/// All of text as a number.
template <typename T>
std::optional<T> Number(std::string_view text) {
  T value{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

/// How many letters must be put in, left out, replaced or exchanged with their neighbour to make b of a.
std::size_t Distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> rows(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t j = 0; j <= b.size(); ++j) rows[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    rows[i][0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = rows[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      rows[i][j] = std::min({rows[i - 1][j] + 1, rows[i][j - 1] + 1, replaced});
      const bool exchanged = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (exchanged) rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
    }
  }
  return rows[a.size()][b.size()];
}

}  // namespace

nanoseconds ReadDuration(const std::string& text) {
  const std::size_t end = std::min(text.find_last_of("0123456789.") + 1, text.size());
  const std::string unit = text.substr(end);
  const auto number = Number<double>(std::string_view(text).substr(0, end));
  if (number && *number == 0 && unit.empty()) return nanoseconds(0);
  const auto* const found =
      std::find_if(std::begin(kUnits), std::end(kUnits), [&](const Unit& u) { return unit == u.name; });
  if (!number || !(*number >= 0) || found == std::end(kUnits)) {
    throw UsageError("'" + text + "' is not a duration: give a number and its unit, as in 200ms, 0.5s or 2min");
  }
  const double ns = std::round(*number * static_cast<double>(found->ns));
  return ns < 9e18 ? nanoseconds(static_cast<std::int64_t>(ns)) : nanoseconds::max();
}

std::string DurationText(nanoseconds duration) {
  if (duration.count() == 0) return "0";
  const auto* const unit =
      std::find_if(std::begin(kUnits), std::end(kUnits), [&](const Unit& u) { return duration.count() % u.ns == 0; });
  return fmt::format("{}{}", duration.count() / unit->ns, unit->name);
}

std::vector<int> ReadSelection(const std::string& text, int joints) {
  std::vector<int> selected(text == "all" ? static_cast<std::size_t>(joints) : 0);
  std::iota(selected.begin(), selected.end(), 0);
  for (std::size_t from = 0, end = 0; text != "all" && end != std::string::npos; from = end + 1) {
    end = text.find('/', from);
    const std::string token = text.substr(from, end - from);
    const auto joint = Number<unsigned int>(token);
    if (!joint || *joint >= static_cast<unsigned int>(joints)) {
      throw UsageError(fmt::format("--select {}: '{}' is not a joint of this arm (0 to {})", text, token, joints - 1));
    }
    selected.push_back(static_cast<int>(*joint));
  }
  return selected;
}

std::string DidYouMean(const std::string& typed, const std::vector<std::string>& candidates) {
  const std::string* best = nullptr;
  std::size_t least = std::numeric_limits<std::size_t>::max();
  for (const std::string& candidate : candidates) {
    const bool begins = typed.size() >= 3 && candidate.rfind(typed, 0) == 0;
    const std::size_t distance = begins ? 1 : Distance(typed, candidate);
    if (distance >= least || distance > std::max<std::size_t>(1, candidate.size() / 3)) continue;
    least = distance;
    best = &candidate;
  }
  return best == nullptr ? "" : " (did you mean '" + *best + "'?)";
}

}  // namespace velta::analysis
