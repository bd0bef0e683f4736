// SPDX-License-Identifier: MIT
#include <curses.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
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
#include "command.h"
#include "counted.h"
#include "monitor_model.h"
#include "own_link.h"
#include "relay.h"
#include "stop.h"
#include "timing.h"

namespace velta::tools {

namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kSecond = 1000 * kMs;

struct MonitorOptions {
  Link link;
  std::string via;
  int joints = 0;
  std::chrono::nanoseconds poll = 100ms;
  std::chrono::nanoseconds duration{0};  ///< 0: no end
  std::int64_t count = 0;                ///< 0: no end
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

  /// @param trouble     shown in place of the traffic; empty when the link works
  /// @param statistics  of the link, if it is the monitor's own
  void Draw(const MonitorModel& live, const std::string& trouble, const std::optional<SessionStatistics>& statistics) {
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
    if (statistics && !frozen_) link_line_ = LinkLine(*statistics);
    Put(2, 0, link_line_, 0);
    // With many joints or few lines the joints scroll, so that the chosen one is seen and a history remains.
    constexpr int kFirstRow = 4;
    const int joints = static_cast<int>(model.Joints());
    const int rows = std::min(joints, std::max({height - 12, std::min(3, height - 5), 1}));
    auto joint = static_cast<std::size_t>(std::clamp(static_cast<int>(joint_) - rows / 2, 0, joints - rows));
    const Columns columns = Fitting();
    DrawTitles(kFirstRow - 1, columns);
    for (int i = 0; i < rows; ++i, ++joint) DrawJoint(kFirstRow + i, joint, model.Row(joint, now), columns);
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
  using Columns = std::vector<std::size_t>;

  static constexpr int kFirstColumn = 6;

  enum Pair : short { kFault = 1, kChanged = 2 };

  static attr_t Colour(Pair pair) { return A_BOLD | (has_colors() ? static_cast<attr_t>(COLOR_PAIR(pair)) : 0); }

  static void Put(int y, int x, const std::string& text, attr_t attributes) {
    const int width = getmaxx(stdscr);
    if (y < 0 || y >= getmaxy(stdscr) || x >= width) return;
    attrset(static_cast<int>(attributes));
    mvaddnstr(y, x, text.c_str(), width - x);
    attrset(A_NORMAL);
  }

  /// @return the columns that are not hidden; on a narrow screen the ones that matter least give way
  Columns Fitting() const {
    auto hidden = hidden_;
    const auto width = [&hidden] {
      int sum = kFirstColumn;
      for (std::size_t i = 0; i < hidden.size(); ++i) sum += hidden[i] ? 0 : MonitorModel::kColumns[i].width + 1;
      return sum;
    };
    for (const std::size_t least : {3U, 2U, 4U, 1U, 6U}) {
      if (width() > getmaxx(stdscr)) hidden[least] = true;
    }
    Columns columns;
    for (std::size_t i = 0; i < hidden.size(); ++i) {
      if (!hidden[i]) columns.push_back(i);
    }
    return columns;
  }

  static void DrawTitles(int y, const Columns& columns) {
    int x = kFirstColumn;
    Put(y, 0, "joint", A_UNDERLINE);
    for (const std::size_t column : columns) {
      const MonitorModel::Column& shape = MonitorModel::kColumns[column];
      Put(y, x, fmt::format("{0:>{1}.{1}}", shape.title, shape.width), A_UNDERLINE);
      x += shape.width + 1;
    }
  }

  void DrawJoint(int y, std::size_t joint, const std::vector<MonitorModel::Cell>& row, const Columns& columns) const {
    const bool fault = std::any_of(row.begin(), row.end(), [](const MonitorModel::Cell& cell) { return cell.fault; });
    Put(y, 0, fmt::format("{}{}{}", joint == joint_ ? ">" : " ", joint, fault ? "!" : ""), fault ? Colour(kFault) : 0);
    int x = kFirstColumn;
    for (const std::size_t column : columns) {
      const MonitorModel::Cell& cell = row[column];
      const int width = MonitorModel::kColumns[column].width;
      Put(y, x, fmt::format("{0:>{1}.{1}}{2}", cell.text, width, cell.changed ? '*' : ' '),
          cell.fault ? Colour(kFault) : (cell.changed ? Colour(kChanged) : 0));
      x += width + 1;
    }
  }

  std::string title_;
  SCREEN* terminal_;
  std::array<bool, MonitorModel::kColumns.size()> hidden_{};
  std::size_t joint_ = 0;
  std::optional<MonitorModel> frozen_;
  std::int64_t frozen_at_ = 0;
  std::string link_line_;  ///< of the link; the newest while nothing is frozen
};

/// Where statuses come from: the controller's own link, or what passes between it and its host.
class Source : public RelayObserver {
 public:
  /// @param keep_trying  whether a link of our own that is lost is opened again, else it is a LinkError
  Source(const MonitorOptions& options, MonitorModel& model, bool keep_trying) : model_(model) {
    if (!options.via.empty()) {
      relay_.emplace(ParseLink(options.via), options.link, *this);
      return;
    }
    SessionOptions session;
    session.joints = options.joints;
    session.ask = options.poll;
    session.reconnect = keep_trying;
    session.back_off = session.back_off_limit = 1s;
    own_.emplace(options.link, session, this);
  }

