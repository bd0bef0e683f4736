// SPDX-License-Identifier: MIT
#include <curses.h>
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "MasterControllerClient.h"
#include "SendPacket.h"
#include "command.h"
#include "link.h"
#include "monitor_model.h"
#include "stop.h"
#include "timing.h"
#include "wire.h"

namespace velta::tools {

namespace {

constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kSecond = 1000 * kMs;

struct MonitorOptions {
  Link link;
  int joints = 0;
  int poll_ms = 100;
  double seconds = 0;
  std::int64_t count = 0;
  bool json = false;
};

/// The screen: draws a model, and keeps what the keys select.
class Screen {
 public:
  explicit Screen(std::string title) : title_(std::move(title)) {
    terminal_ = newterm(nullptr, stdout, stdin);
    if (terminal_ == nullptr) {
      const char* name = std::getenv("TERM");
      throw Failure("cannot draw on this terminal (TERM=" + std::string(name != nullptr ? name : "") +
                    "); with the output piped, velta monitor prints lines");
    }
    cbreak();
    noecho();
    nodelay(stdscr, TRUE);
    keypad(stdscr, TRUE);
    set_escdelay(25);
    curs_set(0);
    if (has_colors()) {
      start_color();
      use_default_colors();
      init_pair(kFault, COLOR_RED, -1);
      init_pair(kChanged, COLOR_YELLOW, -1);
    }
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;
  ~Screen() {
    endwin();
    delscreen(terminal_);
  }

  /// Takes the keys that were pressed. @return false to quit
  bool TakeKeys(const MonitorModel& model) {
    for (int key = getch(); key != ERR; key = getch()) {
      if (key == 'q' || key == 'Q') return false;
      if (key == 'p' || key == ' ') {
        frozen_ = frozen_ ? std::nullopt : std::optional(model);
        frozen_at_ = MonotonicNs();
      }
      if (key >= '1' && key < '1' + static_cast<int>(hidden_.size())) {
        bool& hidden = hidden_[static_cast<std::size_t>(key - '1')];
        hidden = !hidden;
      }
      if (key == KEY_DOWN && joint_ + 1 < model.Joints()) ++joint_;
      if (key == KEY_UP && joint_ > 0) --joint_;
    }
    return true;
  }

  /// @param trouble  shown in place of the traffic; empty when the link works
  void Draw(const MonitorModel& live, const std::string& trouble) {
    const MonitorModel& model = frozen_ ? *frozen_ : live;
    const std::int64_t now = frozen_ ? frozen_at_ : MonotonicNs();
    erase();
    const int height = getmaxy(stdscr);
    Put(0, 0, title_ + (frozen_ ? "  PAUSED" : ""), A_BOLD);
    if (trouble.empty()) {
      Put(1, 0, model.Traffic(now), 0);
    } else {
      Put(1, 0, trouble, Colour(kFault));
    }
    // With many joints or few lines the joints scroll, so that the chosen one is seen and a history remains.
    constexpr int kFirstRow = 4;
    const int joints = static_cast<int>(model.Joints());
    const int rows = std::min(joints, std::max({height - 12, std::min(3, height - 5), 1}));
    const int first = std::clamp(static_cast<int>(joint_) - rows / 2, 0, joints - rows);
    DrawTitles(kFirstRow - 1);
    for (int i = 0; i < rows; ++i) {
      DrawJoint(kFirstRow + i, static_cast<std::size_t>(first + i),
                model.Row(static_cast<std::size_t>(first + i), now));
    }
    int line = kFirstRow + rows + 1;
    const auto width = static_cast<std::size_t>(std::max(getmaxx(stdscr), 1));
    const auto lines = static_cast<std::size_t>(std::clamp(height - line - 2, 1, 16));
    for (const std::string& text : model.History(joint_, width, lines)) {
      if (line < height - 1) Put(line++, 0, text, 0);
    }
    Put(height - 1, 0, "q quit  p pause  1-9 columns  up/down joint  * changed  ! fault", A_REVERSE);
    refresh();
  }

 private:
  enum Pair : short { kFault = 1, kChanged = 2 };

  static attr_t Colour(Pair pair) { return A_BOLD | (has_colors() ? static_cast<attr_t>(COLOR_PAIR(pair)) : 0); }

  static void Put(int y, int x, const std::string& text, attr_t attributes) {
    const int width = getmaxx(stdscr);
    if (y < 0 || y >= getmaxy(stdscr) || x >= width) return;
    attrset(static_cast<int>(attributes));
    mvaddnstr(y, x, text.c_str(), width - x);
    attrset(A_NORMAL);
  }

  void DrawTitles(int y) const {
    int x = 6;
    Put(y, 0, "joint", A_UNDERLINE);
    for (std::size_t column = 0; column < hidden_.size(); ++column) {
      if (hidden_[column]) continue;
      const MonitorModel::Column& shape = MonitorModel::kColumns[column];
      Put(y, x, Padded(shape.title, shape.width), A_UNDERLINE);
      x += shape.width + 1;
    }
  }

  void DrawJoint(int y, std::size_t joint, const std::vector<MonitorModel::Cell>& row) const {
    const bool fault = std::any_of(row.begin(), row.end(), [](const MonitorModel::Cell& cell) { return cell.fault; });
    Put(y, 0, (joint == joint_ ? ">" : " ") + std::to_string(joint) + (fault ? "!" : ""), fault ? Colour(kFault) : 0);
    int x = 6;
    for (std::size_t column = 0; column < hidden_.size(); ++column) {
      if (hidden_[column]) continue;
      const MonitorModel::Cell& cell = row[column];
      const int width = MonitorModel::kColumns[column].width;
      Put(y, x, Padded(cell.text, width) + (cell.changed ? "*" : " "),
          cell.fault ? Colour(kFault) : (cell.changed ? Colour(kChanged) : 0));
      x += width + 1;
    }
  }

  static std::string Padded(const std::string& text, int width) {
    const auto wanted = static_cast<std::size_t>(width);
    return text.size() < wanted ? std::string(wanted - text.size(), ' ') + text : text.substr(0, wanted);
  }

  std::string title_;
  SCREEN* terminal_;
  std::array<bool, MonitorModel::kColumns.size()> hidden_{};
  std::size_t joint_ = 0;
  std::optional<MonitorModel> frozen_;
  std::int64_t frozen_at_ = 0;
};

class Monitor {
 public:
  explicit Monitor(const MonitorOptions& options)
      : options_(options),
        model_(options.joints),
        documents_(options.joints),
        wire_(std::make_unique<Wire>(options.link)) {}

