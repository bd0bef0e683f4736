// SPDX-License-Identifier: MIT
#include "pages.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <sstream>

#include "version.h"

namespace velta::tools {

namespace {

constexpr const char* kSections = R"(.SH EXIT STATUS
.TP
.B 0
success
.TP
.B 1
the job failed: no controller answers, a link is lost, a file cannot be read or written
.TP
.B 2
bad usage: nothing was opened, sent or written
.SH ENVIRONMENT
.TP
.B VELTA_LINK
stands in for LINK
.TP
.B VELTA_JOINTS
stands in for \fB\-\-joints\fR
)";

/// Text as roff shows it: no dash becomes a hyphen, no line a request.
std::string Roff(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if ((c == '.' || c == '\'') && (result.empty() || result.back() == '\n')) result += "\\&";
    if (c == '\\' || c == '-') result += '\\';
    result += c == '\\' ? 'e' : c;
  }
  return result;
}

const CLI::Formatter& StyleOf(const CLI::App& command) {
  return dynamic_cast<const CLI::Formatter&>(*command.get_formatter());
}

/// The option as help shows it: "-n,--joints N", and what it is for.
std::pair<std::string, std::string> Shown(const CLI::App& command, const CLI::Option& option) {
  const CLI::Formatter& style = StyleOf(command);
  return {option.get_name(option.get_positional(), true) + style.make_option_opts(&option),
          style.make_option_desc(&option)};
}

void AddOptions(const CLI::App& command, std::string& page) {
  for (const CLI::Option* option : command.get_options()) {
    if (option->get_group().empty() || (command.get_parent() != nullptr && option == command.get_help_ptr())) continue;
    const auto [name, text] = Shown(command, *option);
    page += fmt::format(".TP\n.B {}\n{}\n", Roff(name), Roff(text));
  }
}

void AddFooter(const CLI::App& command, std::string& page) {
  if (!command.get_footer().empty()) page += fmt::format(".PP\n.nf\n{}\n.fi\n", Roff(command.get_footer()));
}

std::vector<const CLI::App*> Commands(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
}

std::vector<std::string> LongNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    if (option->get_group().empty()) continue;
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

/// What an option's value may be, as shell code; empty for anything.
std::string ValueCompletion(const CLI::Option& option, const std::vector<std::string>& words) {
  const std::string type = option.get_option_text() + option.get_type_name();
  const std::size_t open = type.find('{');
  if (!words.empty()) return fmt::format("words='{}'", fmt::join(words, " "));
  if (open != std::string::npos) {  // a choice
    std::string choices = type.substr(open + 1, type.find('}') - open - 1);
    for (char& c : choices) c = c == ',' ? ' ' : c;
    return "words='" + choices + "'";
  }
  return type.rfind("FILE", 0) == 0 || type.rfind("PICTURE", 0) == 0 ? "files=1" : "";
}

}  // namespace

std::string ManPage(const CLI::App& app) {
  std::string page = fmt::format(
      ".\\\" SPDX-License-Identifier: MIT\n.TH VELTA 1 \"\" \"velta {}.{}.{}\" \"User Commands\"\n"
      ".SH NAME\nvelta \\- tools for the wire between a host and the controller of a robot arm\n"
      ".SH SYNOPSIS\n.B velta\n[OPTIONS] COMMAND [ARGUMENTS]\n.SH DESCRIPTION\n{}\n.SH OPTIONS\n",
      VELTA_VERSION::major, VELTA_VERSION::minor, VELTA_VERSION::revision, Roff(app.get_description()));
  AddOptions(app, page);
  page += ".SH COMMANDS\n";
  for (const CLI::App* command : Commands(app)) {
    std::istringstream usage(StyleOf(*command).make_usage(command, "velta " + command->get_name()));
    std::string line;
    std::getline(usage >> std::ws, line);
    page += fmt::format(".SS {}\n{}\n.PP\n.B {}\n", Roff(command->get_name()), Roff(command->get_description()),
                        Roff(line.substr(line.find("velta"))));
    AddOptions(*command, page);
    AddFooter(*command, page);
  }
  page += kSections;
  page += ".SH EXAMPLES";
  AddFooter(app, page);
  return page;
}

std::string BashCompletion(const CLI::App& app, const CompletionWords& words) {
  std::vector<std::string> names;
  std::string values;
  std::string options;
  for (const CLI::App* command : Commands(app)) {
    const std::string& name = command->get_name();
    names.push_back(name);
    options += fmt::format("    {}) options='{}' ;;\n", name, fmt::join(LongNames(*command), " "));
    std::vector<std::string> anything;  // options after which nothing is offered
    for (const CLI::Option* option : command->get_options()) {
      if (option->get_expected_max() == 0 || option->get_lnames().empty()) continue;
      const std::string& longest = option->get_lnames().front();
      std::string pattern = fmt::format("{}:--{}", name, longest);
      for (const std::string& letter : option->get_snames()) pattern += fmt::format(" | {}:-{}", name, letter);
      const auto known = words.find(fmt::format("{} --{}", name, longest));
      const std::string value =
          ValueCompletion(*option, known == words.end() ? std::vector<std::string>{} : known->second);
      if (value.empty()) {
        anything.push_back(pattern);
      } else {
        values += fmt::format("    {}) {} ;;\n", pattern, value);
      }
    }
    if (!anything.empty()) values += fmt::format("    {}) return ;;\n", fmt::join(anything, " | "));
  }
  std::string arguments;
  for (const auto& [where, list] : words) {
    if (where.find(' ') == std::string::npos)
      arguments += fmt::format("    {}) words+=' {}' ;;\n", where, fmt::join(list, " "));
  }
  return fmt::format(R"(# bash completion for velta, made from its options
_velta() {{
  local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD - 1]}}
  local commands='{}' command='' word words='' files='' options='{}'
  COMPREPLY=()
  for word in "${{COMP_WORDS[@]:1:COMP_CWORD-1}}"; do
    [[ " $commands " == *" $word "* ]] && command=$word && break
  done
  case $command in
{}  esac
  case $command:$previous in
{}  esac
  if [[ -n $words || -n $files ]]; then
    [[ -z $files ]] || compopt -o default 2>/dev/null
    [[ -z $words ]] || mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
    return
  fi
  if [[ -z $command ]]; then
    words="$commands $options"
  elif [[ $current == -* ]]; then
    words=$options
  else
    compopt -o default 2>/dev/null # a recording
    # Readline takes the colon for the end of a word, so a scheme is offered only in front of one.
    words='tcp:// udp:// serial:///dev/'
    case $command in
{}    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}} &&
  complete -F _velta velta
)",
                     fmt::join(names, " "), fmt::join(LongNames(app), " "), options, values, arguments);
}

}  // namespace velta::tools
