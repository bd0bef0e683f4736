// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command.h"
#include "counted.h"
#include "frame_stream.h"
#include "output_file.h"
#include "own_link.h"
#include "recording_file.h"
#include "relay.h"
#include "stop.h"

namespace velta::tools {

namespace {

using recording::Event;
using namespace std::chrono_literals;

struct Options {
  Link link;
  int joints = 0;
  std::string file;
  std::string via;
  std::chrono::nanoseconds duration{0};
  std::chrono::nanoseconds poll = 100ms;
  bool replace = false;
};

/// Takes what passes into the file, and counts it for the summary.
class Recorder : public RelayObserver {
 public:
  explicit Recorder(const Options& options) : options_(options), commands_(options.joints), statuses_(options.joints) {}

  /// Makes the file. Called when the link stands, so that none is left of a failed start.
  void MakeFile() {
    file_.emplace(options_.file, recording::RecordingHeader{options_.joints, ToString(options_.link)},
                  options_.replace);
    start_ns_ = MonotonicNs();
  }

  void Opened(Stamp at) override {
    if (!Write(Event::kOpened, at)) return;
    ++connections_;
    commands_.Restart();
    statuses_.Restart();
  }
  void Passed(Direction direction, const char* bytes, std::size_t size, Stamp at) override {
    if (direction == Direction::kToController) {
      if (Write(Event::kToController, at, bytes, size)) commands_.Push(bytes, size);
    } else if (Write(Event::kToHost, at, bytes, size)) {
      statuses_.Push(bytes, size);
    }
  }
  void Closed(Stamp at) override { Write(Event::kClosed, at); }
  void Failed(const std::string& why) override { std::cerr << "velta: " << why << std::endl; }

  bool HasFailed() const { return !failure_.empty(); }

  void ShowProgress() {
    if (progress_.IsDue()) progress_.Show(Counts());
  }

  /// @return the exit status
  int Finish() {
    progress_.Clear();
    Out() << "recorded " << Counts() << " in " << options_.file << std::endl;
    if (HasFailed()) return 1;
    if (statuses_.Frames() == 0 && statuses_.Bytes() != 0) {
      std::cerr << "velta: bytes came, but no good status frame; is the number of joints right? velta doctor finds out"
                << std::endl;
    }
    file_->Sync();
    return 0;
  }

 private:
  /// A file that cannot take more ends the recording, never the traffic: a relay goes on.
  bool Write(Event event, Stamp at, const char* bytes = nullptr, std::size_t size = 0) {
    if (HasFailed()) return false;
    try {
      file_->Write(event, at.monotonic_ns, at.wall_ns, bytes, size);
    } catch (const recording::RecordingError& error) {
      failure_ = error.what();
      progress_.Clear();
      std::cerr << "velta: " << failure_ << "; the recording ends here" << std::endl;
      return false;
    }
    return true;
  }

  std::string Counts() const {
    return fmt::format("{:.1f} s: {}, {}, {}, {}", static_cast<double>(MonotonicNs() - start_ns_) / 1e9,
                       Counted(statuses_.Frames(), "status frame"), Counted(commands_.Frames(), "command"),
                       Counted(connections_, "connection"), Counted(file_->Size(), "byte"));
  }

  const Options& options_;
  std::optional<recording::RecordingWriter> file_;
  std::string failure_;
  CommandStream commands_;
  StatusStream statuses_;
  std::uint64_t connections_ = 0;
  std::int64_t start_ns_ = MonotonicNs();
  Progress progress_;
};

std::int64_t EndOf(const Options& options) {
  if (options.duration.count() == 0) return std::numeric_limits<std::int64_t>::max();
  return MonotonicNs() + options.duration.count();
}

int RecordBetween(const Options& options) {
  Recorder recorder(options);
  std::optional<Relay> relay(std::in_place, ParseLink(options.via), options.link, recorder);
  recorder.MakeFile();
  Out() << "listening on " << ToString(relay->Address()) << std::endl;
  const std::int64_t end = EndOf(options);
  while (!StopRequested()) {
    const std::int64_t left = end - MonotonicNs();
    if (left <= 0) break;
    relay->Step(static_cast<int>(std::min<std::int64_t>(left / 1'000'000 + 1, 250)), {StopFd()});
    recorder.ShowProgress();
  }
  relay.reset();
  return recorder.Finish();
}

/// As the controller's host itself.
int RecordOwnLink(const Options& options) {
  Recorder recorder(options);
  SessionOptions session;
  session.joints = options.joints;
  session.reconnect = false;
  session.ask = options.poll;
  OwnLink link(options.link, session, &recorder);
  recorder.MakeFile();
  const std::int64_t end = EndOf(options);
  try {
    while (!StopRequested() && !recorder.HasFailed() && MonotonicNs() < end) {
      link.Step(std::min(end, MonotonicNs() + 250'000'000));
      recorder.ShowProgress();
    }
    link.Close();
  } catch (const LinkError&) {
    recorder.Finish();
    throw;
  }
  return recorder.Finish();
}

}  // namespace

void AddRecord(CLI::App& app, Action& action) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = *app.add_subcommand("record", "Write down every byte that passes on a link, with its time");
  AddLinkArgument(command, options->link, Arguments::kOthersToo);
  command.add_option("FILE", options->file, "The recording to make")->required()->type_name("");
  AddJointsOption(command, options->joints);
  command
      .add_option("--via", options->via,
                  "Listen here for the host and pass everything on to LINK and back, unchanged; without it the tool is "
                  "the controller's host itself")
      ->type_name("ENDPOINT");
  AddDurationOption(command, "--for", options->duration, {1ms, 24h * 365}, "End after this time");
  AddDurationOption(command, "--poll", options->poll, {0s, 1h},
                    "Silence after which an idle command asks for a status; 0 never asks (not with --via)");
  command.add_flag("--force", options->replace, "Replace a file of that name");
  command.footer(
      "Examples:\n"
      "  velta record -n 6 tcp://192.168.0.10:5000 run.vrec --for 10s\n"
      "  velta record -n 6 tcp://192.168.0.10:5000 run.vrec --via tcp://127.0.0.1:5000");
  command.callback([options, &action] {
    action = [options] {
      InstallStopHandler();
      return options->via.empty() ? RecordOwnLink(*options) : RecordBetween(*options);
    };
  });
}

}  // namespace velta::tools
