// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "PacketParser.h"
#include "SendPacket.h"
#include "command.h"
#include "diagnosis.h"
#include "host_end.h"
#include "protocol.h"
#include "record_bytes.h"
#include "report.h"
#include "serial_device.h"
#include "stop.h"

namespace velta::tools {

namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kMs = 1'000'000;

struct DoctorOptions {
  Link link;
  int joints = 0;
  std::chrono::nanoseconds timeout = 5s;
  bool json = false;
  std::string report;
  std::chrono::nanoseconds recorded = 10s;
};

/// Listens, then asks with idle commands; keeps all that came.
class Exchange {
 public:
  explicit Exchange(Observation& seen) : seen_(seen), parser_(seen.joints) {}

  void Run(HostEnd& end) {
    Receive(end, MonotonicNs() + 300 * kMs);
    for (int i = 0; i < 30 && !StopRequested(); ++i) {
      SendPacket packet(seen_.joints);
      const std::uint64_t last = seen_.commands.empty() ? 0 : seen_.commands.rbegin()->first;
      packet.SetTimeStamp(std::max<std::uint64_t>(packet.GetTimeStamp(), last + 1));
      seen_.commands[packet.GetTimeStamp()] = {MonotonicNs(), std::nullopt};
      end.Write(packet.GetCharVector());
      Receive(end, MonotonicNs() + 40 * kMs);
    }
    const std::int64_t deadline = MonotonicNs() + 500 * kMs;
    while (!StopRequested() && !seen_.commands.rbegin()->second.delay && MonotonicNs() < deadline) {
      Receive(end, std::min(deadline, MonotonicNs() + 40 * kMs));
    }
  }

 private:
  void Receive(HostEnd& end, std::int64_t deadline) {
    do {
      const std::int64_t now = MonotonicNs();
      const auto system = static_cast<std::int64_t>(GetNowTimeStamp());
      clock_.Add(now, system, MonotonicNs());
      seen_.clock_jump = clock_.Jump();
      if (!end.WaitReadable(deadline)) return;
      const std::size_t before = seen_.bytes.size();
      end.Read(seen_.bytes);
      if (seen_.commands.empty()) seen_.unasked = seen_.bytes.size();
      parser_.Push({seen_.bytes.begin() + static_cast<std::ptrdiff_t>(before), seen_.bytes.end()});
      for (RecvPacket& status : parser_.Parse()) Take(std::move(status));
    } while (MonotonicNs() < deadline);
  }

  void Take(RecvPacket status) {
    const std::uint64_t echo = status.header.hostTimestamp;
    const auto command = seen_.commands.find(echo);
    if (command == seen_.commands.end()) {
      if (echo != 0) seen_.foreign_echoes.insert(echo);
    } else if (!command->second.delay) {
      command->second.delay = MonotonicNs() - command->second.sent_at;
    }
    seen_.statuses.push_back(std::move(status));
  }

  Observation& seen_;
  PacketParser parser_;
  ClockWatch clock_;
};

/// What `--report` sends along with a question; it says beforehand what that is.
class CaseReport {
 public:
  explicit CaseReport(const DoctorOptions& options) : options_(options) {}

  void List() const {
    Say(options_.report + " will hold");
    for (const ReportPart& part : Parts()) Say(fmt::format("  {:<16}{}", part.name, part.about));
    Say("and no environment variables, no host names");
  }

  /// @param found  what the examination printed
  /// @param end    the link, if it is open
  /// @param link   its name, with an address in place of the host's name
  void Write(const std::string& found, const std::unique_ptr<HostEnd>& end, const std::string& link) const {
    std::vector<ReportPart> parts = Parts();
    parts[0].content = WithoutHost(found, options_.link.host);
    parts[1].content = VersionsText();
    parts[2].content = RealtimeText("/");
    if (end) {
      parts[3].content = RecordSome(*end, link);
    } else {
      parts.pop_back();
    }
    WriteReport(options_.report, parts);
    Say("wrote " + options_.report);
  }

 private:
  void Say(const std::string& line) const { (options_.json ? std::cerr : Out()) << line << std::endl; }

  std::vector<ReportPart> Parts() const {
    return {{"doctor.txt", "what is printed below", ""},
            {"versions.txt", "versions of velta, the kernel, the C library and the distribution", ""},
            {"realtime.txt", "settings of kernel and machine that decide how exactly in time programs run", ""},
            {"recording.vrec", DurationText(options_.recorded) + " of what passes on the link, when it opens", ""}};
  }

