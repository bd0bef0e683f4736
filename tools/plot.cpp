// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "command_words.h"
#include "excerpt.h"
#include "fd.h"
#include "fields.h"
#include "output_file.h"
#include "status_words.h"
#include "stop.h"
#include "timing.h"

namespace velta::tools {

namespace {

struct Options {
  Excerpt excerpt;
  std::string output;
  std::string selection = "all";
  std::string fields = "position,velocity";
};

constexpr int kWidth = 1400;
constexpr int kPanelHeight = 300;
constexpr std::size_t kBins = 2000;  ///< more than a picture has columns

/// A curve of any length in as many points as a picture can show: the least and the greatest value per bin of time, so
/// that no peak is lost.
class Curve {
 public:
  Curve() : bins_(kBins) {}

  void Add(std::size_t bin, double time, double value) {
    if (!std::isfinite(value)) return;
    Bin& b = bins_[bin];
    if (!b.used || value < b.least.second) b.least = {time, value};
    if (!b.used || value > b.greatest.second) b.greatest = {time, value};
    b.used = true;
    empty_ = false;
  }

  bool Empty() const { return empty_; }

  void AppendTo(std::string& script) const {
    for (const Bin& b : bins_) {
      if (!b.used) continue;
      const auto& [first, second] = std::minmax(b.least, b.greatest);
      script += fmt::format("{} {}\n", first.first, first.second);
      if (second != first) script += fmt::format("{} {}\n", second.first, second.second);
    }
  }

 private:
  struct Bin {
    std::pair<double, double> least, greatest;  ///< time, value
    bool used = false;
  };
  std::vector<Bin> bins_;
  bool empty_ = true;
};

/// The last panel: what happened, a row per kind, with words where there is room for them.
class Events {
 public:
  enum Kind { kLink, kCommand, kMode, kTrajectory, kFault, kKinds };

  explicit Events(int joints) : joints_(joints), before_(static_cast<std::size_t>(joints)) {
    for (const CommandWord& word : CommandWords()) {  // from the commands' own setters, so that no code is listed twice
      SendPacket packet(1);
      const std::array<float, 8> arguments{};
      word.apply(packet, "0", arguments.data());
      AddName(word.of_arm, word.of_arm ? packet.header.armOrder : packet.joints[0].order, word.name);
      if (word.of_arm || std::strchr(word.kinds, 'b') == nullptr) continue;
      const std::array<float, 8> flag{1, 1, 1, 1, 1, 1, 1, 1};
      word.apply(packet, "0", flag.data());
      AddName(false, packet.joints[0].order, word.name);
    }
  }

  void Take(const Moment& moment, std::size_t bin, double time) {
    if (const RecvPacket* const status = moment.Status()) {
      TakeStatus(*status, bin, time);
    } else if (const SendPacket* const command = moment.Command()) {
      TakeCommand(*command, bin, time);
    } else {
      Add(kLink, bin, time, moment.event == Event::kOpened ? "opened" : "closed");
    }
  }

  void AppendPoints(std::string& script) const {
    for (const Mark& event : events_) script += fmt::format("{} {}\n", event.time, static_cast<int>(event.kind));
  }

  /// A text stands above its point, or below where it would be written over its neighbour; what fits nowhere is left
  /// out.
  void AppendTexts(std::string& script, double from, double to) const {
    constexpr std::array<double, 2> kLanes{0.25, -0.3};
    constexpr double kLettersAcross = 190;
    std::array<std::array<double, kLanes.size()>, kKinds> free;
    for (auto& lanes : free) lanes.fill(from);
    for (const Mark& event : events_) {
      auto& lanes = free[static_cast<std::size_t>(event.kind)];
      const auto lane = std::find_if(lanes.begin(), lanes.end(), [&](double left) { return left <= event.time; });
      if (event.text.empty() || lane == lanes.end()) continue;
      const double height = static_cast<int>(event.kind) + kLanes[static_cast<std::size_t>(lane - lanes.begin())];
      script += fmt::format("{} {} \"{}\"\n", event.time, height, event.text);
      *lane = event.time + (to - from) * (static_cast<double>(event.text.size()) + 2) / kLettersAcross;
    }
  }

 private:
  struct Mark {
    Kind kind;
    double time;
    std::string text;
  };
  struct JointState {
    int mode = 0, control = 0, trajectory = 0;
    std::uint32_t fault = 0;
  };

