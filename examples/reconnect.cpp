// SPDX-License-Identifier: MIT
// Survives a lost link: waits longer and longer between attempts, and lets nothing old move the arm.
// usage: reconnect IP PORT
//
// A command that was queued before the link broke was meant for the arm as it stood then. Everything that could still
// send it goes away with the client object: the plain queue, the unique keys, the named buffers, the command that waits
// for its confirmation (and would be sent again), and half a status frame. The next session has a client of its own,
// looks where the arm is, and decides anew.
#include <MasterControllerClient.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kJoints = 6;
constexpr float kTarget = 20;
constexpr milliseconds kSilence{300};  // a closed peer reads as silence, so silence counts as a lost link

void QueueMove(MasterControllerClient& arm) {
  SendPacket servo(kJoints), mode(kJoints), clear(kJoints), point(kJoints), start(kJoints);
  servo.SetServoOn("0");
  mode.SetTrajectoryControlMode("0");
  clear.SetTrajectoryViaClear("0");
  point.SetTrajectoryPT_LinSpline("0", kTarget, 0.5f, true);
  start.SetTrajectoryControlStart("0");
  for (SendPacket* packet : {&servo, &mode, &clear, &point, &start}) arm.PushSendQueue(*packet, true);
}

/// @return true when the arm has arrived, false when the link is lost
bool Session(MasterControllerClient& arm) {
  auto last_status = Clock::now();
  bool queued = false;
  while (arm.IsConnected() && Clock::now() - last_status < kSilence) {
    arm.ReceiveStatus();
    arm.SendPacketInBuffer();
    for (const RecvPacket& status : arm.GetCurStatePacket()) {
      last_status = Clock::now();
      const float position = status.joints[0].position;
      if (!queued) {
        std::printf("connected, joint 0 is at %.2f\n", static_cast<double>(position));
        QueueMove(arm);
        queued = true;
      }
      if (std::fabs(position - kTarget) < 0.01f && arm.GetSendBufferSize() == 0) return true;
    }
    std::fflush(stdout);
    std::this_thread::sleep_for(milliseconds(1));
  }
  std::printf("link lost, %zu queued commands discarded\n", arm.GetSendBufferSize());
  std::fflush(stdout);
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: reconnect IP PORT\n"), 2;
  milliseconds pause{50};
  for (int attempt = 0; attempt < 20; ++attempt) {
    const auto arm = std::make_unique<MasterControllerClient>(kJoints);  // its destructor closes the link
    if (arm->InitAsTcpClient(argv[1], std::atoi(argv[2]))) {
      pause = milliseconds(50);
      if (Session(*arm)) return std::printf("arrived\n"), 0;
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(2 * pause, milliseconds(2000));
  }
  std::fprintf(stderr, "reconnect: gave up\n");
  return 1;
}
