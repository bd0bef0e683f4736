// SPDX-License-Identifier: MIT
#ifndef VELTA_RECORDING_FIELDS_H_
#define VELTA_RECORDING_FIELDS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "RecvPacket.h"

namespace velta::recording {

/// One number of a joint's status record.
struct JointField {
  const char* name;  ///< as the status documents call it
  bool is_real;      ///< a 32-bit float; else an unsigned integer
  double (*value)(const rxJoint_t&);
};

/// All 24 numbers of a status record, in the frame's order.
const std::vector<JointField>& JointFields();

}  // namespace velta::recording

#endif  // VELTA_RECORDING_FIELDS_H_
