// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_COMMAND_TABLE_H_
#define VELTA_WIRE_COMMAND_TABLE_H_

#include <string>
#include <vector>

#include "SendPacket.h"

namespace velta::wire {

/// A command by its word, as `velta send` and the Python module name it: one per named setter of SendPacket.
struct CommandWord {
  const char* name;       ///< "ref-position"
  const char* arguments;  ///< their names, separated by blanks
  const char* help;
  const char* kinds;  ///< a letter per argument: f real, i integer, b flag
  bool of_arm;        ///< commands the whole arm, takes no ids
  void (*apply)(SendPacket& packet, const std::string& ids, const float* a);  ///< a: one value per argument
};

const std::vector<CommandWord>& CommandWords();

}  // namespace velta::wire

#endif  // VELTA_WIRE_COMMAND_TABLE_H_