  void AddName(bool of_arm, int code, const std::string& name) {
    std::string& known = names_[{of_arm, code}];
    if (known.empty() || name.size() < known.size()) known = name;  // the common name of a family is the shortest
  }

  std::string Name(bool of_arm, int code) const {
    const auto found = names_.find({of_arm, code});
    return found != names_.end() ? found->second : (of_arm ? "arm order " : "order ") + std::to_string(code);
  }

  /// Points that fall on one column of the picture are one point.
  void Add(Kind kind, std::size_t bin, double time, const std::string& text) {
    auto& last = last_bin_[static_cast<std::size_t>(kind)];
    if (last == bin && text.empty()) return;
    last = bin;
    events_.push_back({kind, time, text});
  }

  /// Joints that share a word are named together.
  using Words = std::map<std::string, std::vector<std::size_t>>;
  std::string Text(const Words& words) const {
    std::string text;
    for (const auto& [word, joints] : words) {
      text += (text.empty() ? "" : ", ") + word;
      if (joints.size() == static_cast<std::size_t>(joints_)) continue;
      for (std::size_t i = 0; i < joints.size() && i < 4; ++i)
        text += (i == 0 ? " j" : "/") + std::to_string(joints[i]);
      if (joints.size() > 4) text += "/..";
    }
    return text;
  }

  void TakeCommand(const SendPacket& command, std::size_t bin, double time) {
    Words words;
    if (command.header.armOrder != 0) words[Name(true, command.header.armOrder)] = {};
    for (std::size_t i = 0; i < command.joints.size(); ++i) {
      if (command.joints[i].order != 0) words[Name(false, command.joints[i].order)].push_back(i);
    }
    if (words.empty()) return;
    // Of a stream of like commands the first one is named.
    const std::string text = Text(words);
    Add(kCommand, bin, time, text == last_command_ ? "" : text);
    last_command_ = text;
  }

  void TakeStatus(const RecvPacket& status, std::size_t bin, double time) {
    Words modes, trajectories, faults;
    for (std::size_t i = 0; i < status.joints.size(); ++i) {
      const rxJoint_t& joint = status.joints[i];
      JointState& before = before_[i];
      const bool fault = HasFault(joint);
      const JointState now{joint.systemMode, joint.ctrlMode, joint.trjStatus, fault ? joint.ewStatus | 1u << 31 : 0u};
      if (!is_first_) {
        if (now.mode != before.mode) modes[SystemModeWord(joint.systemMode)].push_back(i);
        if (now.control != before.control) modes[ControlModeWord(joint.ctrlMode)].push_back(i);
        if (now.trajectory != before.trajectory) trajectories[TrajectoryWord(joint.trjStatus)].push_back(i);
      }
      if (now.fault != before.fault) faults[fault ? StatusWord(joint.ewStatus) : "cleared"].push_back(i);
      before = now;
    }
    is_first_ = false;
    if (!modes.empty()) Add(kMode, bin, time, Text(modes));
    if (!trajectories.empty()) Add(kTrajectory, bin, time, Text(trajectories));
    if (!faults.empty()) Add(kFault, bin, time, Text(faults));
  }

  int joints_;
  std::map<std::pair<bool, int>, std::string> names_;
  std::vector<JointState> before_;
  bool is_first_ = true;
  std::string last_command_;
  std::array<std::optional<std::size_t>, kKinds> last_bin_;
  std::vector<Mark> events_;
};

class Plot {
 public:
  Plot(const Options& options, Timeline& timeline) : joints_(ReadSelection(options.selection, timeline.Joints())) {
    for (const std::string& name : CLI::detail::split(options.fields, ',')) fields_.push_back(Field(name));
    curves_.resize(fields_.size() * joints_.size());
    Events events(timeline.Joints());

    // The first reading finds the time that the picture spans.
    bool any_status = false;
    const std::size_t statuses = ReadAll(timeline, [&](const Moment& moment, double time) {
      if (!any_status && from_ > time) from_ = time;
      to_ = std::max(to_, time);
      from_ = std::min(from_, time);
      any_status = any_status || moment.Status() != nullptr;
    });
    if (statuses == 0) throw Failure(options.excerpt.file + ": no good status frame to plot");
    if (to_ <= from_) to_ = from_ + 1e-3;
    timeline.Rewind();
    ReadAll(timeline, [&](const Moment& moment, double time) {
      const auto bin = static_cast<std::size_t>((time - from_) / (to_ - from_) * (kBins - 1));
      events.Take(moment, bin, time);
      if (const RecvPacket* const status = moment.Status()) AddStatus(*status, bin, time);
    });
    events.AppendPoints(points_);
    events.AppendTexts(texts_, from_, to_);
  }

