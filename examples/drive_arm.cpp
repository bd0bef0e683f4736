// SPDX-License-Identifier: MIT
// Drives an arm to a target pose: servo on, trajectory mode, one trajectory queued by two independent sources, every
// command confirmed. Works against a controller on TCP, UDP or a serial line, or against the simulator in the library.
#include <unistd.h>
#include <velta_session.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

volatile std::sig_atomic_t interrupted = 0;

float Target(int joint) { return (joint % 2 == 0 ? 1.0f : -1.0f) * (10.0f + 5.0f * static_cast<float>(joint)); }

/// One source of commands: it knows its own joints and nothing of the other source.
std::vector<velta::Ticket> SendTrajectory(velta::Source source, int joints, int first, int last) {
  std::vector<velta::Ticket> tickets;
  if (first == last) return tickets;
  const auto send = [&](auto command) {
    SendPacket packet(joints);
    for (int joint = first; joint < last; ++joint) command(packet, joint, std::to_string(joint));
    tickets.push_back(source.Send(packet, velta::Confirm::kYes));
  };
  send([](SendPacket& p, int, const std::string& id) { p.SetTrajectoryViaClear(id); });
  send([](SendPacket& p, int joint, const std::string& id) {
    p.SetTrajectoryPT_LinSpline(id, 0.25f * Target(joint), 0.5f, true);
  });
  send([](SendPacket& p, int joint, const std::string& id) {
    p.SetTrajectoryPT_LinSpline(id, Target(joint), 1.5f, true);
  });
  send([](SendPacket& p, int, const std::string& id) { p.SetTrajectoryControlStart(id); });
  return tickets;
}

/// Whether every ticket is confirmed. @param[out] trouble  why one never will be
bool AllConfirmed(const std::vector<velta::Ticket>& tickets, const char*& trouble) {
  bool all = true;
  for (const velta::Ticket& ticket : tickets) {
    all = all && ticket.Outcome() == velta::Outcome::kConfirmed;
    if (ticket.Outcome() == velta::Outcome::kGaveUp) trouble = "the controller does not confirm";
    if (ticket.Outcome() == velta::Outcome::kDiscarded && trouble == nullptr) trouble = "the link is lost";
  }
  return all;
}

bool Arrived(const RecvPacket& status, int joint) {
  return std::fabs(status.joints[static_cast<std::size_t>(joint)].position - Target(joint)) < 0.01f;
}

/// A line per joint, redrawn in place on a terminal and a few times a second elsewhere.
class Display {
 public:
  void Show(const RecvPacket& status, double seconds) {
    if (seconds < next_) return;
    next_ = seconds + (terminal_ ? 0.05 : 0.5);
    if (terminal_ && drawn_) std::printf("\033[%dA", status.jointNum);
    drawn_ = true;
    for (int i = 0; i < status.jointNum; ++i) {
      const rxJoint_t& joint = status.joints[static_cast<std::size_t>(i)];
      std::printf("%s%6.2f s  joint %-3d position %9.3f  velocity %9.3f  trajectory %3d\n", terminal_ ? "\033[2K" : "",
                  seconds, i, static_cast<double>(joint.position), static_cast<double>(joint.velocity),
                  joint.trjStatus);
    }
    std::fflush(stdout);
  }

 private:
  const bool terminal_ = isatty(STDOUT_FILENO) != 0;
  bool drawn_ = false;
  double next_ = 0;
};