  /// Where the host is to connect to; with --via only.
  const Link& Address() const { return relay_->Address(); }

  /// Waits until something came, at the latest until the deadline or until `wake` is readable, and gives it to the
  /// model.
  void Step(std::int64_t deadline_ns, int wake) {
    if (own_) return own_->Step(deadline_ns, wake);
    const std::int64_t left = std::max<std::int64_t>(deadline_ns - MonotonicNs(), 0);
    relay_->Step(static_cast<int>((left + kMs - 1) / kMs), {StopFd(), wake});
  }

  /// @return what is wrong now; empty when nothing is
  std::string Trouble() {
    if (own_) return own_->Trouble();
    if (!trouble_.empty()) return trouble_;
    return relay_->Connected() ? "" : "waiting for the host on " + ToString(relay_->Address());
  }

  /// Ends a link of our own, so that its counts are final.
  void Close() {
    if (own_) own_->Close();
  }

  /// @return the session's; none with --via
  std::optional<SessionStatistics> Statistics() {
    if (!own_) return std::nullopt;
    return own_->Arm().GetStatistics();
  }

 private:
  void Opened(Stamp /*at*/) override {
    model_.Restart();
    trouble_.clear();
  }
  void Passed(Direction direction, const char* bytes, std::size_t size, Stamp at) override {
    if (direction == Direction::kToHost) model_.Take({bytes, bytes + size}, static_cast<std::int64_t>(at.monotonic_ns));
  }
  void Closed(Stamp /*at*/) override {}
  void Failed(const std::string& why) override { trouble_ = why; }

  MonitorModel& model_;
  std::string trouble_;
  std::optional<OwnLink> own_;
  std::optional<Relay> relay_;
};

class Monitor {
 public:
  explicit Monitor(const MonitorOptions& options)
      : options_(options), model_(options.joints), documents_(options.joints) {
    if (options_.json) model_.OnStatus([this](const RecvPacket& status) { documents_.PushRecvBuffer(status); });
  }

  int Run() {
    const bool on_screen = !options_.json && isatty(STDOUT_FILENO) == 1 && isatty(STDIN_FILENO) == 1;
    source_.emplace(options_, model_, on_screen);
    if (!options_.via.empty() && !on_screen) {
      std::cerr << "listening on " << ToString(source_->Address()) << std::endl;
    }
    const std::int64_t start = MonotonicNs();
    end_ = options_.duration.count() > 0 ? start + options_.duration.count() : std::numeric_limits<std::int64_t>::max();
    std::string lost;
    try {
      if (on_screen) {
        RunScreen();
      } else {
        RunLines();
      }
    } catch (const LinkError& error) {
      if (!StopRequested()) lost = error.what();
    }
    const std::int64_t watched = MonotonicNs() - start;
    source_->Close();
    PrintSummary(watched);
    if (!lost.empty()) throw Failure(lost);
    return model_.HasStatus() || StopRequested() || left_ ? 0 : 1;
  }

