// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <poll.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "SendPacket.h"
#include "command.h"
#include "controller_end.h"
#include "counted.h"
#include "excerpt.h"
#include "frame_stream.h"
#include "host_end.h"
#include "output_file.h"
#include "stop.h"

namespace velta::tools {

namespace {

struct Options {
  Excerpt excerpt;
  std::string link;
  std::string serve;
  double speed = 1;
  bool loop = false;
};

/// The frames of one direction, each with the moment when it is due.
class Schedule {
 public:
  Schedule(const Options& options, Event direction)
      : timeline_(OpenExcerpt(options.excerpt)), direction_(direction), speed_(options.speed), loop_(options.loop) {
    Advance();
    if (!next_ && !StopRequested()) {
      throw Failure(options.excerpt.file + ": no good " + (direction == Event::kToController ? "command" : "status") +
                    " frame to play for " + Counted(static_cast<std::uint64_t>(Joints()), "joint"));
    }
  }

  int Joints() const { return timeline_.Joints(); }

  /// Begins with the first frame, which is due now.
  void Start(std::int64_t now_ns) {
    if (!next_ || !at_front_) {
      timeline_.Rewind();
      Advance();
    }
    if (!next_) return;  // stopped meanwhile
    frames_ = 0;
    start_ns_ = now_ns;
    first_ns_ = next_->since_start_ns;
    at_front_ = true;
  }

  /// When the next frame is due, by the monotonic clock; nothing when all are played.
  std::optional<std::int64_t> Due() const {
    if (!next_) return std::nullopt;
    const double after = static_cast<double>(next_->since_start_ns - first_ns_) / speed_;
    // A pause longer than a century is as good as for ever, and stays within the clock's range.
    return start_ns_ + static_cast<std::int64_t>(std::min(after, 3e18));
  }

  /// The next frame's bytes. From a looped recording the first frame follows the last at the mean distance of frames.
  std::vector<char> Take() {
    at_front_ = false;
    ++frames_;
    const SendPacket* const command = next_->Command();
    std::vector<char> frame = command != nullptr ? command->GetCharVector() : StatusFrame(*next_->Status());
    const std::int64_t due = *Due();
    Advance();
    if (!next_ && loop_) {
      const std::int64_t mean = frames_ > 1 ? (due - start_ns_) / static_cast<std::int64_t>(frames_ - 1) : 0;
      Start(due + std::max<std::int64_t>(mean, 1'000'000));  // never without a pause
    }
    return frame;
  }

  const Timeline& Recorded() const { return timeline_; }

 private:
  void Advance() {
    do next_ = timeline_.Next();
    while (next_ && (next_->event != direction_));
  }

  Timeline timeline_;
  Event direction_;
  double speed_;
  bool loop_;
  std::optional<Moment> next_;
  bool at_front_ = true;
  std::uint64_t frames_ = 0;  ///< played since the start, or since the loop came round
  std::uint64_t first_ns_ = 0;
  std::int64_t start_ns_ = 0;
};

/// Sends the recorded commands, and listens to what the controller says of them.
int SendCommands(const Options& options) {
  const Link link = ParseLink(options.link);
  Schedule schedule(options, Event::kToController);
  HostEnd host(link, 5000);
  StatusStream stream(schedule.Joints());
  Progress progress;
  std::uint64_t sent = 0, echoed = 0;
  std::uint64_t awaited = 0;  // time stamp of the command sent last, 0 once it is echoed
  std::vector<char> bytes;
  const auto listen = [&] {
    bytes.clear();
    host.Read(bytes);
    for (const RecvPacket& status : stream.Push(bytes.data(), bytes.size())) {
      if (awaited != 0 && awaited == status.header.hostTimestamp) {
        ++echoed;
        awaited = 0;
      }
    }
  };
  const auto finish = [&] {
    progress.Clear();
    ReportLostTail(schedule.Recorded());
    Out() << "sent " << Counted(sent, "command") << ", " << echoed << " echoed before the next, "
          << Counted(stream.Frames(), "status frame") << " received" << std::endl;
  };
  try {
    schedule.Start(MonotonicNs());
    while (!StopRequested()) {
      const std::optional<std::int64_t> due = schedule.Due();
      if (!due) break;
      if (MonotonicNs() < *due) {
        host.WaitReadable(*due);
        listen();
        continue;
      }
      const std::vector<char> frame = schedule.Take();
      host.Write(frame);
      ++sent;
      std::uint64_t stamp = 0;
      std::copy_n(frame.begin() + 2, sizeof stamp, reinterpret_cast<char*>(&stamp));
      awaited = stamp;
      listen();
      if (progress.IsDue()) progress.Show("sent " + Counted(sent, "command"));
    }
    // The last command's echo is on its way; a second is plenty, and a stop does not wait.
    const std::int64_t patience = MonotonicNs() + 1'000'000'000;
    while (awaited != 0 && !StopRequested() && MonotonicNs() < patience) {
      host.WaitReadable(patience);
      listen();
    }
  } catch (const LinkError& error) {
    finish();
    if (error.error == EINTR) return 0;
    throw;
  }
  finish();
  return 0;
}

/// Plays the controller: every host that comes gets the recorded status frames from the first one on.
class Replay {
 public:
  explicit Replay(const Options& options)
      : schedule_(options, Event::kToHost), commands_(schedule_.Joints()), end_(ParseLink(options.serve)) {
    Out() << "listening on " << ToString(end_.Address()) << std::endl;
  }

