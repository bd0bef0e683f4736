// SPDX-License-Identifier: MIT
// Drives an arm to a target pose: servo on, trajectory mode, one trajectory queued by two independent sources, every
// command confirmed. Works against a controller on TCP, UDP or a serial line, or against the simulator in the library.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "MasterControllerClient.h"
#include "MasterControllerClientMock.h"

namespace {

volatile std::sig_atomic_t interrupted = 0;

float Target(int joint) { return (joint % 2 == 0 ? 1.0f : -1.0f) * (10.0f + 5.0f * static_cast<float>(joint)); }

/// One source of commands: it knows its own joints and nothing of the other source.
void QueueTrajectory(MasterControllerClient& arm, const std::string& source, int joints, int first, int last) {
  if (first == last) return;
  const auto push = [&](auto command) {
    SendPacket packet(joints);
    for (int joint = first; joint < last; ++joint) command(packet, joint, std::to_string(joint));
    arm.PushBackIndependentSendBuffer(packet, source, true, false, "");
  };
  push([](SendPacket& p, int, const std::string& id) { p.SetTrajectoryViaClear(id); });
  push([](SendPacket& p, int joint, const std::string& id) {
    p.SetTrajectoryPT_LinSpline(id, 0.25f * Target(joint), 0.5f, true);
  });
  push([](SendPacket& p, int joint, const std::string& id) {
    p.SetTrajectoryPT_LinSpline(id, Target(joint), 1.5f, true);
  });
  push([](SendPacket& p, int, const std::string& id) { p.SetTrajectoryControlStart(id); });
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
bool Drive(MasterControllerClient& arm, int joints, int timeout_s) {
  arm.CreateIndependentSendPacketBuffer("shoulder");
  arm.CreateIndependentSendPacketBuffer("wrist");
  SendPacket servo(joints), mode(joints);
  servo.SetServoOn("all");
  mode.SetTrajectoryControlMode("all");
  arm.PushSendQueue(servo, true);
  arm.PushSendQueue(mode, true);
  const int middle = (joints + 1) / 2;
  QueueTrajectory(arm, "shoulder", joints, 0, middle);    // the sources command different joints,
  QueueTrajectory(arm, "wrist", joints, middle, joints);  // so their packets leave as one

  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  auto next = start;
  Display display;
  int packets = 0;
  constexpr int kSteady = 10;  // statuses in a row that must show every joint in place
  int steady = 0;
  while (interrupted == 0 && arm.GetStatistics().commands_given_up == 0 && arm.IsConnected()) {
    arm.ReceiveStatus();
    arm.SendPacketInBuffer();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (const RecvPacket& status : arm.GetCurStatePacket()) {
      ++packets;
      bool all = true;
      for (int i = 0; i < joints; ++i) all = all && Arrived(status, i);
      steady = all ? steady + 1 : 0;
      display.Show(status, seconds);
    }
    const bool all_sent = arm.GetSendBufferSize() == 0 && !arm.IsConfirmationPending();
    if ((steady >= kSteady && all_sent) || seconds > timeout_s) break;
    next = std::max(next + std::chrono::milliseconds(1), Clock::now() - std::chrono::milliseconds(10));
    std::this_thread::sleep_until(next);
  }

  const RecvPacket last = arm.GetLastRecvPacket();
  const velta::Statistics counts = arm.GetStatistics();
  const bool gave_up = counts.commands_given_up != 0;
  const char* trouble = interrupted != 0     ? "interrupted"
                        : gave_up            ? "the controller does not confirm"
                        : !arm.IsConnected() ? "the link is lost"
                        : packets == 0       ? "the controller sends no status"
                        : steady < kSteady   ? "the joints did not arrive in time"
                                             : nullptr;
  const auto number = [](std::uint64_t value) { return static_cast<unsigned long>(value); };
  std::printf("\nframes sent      %lu\nconfirmations    %lu\ntime-outs        %lu\nstatus packets   %d\n",
              number(counts.frames_sent), number(counts.commands_confirmed),
              number(counts.frames_sent_again + counts.commands_given_up), packets);
  bool all = packets > 0;
  for (int i = 0; i < joints; ++i) {
    const bool there = packets > 0 && Arrived(last, i);
    all = all && there;
    std::printf("joint %-3d position %9.3f  target %9.3f  %s\n", i,
                static_cast<double>(last.joints[static_cast<std::size_t>(i)].position), static_cast<double>(Target(i)),
                there ? "arrived" : "not there");
  }
  std::fflush(stdout);
  if (trouble != nullptr) std::fprintf(stderr, "drive_arm: %s\n", trouble);
  return all && trouble == nullptr;
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
      "Drives an arm to a target pose and tells whether it arrived.\n"
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

  if (tcp.empty() && udp.empty() && serial.empty()) {
    MasterControllerClientMock arm(joints, 1);
    return Drive(arm, joints, timeout_s) ? 0 : 1;
  }
  MasterControllerClient arm(joints);
  const bool open = !tcp.empty()   ? arm.InitAsTcpClient(name, number)
                    : !udp.empty() ? arm.InitAsUdpClient(name, number)
                                   : arm.InitAsSerialClient(name, static_cast<unsigned>(number));
  if (!open) {
    std::fprintf(stderr, "drive_arm: cannot open %s\n", (tcp + udp + serial).c_str());
    return 1;
  }
  return Drive(arm, joints, timeout_s) ? 0 : 1;
}
