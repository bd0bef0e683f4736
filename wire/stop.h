// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_STOP_H_
#define VELTA_WIRE_STOP_H_

#include <poll.h>

#include <cstdint>

/// Ctrl-C and SIGTERM ask a tool to end; its loop looks, prints its summary and returns.
namespace velta::wire {

/// Takes SIGINT and SIGTERM over for the rest of the process.
void InstallStopHandler();

/// Whether a stop was requested.
bool StopRequested();

/// A descriptor that is readable once a stop is requested, for poll loops; never read it. -1 before InstallStopHandler.
int StopFd();

/// Waits until a descriptor is ready, a moment passes or a stop is requested.
/// @param at_ns   the moment, MonotonicNs(); one that has passed only looks
/// @param fd      waited for with these poll events; -1 for none
/// @param another waited for until it can be read; -1 for none
/// @return whether fd is ready
bool WaitUntil(std::int64_t at_ns, int fd = -1, short events = POLLIN, int another = -1);

}  // namespace velta::wire

#endif  // VELTA_WIRE_STOP_H_
