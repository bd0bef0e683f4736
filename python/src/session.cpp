// SPDX-License-Identifier: MIT
#include "support.h"

namespace velta::python {

void AddSession(py::module_& /*m*/) {}

}  // namespace velta::python
