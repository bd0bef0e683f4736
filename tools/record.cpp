// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PacketParser.h"
#include "SendPacket.h"
#include "command.h"
#include "frames.h"
#include "link.h"
#include "output_file.h"
#include "recording.h"
#include "relay.h"
#include "stop.h"
#include "timing.h"
#include "wire.h"

namespace velta::tools {

namespace {

struct Options {
  Link link;
  int joints = 0;
  std::string file;
  std::string via;
  double seconds = 0;
  int poll_ms = 100;
  bool replace = false;
};

/// Takes what passes into the file, and counts it for the summary.
class Recorder {
 public:
  explicit Recorder(const Options& options)
      : file_(options.file, {options.joints, ToString(options.link)}, options.replace),
        path_(options.file),
        commands_(options.joints),
        statuses_(options.joints) {}

  /// A file that cannot take more ends the recording, never the traffic: a relay goes on.
  void Take(const Passage& passage) {
    if (!failure_.empty()) return;
    try {
      file_.Write(passage);
    } catch (const Failure& failure) {
      failure_ = failure.what();
      progress_.Clear();
      std::cerr << "velta: " << failure_ << "; the recording ends here" << std::endl;
      return;
    }
    switch (passage.event) {
      case LinkEvent::kToController:
        command_count_ += commands_.Push(passage.bytes, passage.size).size();
        break;
      case LinkEvent::kToHost:
        status_bytes_ += passage.size;
        statuses_.Push({passage.bytes, passage.bytes + passage.size});
        status_count_ += statuses_.Parse().size();
        break;
      case LinkEvent::kOpened:
        ++connections_;
        commands_.Reset();
        statuses_.buffer.clear();
        break;
      case LinkEvent::kClosed:
        break;
    }
  }

  bool Failed() const { return !failure_.empty(); }

  void ShowProgress() {
    if (progress_.IsDue()) progress_.Show(Counts());
  }

  /// @return the exit status
  int Finish() {
    progress_.Clear();
    Out() << "recorded " << Counts() << " in " << path_ << std::endl;
    if (Failed()) return 1;
    if (status_count_ == 0 && status_bytes_ != 0) {
      std::cerr << "velta: bytes came, but no good status frame; is the number of joints right? velta doctor finds out"
                << std::endl;
    }
    file_.Sync();
    return 0;
  }

 private:
  std::string Counts() const {
    const auto count = [](std::uint64_t n, const std::string& what) {
      return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
    };
    return Seconds() + " s: " + count(status_count_, "status frame") + ", " + count(command_count_, "command") + ", " +
           count(connections_, "connection") + ", " + count(file_.Size(), "byte");
  }
  std::string Seconds() const { return fmt::format("{:.1f}", static_cast<double>(MonotonicNs() - start_ns_) / 1e9); }

  RecordingWriter file_;
  std::string path_;
  std::string failure_;
  sim::CommandFramer commands_;
  PacketParser statuses_;
  std::uint64_t command_count_ = 0, status_count_ = 0, status_bytes_ = 0, connections_ = 0;
  std::int64_t start_ns_ = MonotonicNs();
  Progress progress_;
};

std::int64_t EndOf(const Options& options) {
  if (options.seconds <= 0) return std::numeric_limits<std::int64_t>::max();
  return MonotonicNs() + static_cast<std::int64_t>(options.seconds * 1e9);
}

int RecordBetween(const Options& options) {
  std::optional<Recorder> recorder;  // made when the endpoint stands, so that no file is left of a failed start
  std::optional<Relay> relay;
  relay.emplace(ParseLink(options.via), options.link,
                Relay::Observer{[&recorder](const Passage& passage) { recorder->Take(passage); },
                                [](const std::string& why) { std::cerr << "velta: " << why << std::endl; }});
  recorder.emplace(options);
  Out() << "listening on " << ToString(relay->Address()) << std::endl;
  const std::int64_t end = EndOf(options);
  while (!StopRequested()) {
    const std::int64_t left = end - MonotonicNs();
    if (left <= 0) break;
    relay->Step(static_cast<int>(std::min<std::int64_t>(left / 1'000'000 + 1, 250)), {StopFd()});
    recorder->ShowProgress();
  }
  relay.reset();
  return recorder->Finish();
}

void Follow(const Options& options, Wire& wire, Recorder& recorder) {
  const std::int64_t end = EndOf(options);
  const std::int64_t silence = std::int64_t{options.poll_ms} * 1'000'000;
  std::int64_t ask_at = options.poll_ms > 0 ? MonotonicNs() + silence : end;
  std::vector<char> bytes;
  while (!StopRequested() && !recorder.Failed() && MonotonicNs() < end) {
    wire.WaitReadable(std::min({ask_at, end, MonotonicNs() + 250'000'000}));
    bytes.clear();
    wire.Read(bytes);
    for (std::size_t from = 0; from < bytes.size(); from += kMaxChunk) {
      recorder.Take(StampedNow(LinkEvent::kToHost, bytes.data() + from, std::min(kMaxChunk, bytes.size() - from)));
    }
    if (options.poll_ms > 0 && !bytes.empty()) ask_at = MonotonicNs() + silence;
    if (options.poll_ms > 0 && MonotonicNs() >= ask_at) {
      const std::vector<char> question = SendPacket(options.joints).GetCharVector();
      wire.Write(question);
      recorder.Take(StampedNow(LinkEvent::kToController, question.data(), question.size()));
      ask_at = MonotonicNs() + silence;
    }
    recorder.ShowProgress();
  }
}

int RecordAlone(const Options& options) {
  Wire wire(options.link);
  Recorder recorder(options);
  recorder.Take(StampedNow(LinkEvent::kOpened));
  try {
    Follow(options, wire, recorder);
  } catch (const LinkError& error) {
    recorder.Take(StampedNow(LinkEvent::kClosed));
    const int status = recorder.Finish();
    if (error.error == EINTR) return status;
    throw;
  }
  recorder.Take(StampedNow(LinkEvent::kClosed));
  return recorder.Finish();
}

}  // namespace

void AddRecord(CLI::App& app, Action& action) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("record", "Write down every byte that passes on a link, with its time");
  AddLinkArgument(*command, options->link);
  command->add_option("FILE", options->file, "The recording to make")->required()->option_text(" ");
  AddJointsOption(*command, options->joints);
  command
      ->add_option("--via", options->via,
                   "Listen here for the host and pass everything on to LINK and back, unchanged; without it the tool "
                   "is the controller's host itself")
      ->option_text("ENDPOINT");
  command->add_option("--seconds", options->seconds, "End after this time")
      ->check(CLI::Range(0.001, 1e9))
      ->option_text("S");
  command
      ->add_option("--poll-ms", options->poll_ms,
                   "Silence after which an idle command asks for a status; 0 never asks (not with --via)")
      ->check(CLI::Range(0, 3'600'000))
      ->option_text("MS [100]");
  command->add_flag("--force", options->replace, "Replace a file of that name");
  command->footer(
      "Examples:\n"
      "  velta record -n 6 tcp://192.168.0.10:5000 run.vrec --seconds 10\n"
      "  velta record -n 6 tcp://192.168.0.10:5000 run.vrec --via tcp://127.0.0.1:5000");
  command->callback([options, &action] {
    action = [options] {
      InstallStopHandler();
      return options->via.empty() ? RecordAlone(*options) : RecordBetween(*options);
    };
  });
}

}  // namespace velta::tools
