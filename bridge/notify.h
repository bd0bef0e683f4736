// SPDX-License-Identifier: MIT
#ifndef VELTA_BRIDGE_NOTIFY_H_
#define VELTA_BRIDGE_NOTIFY_H_

#include <chrono>
#include <string>

namespace velta::bridge {

/// Sends a state such as "READY=1" to the service manager, if one started this program and asked for it.
void NotifyManager(const std::string& state);

/// @return how often the service manager wants to hear "WATCHDOG=1", half its limit; 0: never
std::chrono::microseconds WatchdogPeriod();

}  // namespace velta::bridge

#endif  // VELTA_BRIDGE_NOTIFY_H_
