// SPDX-License-Identifier: MIT
#include "fields.h"

namespace velta::recording {

const std::vector<JointField>& JointFields() {
#define VELTA_FIELD(name, is_real)                                                          \
  {                                                                                         \
#name, is_real, [](const rxJoint_t& joint) { return static_cast<double>(+joint.name); } \
  }
#define VELTA_GENERAL(i)                                                                               \
  {                                                                                                    \
    "general_" #i, true, [](const rxJoint_t& joint) { return static_cast<double>(+joint.general[i]); } \
  }
  static const std::vector<JointField> fields{VELTA_FIELD(type, false),
                                              VELTA_FIELD(comStatus, false),
                                              VELTA_FIELD(systemMode, false),
                                              VELTA_FIELD(ctrlMode, false),
                                              VELTA_FIELD(ewStatus, false),
                                              VELTA_FIELD(trjStatus, false),
                                              VELTA_FIELD(trjViaRemain, false),
                                              VELTA_FIELD(refCurrent, true),
                                              VELTA_FIELD(refPosition, true),
                                              VELTA_FIELD(refVelocity, true),
                                              VELTA_FIELD(refAcceleration, true),
                                              VELTA_FIELD(refEffort, true),
                                              VELTA_FIELD(current, true),
                                              VELTA_FIELD(position, true),
                                              VELTA_FIELD(velocity, true),
                                              VELTA_FIELD(outConvInVelocity, true),
                                              VELTA_FIELD(acceleration, true),
                                              VELTA_FIELD(outConvInAcceleration, true),
                                              VELTA_FIELD(effort, true),
                                              VELTA_FIELD(temperature, true),
                                              VELTA_GENERAL(0),
                                              VELTA_GENERAL(1),
                                              VELTA_GENERAL(2),
                                              VELTA_GENERAL(3)};
#undef VELTA_FIELD
#undef VELTA_GENERAL
  return fields;
}

}  // namespace velta::recording
