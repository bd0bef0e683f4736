// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_COMMAND_H_
#define VELTA_TOOLS_COMMAND_H_

#include <functional>
#include <iosfwd>

#include "errors.h"
#include "frame_stream.h"
#include "options.h"

namespace CLI {
class App;
}  // namespace CLI

/// What the subcommands of `velta` share.
namespace velta::tools {

/// What a subcommand does once its options are read; the result is the exit status. Throws Failure and UsageError.
using Action = std::function<int()>;

/// @name Subcommands
/// Each adds its options to app, and sets action when the user chose it.
/// @{
void AddSim(CLI::App& app, Action& action);
void AddFault(CLI::App& app, Action& action);
void AddMonitor(CLI::App& app, Action& action);
void AddRecord(CLI::App& app, Action& action);
void AddCheck(CLI::App& app, Action& action);
void AddConvert(CLI::App& app, Action& action);
void AddPlot(CLI::App& app, Action& action);
void AddPlay(CLI::App& app, Action& action);
void AddSend(CLI::App& app, Action& action);
void AddPing(CLI::App& app, Action& action);
void AddDoctor(CLI::App& app, Action& action);
/// @}

/// Makes `velta bridge` known to help.
void AddBridge(CLI::App& app);

/// Becomes velta-bridge, with arguments from `bridge` on. @throw Failure if there is no such program
[[noreturn]] void RunBridge(char** arguments);

/// The tool's own standard output. std::cout belongs to the library's log lines, which go nowhere, or to standard error
/// with --verbose, so that what the tool prints stays machine-readable.
std::ostream& Out();

/// Gives std::cout to the library's log lines; Out() keeps the real standard output. Called once, before anything else.
void SeparateOutput();

/// Lets the library's log lines appear on standard error.
void ShowLibraryLog();

}  // namespace velta::tools

#endif  // VELTA_TOOLS_COMMAND_H_