  /// @param terminal  "pngcairo" or "svg"
  std::string Script(const std::string& terminal, const std::string& title) const {
    const std::size_t panels = fields_.size() + 1;
    std::string script = fmt::format("set terminal {} noenhanced size {},{} background rgb 'white'\n", terminal, kWidth,
                                     kPanelHeight * panels);
    Block(script, "$points", points_);
    Block(script, "$texts", texts_);
    for (std::size_t i = 0; i < curves_.size(); ++i) {
      std::string data;
      curves_[i].AppendTo(data);
      Block(script, fmt::format("$curve{}", i), data);
    }
    script += fmt::format(
        "set multiplot layout {},1 title {} noenhanced\nset grid\nset lmargin 14\nset rmargin 14\n"
        "set xrange [{}:{}]\nset key outside right center\n",
        panels, Quoted(title), from_, to_);
    if (joints_.size() > 24) script += "unset key\n";
    for (std::size_t f = 0; f < fields_.size(); ++f) {
      script += fmt::format("set ylabel {}\n", Quoted(fields_[f]->name));
      std::string curves;
      for (std::size_t j = 0; j < joints_.size(); ++j) {
        const std::size_t i = f * joints_.size() + j;
        if (curves_[i].Empty()) continue;
        curves += fmt::format("{}$curve{} using 1:2 with lines lw 1.5 lt {} title 'joint {}'",
                              curves.empty() ? "plot " : ", ", i, j + 1, joints_[j]);
      }
      // Without a finite number there is nothing to scale the axis by.
      script += curves.empty() ? "set yrange [-1:1]\nplot NaN notitle\nset yrange [*:*]\n" : curves + "\n";
    }
    return script +
           "unset key\nset ylabel 'events'\nset xlabel 'seconds since the start of the recording'\n"
           "set yrange [-0.5:4.9]\nset ytics ('link' 0, 'command' 1, 'mode' 2, 'trajectory' 3, 'fault' 4)\n"
           "plot $points using 1:2 with points pt 7 ps 0.6 lc rgb '#c03030', "
           "$texts using 1:2:3 with labels left font ',8'\nunset multiplot\n";
  }

  std::string Summary() const {
    return fmt::format("{:.3f}", to_ - from_) + " s of " + std::to_string(joints_.size()) +
           (joints_.size() == 1 ? " joint" : " joints");
  }

 private:
  static const JointField* Field(const std::string& name) {
    for (const JointField& field : JointFields()) {
      if (field.name == name) return &field;
    }
    throw UsageError("--fields: a status has no field '" + name + "'");
  }

  /// @return status frames read
  template <typename Take>
  static std::size_t ReadAll(Timeline& timeline, Take take) {
    std::size_t statuses = 0;
    Progress progress;
    while (const std::optional<Moment> moment = timeline.Next()) {
      if (moment->Status() != nullptr) ++statuses;
      take(*moment, static_cast<double>(moment->since_start_ns) / 1e9);
      if (progress.IsDue()) progress.Show(fmt::format("read {} s", moment->since_start_ns / 1'000'000'000));
    }
    if (StopRequested()) throw Failure("stopped before the end of the recording");
    return statuses;
  }

  void AddStatus(const RecvPacket& status, std::size_t bin, double time) {
    for (std::size_t f = 0; f < fields_.size(); ++f) {
      for (std::size_t j = 0; j < joints_.size(); ++j) {
        const rxJoint_t& joint = status.joints[static_cast<std::size_t>(joints_[j])];
        curves_[f * joints_.size() + j].Add(bin, time, fields_[f]->value(joint));
      }
    }
  }

  static void Block(std::string& script, const std::string& name, const std::string& data) {
    script += name + " << EOD\n" + (data.empty() ? "0 -9 \"\"\n" : data) + "EOD\n";
  }

  static std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text)
      quoted += c == '\'' ? "''" : std::string(1, static_cast<unsigned char>(c) < ' ' ? '?' : c);
    return quoted + "'";
  }

