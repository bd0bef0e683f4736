// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_TEXT_H_
#define VELTA_SRC_TEXT_H_

#include <optional>
#include <string>
#include <string_view>

/// Numbers as text. Nothing here depends on the host's locale.
namespace velta::detail {

/// Leading white space, an optional sign and the longest run of decimal digits; anything after them is ignored.
/// @return nothing without digits or outside the signed 32-bit range
std::optional<int> ParseInt32(std::string_view text);

/// As strtof in the "C" locale (blanks, sign, decimal or hexadecimal, inf, nan; the rest ignored).
/// @return nothing without a number or for one too large or too small for a 32-bit float
std::optional<float> ParseFloat(const std::string& text);

/// Sets out to "%f" of value: fixed notation, six digits after the point.
void AssignFixed(std::string& out, float value);

}  // namespace velta::detail

#endif  // VELTA_SRC_TEXT_H_
