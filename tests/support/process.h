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
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <optional>
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
    std::array<Pipe, 3> pipes;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipes[0].read_end, 0);
    posix_spawn_file_actions_adddup2(&actions, pipes[1].write_end, 1);
    posix_spawn_file_actions_adddup2(&actions, pipes[2].write_end, 2);
    std::vector<char*> arguments;
    for (const std::string& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    const int error = posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::system_error(error, std::generic_category(), argv[0]);
    in_ = pipes[0].TakeWriteEnd();
    out_.fd = pipes[1].TakeReadEnd();
    err_.fd = pipes[2].TakeReadEnd();
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  ~Process() {
    if (!status_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    CloseInput();
    if (out_.fd >= 0) close(out_.fd);
    if (err_.fd >= 0) close(err_.fd);
  }

  /// The next line on standard output, without its end; nothing at the deadline or after the last one.
  std::optional<std::string> ReadLine(Milliseconds patience = kPatience) { return NextLine(out_, patience); }

  /// The same on standard error.
  std::optional<std::string> ReadErrorLine(Milliseconds patience = kPatience) { return NextLine(err_, patience); }

  /// Skips lines on standard output up to one that begins with prefix; what follows the prefix in it.
  std::optional<std::string> ReadAfter(const std::string& prefix, Milliseconds patience = kPatience) {
    const auto deadline = Clock::now() + patience;
    while (const auto line = NextLine(out_, Left(deadline))) {
      if (line->compare(0, prefix.size(), prefix) == 0) return line->substr(prefix.size());
    }
    return std::nullopt;
  }

  /// Writes to the program's standard input.
  bool Write(const std::string& text) {
    return write(in_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }

  void CloseInput() {
    if (in_ >= 0) close(in_);
    in_ = -1;
  }

  void Signal(int signal) {
    if (!status_) kill(pid_, signal);
  }

  /// Waits for the end, reading what the program prints meanwhile.
  /// @return the exit status, 128 + signal for a killed program; nothing at the deadline
  std::optional<int> Wait(Milliseconds patience = kPatience) {
    const auto deadline = Clock::now() + patience;
    for (;;) {
      int state = 0;
      if (!status_ && waitpid(pid_, &state, WNOHANG) == pid_) {
        status_ = WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
      }
      // The pipes are read to their ends, but not waited for: a grandchild may hold them.
      while (Pump(Milliseconds(0))) continue;
      if (status_) return status_;
      if (Left(deadline).count() == 0) return std::nullopt;
      Pump(Milliseconds(5));
    }
  }

  const std::string& Output() const { return out_.text; }  ///< standard output not yet taken by ReadLine
  const std::string& Errors() const { return err_.text; }  ///< standard error not yet taken by ReadErrorLine
  pid_t Pid() const { return pid_; }

 private:
  using Clock = std::chrono::steady_clock;

  struct Pipe {
    Pipe() {
      int ends[2];
      if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
      read_end = ends[0];
      write_end = ends[1];
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
      if (read_end >= 0) close(read_end);
      if (write_end >= 0) close(write_end);
    }
    int TakeReadEnd() { return std::exchange(read_end, -1); }
    int TakeWriteEnd() { return std::exchange(write_end, -1); }
    int read_end;
    int write_end;
  };

  struct Stream {
    int fd = -1;
    std::string text;
  };

  static Milliseconds Left(Clock::time_point deadline) {
    return std::max(Milliseconds(0), std::chrono::ceil<Milliseconds>(deadline - Clock::now()));
  }

  std::optional<std::string> NextLine(Stream& stream, Milliseconds patience) {
    const auto deadline = Clock::now() + patience;
    for (;;) {
      const std::size_t end = stream.text.find('\n');
      if (end != std::string::npos) {
        std::string line = stream.text.substr(0, end);
        stream.text.erase(0, end + 1);
        return line;
      }
      if (stream.fd < 0 || (!Pump(Left(deadline)) && Left(deadline).count() == 0)) return std::nullopt;
    }
  }

  /// Reads what the program prints, waiting for it up to patience. @return whether anything came
  bool Pump(Milliseconds patience) {
    pollfd fds[] = {{out_.fd, POLLIN, 0}, {err_.fd, POLLIN, 0}};
    if (poll(fds, 2, static_cast<int>(patience.count())) <= 0) return false;
    if (fds[0].revents != 0) Take(out_);
    if (fds[1].revents != 0) Take(err_);
    return true;
  }

  static void Take(Stream& stream) {
    char buffer[4096];
    const ssize_t count = read(stream.fd, buffer, sizeof buffer);
    if (count > 0) {
      stream.text.append(buffer, static_cast<std::size_t>(count));
    } else {
      close(std::exchange(stream.fd, -1));
    }
  }

  pid_t pid_ = -1;
  int in_ = -1;
  Stream out_;
  Stream err_;
  std::optional<int> status_;
};

/// What a program that ends by itself leaves behind.
struct RunResult {
  std::optional<int> status;  ///< nothing when it did not end in time
  std::string out;
  std::string err;
};

inline RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input = "",
                            Process::Milliseconds patience = Process::kPatience) {
  Process process(argv);
  if (!input.empty()) process.Write(input);
  process.CloseInput();
  RunResult result;
  result.status = process.Wait(patience);
  result.out = process.Output();
  result.err = process.Errors();
  return result;
}

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_PROCESS_H_
