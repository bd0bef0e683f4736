// SPDX-License-Identifier: MIT
#ifndef VELTA_PYTHON_COMMAND_H_
#define VELTA_PYTHON_COMMAND_H_

#include "SendPacket.h"
#include "support.h"

namespace velta::python {

/// A command packet whose setters refuse what SendPacket's drop, and return the command.
struct Command : SendPacket {
  using SendPacket::SendPacket;
  explicit Command(const SendPacket& packet) : SendPacket(packet) {}
};

/// Adds the named setters of the command table: set_<name>(ids, ...) to SendPacket, <name>(joints, ...) to Command.
void AddSetters(py::handle packet_class, py::handle command_class);

/// The joints that a Python value names, in its order, duplicates kept: "all", "0/2", an index, or a sequence of
/// indices. Throws ArgumentError for a joint that the arm does not have, and for none at all.
std::vector<int> NamedJoints(py::handle joints, int joint_num);

}  // namespace velta::python

#endif  // VELTA_PYTHON_COMMAND_H_