  /// @return a recording of the open link; a controller that is silent is asked with idle commands
  std::string RecordSome(HostEnd& end_of_link, const std::string& link) const {
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
    add(recording::HeaderBytes(options_.joints, link));
    record(Event::kOpened, {});
    const std::int64_t end = MonotonicNs() + options_.recorded.count();
    try {
      while (!StopRequested() && MonotonicNs() < end) {
        std::vector<char> passed;
        if (end_of_link.WaitReadable(std::min(end, MonotonicNs() + 100 * kMs))) {
          if (end_of_link.Read(passed) != 0) record(Event::kToHost, passed);
        } else if (MonotonicNs() < end) {
          passed = SendPacket(options_.joints).GetCharVector();
          end_of_link.Write(passed);
          record(Event::kToController, passed);
        }
      }
    } catch (const LinkError&) {  // what was recorded so far shows how it ended
    }
    record(Event::kClosed, {});
    return bytes;
  }

  const DoctorOptions& options_;
};

class Doctor {
 public:
  explicit Doctor(const DoctorOptions& options) : options_(options), link_(options.link) {}

  /// @return 0 when nothing failed
  int Run() {
    InstallStopHandler();
    const CaseReport report(options_);
    if (!options_.report.empty()) report.List();
    Examine();
    if (StopRequested()) throw Failure("interrupted: the examination is not complete");
    const bool failed = std::any_of(findings_.begin(), findings_.end(),
                                    [](const Finding& finding) { return finding.kind == Finding::Kind::kFailure; });
    Say("verdict: " + Conclusion(findings_));
    if (options_.json) {
      nlohmann::ordered_json list = nlohmann::ordered_json::array();
      for (const Finding& finding : findings_) list.push_back({{"kind", Word(finding)}, {"text", finding.text}});
      Out() << nlohmann::ordered_json{{"findings", list}, {"verdict", Conclusion(findings_)}} << std::endl;
    }
    if (!options_.report.empty()) report.Write(said_, end_, ToString(link_));
    return failed ? 1 : 0;
  }

 private:
  static const char* Word(const Finding& finding) {
    constexpr const char* kWords[] = {"ok", "warn", "FAIL"};
    return kWords[static_cast<int>(finding.kind)];
  }

  void Say(const std::string& line) {
    if (!options_.json) Out() << line << std::endl;
    said_ += line + '\n';
  }

  /// Shows findings as they come: some take their time.
  /// @return whether the examination can go on
  bool Report(const Findings& findings) {
    for (const Finding& finding : findings) {
      findings_.push_back(finding);
      Say(fmt::format("[{:^4}] {}", Word(finding), finding.text));
    }
    return findings.empty() || findings.back().kind != Finding::Kind::kFailure;
  }

  void Examine() {
    Observation seen;
    seen.kind = link_.kind;
    seen.joints = options_.joints;
    if (link_.kind == Link::Kind::kSerial && !Report(ExamineDevice(link_.device, seen.is_shared))) return;
    try {
      HostEnd::Check(link_);
      if (const Link resolved = Resolved(link_); resolved.host != link_.host) {
        Report({{Finding::Kind::kGood, "'" + link_.host + "' is " + resolved.host}});
        link_ = resolved;
      }
      end_ = std::make_unique<HostEnd>(link_, static_cast<int>(options_.timeout / 1ms));
    } catch (const LinkError& error) {
      if (!StopRequested()) Report({ExplainOpening(link_, error.error, error.what())});
      return;
    }
    // Over UDP nothing was sent yet.
    Report(
        {{Finding::Kind::kGood, (link_.kind == Link::Kind::kUdp ? "socket ready for " : "opened ") + ToString(link_)}});
    try {
      Exchange(seen).Run(*end_);
    } catch (const LinkError& error) {
      end_.reset();
      if (StopRequested()) return;
      Report({ExplainLoss(link_, error.error, error.what())});
      if (seen.bytes.empty()) return;
    }
    if (!StopRequested()) Report(Diagnose(seen));
  }

  const DoctorOptions& options_;
  Link link_;  ///< with the address, once a host's name is looked up
  Findings findings_;
  std::string said_;
  std::unique_ptr<HostEnd> end_;  ///< while the link is open
};

}  // namespace

void AddDoctor(CLI::App& app, Action& action) {
  CLI::App& command = *app.add_subcommand("doctor", "Diagnose a link: find out why nothing moves");
  const auto options = std::make_shared<DoctorOptions>();
  AddLinkArgument(command, options->link);
  AddJointsOption(command, options->joints);
  AddDurationOption(command, "-t,--timeout", options->timeout, {100ms, 60s}, "How long to wait for a connection");
  AddJsonFlag(command, options->json, "Print one JSON object");
  command
      .add_option("--report", options->report,
                  "Also write FILE, an archive for a support case; what it holds is shown first")
      ->type_name("FILE.tar.gz");
  AddDurationOption(command, "--report-time", options->recorded, {10ms, 10min}, "How long to record for it");
  command.footer(
      "It sends idle commands; the arm does not move.\n"
      "Example: velta doctor -n 6 tcp://192.168.0.10:5000");
  command.callback([options, &action] { action = [options] { return Doctor(*options).Run(); }; });
}

}  // namespace velta::tools
