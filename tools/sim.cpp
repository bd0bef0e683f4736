// SPDX-License-Identifier: MIT
#include <picojson.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "answer.h"
#include "command.h"
#include "control.h"
#include "faults.h"
#include "host_end.h"
#include "link.h"
#include "server.h"
#include "stop.h"
#include "timing.h"

namespace velta::tools {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

struct Options {
  sim::ServerConfig server;
  std::vector<std::string> endpoints;
  std::vector<std::string> faults;
  std::string script;
  std::string control;
  std::string check;
  int timeout_ms = 2000;
  bool json = false;
};

/// One line; the JSON library escapes every slash, which nobody who reads links wants.
void PrintJson(picojson::object document) {
  std::string text = picojson::value(std::move(document)).serialize();
  for (std::size_t i = 0; (i = text.find("\\/", i)) != std::string::npos; ++i) text.erase(i, 1);
  Out() << text << std::endl;
}

/// A whole number; the JSON library writes fractions with 17 digits.
picojson::value Count(std::uint64_t number) { return picojson::value(static_cast<double>(number)); }

LinkAddress ParseEndpoint(const std::string& text) {
  const Link link = ParseLink(text);
  if (link.kind == Link::Kind::kSerial)
    throw UsageError("bad endpoint '" + text + "': on a serial line use pty: or pty:PATH");
  return link;
}

std::vector<sim::FaultRule> ReadFaults(const Options& options) {
  std::vector<sim::FaultRule> rules;
  if (!options.script.empty()) {
    std::ifstream script(options.script);
    if (!script) throw Failure("cannot open " + options.script + ": " + std::strerror(errno));
    try {
      rules = sim::ParseFaultScript(script, options.script);
    } catch (const std::invalid_argument& error) {
      throw Failure(error.what());
    }
    if (script.bad()) throw Failure("cannot read " + options.script);
  }
  for (const std::string& fault : options.faults) {
    try {
      rules.push_back(sim::ParseFaultFlag(fault));
    } catch (const std::invalid_argument& error) {
      throw UsageError(std::string("bad --fault '") + fault + "': " + error.what());
    }
  }
  return rules;
}

void PrintSummary(const sim::Summary& summary, bool json) {
  const std::pair<const char*, std::uint64_t> counts[] = {
      {"connections", summary.connections}, {"commands", summary.commands},
      {"executed", summary.executed},       {"bad_crc", summary.bad_crc},
      {"garbage_bytes", summary.garbage},   {"status_frames", summary.status_frames},
      {"overruns", summary.overruns}};
  if (json) {
    picojson::object document{{"event", picojson::value("summary")},
                              {"ms", Count(static_cast<std::uint64_t>(summary.seconds * 1e3))}};
    for (const auto& [name, count] : counts) document[name] = Count(count);
    picojson::object faults;
    for (const auto& [name, count] : summary.faults) faults[name] = Count(count);
    document["faults"] = picojson::value(faults);
    PrintJson(std::move(document));
    return;
  }
  Out() << "served " << std::fixed << std::setprecision(1) << summary.seconds << " s\n";
  for (const auto& [name, count] : counts) Out() << std::left << std::setw(16) << name << count << '\n';
  for (const auto& [name, count] : summary.faults) Out() << "fault " << name << ": " << count << '\n';
  Out().flush();
}

/// A line on the terminal that is written over twice a second; nothing without a terminal.
class Progress {
 public:
  explicit Progress(const sim::Server& server) : server_(server), is_shown_(isatty(STDERR_FILENO) != 0) {}
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() {
    if (is_shown_) std::cerr << kClear << std::flush;
  }

  void Show() {
    const auto now = Clock::now();
    if (!is_shown_ || now < next_) return;
    next_ = now + milliseconds(500);
    const sim::Summary summary = server_.GetSummary();
    std::uint64_t strikes = 0;
    for (const auto& fault : summary.faults) strikes += fault.second;
    std::cerr << kClear << summary.connections << " connections, " << summary.commands << " commands, "
              << summary.status_frames << " status frames, " << strikes << " faults  (Ctrl-C ends)" << std::flush;
  }

