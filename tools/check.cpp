// SPDX-License-Identifier: MIT
#include "check.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "command.h"
#include "counted.h"
#include "excerpt.h"

namespace velta::tools {

namespace {

struct CheckOptions {
  Excerpt excerpt;
  CheckSettings settings;
  std::string limits_file;
  bool json = false;
};

std::string Text(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), {}};
  if (!file) throw UsageError(path + ": cannot read it");
  return text;
}

Limits ReadLimits(const std::string& path, int joints) {
  try {
    return Limits(Text(path), joints);
  } catch (const BadLimits& error) {
    throw UsageError(path + ": " + error.what());
  }
}

using Counts = std::array<std::size_t, kTroubles>;

void PrintJson(const CheckResult& result, const Counts& counts) {
  nlohmann::ordered_json by_word;
  for (std::size_t i = 0; i < kTroubles; ++i) by_word[TroubleWord(static_cast<Trouble>(i))] = counts[i];
  for (const Finding& finding : result.findings) {
    nlohmann::ordered_json line{{"event", "finding"},
                                {"time_s", static_cast<double>(finding.since_start_ns) / 1e9},
                                {"kind", TroubleWord(finding.trouble)}};
    if (finding.joint >= 0) line["joint"] = finding.joint;
    line["text"] = finding.text;
    Out() << line.dump() << '\n';
  }
  Out() << nlohmann::ordered_json{{"event", "summary"},
                                  {"seconds", static_cast<double>(result.length_ns) / 1e9},
                                  {"statuses", result.statuses},
                                  {"commands", result.commands},
                                  {"usual_interval_ms", static_cast<double>(result.usual_interval_ns) / 1e6},
                                  {"findings", by_word}}
               .dump()
        << std::endl;
}

void PrintText(const CheckResult& result, const Counts& counts) {
  for (const Finding& finding : result.findings) {
    Out() << fmt::format("{:12.6f} s  {:<11}  {}\n", static_cast<double>(finding.since_start_ns) / 1e9,
                         TroubleWord(finding.trouble), finding.text);
  }
  std::string sum;
  for (std::size_t i = 0; i < kTroubles; ++i) {
    if (counts[i] == 0) continue;
    sum += fmt::format("{}{} {}", sum.empty() ? "" : ", ", counts[i], TroubleWord(static_cast<Trouble>(i)));
  }
  Out() << fmt::format("checked {:.1f} s: {}, {}: {}", static_cast<double>(result.length_ns) / 1e9,
                       Counted(result.statuses, "status frame"), Counted(result.commands, "command"),
                       sum.empty() ? "nothing wrong" : sum)
        << std::endl;
}

int Run(CheckOptions options) {
  const Timeline timeline = OpenExcerpt(options.excerpt);
  if (!options.limits_file.empty()) options.settings.limits = ReadLimits(options.limits_file, timeline.Joints());
  const CheckResult result = CheckRecording(options.excerpt, options.settings);
  Counts counts{};
  for (const Finding& finding : result.findings) ++counts[static_cast<std::size_t>(finding.trouble)];
  (options.json ? PrintJson : PrintText)(result, counts);
  if (result.statuses + result.commands == 0)
    throw Failure(options.excerpt.file + ": no good frame; is --joints right?");
  ReportLostTail(options.excerpt.file, result.lost_tail);
  return result.findings.empty() ? 0 : 1;
}

}  // namespace

void AddCheck(CLI::App& app, Action& action) {
  const auto options = std::make_shared<CheckOptions>();
  CLI::App& command = *app.add_subcommand("check", "Find what was wrong in a recording");
  AddExcerptOptions(command, options->excerpt);
  const DurationRange range{std::chrono::nanoseconds(0), std::chrono::hours(1)};
  AddDurationOption(command, "--gap", options->settings.gap, range,
                    "A gap is a pause that exceeds the usual one by more than this; 0 looks for none");
  AddDurationOption(command, "--jitter", options->settings.jitter, range,
                    "Jitter is a pause that differs from the usual one by more than this; 0 looks for none");
  command
      .add_option("--jump", options->settings.jump,
                  "Change of a position, in its units, that is no jump even without velocity")
      ->check(CLI::NonNegativeNumber)
      ->type_name("UNITS");
  command
      .add_option("--limits", options->limits_file,
                  "JSON document with limits of fields, by joint or for all, as below")
      ->type_name("LIMITS");
  AddJsonFlag(command, options->json);
  command.footer(
      "The exit status is 1 when something was wrong.\n"
      "Limits, from -MOST to MOST or from LEAST to MOST:\n"
      "  {\"all\": {\"velocity\": 90}, \"2\": {\"position\": [-10, 120]}}\n"
      "Example:\n  velta check run.vrec --limits limits.json");
  command.callback([options, &action] { action = [options] { return Run(*options); }; });
}

}  // namespace velta::tools
