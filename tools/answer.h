// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_ANSWER_H_
#define VELTA_TOOLS_ANSWER_H_

#include <chrono>

#include "link.h"

namespace velta::tools {

/// Finds out whether a controller answers, for scripts that wait for one: connects, again and again while nobody is
/// there, and sends idle commands until one of them is echoed. Prints how long that took.
///
/// @return 0
/// @throws Failure, with how far it came, when the time is over
int AwaitAnswer(const Link& link, int joints, std::chrono::nanoseconds timeout, bool json);

}  // namespace velta::tools

#endif  // VELTA_TOOLS_ANSWER_H_
