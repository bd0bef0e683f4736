// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_EXCERPT_H_
#define VELTA_TOOLS_EXCERPT_H_

#include "timeline.h"

namespace CLI {
class App;
}  // namespace CLI

namespace velta::tools {

using namespace recording;  // the tools that read one

/// Adds FILE, -n, --from and --to, the options that all readers of recordings share. excerpt must live as long as
/// command.
void AddExcerptOptions(CLI::App& command, Excerpt& excerpt);

/// Opens the excerpt. Throws UsageError when it ends before it begins, and what Timeline does.
Timeline OpenExcerpt(const Excerpt& excerpt);

/// Reports on standard error when the recording was cut short; to be called at its end.
void ReportLostTail(const Timeline& timeline);
void ReportLostTail(const std::string& file, std::uint64_t bytes);

}  // namespace velta::tools

#endif  // VELTA_TOOLS_EXCERPT_H_
