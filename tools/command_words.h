// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_COMMAND_WORDS_H_
#define VELTA_TOOLS_COMMAND_WORDS_H_

#include <string>
#include <vector>

#include "SendPacket.h"

namespace velta::tools {

/// A command that `velta send` knows by a word: one per named setter of SendPacket.
struct CommandWord {
  const char* name;       ///< "ref-position"
  const char* arguments;  ///< their names, separated by blanks
  const char* help;
  const char* kinds;  ///< a letter per argument: f real, i integer, b flag
  bool of_arm;        ///< commands the whole arm, takes no ids
  void (*apply)(SendPacket& packet, const std::string& ids, const float* a);  ///< a: one value per argument
};

const std::vector<CommandWord>& CommandWords();

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

}  // namespace velta::tools

#endif  // VELTA_TOOLS_COMMAND_WORDS_H_
