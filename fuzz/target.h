// SPDX-License-Identifier: MIT
#ifndef VELTA_FUZZ_TARGET_H_
#define VELTA_FUZZ_TARGET_H_

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

/// What the fuzz targets share. A target turns any bytes into a run of the code that it is for, and holds what comes
/// out against a model of its own.
namespace velta::fuzz {

/// The bytes of one run, read as decisions. Behind their end every decision is 0.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}

  bool Empty() const { return at_ == end_; }
  unsigned Byte() { return Empty() ? 0 : *at_++; }
  unsigned Below(unsigned bound) { return Byte() % bound; }
  bool Flag() { return Below(2) != 0; }
  std::vector<char> Take(std::size_t count) {
    const auto* from = at_;
    at_ += std::min(count, static_cast<std::size_t>(end_ - at_));
    return {from, at_};
  }
  std::string Rest() { return {std::exchange(at_, end_), end_}; }

 private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
};

/// Ends the process when a promise is broken; that is what fuzzers look for.
inline void Check(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", promise);
  std::abort();
}

/// The one file of the process, with these bytes. @return its path
inline std::string FileOf(const std::vector<char>& bytes) {
  static const int fd = memfd_create("input", 0);
  Check(ftruncate(fd, 0) == 0, "the file is empty");
  Check(pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()), "the file is written");
  return "/proc/self/fd/" + std::to_string(fd);
}

struct Target {
  const char* name;  ///< of its corpus folder, too
  void (*run)(Input& input);
};

/// The targets that are linked into the program.
inline std::vector<Target>& Targets() {
  static std::vector<Target> targets;
  return targets;
}

struct Registered {
  Registered(const char* name, void (*run)(Input&)) { Targets().push_back({name, run}); }
};

}  // namespace velta::fuzz

#endif  // VELTA_FUZZ_TARGET_H_