 private:
  bool Done() const {
    return StopRequested() || MonotonicNs() >= end_ || (options_.count > 0 && model_.Statuses() >= options_.count);
  }

  void PrintSummary(std::int64_t watched_ns) {
    std::ostream& out = options_.json ? std::cerr : Out();
    out << fmt::format("watched for {:.1f} s: {}\n", static_cast<double>(watched_ns) / 1e9,
                       model_.Traffic(MonotonicNs()));
    if (const auto statistics = source_->Statistics()) {
      out << (options_.json ? ToJson(*statistics) : LinkLine(*statistics)) << '\n';
    }
    out << std::flush;
  }

  void RunLines() {
    std::int64_t next = MonotonicNs() + kSecond;
    while (!Done()) {
      source_->Step(std::min(next, end_), -1);
      PrintDocuments();
      if (options_.json || MonotonicNs() < next) continue;
      const std::string trouble = source_->Trouble();
      Out() << (trouble.empty() ? model_.Line(MonotonicNs()) : trouble) << std::endl;
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
    Screen screen("velta monitor  " + ToString(options_.link) + "  " +
                  Counted(static_cast<std::uint64_t>(options_.joints), "joint"));
    std::int64_t next_draw = 0;
    while (!Done() && !left_) {
      if (MonotonicNs() >= next_draw) {
        screen.Draw(model_, source_->Trouble(), source_->Statistics());
        next_draw = MonotonicNs() + 100 * kMs;
      }
      source_->Step(std::min(next_draw, end_), STDIN_FILENO);
      pollfd terminal{STDIN_FILENO, POLLIN, 0};
      const bool gone = poll(&terminal, 1, 0) > 0 && (terminal.revents & (POLLHUP | POLLERR)) != 0;
      left_ = gone || !screen.TakeKeys(model_);
    }
  }

  const MonitorOptions& options_;
  MonitorModel model_;
  MasterControllerClient documents_;  ///< never opened: it turns statuses into documents
  std::optional<Source> source_;
  std::int64_t end_ = 0;
  std::int64_t printed_ = 0;
  bool left_ = false;  ///< by the key, or with the terminal
};

}  // namespace

void AddMonitor(CLI::App& app, Action& action) {
  CLI::App& command = *app.add_subcommand("monitor", "Watch the joints live");
  const auto options = std::make_shared<MonitorOptions>();
  AddLinkArgument(command, options->link);
  AddJointsOption(command, options->joints);
  command
      .add_option("--via", options->via,
                  "Listen here for the host and pass everything on, instead of asking the controller")
      ->type_name("ENDPOINT");
  AddDurationOption(command, "--poll", options->poll, {0s, 60s},
                    "Silence after which an idle command asks for a status; 0 never asks");
  AddForOption(command, options->duration);
  command.add_option("-c,--count", options->count, "End after this many statuses")
      ->check(CLI::PositiveNumber)
      ->type_name("N")
      ->default_str("");
  AddJsonFlag(command, options->json, "Print each status as one JSON document in a line");
  command.footer(
      "On a terminal it draws a screen; its last line names the keys. Otherwise it prints a line per second.\n"
      "Examples:\n"
      "  velta monitor -n 6 tcp://192.168.0.10:5000\n"
      "  velta monitor -n 6 tcp://192.168.0.10:5000 --via tcp://0.0.0.0:5000   (and point the host here)");
  command.callback([options, &action] {
    action = [options] {
      InstallStopHandler();
      return Monitor(*options).Run();
    };
  });
}

}  // namespace velta::tools
