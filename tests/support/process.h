// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_PROCESS_H_
#define VELTA_TESTS_SUPPORT_PROCESS_H_

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

extern char** environ;  // NOLINT(readability-redundant-declaration): not every libc declares it

namespace velta::test {

/// A program run as a user runs it: arguments, what it prints, signals, exit status. Every wait has a deadline. A
/// process that outlives its object is killed.
class Process {
 public:
  using Milliseconds = std::chrono::milliseconds;
  static constexpr Milliseconds kPatience{10000};  ///< far more than any case takes, also under a sanitizer

  /// Starts argv[0] with its arguments; the program's three streams are pipes. Throws std::system_error.
  explicit Process(const std::vector<std::string>& argv) {
    Stream theirs[3];
    Stream* const ours[] = {&in_, &out_, &err_};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int i = 0; i < 3; ++i) {
      int ends[2];
      if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
      theirs[i].fd = ends[i == 0 ? 0 : 1];
      ours[i]->fd = ends[i == 0 ? 1 : 0];
      posix_spawn_file_actions_adddup2(&actions, theirs[i].fd, i);
    }
    std::vector<char*> arguments;
    for (const std::string& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    const int error = posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::system_error(error, std::generic_category(), argv[0]);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    if (status_) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  /// The next line on standard output or error, without its end; nothing at the deadline or after the last one.
  std::optional<std::string> ReadLine() { return NextLine(out_, Clock::now() + kPatience); }
  std::optional<std::string> ReadErrorLine() { return NextLine(err_, Clock::now() + kPatience); }

  /// Skips lines on standard output up to one that begins with prefix; what follows the prefix in it.
  std::optional<std::string> ReadAfter(const std::string& prefix) {
    const auto deadline = Clock::now() + kPatience;
    while (const auto line = NextLine(out_, deadline)) {
      if (line->compare(0, prefix.size(), prefix) == 0) return line->substr(prefix.size());
    }
    return std::nullopt;
  }

  bool Write(const std::string& text) {
    return write(in_.fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }
  void CloseInput() { in_.Close(); }
  void Signal(int signal) {
    if (!status_) kill(pid_, signal);
  }

  /// Waits for the end, reading what the program prints meanwhile.
  /// @return the exit status, 128 + signal for a killed program; nothing at the deadline
  std::optional<int> Wait(Milliseconds patience = kPatience) {
    for (const auto deadline = Clock::now() + patience;; Pump(Milliseconds(5))) {
      int state = 0;
      if (!status_ && waitpid(pid_, &state, WNOHANG) == pid_) {
        status_ = WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
      }
      // The pipes are read to their ends, but not waited for: a grandchild may hold them.
      while (Pump(Milliseconds(0))) continue;
      if (status_ || Clock::now() >= deadline) return status_;
    }
  }

  const std::string& Output() const { return out_.text; }  ///< standard output not yet taken by ReadLine
  const std::string& Errors() const { return err_.text; }  ///< standard error not yet taken by ReadErrorLine

 private:
  using Clock = std::chrono::steady_clock;

  struct Stream {
    Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() { Close(); }
    void Close() {
      if (fd >= 0) close(std::exchange(fd, -1));
    }
    void Take() {
      char buffer[4096];
      const ssize_t count = read(fd, buffer, sizeof buffer);
      if (count <= 0) return Close();
      text.append(buffer, static_cast<std::size_t>(count));
    }
    int fd = -1;
    std::string text;
  };

  std::optional<std::string> NextLine(Stream& stream, Clock::time_point deadline) {
    for (;;) {
      const std::size_t end = stream.text.find('\n');
      if (end != std::string::npos) {
        std::string line = stream.text.substr(0, end);
        stream.text.erase(0, end + 1);
        return line;
      }
      const auto left = std::max(Milliseconds(0), std::chrono::ceil<Milliseconds>(deadline - Clock::now()));
      if (stream.fd < 0 || (!Pump(left) && Clock::now() >= deadline)) return std::nullopt;
    }
  }

  /// Reads what the program prints, waiting for it up to patience. @return whether anything came
  bool Pump(Milliseconds patience) {
    pollfd fds[] = {{out_.fd, POLLIN, 0}, {err_.fd, POLLIN, 0}};
    if (poll(fds, 2, static_cast<int>(patience.count())) <= 0) return false;
    if (fds[0].revents != 0) out_.Take();
    if (fds[1].revents != 0) err_.Take();
    return true;
  }

  pid_t pid_ = -1;
  Stream in_, out_, err_;
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

/// Our program's command line with these arguments, and a run of it.
inline std::vector<std::string> Argv(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), VELTA_PROGRAM);
  return arguments;
}
inline RunResult Velta(std::vector<std::string> arguments, const std::string& input = "") {
  return RunProgram(Argv(std::move(arguments)), input);
}

inline bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

inline std::vector<std::string> Split(const std::string& text, char separator) {
  std::istringstream stream(text);
  std::vector<std::string> parts;
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}
inline std::vector<std::string> Lines(const std::string& text) { return Split(text, '\n'); }

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_PROCESS_H_
