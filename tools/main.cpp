// SPDX-License-Identifier: MIT
#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "command.h"
#include "command_words.h"
#include "faults.h"
#include "pages.h"
#include "version.h"

namespace {

using velta::tools::Action;

constexpr const char* kAbout =
    "Tools for the wire between a host and the master controller of a robot arm.\n"
    "Exit status: 0 success, 1 the job failed, 2 bad usage.";

int Report(const std::string& text, int status) {
  std::cerr << "velta: " << text << std::endl;
  return status;
}

/// Options for the build, which installs what they print.
void AddPages(CLI::App& app) {
  using namespace velta::tools;
  const auto add = [&app](const char* name, const std::function<std::string()>& page) {
    app.add_flag_callback(name,
                          [page] {
                            Out() << page();
                            throw CLI::Success();
                          })
        ->group("");
  };
  add("--man-page", [&app] { return ManPage(app); });
  add("--bash-completion", [&app] {
    CompletionWords words;
    for (const CommandWord& word : CommandWords()) words["send"].emplace_back(word.name);
    for (std::size_t i = 0; i < velta::sim::kFaultCount; ++i) {
      words["sim --fault"].emplace_back(velta::sim::Info(static_cast<velta::sim::Fault>(i)).name);
    }
    return BashCompletion(app, words);
  });
}

void AddEverything(CLI::App& app, Action& action) {
  using namespace velta::tools;
  SetHelpStyle(app);
  app.set_version_flag("--version", VELTA_VERSION::major + "." + VELTA_VERSION::minor + "." + VELTA_VERSION::revision,
                       "Show the version");
  app.set_help_flag("-h,--help", "Show this help");
  app.add_flag_callback("-v,--verbose", ShowLibraryLog, "Show the library's log lines on standard error");
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.footer(
      "velta COMMAND --help shows a command's options. A first try, in two terminals:\n"
      "  velta sim -n 6 tcp://127.0.0.1:43210\n"
      "  velta ping -n 6 tcp://127.0.0.1:43210\n"
      "VELTA_LINK and VELTA_JOINTS in the environment stand in for LINK and --joints.");
  AddSim(app, action);
  AddFault(app, action);
  AddMonitor(app, action);
  AddRecord(app, action);
  AddCheck(app, action);
  AddConvert(app, action);
  AddPlot(app, action);
  AddPlay(app, action);
  AddSend(app, action);
  AddPing(app, action);
  AddDoctor(app, action);
  AddBridge(app);
  AddPages(app);
  for (CLI::App* command : app.get_subcommands({})) command->group("Commands");
}

/// A mistyped command or option explains what else is wrong with the line, so it is looked for first.
/// @return what is wrong, or else `error`, and where to read on
std::string Explain(const CLI::App& app, const std::exception& exception) {
  const std::string error = exception.what();
  const CLI::App* command = app.get_subcommands().empty() ? &app : app.get_subcommands().front();
  const std::string line = command == &app ? "velta" : "velta " + command->get_name();
  const std::string read_on = "; see " + line + " --help";
  std::vector<std::string> options;
  for (const CLI::App* level : {command, &app}) {
    for (const CLI::Option* option : level->get_options()) {
      for (const std::string& name : option->get_lnames()) options.push_back("--" + name);
    }
  }
  const std::vector<std::string> unknown = app.remaining();
  const auto is_option = [](const std::string& word) { return word.size() > 1 && word[0] == '-'; };
  const auto option = std::find_if(unknown.begin(), unknown.end(), is_option);
  const auto other = std::find_if_not(unknown.begin(), unknown.end(), is_option);
  const bool is_surplus = dynamic_cast<const CLI::ExtrasError*>(&exception) != nullptr && other != unknown.end();
  if (command == &app && other != unknown.end()) {
    std::vector<std::string> commands;
    for (const CLI::App* each : app.get_subcommands({})) commands.push_back(each->get_name());
    return "there is no command '" + *other + "'" + velta::tools::DidYouMean(*other, commands) + read_on;
  }
  if (option != unknown.end()) {
    return line + " has no option '" + *option + "'" +
           velta::tools::DidYouMean(option->substr(0, option->find('=')), options) + read_on;
  }
  return (is_surplus ? "'" + *other + "' is one argument too many" : error) + read_on;
}

int Run(int argc, char** argv) {
  if (argc > 1 && argv[1] == std::string("bridge")) velta::tools::RunBridge(argv + 1);
  CLI::App app{kAbout, "velta"};
  Action action;
  AddEverything(app, action);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& asked) {  // --help, --version
    app.exit(asked, velta::tools::Out(), std::cerr);
    return 0;
  } catch (const CLI::ParseError& error) {
    return Report(Explain(app, error), 2);
  } catch (const std::invalid_argument& error) {
    return Report(Explain(app, error), 2);
  }
  if (action) return action();
  velta::tools::Out() << app.help();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  velta::tools::SeparateOutput();
  try {
    const int status = Run(argc, argv);
    if (!velta::tools::Out().flush() && status == 0) return Report("cannot write to standard output", 1);
    return status;
  } catch (const std::invalid_argument& error) {  // UsageError, BadLink
    return Report(error.what(), 2);
  } catch (const std::exception& error) {
    return Report(error.what(), 1);
  }
}
