// SPDX-License-Identifier: MIT
#ifndef VELTA_ANALYSIS_COMMAND_WORDS_H_
#define VELTA_ANALYSIS_COMMAND_WORDS_H_

#include <string>
#include <vector>

#include "SendPacket.h"
#include "command_table.h"

namespace velta::analysis {

using wire::CommandWord;
using wire::CommandWords;

/// One line per command: word, arguments, meaning.
std::vector<std::string> ListCommandWords();

/// @param joint_num  joints of the arm (n), 1 or more
/// @param word       a command's word
/// @param arguments  its arguments as typed, exactly as many as it takes
/// @param joints     "all" or 0-based indices separated by "/"; empty for an arm command
/// @return the packet
/// @throws UsageError for an unknown word, a wrong number of arguments, one that is not a number of its kind, and
/// joints that the arm does not have: what names nothing is refused here, never skipped
SendPacket MakeCommand(int joint_num, const std::string& word, const std::vector<std::string>& arguments,
                       const std::string& joints);

}  // namespace velta::analysis

#endif  // VELTA_ANALYSIS_COMMAND_WORDS_H_
