// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_LINK_H_
#define VELTA_TOOLS_LINK_H_

#include "address.h"
#include "clock.h"

namespace velta::tools {

using namespace wire;  // the tools live on the wire
using Link = LinkAddress;

}  // namespace velta::tools

#endif  // VELTA_TOOLS_LINK_H_
