// SPDX-License-Identifier: MIT
#include "excerpt.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include "command.h"
#include "counted.h"

namespace velta::tools {

namespace {

void AddTimeOption(CLI::App& command, const std::string& name, std::uint64_t& ns, const std::string& help) {
  command
      .add_option_function<std::string>(
          name, [&ns](const std::string& text) { ns = static_cast<std::uint64_t>(ReadDuration(text).count()); }, help)
      ->type_name("DURATION");
}

}  // namespace

void AddExcerptOptions(CLI::App& command, Excerpt& excerpt) {
  command.add_option("FILE", excerpt.file, "A recording made by velta record")->required()->type_name("");
  command
      .add_option("-n,--joints", excerpt.joints, "Joints of the arm, when the recording was made with a wrong number")
      ->check(CLI::Range(1, kMaxJoints))
      ->type_name("N")
      ->default_str("");
  AddTimeOption(command, "--from", excerpt.from_ns, "Begin this long after the recording's start");
  AddTimeOption(command, "--to", excerpt.to_ns, "End this long after the recording's start");
}

Timeline OpenExcerpt(const Excerpt& excerpt) {
  if (excerpt.from_ns > excerpt.to_ns) throw UsageError("--from must not be after --to");
  return Timeline(excerpt);
}

void ReportLostTail(const Timeline& timeline) { ReportLostTail(timeline.File(), timeline.LostTail()); }

void ReportLostTail(const std::string& file, std::uint64_t bytes) {
  if (bytes == 0) return;
  std::cerr << fmt::format("velta: {}: the recording was cut short; {} at its end, not a whole record, left out\n",
                           file, Counted(bytes, "byte"))
            << std::flush;
}

}  // namespace velta::tools
