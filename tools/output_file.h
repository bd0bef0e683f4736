// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_OUTPUT_FILE_H_
#define VELTA_TOOLS_OUTPUT_FILE_H_

#include <string>

#include "progress.h"

namespace velta::tools {

/// A file that appears under its name only when it is whole: until Commit() its content grows beside it, and goes again
/// when the job fails.
///
/// Errors: Failure with the file's name and the reason.
class OutputFile {
 public:
  /// @param path  what is there and is no plain file (a device, a pipe) is written to at once
  explicit OutputFile(const std::string& path);
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  const std::string& WorkingPath() const { return working_path_; }  ///< to be written to
  void Commit();

 private:
  std::string path_;
  std::string working_path_;
};

}  // namespace velta::tools

#endif  // VELTA_TOOLS_OUTPUT_FILE_H_
