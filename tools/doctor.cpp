// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <grp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "PacketParser.h"
#include "SendPacket.h"
#include "command.h"
#include "diagnosis.h"
#include "host_end.h"
#include "link.h"
#include "record_bytes.h"
#include "report.h"
#include "status_words.h"
#include "stop.h"
#include "timing.h"

namespace velta::tools {

namespace {

constexpr int kMostJoints = 64;  // joint counts that are tried when the given one does not fit

struct DoctorOptions {
  std::string link;
  int joints = 0;
  double connect_s = 5;
  std::string report;
  std::chrono::nanoseconds recorded = std::chrono::seconds(10);
};

/// Stops the examination: what follows would not tell more.
struct Hopeless {};

std::int64_t Ms(int ms) { return std::int64_t{ms} * 1'000'000; }

/// @return the first IPv4 address of a host name; empty when there is none. A slow resolver is left behind.
std::string Resolve(const std::string& name) {
  auto task = std::make_shared<std::packaged_task<std::string()>>([name] {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* found = nullptr;
    if (getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0) return std::string();
    sockaddr_in address{};
    std::copy_n(reinterpret_cast<const char*>(found->ai_addr), sizeof address, reinterpret_cast<char*>(&address));
    freeaddrinfo(found);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return std::string(text);
  });
  std::future<std::string> answer = task->get_future();
  std::thread([task] { (*task)(); }).detach();
  const std::int64_t deadline = MonotonicNs() + Ms(5000);
  while (MonotonicNs() < deadline && !StopRequested()) {
    if (answer.wait_for(std::chrono::milliseconds(20)) == std::future_status::ready) return answer.get();
  }
  return {};
}

std::string GroupOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return "dialout";
  const group* entry = getgrgid(info.st_gid);
  return entry != nullptr ? entry->gr_name : std::to_string(info.st_gid);
}

class Doctor {
 public:
  explicit Doctor(const DoctorOptions& options) : options_(options), parser_(options.joints) {}

  /// @return 0 when nothing failed
  int Run() {
    InstallStopHandler();
    if (!options_.report.empty()) ListReport();
    try {
      ReadLink();
      if (link_.kind == Link::Kind::kSerial) ExamineDevice();
      wire_ = Open();
      try {
        Exchange(*wire_);
      } catch (const LinkError& error) {
        wire_.reset();
        if (!StopRequested()) ExplainLoss(error);
      }
      if (StopRequested()) throw Hopeless();
      JudgeStream();
      JudgeEcho();
      JudgeClock();
      JudgeJoints();
    } catch (const Hopeless&) {
    }
    if (StopRequested()) {
      Say("interrupted: the examination is not complete");
      return 1;
    }
    Say(failures_ > 1   ? "verdict: begin with the first failure"
        : failures_ > 0 ? "verdict: this keeps the link from working"
        : warnings_ > 0 ? "verdict: the link works; mind the warnings"
                        : "verdict: healthy");
    if (!options_.report.empty()) MakeReport();
    return failures_ > 0 ? 1 : 0;
  }

 private:
  void Say(const std::string& line) {
    Out() << line << std::endl;
    said_ += line + '\n';
  }

  void Good(const std::string& text) { Say("[ ok ] " + text); }

  void Warn(const std::string& text) {
    ++warnings_;
    Say("[warn] " + text);
  }

  void Bad(const std::string& text) {
    ++failures_;
    Say("[FAIL] " + text);
  }

  [[noreturn]] void GiveUp(const std::string& text) {
    Bad(text);
    throw Hopeless();
  }

