// SPDX-License-Identifier: MIT
// Two independent parts of a program command an arm; what they want leaves in as few frames as possible.
// usage: two_sources IP PORT
#include <MasterControllerClient.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

constexpr int kJoints = 6;

/// Knows its own joints and nothing of the other source.
void Prepare(MasterControllerClient& arm, const std::string& source, const std::string& joints) {
  SendPacket servo(kJoints), mode(kJoints);
  servo.SetServoOn(joints);
  mode.SetTrajectoryControlMode(joints);
  arm.PushBackIndependentSendBuffer(servo, source, true, false, "");
  arm.PushBackIndependentSendBuffer(mode, source, true, false, "");
}

/// A set-point that is worth nothing once there is a newer one: under its key only the newest is kept.
void Track(MasterControllerClient& arm, const std::string& source, const std::string& joint, float position) {
  SendPacket packet(kJoints);
  packet.SetRefPosition(joint, position);
  arm.PushBackIndependentSendBuffer(packet, source, false, true, "track");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: two_sources IP PORT\n");
    return 2;
  }
  MasterControllerClient arm(kJoints);
  if (!arm.InitAsTcpClient(argv[1], std::atoi(argv[2]))) return 1;
  arm.CreateIndependentSendPacketBuffer("shoulder");  // before the first push, which would only create it
  arm.CreateIndependentSendPacketBuffer("wrist");

  Prepare(arm, "shoulder", "0/1/2");
  Prepare(arm, "wrist", "3/4/5");
  arm.MergeIndependentSendPacketBuffer();  // the send step does it, too; here it shows what will leave
  std::printf("different joints: 4 packets become %zu frames\n", arm.GetSendBufferSize());
  arm.FlushSendBuffer();

  Prepare(arm, "shoulder", "0/1/2");
  Prepare(arm, "wrist", "2/3");
  arm.MergeIndependentSendPacketBuffer();
  std::printf("a joint that both want: 4 packets become %zu frames\n", arm.GetSendBufferSize());

  for (int i = 1; i <= 100; ++i) {
    Track(arm, "shoulder", "0", static_cast<float>(i));
    Track(arm, "wrist", "5", static_cast<float>(-i));
  }
  arm.MergeIndependentSendPacketBuffer();
  std::printf("200 set-points under one key: still %zu frames, and 1 that waits until they are gone\n",
              arm.GetSendBufferSize());

  for (int step = 0; step < 1000 && arm.IsConnected(); ++step) {  // until all that was confirmed has left, and more
    arm.ReceiveStatus();
    arm.SendPacketInBuffer();
    arm.FlushRecvBuffer();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return arm.IsConnected() && arm.GetSendBufferSize() == 0 ? 0 : 1;
}
