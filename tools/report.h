// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_REPORT_H_
#define VELTA_TOOLS_REPORT_H_

#include <filesystem>
#include <string>
#include <vector>

/// What `velta doctor --report` sends along with a question. No environment variables and no host names are in it.
namespace velta::tools {

/// One file of an archive.
struct ReportPart {
  const char* name;
  std::string about;  ///< one line
  std::string content;
};

/// @return what is installed: the versions of velta, the kernel, the C library and the distribution
std::string VersionsText();

/// @param root  of the file systems /proc and /sys, normally "/"
/// @return settings that decide how exactly in time a program runs here: a line "name: value" each
std::string RealtimeText(const std::filesystem::path& root);

/// @return the text without each whole occurrence of a host's name; an IPv4 address stays
std::string WithoutHost(std::string text, const std::string& host);

/// Writes the parts as a compressed archive, in a folder of the file's name.
/// @throws Failure with the file's name and the reason; no half-written file remains
void WriteReport(const std::string& path, const std::vector<ReportPart>& parts);

}  // namespace velta::tools

#endif  // VELTA_TOOLS_REPORT_H_