  int Run() {
    const std::int64_t start = MonotonicNs();
    heard_at_ = start;
    end_ = options_.seconds > 0 ? start + static_cast<std::int64_t>(options_.seconds * 1e9)
                                : std::numeric_limits<std::int64_t>::max();
    std::string lost;
    try {
      if (!options_.json && isatty(STDOUT_FILENO) == 1 && isatty(STDIN_FILENO) == 1) {
        RunScreen();
      } else {
        RunLines();
      }
    } catch (const WireError& error) {
      if (!StopRequested()) lost = error.what();
    }
    const auto seconds = static_cast<double>(MonotonicNs() - start) / 1e9;
    (options_.json ? std::cerr : Out()) << "watched for " << Fixed(seconds, 1)
                                        << " s: " << model_.Traffic(MonotonicNs()) << std::endl;
    if (!lost.empty()) throw Failure(lost);
    return model_.HasStatus() || StopRequested() ? 0 : 1;
  }

 private:
  bool Done() const {
    return StopRequested() || MonotonicNs() >= end_ || (options_.count > 0 && model_.Statuses() >= options_.count);
  }

  /// Takes in what has arrived; asks with a command that commands nothing when the controller is silent.
  void Receive() {
    std::vector<char> bytes;
    wire_->Read(bytes);
    const std::int64_t now = MonotonicNs();
    if (!bytes.empty()) heard_at_ = now;
    for (const RecvPacket& status : model_.Take(std::move(bytes), now)) {
      if (options_.json) documents_.PushRecvBuffer(status);
    }
    if (options_.poll_ms == 0 || now - std::max(heard_at_, asked_at_) < options_.poll_ms * kMs) return;
    asked_at_ = now;
    wire_->Write(SendPacket(options_.joints).GetCharVector());
  }

