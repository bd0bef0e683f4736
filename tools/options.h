// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_OPTIONS_H_
#define VELTA_TOOLS_OPTIONS_H_

#include <chrono>
#include <string>
#include <vector>

#include "argument_text.h"
#include "link.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

/// The options that mean the same in every subcommand. Defaults are what the variables hold; help shows them, and the
/// environment variables that stand in for an option.
///
/// Errors: UsageError, one line. What is passed by reference must live as long as the command.
namespace velta::tools {

using namespace analysis;  // the tools show what it finds

/// How help shows options: "--timeout DURATION (default 100ms)". Also makes defaults visible; for the top command,
/// before subcommands are added.
void SetHelpStyle(CLI::App& top);

/// Adds the required `-n,--joints N`, 1 to kMaxJoints; VELTA_JOINTS stands in for it.
CLI::Option* AddJointsOption(CLI::App& command, int& joints);

/// Whether a command takes other arguments besides LINK, which then is recognised by its form.
enum class Arguments { kLinkOnly, kOthersToo };

/// Adds the required argument LINK; VELTA_LINK stands in for it.
CLI::Option* AddLinkArgument(CLI::App& command, Link& link, Arguments arguments = Arguments::kLinkOnly);

/// Adds `--select IDS`, which joints a command is about: see ReadSelection.
CLI::Option* AddSelectOption(CLI::App& command, std::string& selection, const std::string& help);

/// Adds `--json`: results as JSON documents, one a line.
CLI::Option* AddJsonFlag(CLI::App& command, bool& json, const std::string& help = "Print one JSON object a line");

struct DurationRange {
  std::chrono::nanoseconds least, most;
};

/// Adds an option that takes a duration: see ReadDuration.
/// @param names  as the option library takes them, "-t,--timeout"
CLI::Option* AddDurationOption(CLI::App& command, const std::string& names, std::chrono::nanoseconds& value,
                               DurationRange range, const std::string& help);

/// Adds `--for DURATION`, after which a command ends by itself; 0, the default, is no end.
CLI::Option* AddForOption(CLI::App& command, std::chrono::nanoseconds& value);

}  // namespace velta::tools

#endif  // VELTA_TOOLS_OPTIONS_H_
