// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "command.h"
#include "excerpt.h"
#include "exports.h"
#include "output_file.h"
#include "stop.h"

namespace velta::tools {

namespace {

struct Options {
  Excerpt excerpt;
  std::string format = "csv";
  std::string output = "-";
};

void Write(Timeline& timeline, const std::string& format, std::ostream& out) {
  std::unique_ptr<Export> to;
  if (format == "csv") {
    to = std::make_unique<CsvExport>(out, timeline.Joints());
  } else {
    to = std::make_unique<JsonLinesExport>(out, timeline.Joints());
  }
  Progress progress;
  while (const std::optional<Moment> moment = timeline.Next()) {
    to->Write(*moment);
    if (!out) throw Failure("cannot write the output");
    if (progress.IsDue()) progress.Show(fmt::format("converted {} s", moment->since_start_ns / 1'000'000'000));
  }
  if (StopRequested()) throw Failure("stopped before the end of the recording");
}

int Run(const Options& options) {
  InstallStopHandler();
  Timeline timeline = OpenExcerpt(options.excerpt);
  if (options.output == "-") {
    Write(timeline, options.format, Out());
  } else {
    OutputFile output(options.output);
    std::ofstream out(output.WorkingPath(), std::ios::binary);
    Write(timeline, options.format, out);
    if (!out.flush()) throw Failure(options.output + ": cannot write it");
    output.Commit();
  }
  ReportLostTail(timeline);
  return 0;
}

}  // namespace

void AddConvert(CLI::App& app, Action& action) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("convert", "Turn a recording into CSV or JSON lines");
  AddExcerptOptions(*command, options->excerpt);
  command->add_option("-f,--format", options->format, "csv: a row per status frame; jsonl: a line per frame and event")
      ->check(CLI::IsMember({"csv", "jsonl"}))
      ->type_name("FORMAT");
  command->add_option("-o,--output", options->output, "Where to write to; - is standard output")->type_name("FILE");
  command->footer("Example:\n  velta convert run.vrec --from 2s --to 5s -o run.csv");
  command->callback([options, &action] { action = [options] { return Run(*options); }; });
}

}  // namespace velta::tools
