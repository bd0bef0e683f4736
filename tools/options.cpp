// SPDX-License-Identifier: MIT
#include "options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "errors.h"
#include "frame_stream.h"

namespace velta::tools {

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

class HelpStyle : public CLI::Formatter {
 public:
  HelpStyle() {
    label("SUBCOMMAND", "COMMAND");
    label("SUBCOMMANDS", "COMMANDS");
  }

  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string type = option->get_type_name();
    const std::string bare = type.substr(0, type.find(':'));  // without the validators
    const std::string shown = option->get_option_text().empty() ? bare : option->get_option_text();
    return option->get_type_size() == 0 || shown.empty() ? "" : " " + shown;
  }

  std::string make_option_desc(const CLI::Option* option) const override {
    std::vector<std::string> notes;
    if (option->get_required()) notes.emplace_back("required");
    if (!option->get_required() && !option->get_default_str().empty() && option->get_default_str() != "[]" &&
        option->get_option_text().empty()) {
      notes.push_back("default " + option->get_default_str());
    }
    if (!option->get_envname().empty()) notes.push_back("or " + option->get_envname());
    return option->get_description() + (notes.empty() ? "" : fmt::format(" ({})", fmt::join(notes, ", ")));
  }
};

bool LooksLikeLink(const std::string& text) {
  return text.find("://") != std::string::npos || text.rfind("pty:", 0) == 0 || text.rfind("sim:", 0) == 0;
}

}  // namespace

void SetHelpStyle(CLI::App& top) {
  top.formatter(std::make_shared<HelpStyle>());
  top.option_defaults()->always_capture_default();
}

CLI::Option* AddJointsOption(CLI::App& command, int& joints) {
  return command.add_option("-n,--joints", joints, "Joints of the arm, the same at both ends of the link")
      ->required()
      ->check(CLI::Range(1, kMaxJoints))
      ->type_name("N")
      ->envname("VELTA_JOINTS");
}

CLI::Option* AddLinkArgument(CLI::App& command, Link& link, Arguments arguments) {
  CLI::Option* const option = command
                                  .add_option_function<std::string>(
                                      "LINK", [&link](const std::string& text) { link = ParseLink(text); },
                                      "tcp://HOST:PORT, udp://HOST:PORT or serial:///dev/ttyX?baud=115200")
                                  ->required()
                                  ->type_name("")
                                  ->envname("VELTA_LINK");
  if (arguments == Arguments::kOthersToo) {
    command.validate_positionals();
    option->check([](const std::string& text) { return LooksLikeLink(text) ? "" : "not a link"; });
  }
  return option;
}

CLI::Option* AddSelectOption(CLI::App& command, std::string& selection, const std::string& help) {
  return command.add_option("--select", selection, help + ": all, or indices from 0 as in 0/2/5")->type_name("IDS");
}

CLI::Option* AddJsonFlag(CLI::App& command, bool& json, const std::string& help) {
  return command.add_flag("--json", json, help);
}

CLI::Option* AddDurationOption(CLI::App& command, const std::string& names, nanoseconds& value, DurationRange range,
                               const std::string& help) {
  const auto name = std::make_shared<std::string>();
  CLI::Option* const option = command.add_option_function<std::string>(
      names,
      [&value, range, name](const std::string& text) {
        value = ReadDuration(text);
        if (value >= range.least && value <= range.most) return;
        throw UsageError(
            fmt::format("{} takes {} to {}, not {}", *name, DurationText(range.least), DurationText(range.most), text));
      },
      help);
  *name = option->get_name();
  return option->type_name("DURATION")->default_str(value.count() == 0 ? "" : DurationText(value));
}

CLI::Option* AddForOption(CLI::App& command, nanoseconds& value) {
  return AddDurationOption(command, "--for", value, {1ms, 24h * 365}, "End after this time");
}

}  // namespace velta::tools
