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
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "counted.h"
#include "excerpt.h"
#include "fd.h"
#include "output_file.h"
#include "plot_data.h"
#include "stop.h"

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

/// @param take  called with every moment of the excerpt
template <typename Take>
void ReadAll(Timeline& timeline, Take take) {
  Progress progress;
  while (const std::optional<Moment> moment = timeline.Next()) {
    take(*moment);
    if (progress.IsDue()) progress.Show(fmt::format("read {} s", moment->since_start_ns / 1'000'000'000));
  }
  if (StopRequested()) throw Failure("stopped before the end of the recording");
}

PlotData Read(Timeline& timeline, const Options& options) {
  PlotData data(ReadFields(options.fields), ReadSelection(options.selection, timeline.Joints()), timeline.Joints());
  ReadAll(timeline, [&](const Moment& moment) { data.Measure(moment); });
  if (!data.HasStatus()) throw Failure(options.excerpt.file + ": no good status frame to plot");
  timeline.Rewind();
  ReadAll(timeline, [&](const Moment& moment) { data.Add(moment); });
  return data;
}

std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? "''" : std::string(1, static_cast<unsigned char>(c) < ' ' ? '?' : c);
  return quoted + "'";
}

/// A block of data of gnuplot's; one without a point has one outside the picture.
void AddBlock(std::string& script, const std::string& name, const std::string& data) {
  script += name + " << EOD\n" + (data.empty() ? "0 -9 \"\"\n" : data) + "EOD\n";
}

void AddBlock(std::string& script, const std::string& name, const std::vector<PlotPoint>& points) {
  std::string data;
  for (const PlotPoint& point : points) data += fmt::format("{} {}\n", point.time, point.value);
  AddBlock(script, name, data);
}

void AddData(std::string& script, const PlotData& data) {
  AddBlock(script, "$points", data.Events().Points());
  std::string texts;
  for (const PlotText& text : data.Events().Texts(data.From(), data.To())) {
    texts += fmt::format("{} {} \"{}\"\n", text.time, text.height, text.text);
  }
  AddBlock(script, "$texts", texts);
  for (std::size_t i = 0; i < data.Curves().size(); ++i) {
    AddBlock(script, fmt::format("$curve{}", i), data.Curves()[i].Points());
  }
}

/// @param field  index of a field
void AddPanel(std::string& script, const PlotData& data, std::size_t field) {
  script += fmt::format("set ylabel {}\n", Quoted(data.Fields()[field]->name));
  std::string curves;
  for (std::size_t j = 0; j < data.Joints().size(); ++j) {
    const std::size_t i = field * data.Joints().size() + j;
    if (data.Curves()[i].Points().empty()) continue;
    curves += fmt::format("{}$curve{} using 1:2 with lines lw 1.5 lt {} title 'joint {}'",
                          curves.empty() ? "plot " : ", ", i, j + 1, data.Joints()[j]);
  }
  // Without a finite number there is nothing to scale the axis by.
  script += curves.empty() ? "set yrange [-1:1]\nplot NaN notitle\nset yrange [*:*]\n" : curves + "\n";
}

/// @param terminal  "pngcairo" or "svg"
std::string Script(const PlotData& data, const std::string& terminal, const std::string& title) {
  const std::size_t panels = data.Fields().size() + 1;
  std::string script = fmt::format("set terminal {} noenhanced size {},{} background rgb 'white'\n", terminal, kWidth,
                                   kPanelHeight * panels);
  AddData(script, data);
  script += fmt::format(
      "set multiplot layout {},1 title {} noenhanced\nset grid\nset lmargin 14\nset rmargin 14\n"
      "set xrange [{}:{}]\nset key outside right center\n",
      panels, Quoted(title), data.From(), data.To());
  if (data.Joints().size() > 24) script += "unset key\n";
  for (std::size_t field = 0; field < data.Fields().size(); ++field) AddPanel(script, data, field);
  return script +
         "unset key\nset ylabel 'events'\nset xlabel 'seconds since the start of the recording'\n"
         "set yrange [-0.5:4.9]\nset ytics ('link' 0, 'command' 1, 'mode' 2, 'trajectory' 3, 'fault' 4)\n"
         "plot $points using 1:2 with points pt 7 ps 0.6 lc rgb '#c03030', "
         "$texts using 1:2:3 with labels left font ',8'\nunset multiplot\n";
}

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
  const PlotData data = Read(timeline, options);
  OutputFile file(output);
  Draw(Script(data, svg ? "svg" : "pngcairo", options.excerpt.file + "  " + timeline.RecordedLink()),
       file.WorkingPath());
  file.Commit();
  ReportLostTail(timeline);
  Out() << fmt::format("plotted {:.3f} s of {} to {}", data.To() - data.From(), Counted(data.Joints().size(), "joint"),
                       output)
        << std::endl;
  return 0;
}

}  // namespace

void AddPlot(CLI::App& app, Action& action) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command =
      app.add_subcommand("plot", "Draw a recording: positions, velocities and what happened (needs gnuplot)");
  AddExcerptOptions(*command, options->excerpt);
  command->add_option("-o,--output", options->output, "Picture to write, .png or .svg; without it FILE with .png")
      ->type_name("PICTURE");
  command->add_option("--fields", options->fields, "Fields of the joints, a panel each, separated by commas")
      ->type_name("NAMES");
  AddSelectOption(*command, options->selection, "Joints to draw");
  command->footer("Example:\n  velta plot run.vrec --from 2s --to 5s --select 0/2 -o run.svg");
  command->callback([options, &action] { action = [options] { return Run(*options); }; });
}

}  // namespace velta::tools
