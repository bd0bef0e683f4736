// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_SERIAL_LINE_H_
#define VELTA_SRC_SERIAL_LINE_H_

struct termios;

namespace velta::detail {

/// Sets an open tty up for the controller: raw, the baud rate, reads that return at once, writes that block.
/// @param baud_rate   bits per second
/// @param[out] saved  the settings that it had
/// @return false, without a message, when the device does not take them; fd stays open
bool ConfigureSerialLine(int fd, unsigned int baud_rate, termios& saved);

}  // namespace velta::detail

#endif  // VELTA_SRC_SERIAL_LINE_H_