  std::int64_t Until(std::int64_t next) const {
    std::int64_t until = std::min(next, end_);
    if (options_.poll_ms > 0) until = std::min(until, std::max(heard_at_, asked_at_) + options_.poll_ms * kMs);
    return until;
  }

  void RunLines() {
    std::int64_t next = MonotonicNs() + kSecond;
    while (!Done()) {
      wire_->WaitReadable(Until(next));
      Receive();
      PrintDocuments();
      if (options_.json || MonotonicNs() < next) continue;
      Out() << model_.Line(MonotonicNs()) << std::endl;
      next += kSecond;
    }
  }

  void PrintDocuments() {
    if (documents_.GetRecvBufferSize() == 0) return;
    for (const std::string& document : documents_.GetCurStateJson()) {
      if (options_.count > 0 && printed_ >= options_.count) return;
      Out() << document << '\n';
      ++printed_;
    }
    if (!Out().flush()) throw Failure("cannot write to standard output");
  }

  void RunScreen() {
    Screen screen("velta monitor  " + ToString(options_.link) + "  " + std::to_string(options_.joints) + " joints");
    std::string trouble;
    std::int64_t next_draw = 0;
    std::int64_t next_try = 0;
    while (!Done()) {
      if (MonotonicNs() >= next_draw) {
        screen.Draw(model_, trouble);
        next_draw = MonotonicNs() + 100 * kMs;
      }
      if (!WaitForBytesOrKeys(std::min(Until(next_draw), next_draw))) return;
      try {
        if (!wire_ && MonotonicNs() >= next_try) {
          wire_ = std::make_unique<Wire>(options_.link, 50);  // shortly: the keys wait meanwhile
          trouble.clear();
        }
        if (wire_) Receive();
      } catch (const WireError& error) {
        wire_.reset();
        trouble = std::string(error.what()) + "; trying again";
        next_try = MonotonicNs() + kSecond;
      }
      if (!screen.TakeKeys(model_)) return;
    }
  }

  /// @return false when the terminal is gone
  bool WaitForBytesOrKeys(std::int64_t deadline) const {
    const std::int64_t left = std::max<std::int64_t>(deadline - MonotonicNs(), 0);
    const timespec timeout{left / kSecond, left % kSecond};
    pollfd polled[] = {{STDIN_FILENO, POLLIN, 0}, {StopFd(), POLLIN, 0}, {wire_ ? wire_->Fd() : -1, POLLIN, 0}};
    return ppoll(polled, 3, &timeout, nullptr) <= 0 || (polled[0].revents & (POLLHUP | POLLERR)) == 0;
  }

  const MonitorOptions& options_;
  MonitorModel model_;
  MasterControllerClient documents_;  ///< never opened: it turns statuses into documents
  std::unique_ptr<Wire> wire_;        ///< none while the link is lost
  std::int64_t end_ = 0;
  std::int64_t heard_at_ = 0;
  std::int64_t asked_at_ = 0;
  std::int64_t printed_ = 0;
};

}  // namespace

void AddMonitor(CLI::App& app, Action& action) {
  CLI::App& command = *app.add_subcommand("monitor", "Watch the joints live");
  static MonitorOptions options;
  AddLinkArgument(command, options.link);
  AddJointsOption(command, options.joints);
  command
      .add_option("--poll-ms", options.poll_ms, "Silence after which an idle command asks for a status; 0 never asks")
      ->check(CLI::Range(0, 60'000));
  command.add_option("--seconds", options.seconds, "End after this time")->check(CLI::Range(0.001, 1e9));
  command.add_option("-c,--count", options.count, "End after this many statuses")->check(CLI::PositiveNumber);
  command.add_flag("--json", options.json, "Print each status as one JSON document in a line");
  command.footer(
      "On a terminal it draws a screen; its last line names the keys. Otherwise it prints a line per second.\n"
      "Example: velta monitor -n 6 tcp://192.168.0.10:5000");
  command.callback([&action] {
    action = [] {
      InstallStopHandler();
      return Monitor(options).Run();
    };
  });
}

}  // namespace velta::tools
