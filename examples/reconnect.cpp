// SPDX-License-Identifier: MIT
// Survives a lost link, and lets nothing old move the arm. usage: reconnect IP PORT
//
// A command that was given before the link broke was meant for the arm as it stood then. The session discards all of
// them and connects again, later each time; this host then looks where the arm is, and decides anew.
#include <velta_session.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kJoints = 6;
constexpr float kTarget = 20;

std::vector<velta::Ticket> SendMove(velta::Session& arm) {
  SendPacket servo(kJoints), mode(kJoints), clear(kJoints), point(kJoints), start(kJoints);
  servo.SetServoOn("0");
  mode.SetTrajectoryControlMode("0");
  clear.SetTrajectoryViaClear("0");
  point.SetTrajectoryPT_LinSpline("0", kTarget, 0.5f, true);
  start.SetTrajectoryControlStart("0");
  std::vector<velta::Ticket> tickets;
  for (const SendPacket* packet : {&servo, &mode, &clear, &point, &start}) {
    tickets.push_back(arm.Send(*packet, velta::Confirm::kYes));
  }
  return tickets;
}

int Discarded(const std::vector<velta::Ticket>& tickets) {
  int count = 0;
  for (const velta::Ticket& ticket : tickets) count += ticket.Outcome() == velta::Outcome::kDiscarded ? 1 : 0;
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: reconnect IP PORT\n");
    return 2;
  }
  velta::SessionOptions options;
  options.link = std::string("tcp://") + argv[1] + ":" + argv[2];
  options.joints = kJoints;
  options.silence = std::chrono::milliseconds(300);
  velta::Session arm(options);
  arm.Start();
  std::string why;
  while (arm.WaitConnected(std::chrono::seconds(20), &why)) {
    const auto first = arm.Latest();
    if (!first) continue;
    std::printf("connected, joint 0 is at %.2f\n", static_cast<double>(first->joints[0].position));
    std::fflush(stdout);
    const std::vector<velta::Ticket> move = SendMove(arm);
    while (arm.IsConnected() && Discarded(move) == 0) {
      const auto status = arm.Latest();
      if (status && std::fabs(status->joints[0].position - kTarget) < 0.01f &&
          move.back().Outcome() == velta::Outcome::kConfirmed) {
        std::printf("arrived\n");
        return 0;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::printf("link lost, %d commands discarded\n", Discarded(move));
    std::fflush(stdout);
  }
  std::fprintf(stderr, "reconnect: %s\n", why.c_str());
  return 1;
}
