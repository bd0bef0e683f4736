// SPDX-License-Identifier: MIT
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string>

#include "command.h"
#include "version.h"

namespace {

constexpr const char* kAbout =
    "Tools for the wire between a host and the master controller of a robot arm.\n"
    "Exit status: 0 success, 1 the job failed, 2 bad usage.";

int Report(const std::string& text, int status) {
  std::cerr << "velta: " << text << std::endl;
  return status;
}

int Run(int argc, char** argv) {
  using namespace velta::tools;
  CLI::App app{kAbout, "velta"};
  app.set_version_flag("--version", VELTA_VERSION::major + "." + VELTA_VERSION::minor + "." + VELTA_VERSION::revision);
  app.add_flag_callback("-v,--verbose", ShowLibraryLog, "Show the library's log lines on standard error");
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(
      "velta COMMAND --help tells the rest. A first try, in two terminals:\n"
      "  velta sim -n 6 tcp://127.0.0.1:43210\n"
      "  velta ping -n 6 tcp://127.0.0.1:43210");

  Action action;
  AddSim(app, action);
  AddMonitor(app, action);
  AddRecord(app, action);
  AddConvert(app, action);
  AddPlot(app, action);
  AddPlay(app, action);
  AddSend(app, action);
  AddPing(app, action);
  AddDoctor(app, action);

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& asked) {  // --help, --version
    app.exit(asked, Out(), std::cerr);
    return 0;
  } catch (const CLI::ParseError& error) {
    if (app.get_subcommands().empty() && !app.remaining().empty()) {
      return Report("there is no '" + app.remaining().front() + "' (see velta --help)", 2);
    }
    return Report(std::string(error.what()) + " (see velta --help)", 2);
  }
  return action ? action() : Report("nothing to do", 2);
}

}  // namespace

int main(int argc, char** argv) {
  velta::tools::SeparateOutput();
  try {
    const int status = Run(argc, argv);
    if (!velta::tools::Out().flush() && status == 0) return Report("cannot write to standard output", 1);
    return status;
  } catch (const velta::tools::UsageError& error) {
    return Report(error.what(), 2);
  } catch (const std::exception& error) {
    return Report(error.what(), 1);
  }
}
