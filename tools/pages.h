// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_PAGES_H_
#define VELTA_TOOLS_PAGES_H_

#include <map>
#include <string>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace velta::tools {

/// @return the manual page of the program, in roff, from the commands and options themselves
std::string ManPage(const CLI::App& app);

/// Words that complete an argument: of "send" the command's own, of "sim --fault" those of the option.
using CompletionWords = std::map<std::string, std::vector<std::string>>;

/// @return the program's completion for bash
std::string BashCompletion(const CLI::App& app, const CompletionWords& words);

}  // namespace velta::tools

#endif  // VELTA_TOOLS_PAGES_H_
