// SPDX-License-Identifier: MIT
#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "command.h"
#include "fd.h"

namespace velta::tools {

OutputFile::OutputFile(const std::string& path) : path_(path), working_path_(path) {
  struct stat there {};
  if (stat(path.c_str(), &there) == 0 && !S_ISREG(there.st_mode)) {
    if (S_ISDIR(there.st_mode)) throw Failure(path + ": " + std::strerror(EISDIR));
    return;
  }
  working_path_ = path + ".part";
  const Fd file(open(working_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (file.Get() < 0) throw Failure(path + ": " + std::strerror(errno));
}

OutputFile::~OutputFile() {
  if (working_path_ != path_) unlink(working_path_.c_str());
}

void OutputFile::Commit() {
  if (working_path_ != path_ && std::rename(working_path_.c_str(), path_.c_str()) != 0) {
    throw Failure(path_ + ": " + std::strerror(errno));
  }
  working_path_ = path_;
}

}  // namespace velta::tools
