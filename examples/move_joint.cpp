// SPDX-License-Identifier: MIT
// Moves one joint along a trajectory of one point and prints where it is. usage: move_joint IP PORT
#include <MasterControllerClient.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <thread>

int main(int argc, char** argv) {
  constexpr int kJoints = 6;  // as the controller is set up; no frame says it
  constexpr float kTarget = 30;
  if (argc != 3) {
    std::fprintf(stderr, "usage: move_joint IP PORT\n");
    return 2;
  }
  MasterControllerClient arm(kJoints);
  if (!arm.InitAsTcpClient(argv[1], std::atoi(argv[2]))) return 1;  // it has printed why

  // One packet holds one command per joint, so what must happen in order takes a packet each.
  SendPacket servo(kJoints), mode(kJoints), clear(kJoints), point(kJoints), start(kJoints);
  servo.SetServoOn("2");  // joint 2, counted from 0
  mode.SetTrajectoryControlMode("2");
  clear.SetTrajectoryViaClear("2");                        // nothing that an earlier program left is played
  point.SetTrajectoryPT_LinSpline("2", kTarget, 1, true);  // there 1 s after the start
  start.SetTrajectoryControlStart("2");
  for (SendPacket* packet : {&servo, &mode, &clear, &point, &start}) arm.PushSendQueue(*packet, true);

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  float position = NAN;
  while (arm.IsConnected() && std::chrono::steady_clock::now() < deadline) {
    arm.ReceiveStatus();
    arm.SendPacketInBuffer();
    for (const RecvPacket& status : arm.GetCurStatePacket()) position = status.joints[2].position;
    if (std::fabs(position - kTarget) < 0.004f) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::printf("joint 2 is at %.2f\n", static_cast<double>(position));
  return std::fabs(position - kTarget) < 0.004f ? 0 : 1;
}