  /// Reads the link; a host name, which the library does not take, is looked up first.
  void ReadLink() {
    std::string text = options_.link;
    const std::size_t from = text.find("://") + 3;
    const std::size_t colon = text.rfind(':');
    if ((text.rfind("tcp://", 0) != 0 && text.rfind("udp://", 0) != 0) || colon <= from) {
      link_ = ParseLink(text);
      return;
    }
    const std::string host = text.substr(from, colon - from);
    in_addr address{};
    if (inet_pton(AF_INET, host.c_str(), &address) != 1) {
      static_cast<void>(ParseLink(text.replace(from, host.size(), "0.0.0.0")));  // refuses what else is wrong
      const std::string resolved = Resolve(host);
      if (StopRequested()) throw Hopeless();
      if (resolved.empty())
        GiveUp("cannot resolve '" + host + "': check the name, or give the controller's IPv4 address");
      Warn("'" + host + "' is a name, which the library does not resolve: use " + resolved + " in your program");
      text = options_.link;
      text.replace(from, host.size(), resolved);
    }
    link_ = ParseLink(text);
  }

  void ExamineDevice() {
    const std::string& device = link_.device;
    std::error_code error;
    if (!std::filesystem::exists(device, error)) {
      GiveUp(device + " does not exist: plug the adapter in, and look for its name with ls /dev/tty*");
    }
    if (access(device.c_str(), R_OK | W_OK) != 0) {
      GiveUp("no permission on " + device + ": join its group with sudo usermod -aG " + GroupOf(device) +
             " $USER, and log in again");
    }
    Good(device + " can be read and written");
    holders_ = HoldersOf("/proc", device);
    if (!holders_.empty()) {
      std::string names;
      for (const std::string& holder : holders_) names.append(names.empty() ? "" : ", ").append(holder);
      Warn("another process holds " + device + ": " + names + "; two readers share the bytes, stop one of them");
    }
    const std::optional<int> latency = LatencyTimerMs("/sys", device);
    if (!latency) return;
    const std::string timer = "the USB latency timer is " + std::to_string(*latency) + " ms";
    if (*latency <= 1) {
      Good(timer);
    } else {
      Warn(timer + ", so every status may wait that long: write 1 to /sys/bus/usb-serial/devices/" +
           std::filesystem::path(device).filename().string() + "/latency_timer");
    }
  }

  std::unique_ptr<HostEnd> Open() {
    try {
      auto wire = std::make_unique<HostEnd>(link_, static_cast<int>(options_.connect_s * 1000));
      if (link_.kind == Link::Kind::kUdp) {
        Good("socket ready for " + ToString(link_));  // nothing was sent yet
      } else {
        Good("opened " + ToString(link_));
      }
      return wire;
    } catch (const LinkError& error) {
      if (StopRequested()) throw Hopeless();
      ExplainOpening(error);
      throw Hopeless();
    }
  }

  void ExplainOpening(const LinkError& error) {
    switch (error.error) {
      case ECONNREFUSED:
        return Bad(ToString(link_) + " refuses: the machine is there, but nothing listens on port " +
                   std::to_string(link_.port) + "; start the controller, or check the port");
      case ETIMEDOUT:
      case EHOSTUNREACH:
      case ENETUNREACH:
      case EHOSTDOWN:
        return Bad("cannot reach " + link_.host + ": check power, cable, address, netmask and firewall");
      case EBUSY:
        return Bad(link_.device + " is busy: another process opened it for itself alone");
      case EINVAL:
        return Bad(link_.device + " cannot be set to " + std::to_string(link_.baud) + " baud: try a standard rate");
      default:
        return Bad(error.what());
    }
  }

  void ExplainLoss(const LinkError& error) {
    if (link_.kind == Link::Kind::kUdp && error.error == ECONNREFUSED) {
      GiveUp(ToString(link_) + " refuses: the machine is there, but nothing listens on that UDP port");
    }
    if (error.error == ECONNABORTED || error.error == ECONNRESET || error.error == EPIPE) {
      Bad("the controller closed the link: it may serve another host already, or have restarted");
    } else if (error.error == ETIMEDOUT) {
      Bad("the controller takes no more bytes: it is stuck, or is no such controller");
    } else {
      Bad(error.what());
    }
    if (bytes_.empty()) throw Hopeless();
  }

