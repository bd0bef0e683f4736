// SPDX-License-Identifier: MIT
// One program for the arm and for the simulator: what drives knows the common class only.
// usage: simulator_swap [IP PORT]
#include <MasterControllerClient.h>
#include <MasterControllerClientMock.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

namespace {

constexpr int kJoints = 6;

/// The arm, or the simulator in steps of 1 ms, which is connected from the start.
std::unique_ptr<MasterControllerClient> Open(int argc, char** argv) {
  if (argc == 1) return std::make_unique<MasterControllerClientMock>(kJoints, 1);
  auto arm = std::make_unique<MasterControllerClient>(kJoints);
  if (argc != 3 || !arm->InitAsTcpClient(argv[1], std::atoi(argv[2]))) return nullptr;
  return arm;
}

bool Drive(MasterControllerClient& arm, float target) {
  SendPacket servo(kJoints), mode(kJoints), clear(kJoints), point(kJoints), start(kJoints);
  servo.SetServoOn("all");
  mode.SetTrajectoryControlMode("all");
  clear.SetTrajectoryViaClear("all");
  point.SetTrajectoryPT_LinSpline("all", target, 0.5f, true);
  start.SetTrajectoryControlStart("all");
  for (SendPacket* packet : {&servo, &mode, &clear, &point, &start}) arm.PushSendQueue(*packet, true);
  for (int step = 0; step < 10000 && arm.IsConnected(); ++step) {
    arm.ReceiveStatus();
    arm.SendPacketInBuffer();
    for (const RecvPacket& status : arm.GetCurStatePacket()) {  // drain it: the simulator's buffer has no bound
      if (std::fabs(status.joints[kJoints - 1].position - target) < 0.01f) return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  const auto arm = Open(argc, argv);
  if (arm == nullptr) {
    std::fprintf(stderr, "usage: simulator_swap [IP PORT]\n");
    return 2;
  }
  const bool there = Drive(*arm, 15);
  std::printf("%s\n", there ? "arrived" : "not there");
  return there ? 0 : 1;
}
