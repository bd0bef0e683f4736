// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_PROGRESS_H_
#define VELTA_TOOLS_PROGRESS_H_

#include <string>

namespace velta::tools {

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

#endif  // VELTA_TOOLS_PROGRESS_H_