  /// Listens, then asks, with commands that command nothing, and waits for the echo of the last.
  void Exchange(HostEnd& wire) {
    Receive(wire, MonotonicNs() + Ms(300));
    for (int i = 0; i < kCommands && !StopRequested(); ++i) {
      SendPacket packet(options_.joints);
      const std::uint64_t last = commands_.empty() ? 0 : commands_.rbegin()->first;
      packet.SetTimeStamp(std::max<std::uint64_t>(packet.GetTimeStamp(), last + 1));
      commands_[packet.GetTimeStamp()] = {MonotonicNs(), kNoEcho};
      wire.Write(packet.GetCharVector());
      Receive(wire, MonotonicNs() + Ms(40));
    }
    const std::int64_t deadline = MonotonicNs() + Ms(500);
    while (!StopRequested() && commands_.rbegin()->second.delay == kNoEcho && MonotonicNs() < deadline) {
      Receive(wire, std::min(deadline, MonotonicNs() + Ms(40)));
    }
  }

  void Receive(HostEnd& wire, std::int64_t deadline) {
    do {
      const std::int64_t now = MonotonicNs();
      const auto system = static_cast<std::int64_t>(GetNowTimeStamp());
      clock_.Add(now, system, MonotonicNs());
      if (!wire.WaitReadable(deadline)) return;
      const std::size_t before = bytes_.size();
      wire.Read(bytes_);
      if (commands_.empty()) unasked_ = bytes_.size();
      parser_.Push({bytes_.begin() + static_cast<std::ptrdiff_t>(before), bytes_.end()});
      for (RecvPacket& status : parser_.Parse()) {
        const auto command = commands_.find(+status.header.hostTimestamp);
        if (command != commands_.end() && command->second.delay == kNoEcho) {
          command->second.delay = MonotonicNs() - command->second.sent_at;
        }
        if (command == commands_.end() && status.header.hostTimestamp != 0) {
          foreign_echoes_.insert(+status.header.hostTimestamp);
        }
        statuses_.push_back(std::move(status));
      }
    } while (MonotonicNs() < deadline);
  }

  void JudgeStream() {
    if (bytes_.empty()) {
      const std::string what = link_.kind == Link::Kind::kUdp      ? "nothing came back, to no command"
                               : link_.kind == Link::Kind::kSerial ? "the device is open, but silent"
                                                                   : "connected, but silent";
      GiveUp(what + (link_.kind == Link::Kind::kSerial
                         ? ": check the wiring, the baud rate and that the controller is on" +
                               std::string(holders_.empty() ? "" : "; the other process may take its bytes")
                         : ": is this the controller's port, is it running, and is -n " +
                               std::to_string(options_.joints) + " its joint count?"));
    }
    if (statuses_.empty()) {
      const std::string bytes = std::to_string(bytes_.size()) + " bytes arrived, but no good frame of " +
                                std::to_string(options_.joints) + " joints";
      if (const std::optional<int> fit = FitJointCount(bytes_, kMostJoints)) {
        GiveUp(bytes + ": the controller is set to " + std::to_string(*fit) + " joints; use -n " +
               std::to_string(*fit));
      }
      GiveUp(bytes + ", nor of 0 to " + std::to_string(kMostJoints) + " joints: " +
             (link_.kind == Link::Kind::kSerial ? "check the baud rate and the wiring"
                                                : "this is another service, or the bytes are damaged on the way"));
    }
    const auto frame = static_cast<std::size_t>(statuses_.front().packetSize);
    const std::size_t discarded = bytes_.size() - statuses_.size() * frame;
    const std::string count = std::to_string(statuses_.size()) + " good statuses of " +
                              std::to_string(options_.joints) + " joints" +
                              (unasked_ == 0 ? ", only in answer to commands" : "");
    if (discarded >= frame) {
      Warn(count + ", but " + std::to_string(discarded) + " bytes belong to none: look for noise or lost bytes");
    } else {
      Good(count);
    }
    const auto stamp = [](const RecvPacket& status) { return status.header.timestamp; };
    if (statuses_.size() > 3 && stamp(statuses_.front()) == stamp(statuses_.back())) {
      Bad("the status is frozen: its time stamp never changes; restart the controller");
    }
  }

