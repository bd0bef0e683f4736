// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_PROCESS_H_
#define VELTA_TESTS_SUPPORT_PROCESS_H_

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "fd.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): not every libc declares it

namespace velta::test {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;
constexpr Milliseconds kPatience{30000};  ///< far more than any case takes, also under a sanitizer on a busy machine

inline bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
inline bool Begins(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

inline std::vector<std::string> Split(const std::string& text, char separator) {
  std::istringstream stream(text);
  std::vector<std::string> parts;
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}
inline std::vector<std::string> Lines(const std::string& text) { return Split(text, '\n'); }

/// Awaits a condition. @return whether it came true in time
inline bool Until(const std::function<bool()>& done) {
  for (const auto deadline = Clock::now() + kPatience; !done();) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

/// A program run as a user runs it: arguments, what it prints, signals, exit status. Every wait has a deadline. A
/// process that outlives its object is killed.
class Process {
 public:
  /// Starts argv[0] with its arguments; the program's three streams are pipes.
  explicit Process(const std::vector<std::string>& argv) {
    wire::Fd theirs[3];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int i = 0; i < 3; ++i) {
      int ends[2];
      if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
      theirs[i] = wire::Fd(ends[i == 0 ? 0 : 1]);
      ours_[i] = wire::Fd(ends[i == 0 ? 1 : 0]);
      posix_spawn_file_actions_adddup2(&actions, theirs[i].Get(), i);
    }
    std::vector<char*> arguments;
    for (const std::string& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    const int error = posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot start " + argv[0]);
  }
  ~Process() {
    if (status_) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  /// Skips lines on standard output up to one that begins with prefix.
  /// @return what follows the prefix in it; nothing at the deadline or after the last line
  std::optional<std::string> ReadAfter(const std::string& prefix) { return ReadAfter(prefix, 1); }
  std::optional<std::string> ReadErrorAfter(const std::string& prefix) { return ReadAfter(prefix, 2); }

  bool Write(const std::string& text) {
    return write(ours_[0].Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }
  void CloseInput() { ours_[0].Close(); }
  void Signal(int signal) {
    if (!status_) kill(pid_, signal);
  }

  /// Waits for the end, reading what the program prints meanwhile.
  /// @return the exit status, 128 + signal for a killed program; nothing at the deadline
  std::optional<int> Wait() {
    for (const auto deadline = Clock::now() + kPatience;; Pump(5)) {
      int state = 0;
      if (!status_ && waitpid(pid_, &state, WNOHANG) == pid_) {
        status_ = WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
      }
      while (Pump(0)) continue;  // to the pipes' ends, but not waiting for them: a grandchild may hold them
      if (status_ || Clock::now() >= deadline) return status_;
    }
  }

  const std::string& Output() const { return texts_[1]; }  ///< standard output not yet taken by ReadAfter
  const std::string& Errors() const { return texts_[2]; }  ///< standard error not yet taken by ReadErrorAfter

 private:
  std::optional<std::string> ReadAfter(const std::string& prefix, int stream) {
    std::string& text = texts_[stream];
    for (const auto deadline = Clock::now() + kPatience;; Pump(100)) {
      for (std::size_t end; (end = text.find('\n')) != std::string::npos;) {
        const std::string line = text.substr(0, end);
        text.erase(0, end + 1);
        if (line.rfind(prefix, 0) == 0) return line.substr(prefix.size());
      }
      if (!ours_[stream] || Clock::now() >= deadline) return std::nullopt;
    }
  }

  /// Reads what the program prints, waiting for it up to timeout_ms. @return whether anything came
  bool Pump(int timeout_ms) {
    pollfd fds[] = {{-1, 0, 0}, {ours_[1].Get(), POLLIN, 0}, {ours_[2].Get(), POLLIN, 0}};
    if (poll(fds, 3, timeout_ms) <= 0) return false;
    for (int i = 1; i < 3; ++i) {
      char buffer[4096];
      const ssize_t count = fds[i].revents != 0 ? read(fds[i].fd, buffer, sizeof buffer) : 0;
      if (count > 0) texts_[i].append(buffer, static_cast<std::size_t>(count));
      if (fds[i].revents != 0 && count <= 0) ours_[i].Close();
    }
    return true;
  }

  pid_t pid_ = -1;
  wire::Fd ours_[3];
  std::string texts_[3];
  std::optional<int> status_;
};

/// What a program that ends by itself leaves behind; no status when it did not end in time.
struct RunResult {
  std::optional<int> status;
  std::string out, err;
};

inline RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input = "") {
  Process process(argv);
  if (!input.empty()) process.Write(input);
  process.CloseInput();
  const auto status = process.Wait();
  return {status, process.Output(), process.Errors()};
}

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_PROCESS_H_
