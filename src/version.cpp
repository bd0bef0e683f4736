// SPDX-License-Identifier: MIT
#include "version.h"

namespace VELTA_VERSION {
const std::string major = "2";
const std::string minor = "1";
const std::string revision = "0";
}  // namespace VELTA_VERSION