 private:
  static constexpr const char* kClear = "\r\x1b[K";
  const sim::Server& server_;
  bool is_shown_;
  Clock::time_point next_;
};

int Serve(Options options) {
  for (const std::string& endpoint : options.endpoints) options.server.listen.push_back(ParseEndpoint(endpoint));
  options.server.faults = ReadFaults(options);
  InstallStopHandler();
  sim::Server server(std::move(options.server));
  for (const std::string& link : server.Links()) {
    if (options.json) {
      PrintJson({{"event", picojson::value("listening")}, {"link", picojson::value(link)}});
    } else {
      Out() << "listening on " << link << std::endl;
    }
  }
  std::unique_ptr<sim::Control> control;
  if (!options.control.empty()) {
    control = std::make_unique<sim::Control>(options.control, [&](const std::string& line) { server.TakeFault(line); });
    if (options.json) {
      PrintJson({{"event", picojson::value("control")}, {"endpoint", picojson::value(control->Endpoint())}});
    } else {
      Out() << "faults are taken on " << control->Endpoint() << std::endl;
    }
  }
  if (!Out()) throw Failure("cannot write to standard output");
  {
    Progress progress(server);
    server.Run(StopFd(), [&] {
      progress.Show();
      if (control) control->Step();
    });
  }
  PrintSummary(server.GetSummary(), options.json);
  return 0;
}

std::string Footer() {
  std::ostringstream text;
  text << "Faults, counted in the closing summary; RATE is the share of frames or commands that are struck (all):\n";
  for (std::size_t i = 0; i < sim::kFaultCount; ++i) {
    const sim::FaultInfo& info = sim::Info(static_cast<sim::Fault>(i));
    text << "  " << std::left << std::setw(28) << sim::Usage(info) << sim::Effect(info) << '\n';
  }
  text << "\nA script has one JSON object a line: what triggers the fault, which one, and how long it lasts:\n"
          "  {\"at_frame\": 100, \"fault\": \"corrupt\", \"rate\": 0.5, \"for_frames\": 20}\n"
          "  {\"at_ms\": 2000, \"fault\": \"no-echo\", \"for_ms\": 500}\n"
          "  {\"at_command\": 3, \"fault\": \"drop-command\"}\n"
          "\nExamples:\n"
          "  velta sim -n 6 tcp://127.0.0.1:43210 --fault corrupt=0.01 --fault drop-status=0.05\n"
          "  velta sim -n 6 --check tcp://127.0.0.1:43210";
  return text.str();
}

}  // namespace

void AddSim(CLI::App& app, Action& action) {
  auto options = std::make_shared<Options>();
  CLI::App& command = *app.add_subcommand("sim", "Be a controller: simulated joints behind TCP, UDP or a pty");
  AddJointsOption(command, options->server.joints);
  auto* const endpoints =
      command
          .add_option("ENDPOINT", options->endpoints,
                      "Where to listen: tcp://IP:PORT, udp://IP:PORT (port 0 picks one), pty: or pty:PATH (PATH "
                      "becomes a link to the device); any number")
          ->option_text("...");
  command.add_option("--cycle-ms", options->server.cycle_ms, "Time between status frames (1; on a pty 10)")
      ->check(CLI::Range(1, 60000))
      ->option_text("MS");
  command.add_flag("--on-command", options->server.on_command, "Send a status frame only in answer to a command");
  command.add_option("--fault", options->faults, "Something that goes wrong, see below; may be repeated")
      ->option_text("FAULT")
      ->allow_extra_args(false);
  command.add_option("--script", options->script, "Faults with triggers and durations, see below")->option_text("FILE");
  command
      .add_option(
          "--control", options->control,
          "Take lines of a script while it runs, from velta fault and others: unix:PATH or tcp://127.0.0.1:PORT")
      ->type_name("ENDPOINT");
  command.add_option("--seed", options->server.seed, "Seed of the faults' random numbers (1)")->option_text("N");
  command.add_flag("--json", options->json, "Print one JSON object a line instead of text");
  auto* const check =
      command
          .add_option("--check", options->check,
                      "Be a host instead: send commands over LINK until one is echoed, and tell whether a controller "
                      "answers")
          ->option_text("LINK")
          ->excludes(endpoints);
  command.add_option("--timeout-ms", options->timeout_ms, "How long --check tries (2000)")
      ->check(CLI::Range(1, 3600000))
      ->option_text("MS")
      ->needs(check);
  command.footer(Footer());
  command.callback([options, &action] {
    if (options->endpoints.empty() && options->check.empty()) {
      throw UsageError("give an endpoint to listen on, such as tcp://127.0.0.1:0, or --check LINK");
    }
    action = [options] {
      return options->check.empty() ? Serve(*options)
                                    : AwaitAnswer(ParseLink(options->check), options->server.joints,
                                                  std::chrono::milliseconds(options->timeout_ms), options->json);
    };
  });
}

}  // namespace velta::tools
