// SPDX-License-Identifier: MIT
#include "support.h"

namespace velta::python {

void AddRecording(py::module_& /*m*/) {}

}  // namespace velta::python
