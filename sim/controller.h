// SPDX-License-Identifier: MIT
#ifndef VELTA_SIM_CONTROLLER_H_
#define VELTA_SIM_CONTROLLER_H_

#include <mutex>

#include "MasterControllerClientMock.h"

namespace velta::sim {

/// The simulated joints, seen from the controller's side: commands in, status out. Their state and trajectories are
/// those of the library's simulator, advanced by its state thread.
class Controller : public MasterControllerClientMock {
 public:
  using MasterControllerClientMock::MasterControllerClientMock;

  /// A status of one cycle.
  RecvPacket Status() {
    const std::lock_guard<std::mutex> lock(state_mutex_);
    return inner_state_;
  }
};

}  // namespace velta::sim

#endif  // VELTA_SIM_CONTROLLER_H_