  std::vector<int> joints_;
  std::vector<const JointField*> fields_;
  std::vector<Curve> curves_;  ///< a field's joints, then the next field's
  std::string points_, texts_;
  double from_ = std::numeric_limits<double>::infinity();
  double to_ = 0;
};

Fd MemoryFile(const std::string& content) {
  Fd file(memfd_create("velta", MFD_CLOEXEC));
  std::size_t written = 0;
  while (written < content.size()) {
    const ssize_t count = write(file.Get(), content.data() + written, content.size() - written);
    if (count <= 0) throw Failure(std::string("no memory for the plot: ") + std::strerror(errno));
    written += static_cast<std::size_t>(count);
  }
  lseek(file.Get(), 0, SEEK_SET);
  return file;
}

/// Waits for the program; a stop ends it.
int WaitFor(pid_t pid) {
  int state = 0;
  while (waitpid(pid, &state, WNOHANG) == 0) {
    if (StopRequested()) {
      kill(pid, SIGKILL);
      waitpid(pid, &state, 0);
      throw Failure("stopped before the plot was drawn");
    }
    pollfd stop{StopFd(), POLLIN, 0};
    poll(&stop, 1, 10);
  }
  return state;
}

void Draw(const std::string& script, const std::string& path) {
  const Fd in = MemoryFile(script);
  const Fd errors = MemoryFile("");
  const Fd out(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (out.Get() < 0) throw Failure(path + ": " + std::strerror(errno));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.Get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.Get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errors.Get(), STDERR_FILENO);
  std::string program = "gnuplot", defaults = "--default-settings";  // no settings of the user's may change the picture
  std::array<char*, 3> arguments{program.data(), defaults.data(), nullptr};
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, "gnuplot", &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw Failure(error == ENOENT ? "gnuplot is not installed; its Debian package is gnuplot-nox"
                                  : std::string("gnuplot: ") + std::strerror(error));
  }
  const int state = WaitFor(pid);
  if (WIFEXITED(state) && WEXITSTATUS(state) == 0) return;
  std::array<char, 4096> text{};
  const ssize_t size = pread(errors.Get(), text.data(), text.size(), 0);
  std::string complaint(text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  std::replace(complaint.begin(), complaint.end(), '\n', ' ');
  throw Failure(path + ": gnuplot failed: " + (complaint.empty() ? "no reason given" : complaint));
}

int Run(Options options) {
  InstallStopHandler();
  if (options.output.empty()) {
    const std::size_t dot = options.excerpt.file.rfind('.');
    const std::size_t slash = options.excerpt.file.rfind('/');
    const bool has_suffix = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
    options.output.assign(options.excerpt.file, 0, has_suffix ? dot : std::string::npos);
    options.output += ".png";
  }
  const std::string& output = options.output;
  const auto ends_with = [&output](const std::string& suffix) {
    return output.size() > suffix.size() && output.compare(output.size() - suffix.size(), suffix.size(), suffix) == 0;
  };
  const bool svg = ends_with(".svg");
  if (!svg && !ends_with(".png")) throw UsageError(output + ": a plot is a .png or a .svg");
  Timeline timeline = OpenExcerpt(options.excerpt);
  const Plot plot(options, timeline);
  OutputFile file(output);
  Draw(plot.Script(svg ? "svg" : "pngcairo", options.excerpt.file + "  " + timeline.RecordedLink()),
       file.WorkingPath());
  file.Commit();
  ReportLostTail(timeline);
  Out() << "plotted " << plot.Summary() << " to " << output << std::endl;
  return 0;
}

}  // namespace

void AddPlot(CLI::App& app, Action& action) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command =
      app.add_subcommand("plot", "Draw a recording: positions, velocities and what happened (needs gnuplot)");
  AddExcerptOptions(*command, options->excerpt);
  command->add_option("-o,--output", options->output, "The picture, a .png or .svg file; else FILE with .png")
      ->type_name("PICTURE");
  command->add_option("--fields", options->fields, "Fields of the joints, a panel each, separated by commas")
      ->type_name("NAMES");
  AddSelectOption(*command, options->selection, "Joints to draw");
  command->footer("Example:\n  velta plot run.vrec --from 2s --to 5s --select 0/2 -o run.svg");
  command->callback([options, &action] { action = [options] { return Run(*options); }; });
}

}  // namespace velta::tools
