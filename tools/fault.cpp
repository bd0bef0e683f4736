// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "command.h"
#include "control.h"
#include "faults.h"

namespace velta::tools {

namespace {

using Json = nlohmann::ordered_json;

struct FaultOptions {
  std::string endpoint;
  std::vector<std::string> faults;
  std::chrono::nanoseconds duration{};
  bool json = false;
};

/// A fault as a line of a script that begins at once.
std::string ScriptLine(const std::string& fault, std::chrono::nanoseconds duration) {
  using Takes = sim::FaultInfo::Takes;
  sim::FaultRule rule;
  try {
    rule = sim::ParseFaultFlag(fault);
  } catch (const std::invalid_argument& error) {
    throw UsageError("bad fault '" + fault + "': " + error.what());
  }
  const sim::FaultInfo& info = sim::Info(rule.fault);
  Json line{{"fault", info.name}};
  if (info.takes == Takes::kRate || info.takes == Takes::kRateAndValue) line["rate"] = rule.rate;
  if (rule.value != info.fallback) line["value"] = rule.value;
  if (duration.count() != 0) {
    line["for_ms"] = std::max<std::int64_t>(1, std::chrono::duration_cast<std::chrono::milliseconds>(duration).count());
  } else if (rule.lasts) {
    line["for_ms"] = rule.lasts->count;
  }
  return line.dump();
}

int Run(const FaultOptions& options) {
  std::vector<std::string> lines;
  for (const std::string& fault : options.faults) lines.push_back(ScriptLine(fault, options.duration));
  for (const std::string& line : lines) {
    const std::string answer = sim::SendControlLine(options.endpoint, line);
    const Json document = Json::parse(answer, nullptr, false);
    if (!document.is_object() || !document.contains("ok")) {
      throw Failure(options.endpoint + " gives no answer of velta sim: " + answer);
    }
    if (options.json) {
      Out() << answer << std::endl;
    } else if (document["ok"] == true) {
      Out() << "begins: " << line << std::endl;
    }
    if (document["ok"] != true) {
      throw Failure(
          fmt::format("{} refuses {}: {}", options.endpoint, line, document.value("error", "no reason given")));
    }
  }
  return 0;
}

}  // namespace

void AddFault(CLI::App& app, Action& action) {
  const auto options = std::make_shared<FaultOptions>();
  CLI::App& command = *app.add_subcommand("fault", "Inject faults into a velta sim that runs with --control");
  command
      .add_option("ENDPOINT", options->endpoint,
                  "What velta sim --control was given: unix:PATH or tcp://127.0.0.1:PORT")
      ->required()
      ->type_name("");
  command.add_option("FAULT", options->faults, "As for velta sim --fault, any number; they begin at once")
      ->required()
      ->type_name("");
  AddDurationOption(command, "--for", options->duration, {std::chrono::milliseconds(0), std::chrono::hours(1)},
                    "How long they last; without it, faults of single frames or commands, close and reset occur once, "
                    "and others stay");
  AddJsonFlag(command, options->json, "Print the answers, one JSON object a line");
  command.footer("Example:\n  velta fault unix:/tmp/arm.control corrupt=0.1 --for 2s");
  command.callback([options, &action] { action = [options] { return Run(*options); }; });
}

}  // namespace velta::tools
