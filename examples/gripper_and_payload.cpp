// SPDX-License-Identifier: MIT
// Closes a gripper with bounded effort, then sets what the arm carries.
// usage: gripper_and_payload IP PORT
#include <MasterControllerClient.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <thread>

int main(int argc, char** argv) {
  constexpr int kJoints = 7;  // six joints and the gripper
  if (argc != 3) {
    std::fprintf(stderr, "usage: gripper_and_payload IP PORT\n");
    return 2;
  }
  MasterControllerClient arm(kJoints);
  if (!arm.InitAsTcpClient(argv[1], std::atoi(argv[2]))) return 1;

  // A command of the whole arm travels in the values of joint 0, so it takes a packet that commands no joint.
  SendPacket effort(kJoints), servo(kJoints), mode(kJoints), clear(kJoints), close(kJoints), start(kJoints);
  SendPacket payload(kJoints), diagonal(kJoints), triangle(kJoints);
  effort.SetGripperMaxEffort(5);  // before the gripper moves
  servo.SetServoOn("6");
  mode.SetTrajectoryControlMode("6");
  clear.SetTrajectoryViaClear("6");
  close.SetTrajectoryPT_LinSpline("6", 12, 0.2f, true);
  start.SetTrajectoryControlStart("6");
  payload.SetPayload(0.8f, 0, 0, 0.05f);
  diagonal.SetPayloadInertiaTensorDiagonal(0.001f, 0.001f, 0.002f);
  triangle.SetPayloadInertiaTensorTriangle(0, 0, 0);

  const auto send = [&arm](std::initializer_list<SendPacket*> packets) {
    for (SendPacket* packet : packets) arm.PushSendQueue(*packet, true);
    const unsigned long last = (*(packets.end() - 1))->GetTimeStamp();
    for (int step = 0; step < 5000 && arm.IsConnected(); ++step) {
      arm.ReceiveStatus();
      arm.SendPacketInBuffer();
      arm.FlushRecvBuffer();
      if (arm.GetLastRecvPacket().header.hostTimestamp - last < 16) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  };
  if (!send({&effort, &servo, &mode, &clear, &close, &start})) return 1;
  for (int step = 0; step < 5000 && +arm.GetLastRecvPacket().joints[6].position < 11.996f; ++step) {
    arm.ReceiveStatus();
    arm.FlushRecvBuffer();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::printf("gripper at %.2f\n", static_cast<double>(arm.GetLastRecvPacket().joints[6].position));
  if (!send({&payload, &diagonal, &triangle})) return 1;
  std::printf("payload set\n");
  return 0;
}
