// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "command.h"
#include "convert_capture.h"
#include "excerpt.h"
#include "exports.h"
#include "output_file.h"
#include "stop.h"

namespace velta::tools {

namespace {

struct Options {
  Excerpt excerpt;
  std::string format;
  std::string output = "-";
  int port = 0;
};

/// @return the format asked for, or what the output's name ends in, or csv
std::string Format(const Options& options) {
  if (!options.format.empty()) return options.format;
  const std::string extension = std::filesystem::path(options.output).extension();
  return extension == ".jsonl" || extension == ".pcapng" ? extension.substr(1) : "csv";
}

/// @return bytes that a crash left after the last whole record
std::uint64_t Write(const Excerpt& excerpt, const std::string& format, std::ostream& out) {
  Timeline timeline = OpenExcerpt(excerpt);
  if (format == "pcapng") return WriteCapture(excerpt, out);
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
  return timeline.LostTail();
}

int RunFromCapture(const Options& options) {
  if (!options.format.empty())
    throw UsageError("a capture becomes a recording; convert that in a second step with --format");
  if (options.output == "-")
    throw UsageError("name the recording to write, as in velta convert capture.pcapng run.vrec --port 5000");
  ReadCapture({options.excerpt.file, options.port, options.excerpt.joints}, options.output);
  return 0;
}

int Run(const Options& options) {
  InstallStopHandler();
  if (IsCapture(options.excerpt.file)) return RunFromCapture(options);
  const std::string format = Format(options);
  std::uint64_t lost_tail = 0;
  if (options.output == "-") {
    lost_tail = Write(options.excerpt, format, Out());
  } else {
    OutputFile output(options.output);
    std::ofstream out(output.WorkingPath(), std::ios::binary);
    lost_tail = Write(options.excerpt, format, out);
    if (!out.flush()) throw Failure(options.output + ": cannot write it");
    output.Commit();
  }
  ReportLostTail(options.excerpt.file, lost_tail);
  return 0;
}

}  // namespace

void AddConvert(CLI::App& app, Action& action) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command =
      app.add_subcommand("convert", "Turn a recording into a table or a capture, or a capture into a recording");
  AddExcerptOptions(*command, options->excerpt);
  command->get_option("FILE")->description("A recording made by velta record, or a capture (pcap or pcapng)");
  command
      ->add_option("-f,--format", options->format,
                   "csv: a row per status frame; jsonl: a line per frame and event; pcapng: a capture of packets; "
                   "without it the ending of OUTPUT decides, else csv")
      ->check(CLI::IsMember({"csv", "jsonl", "pcapng"}))
      ->type_name("FORMAT");
  command->add_option("OUTPUT,-o,--output", options->output, "File to write; - is standard output")->type_name("FILE");
  command->add_option("--port", options->port, "The controller's port in a capture; a serial line has none")
      ->check(CLI::Range(1, 65535))
      ->type_name("PORT")
      ->default_str("");
  command->footer(
      "Examples:\n"
      "  velta convert run.vrec --from 2s --to 5s -o run.csv\n"
      "  velta convert run.vrec run.pcapng\n"
      "  velta convert capture.pcapng run.vrec --port 5000");
  command->callback([options, &action] { action = [options] { return Run(*options); }; });
}

}  // namespace velta::tools