  int Run() {
    while (!StopRequested() && !done_) {
      if (host_) {
        Serve();
      } else {
        Wait();
      }
      if (progress_.IsDue()) progress_.Show("sent " + Counted(sent_, "status frame"));
    }
    progress_.Clear();
    ReportLostTail(schedule_.Recorded());
    Out() << "served " << Counted(hosts_, "host") << ": sent " << Counted(sent_, "status frame") << ", "
          << Counted(commands_.Frames(), "command") << " received" << std::endl;
    return 0;
  }

 private:
  void Wait() {
    if (!end_.HostIsThere()) {
      const int fd = end_.WaitDescriptor();
      WaitUntil(MonotonicNs() + (fd < 0 ? ControllerEnd::kPtyLook : 250) * std::int64_t{1'000'000}, fd);
      return;
    }
    try {
      host_.emplace(end_.Take());
    } catch (const LinkError&) {
      if (end_.Kind() == Link::Kind::kSerial) throw;
      return;  // gone before it was taken
    }
    ++hosts_;
    commands_.Restart();
    pending_.clear();
    Listen();  // on UDP, where the host is
    schedule_.Start(MonotonicNs());
  }

  void Serve() {
    const std::optional<std::int64_t> due = schedule_.Due();
    if (!due && pending_.empty()) return Finish();
    if (pending_.empty() && MonotonicNs() >= *due) pending_ = schedule_.Take();
    if (pending_.empty()) {
      WaitUntil(*due, host_->Descriptor());
    } else {
      const IoResult result = host_->Write(pending_.data(), pending_.size());
      if (result.io == Io::kBroken) return Leave();
      pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(result.size));
      if (pending_.empty()) ++sent_;
      if (!pending_.empty()) WaitUntil(MonotonicNs() + 250'000'000, host_->Descriptor(), POLLIN | POLLOUT);
    }
    Listen();
  }

  /// Closing at once would cost the host what it has not read yet.
  void Finish() {
    done_ = true;
    host_->EndWriting();
    const std::int64_t patience = MonotonicNs() + 200'000'000;
    while (host_ && !StopRequested() && MonotonicNs() < patience) {
      WaitUntil(patience, host_->Descriptor());
      Listen();
    }
    host_.reset();
  }

  void Listen() {
    std::array<char, kMaxChunk> buffer;
    const IoResult result = host_->Read(buffer.data(), buffer.size());
    if (result.io == Io::kEnded || result.io == Io::kBroken) return Leave();
    commands_.Push(buffer.data(), result.size);
  }

  void Leave() {
    host_.reset();
    end_.Release(false);
    done_ = !schedule_.Due() && pending_.empty();  // it has got everything
    if (!done_ && end_.Kind() == Link::Kind::kSerial) throw Failure(ToString(end_.Address()) + ": the line is gone");
  }

  Schedule schedule_;
  CommandStream commands_;
  ControllerEnd end_;
  std::optional<Channel> host_;
  std::vector<char> pending_;  ///< what the host did not take yet of a frame
  bool done_ = false;
  std::uint64_t hosts_ = 0, sent_ = 0;
  Progress progress_;
};

int Run(const Options& options) {
  if (options.link.empty() == options.serve.empty()) {
    throw UsageError("play needs either a LINK to send the commands to, or --serve ENDPOINT");
  }
  InstallStopHandler();
  return options.serve.empty() ? SendCommands(options) : Replay(options).Run();
}

}  // namespace

void AddPlay(CLI::App& app, Action& action) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command =
      app.add_subcommand("play", "Send a recording's commands again, or replay its status frames as a controller");
  AddExcerptOptions(*command, options->excerpt);
  command->add_option("LINK", options->link, "The controller to send the commands to: the arm moves as it did then")
      ->type_name("");
  command->add_option("--serve", options->serve, "Listen here for a host, and be the controller")
      ->type_name("ENDPOINT");
  command->add_option("--speed", options->speed, "How much faster than recorded, 0.001 to 1000")
      ->check(CLI::Range(0.001, 1000.0))
      ->type_name("X");
  command->add_flag("--loop", options->loop, "Begin again at the end, until stopped");
  command->footer(
      "Every good frame is sent as it was recorded, its time stamp included; bytes of no good frame are left out.\n"
      "Examples:\n"
      "  velta play run.vrec tcp://192.168.0.10:5000 --from 2s --to 5s\n"
      "  velta play run.vrec --serve tcp://127.0.0.1:5000 --loop");
  command->callback([options, &action] { action = [options] { return Run(*options); }; });
}

}  // namespace velta::tools