  void JudgeEcho() {
    if (foreign_echoes_.size() > 1) {
      Warn("the controller also echoes commands that are not from here: another host drives it");
    }
    if (commands_.empty()) return;  // the link was lost before
    std::vector<std::int64_t> delays;
    for (const auto& [stamp, command] : commands_) {
      if (command.delay != kNoEcho) delays.push_back(command.delay);
    }
    const std::size_t echoed = delays.size();
    std::sort(delays.begin(), delays.end());
    if (delays.empty()) {
      Bad("statuses arrive, but the echo never comes: the controller accepts no command from here; check that it is in "
          "remote mode, is set to " +
          std::to_string(options_.joints) + " joints for commands too, and that the line to it is connected");
      return;
    }
    const std::string count = std::to_string(echoed) + " of " + std::to_string(commands_.size()) + " commands";
    const auto usual = static_cast<double>(Percentile(delays, 0.5));
    if (commands_.rbegin()->second.delay == kNoEcho && Percentile(delays, 0) > Ms(35)) {
      Bad("the echo is stale: a command is echoed only after the next one, so no confirmation ever comes");
    } else if (commands_.rbegin()->second.delay == kNoEcho || echoed + 1 < commands_.size()) {
      Warn("the controller echoes only " + count + ": the others are lost on the way");
    } else if (usual > 20e6) {
      Warn("the echo comes late, usually after " + RoundedDuration(usual) + ": confirmed commands wait that long");
    } else {
      Good("the controller echoes " + count + ", usually after " + RoundedDuration(usual));
    }
  }

  void JudgeClock() {
    if (clock_.Jump() > 0) {
      Bad("this machine's clock jumps by " + RoundedDuration(clock_.Jump()) +
          ": time stamps repeat or leap; let the time service slew instead of step");
      return;
    }
    bool backwards = false;
    for (std::size_t i = 1; i < statuses_.size(); ++i) {
      if (statuses_[i].header.timestamp < statuses_[i - 1].header.timestamp) backwards = true;
    }
    if (backwards) {
      Warn("the controller's time stamps run backwards at times: it restarted, or statuses overtake each other");
    } else {
      Good("clocks run steadily");
    }
  }

  void JudgeJoints() {
    const std::vector<std::string> causes = WhyNothingMoves(statuses_.back());
    for (const std::string& cause : causes) Warn(cause);
    if (causes.empty()) Good("no joint reports anything that keeps it from moving");
  }

  std::vector<ReportPart> ReportParts() const {
    return {{"doctor.txt", "what is printed below", ""},
            {"versions.txt", "versions of velta, the kernel, the C library and the distribution", ""},
            {"realtime.txt", "settings of kernel and machine that decide how exactly in time programs run", ""},
            {"recording.vrec", DurationText(options_.recorded) + " of what passes on the link, when it opens", ""}};
  }

  void ListReport() {
    Out() << options_.report << " will hold\n";
    for (const ReportPart& part : ReportParts()) {
      Out() << "  " << part.name << std::string(16 - std::string(part.name).size(), ' ') << part.about << '\n';
    }
    Out() << "and no environment variables, no host names" << std::endl;
  }

