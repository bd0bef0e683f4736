// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "answer.h"
#include "command.h"
#include "control.h"
#include "counted.h"
#include "faults.h"
#include "progress.h"
#include "server.h"
#include "stop.h"

namespace velta::tools {

namespace {

using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;

struct Options {
  sim::ServerConfig server;
  std::vector<std::string> endpoints;
  std::vector<std::string> faults;
  std::string script;
  std::string control;
  std::string check;
  std::chrono::nanoseconds cycle{0};
  std::chrono::nanoseconds timeout = 2s;
  bool json = false;
};

Link ParseEndpoint(const std::string& text) {
  Link link = ParseLink(text);
  if (link.kind == Link::Kind::kSerial) {
    throw UsageError("bad endpoint '" + text + "': on a serial line use pty: or pty:PATH");
  }
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
    Json document = {{"event", "summary"}, {"ms", static_cast<std::uint64_t>(summary.seconds * 1e3)}};
    for (const auto& [name, count] : counts) document[name] = count;
    document["faults"] = Json::object();
    for (const auto& [name, count] : summary.faults) document["faults"][name] = count;
    document["statistics"] = {{"bytes_discarded", summary.bytes_discarded},
                              {"bytes_received", summary.bytes_received},
                              {"frames_bad_crc", summary.bad_crc},
                              {"frames_received", summary.commands},
                              {"frames_sent", summary.frames_sent}};
    Out() << document << std::endl;
    return;
  }
  Out() << fmt::format("served {:.1f} s\n", summary.seconds);
  for (const auto& [name, count] : counts) Out() << fmt::format("{:<16}{}\n", name, count);
  for (const auto& [name, count] : summary.faults) Out() << fmt::format("fault {}: {}\n", name, count);
  Out().flush();
}

void ShowProgress(Progress& progress, const sim::Server& server) {
  if (!progress.IsDue()) return;
  const sim::Summary summary = server.GetSummary();
  std::uint64_t strikes = 0;
  for (const auto& fault : summary.faults) strikes += fault.second;
  progress.Show(fmt::format("{}, {}, {}, {}  (Ctrl-C ends)", Counted(summary.connections, "connection"),
                            Counted(summary.commands, "command"), Counted(summary.status_frames, "status frame"),
                            Counted(strikes, "fault")));
}

int Serve(Options options) {
  options.server.cycle_ms =
      static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(options.cycle).count());
  if (options.cycle != std::chrono::milliseconds(options.server.cycle_ms)) {
    throw UsageError("--cycle takes whole milliseconds");
  }
  for (const std::string& endpoint : options.endpoints) options.server.listen.push_back(ParseEndpoint(endpoint));
  options.server.faults = ReadFaults(options);
  InstallStopHandler();
  sim::Server server(std::move(options.server));
  for (const std::string& link : server.Links()) {
    if (options.json) {
      Out() << Json{{"event", "listening"}, {"link", link}} << std::endl;
    } else {
      Out() << "listening on " << link << std::endl;
    }
  }
  std::unique_ptr<sim::Control> control;
  if (!options.control.empty()) {
    control = std::make_unique<sim::Control>(options.control, [&](const std::string& line) { server.TakeFault(line); });
    if (options.json) {
      Out() << Json{{"event", "control"}, {"endpoint", control->Endpoint()}} << std::endl;
    } else {
      Out() << "faults are taken on " << control->Endpoint() << std::endl;
    }
  }
  if (!Out()) throw Failure("cannot write to standard output");
  Progress progress;
  server.Run(StopFd(), [&] {
    ShowProgress(progress, server);
    if (control) control->Step();
  });
  progress.Clear();
  PrintSummary(server.GetSummary(), options.json);
  return 0;
}

std::string Footer() {
  std::string text =
      "Faults, counted in the closing summary; RATE is the share of frames or commands that are hit (1):\n";
  for (std::size_t i = 0; i < sim::kFaultCount; ++i) {
    const sim::FaultInfo& info = sim::Info(static_cast<sim::Fault>(i));
    text += fmt::format("  {:<28}{}\n", sim::Usage(info), sim::Effect(info));
  }
  return text +
         "\nA script has one JSON object a line: what triggers the fault, which one, and how long it lasts:\n"
         "  {\"at_frame\": 100, \"fault\": \"corrupt\", \"rate\": 0.5, \"for_frames\": 20}\n"
         "  {\"at_ms\": 2000, \"fault\": \"no-echo\", \"for_ms\": 500}\n"
         "  {\"at_command\": 3, \"fault\": \"drop-command\"}\n"
         "\nExamples:\n"
         "  velta sim -n 6 tcp://127.0.0.1:43210 --fault corrupt=0.01 --fault drop-status=0.05\n"
         "  velta sim -n 6 --check tcp://127.0.0.1:43210";
}

}  // namespace

void AddSim(CLI::App& app, Action& action) {
  auto options = std::make_shared<Options>();
  CLI::App& command = *app.add_subcommand("sim", "Simulate a controller behind TCP, UDP or a pty");
  AddJointsOption(command, options->server.joints);
  auto* const endpoints = command
                              .add_option("ENDPOINT", options->endpoints,
                                          "Where to listen: tcp://HOST:PORT, udp://HOST:PORT (port 0 picks one), pty: "
                                          "or pty:PATH (PATH becomes a link to the device); any number")
                              ->type_name("...");
  AddDurationOption(command, "--cycle", options->cycle, {1ms, 60s}, "Time between status frames (1ms; on a pty 10ms)");
  command.add_flag("--on-command", options->server.on_command, "Send a status frame only in answer to a command");
  command.add_option("--fault", options->faults, "A fault to inject, see below; may be repeated")
      ->type_name("FAULT")
      ->allow_extra_args(false);
  command.add_option("--script", options->script, "File of faults with triggers and durations, see below")
      ->type_name("FILE");
  command
      .add_option(
          "--control", options->control,
          "Accept lines of a script while it runs, as velta fault sends them: unix:PATH or tcp://127.0.0.1:PORT")
      ->type_name("ENDPOINT");
  command.add_option("--seed", options->server.seed, "Seed of the faults' random numbers")->type_name("N");
  AddJsonFlag(command, options->json);
  auto* const check = command
                          .add_option("--check", options->check,
                                      "Be a host instead: send idle commands over LINK until one is echoed, and report "
                                      "whether a controller answers")
                          ->type_name("LINK")
                          ->excludes(endpoints);
  AddDurationOption(command, "--timeout", options->timeout, {1ms, 1h}, "How long --check tries")->needs(check);
  command.footer(Footer());
  command.callback([options, &action] {
    if (options->endpoints.empty() && options->check.empty()) {
      throw UsageError("give an endpoint to listen on, such as tcp://127.0.0.1:0, or --check LINK");
    }
    action = [options] {
      return options->check.empty()
                 ? Serve(*options)
                 : AwaitAnswer(ParseLink(options->check), options->server.joints, options->timeout, options->json);
    };
  });
}

}  // namespace velta::tools
