// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_STOP_H_
#define VELTA_TOOLS_STOP_H_

/// Ctrl-C and SIGTERM ask a tool to end; its loop looks, tells its summary and returns.
namespace velta::tools {

/// Takes SIGINT and SIGTERM over for the rest of the process.
void InstallStopHandler();

/// Whether a stop was requested.
bool StopRequested();

/// A descriptor that is readable once a stop is requested, for poll loops; never read it. -1 before InstallStopHandler.
int StopFd();

}  // namespace velta::tools

#endif  // VELTA_TOOLS_STOP_H_