  void MakeReport() {
    std::string host;
    if (const std::size_t at = options_.link.find("://"); options_.link.rfind("serial", 0) != 0) {
      host = options_.link.substr(at + 3, options_.link.rfind(':') - at - 3);
    }
    std::vector<ReportPart> parts = ReportParts();
    parts[0].content = WithoutHost(said_, host);
    parts[1].content = VersionsText();
    parts[2].content = RealtimeText("/");
    if (wire_) {
      parts[3].content = RecordSome();
    } else {
      parts.pop_back();
    }
    WriteReport(options_.report, parts);
    Out() << "wrote " << options_.report << std::endl;
  }

  /// @return a recording of the open link; a controller that is silent is asked with idle commands
  std::string RecordSome() {
    using recording::Event;
    std::string bytes;
    const auto add = [&](const std::vector<char>& block) { bytes.append(block.begin(), block.end()); };
    const auto record = [&](Event event, const std::vector<char>& passed) {
      const wire::Stamp now = wire::StampNow();
      for (std::size_t at = 0; at == 0 || at < passed.size(); at += recording::kMaxRecordBytes) {
        add(recording::RecordBytes(event, now.monotonic_ns, now.wall_ns, passed.data() + at,
                                   std::min(passed.size() - at, recording::kMaxRecordBytes)));
      }
    };
    add(recording::HeaderBytes(options_.joints, ToString(link_)));
    record(Event::kOpened, {});
    const std::int64_t end = MonotonicNs() + options_.recorded.count();
    try {
      while (!StopRequested() && MonotonicNs() < end) {
        std::vector<char> passed;
        if (wire_->WaitReadable(std::min(end, MonotonicNs() + Ms(100)))) {
          if (wire_->Read(passed) != 0) record(Event::kToHost, passed);
        } else if (MonotonicNs() < end) {
          passed = SendPacket(options_.joints).GetCharVector();
          wire_->Write(passed);
          record(Event::kToController, passed);
        }
      }
    } catch (const LinkError&) {  // what was recorded so far shows how it ended
    }
    record(Event::kClosed, {});
    return bytes;
  }

  struct Command {
    std::int64_t sent_at;
    std::int64_t delay;  ///< until the first status that echoes it, ns
  };
  static constexpr std::int64_t kNoEcho = -1;
  static constexpr int kCommands = 30;

  const DoctorOptions& options_;
  Link link_;
  std::unique_ptr<HostEnd> wire_;  ///< while the link is open
  std::string said_;
  std::vector<std::string> holders_;
  std::vector<char> bytes_;
  std::size_t unasked_ = 0;  ///< bytes that came before the first command
  PacketParser parser_;
  std::vector<RecvPacket> statuses_;
  std::map<std::uint64_t, Command> commands_;  ///< by time stamp
  std::set<std::uint64_t> foreign_echoes_;
  ClockWatch clock_;
  int warnings_ = 0;
  int failures_ = 0;
};

}  // namespace

void AddDoctor(CLI::App& app, Action& action) {
  CLI::App& command = *app.add_subcommand("doctor", "Find out why nothing moves");
  static DoctorOptions options;
  command.add_option("LINK", options.link, "tcp://HOST:PORT, udp://HOST:PORT or serial:///dev/ttyX?baud=115200")
      ->required()
      ->option_text(" ");
  AddJointsOption(command, options.joints);
  command.add_option("--connect-timeout", options.connect_s, "Seconds to wait for a connection (5)")
      ->check(CLI::Range(0.1, 60.0))
      ->option_text("S");
  command
      .add_option("--report", options.report,
                  "Also write FILE, an archive for a support case; what it holds is shown first")
      ->type_name("FILE.tar.gz");
  AddDurationOption(command, "--report-time", options.recorded,
                    {std::chrono::milliseconds(10), std::chrono::minutes(10)},
                    "How much of what passes is recorded for it");
  command.footer(
      "It sends commands that command nothing; the arm does not move.\nExample: velta doctor -n 6 "
      "tcp://192.168.0.10:5000");
  command.callback([&action] { action = [] { return Doctor(options).Run(); }; });
}

}  // namespace velta::tools
