// SPDX-License-Identifier: MIT
#ifndef VELTA_ANALYSIS_STATUS_WORDS_H_
#define VELTA_ANALYSIS_STATUS_WORDS_H_

#include <cstdint>
#include <string>

#include "protocol.h"

namespace velta::analysis {

/// Words for the codes of a status record, as the tools show them; a code without a word is its number.
std::string SystemModeWord(std::uint8_t code);   ///< "servo off"
std::string ControlModeWord(std::uint8_t code);  ///< "position"
std::string TrajectoryWord(std::uint8_t code);   ///< "moving"

/// @return true for a joint that reports the fault mode or any error or warning bit
bool HasFault(const rxJoint_t& joint);

/// @return "ok", or the error and warning word as "0x0000000c"
std::string StatusWord(std::uint32_t ew_status);

}  // namespace velta::analysis

#endif  // VELTA_ANALYSIS_STATUS_WORDS_H_
