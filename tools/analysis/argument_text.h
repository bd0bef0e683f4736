// SPDX-License-Identifier: MIT
#ifndef VELTA_ANALYSIS_ARGUMENT_TEXT_H_
#define VELTA_ANALYSIS_ARGUMENT_TEXT_H_

#include <chrono>
#include <string>
#include <vector>

/// What a user types, read; bad text is a UsageError.
namespace velta::analysis {

/// @param text  a number and its unit: "500us", "200ms", "0.5s", "2min"; a bare 0 needs none
std::chrono::nanoseconds ReadDuration(const std::string& text);

/// @return the shortest text that ReadDuration reads as this duration: "100ms", "2s"
std::string DurationText(std::chrono::nanoseconds duration);

/// @param text    "all", or joint indices from 0 separated by '/'
/// @param joints  of the arm
/// @return the joints in the order of the text; every one exists
std::vector<int> ReadSelection(const std::string& text, int joints);

/// @return " (did you mean 'ping'?)" when one of the candidates is close to what was typed; else nothing
std::string DidYouMean(const std::string& typed, const std::vector<std::string>& candidates);

}  // namespace velta::analysis

#endif  // VELTA_ANALYSIS_ARGUMENT_TEXT_H_
