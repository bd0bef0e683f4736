// SPDX-License-Identifier: MIT
#include "text.h"

#include <locale.h>
#include <stdlib.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace velta::detail {

std::optional<int> ParseInt32(std::string_view text) {
  const auto* p = text.data();
  const auto* const end = p + text.size();
  while (p != end && (*p == ' ' || (*p >= '\t' && *p <= '\r'))) ++p;
  const bool negative = p != end && *p == '-';
  if (p != end && (*p == '-' || *p == '+')) ++p;
  if (p == end || *p < '0' || *p > '9') return std::nullopt;
  constexpr std::int64_t kBound = std::int64_t{1} << 31;
  std::int64_t value = 0;
  for (; p != end && *p >= '0' && *p <= '9'; ++p) {
    value = value * 10 + (*p - '0');
    if (value > kBound) return std::nullopt;
  }
  if (negative) return static_cast<int>(-value);
  if (value == kBound) return std::nullopt;
  return static_cast<int>(value);
}

std::optional<float> ParseFloat(const std::string& text) {
  static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", nullptr);
  const int saved = errno;
  errno = 0;
  char* end = nullptr;
  const float value = strtof_l(text.c_str(), &end, c_locale);
  const bool bad = end == text.c_str() || errno == ERANGE;
  errno = saved;
  if (bad) return std::nullopt;
  return value;
}

void AssignFixed(std::string& out, float value) {
  constexpr std::uint64_t kMillion = 1000000;
  std::uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  const int biased = static_cast<int>(bits >> 23 & 0xff);
  if (biased >= 127 + 40) {  // 2^40 and above, infinities and NaN: rare, and past what the integers below hold
    char text[64];
    const auto end =
        std::to_chars(text, text + sizeof text, static_cast<double>(value), std::chars_format::fixed, 6).ptr;
    out.assign(text, end);
    return;
  }

  // |value| = mantissa * 2^exponent exactly, so value * 10^6 rounded half to even is exact integer arithmetic.
  const std::uint64_t mantissa = (bits & 0x7fffff) | (biased == 0 ? 0u : 0x800000u);
  const int exponent = (biased == 0 ? 1 : biased) - 150;
  std::uint64_t millionths = mantissa * kMillion;
  if (exponent >= 0) {
    millionths <<= exponent;  // below 2^40 * 10^6 < 2^60
  } else if (exponent > -64) {
    const int shift = -exponent;
    const std::uint64_t rest = millionths & ((std::uint64_t{1} << shift) - 1);
    const std::uint64_t half = std::uint64_t{1} << (shift - 1);
    millionths >>= shift;
    if (rest > half || (rest == half && (millionths & 1) != 0)) ++millionths;
  } else {
    millionths = 0;
  }

  char text[24];
  char* p = text + sizeof text;
  std::uint64_t fraction = millionths % kMillion;
  for (int i = 0; i < 6; ++i, fraction /= 10) *--p = static_cast<char>('0' + fraction % 10);
  *--p = '.';
  std::uint64_t whole = millionths / kMillion;
  do *--p = static_cast<char>('0' + whole % 10);
  while ((whole /= 10) != 0);
  if (bits >> 31 != 0) *--p = '-';
  out.assign(p, text + sizeof text);
}

}  // namespace velta::detail
