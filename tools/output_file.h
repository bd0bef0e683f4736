// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_OUTPUT_FILE_H_
#define VELTA_TOOLS_OUTPUT_FILE_H_

#include <string>

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

/// "12 s of 60 s" and the like on standard error, on a terminal only, a few times per second.
class Progress {
 public:
  Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() { Clear(); }

  /// @return whether Show() would show something now, so that nothing is composed in vain
  bool IsDue() const;
  void Show(const std::string& text);
  void Clear();

 private:
  bool is_terminal_;
  bool shown_ = false;
  long long next_ms_ = 0;
};

}  // namespace velta::tools

#endif  // VELTA_TOOLS_OUTPUT_FILE_H_