/// @return whether every joint arrived
bool Drive(velta::Session& arm, int joints, int timeout_s) {
  SendPacket servo(joints), mode(joints);
  servo.SetServoOn("all");
  mode.SetTrajectoryControlMode("all");
  std::vector<velta::Ticket> tickets = {arm.Send(servo, velta::Confirm::kYes), arm.Send(mode, velta::Confirm::kYes)};
  bool is_ready = false;  // servo on, trajectory mode

  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  auto next = start;
  Display display;
  constexpr int kSteady = 10;  // statuses in a row that must show every joint in place
  int steady = 0;
  RecvPacket last(joints);
  const char* trouble = nullptr;
  while (trouble == nullptr) {
    arm.Step();  // the loop is this program's own
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (RecvPacket& status : arm.Drain()) {
      last = status;
      bool all = true;
      for (int i = 0; i < joints; ++i) all = all && Arrived(status, i);
      steady = all ? steady + 1 : 0;
      display.Show(status, seconds);
    }
    const bool is_confirmed = AllConfirmed(tickets, trouble);
    if (is_confirmed && !is_ready) {
      is_ready = true;
      const int middle = (joints + 1) / 2;
      tickets = SendTrajectory(arm.AddSource("shoulder"), joints, 0, middle);  // they command different joints,
      const auto more =
          SendTrajectory(arm.AddSource("wrist"), joints, middle, joints);  // so their packets leave as one
      tickets.insert(tickets.end(), more.begin(), more.end());
    } else if (is_confirmed && steady >= kSteady) {
      break;
    }
    if (seconds > timeout_s) trouble = "the joints did not arrive in time";
    if (interrupted != 0) trouble = "interrupted";
    next = std::max(next + std::chrono::milliseconds(1), Clock::now() - std::chrono::milliseconds(10));
    std::this_thread::sleep_until(next);
  }

  const velta::Statistics counts = arm.GetStatistics().client;
  std::printf("\nframes sent      %llu\nconfirmations    %llu\nsent again       %llu\nstatus packets   %llu\n",
              static_cast<unsigned long long>(counts.frames_sent),
              static_cast<unsigned long long>(counts.commands_confirmed),
              static_cast<unsigned long long>(counts.frames_sent_again),
              static_cast<unsigned long long>(counts.frames_received));
  for (int i = 0; i < joints; ++i) {
    std::printf("joint %-3d position %9.3f  target %9.3f  %s\n", i,
                static_cast<double>(last.joints[static_cast<std::size_t>(i)].position), static_cast<double>(Target(i)),
                Arrived(last, i) ? "arrived" : "not there");
  }
  std::fflush(stdout);
  if (trouble != nullptr) std::fprintf(stderr, "drive_arm: %s\n", trouble);
  return trouble == nullptr;
}

/// Cuts TEXT:NUMBER at its last colon.
bool Split(const std::string& text, std::string& name, int& number, int most) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  name = text.substr(0, colon);
  return CLI::detail::lexical_cast(text.substr(colon + 1), number) && number >= 1 && number <= most;
}

}  // namespace

int main(int argc, char** argv) {
  std::string tcp, udp, serial;
  int joints = 6;
  int timeout_s = 15;
  CLI::App app(
      "Drives an arm to a target pose and says whether it arrived.\n"
      "Example: drive_arm --tcp 192.168.0.10:5000 --joints 7");
  app.add_option("--tcp", tcp, "controller on TCP")->type_name("IP:PORT");
  app.add_option("--udp", udp, "controller on UDP")->type_name("IP:PORT")->excludes("--tcp");
  app.add_option("--serial", serial, "controller on a serial line")
      ->type_name("DEVICE:BAUD")
      ->excludes("--tcp")
      ->excludes("--udp");
  app.add_flag("--simulator", "the simulator in the library (the default)")
      ->excludes("--tcp")
      ->excludes("--udp")
      ->excludes("--serial");
  app.add_option("-n,--joints", joints, "joints of the arm")->check(CLI::Range(1, 255))->capture_default_str();
  app.add_option("--timeout", timeout_s, "seconds until the drive is given up")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();
  std::string name;
  int number = 0;
  try {
    app.parse(argc, argv);
    if (!tcp.empty() && !Split(tcp, name, number, 65535)) throw CLI::ValidationError("--tcp", "needs IP:PORT");
    if (!udp.empty() && !Split(udp, name, number, 65535)) throw CLI::ValidationError("--udp", "needs IP:PORT");
    if (!serial.empty() && !Split(serial, name, number, 4000000)) {
      throw CLI::ValidationError("--serial", "needs DEVICE:BAUD");
    }
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::fprintf(stderr, "drive_arm: %s\n", error.what());
    return 2;
  }
  std::signal(SIGINT, [](int) { interrupted = 1; });
  std::signal(SIGTERM, [](int) { interrupted = 1; });

  const std::string address = name + ":" + std::to_string(number);
  velta::SessionOptions options;
  options.link = !tcp.empty()      ? "tcp://" + address
                 : !udp.empty()    ? "udp://" + address
                 : !serial.empty() ? "serial://" + name + "?baud=" + std::to_string(number)
                                   : "sim:";
  options.joints = joints;
  options.reconnect = false;  // a drive that was cut off is not taken up again
  try {
    velta::Session arm(options);
    arm.Step();
    std::string why;
    if (arm.WaitConnected(std::chrono::seconds(timeout_s), &why)) return Drive(arm, joints, timeout_s) ? 0 : 1;
    std::fprintf(stderr, "drive_arm: cannot reach %s: %s\n", (tcp + udp + serial).c_str(), why.c_str());
    return 1;
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "drive_arm: %s\n", error.what());
    return 2;
  }
}
