// SPDX-License-Identifier: MIT
// The same client over a serial line. usage: serial_line DEVICE BAUD
#include <MasterControllerClient.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

int main(int argc, char** argv) {
  constexpr int kJoints = 2;
  if (argc != 3) {
    std::fprintf(stderr, "usage: serial_line DEVICE BAUD\n");
    return 2;
  }
  MasterControllerClient arm(kJoints);
  if (!arm.InitAsSerialClient(argv[1], static_cast<unsigned>(std::atoi(argv[2])))) {
    std::fprintf(stderr, "serial_line: cannot open %s\n", argv[1]);  // a serial link does not say why
    return 1;
  }

  SendPacket servo(kJoints);
  servo.SetServoOn("all");
  arm.PushSendQueue(servo, true);

  // A serial link is never reported as lost: silence is the only sign. A status frame of n joints has 79 n + 24 bytes,
  // ten bits each on the line: at 115,200 baud and 2 joints that is 16 ms, so 1 s is a long silence.
  using Clock = std::chrono::steady_clock;
  auto last_status = Clock::now();
  int statuses = 0;
  while (statuses < 20) {
    if (Clock::now() - last_status > std::chrono::seconds(1)) {
      std::fprintf(stderr, "serial_line: no status for 1 s\n");
      return 1;
    }
    const int received = arm.ReceiveStatus();
    arm.SendPacketInBuffer();
    arm.FlushRecvBuffer();
    if (received > 0) last_status = Clock::now();
    statuses += received;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const bool on = arm.GetLastRecvPacket().joints[1].systemMode == 2;
  std::printf("the controller answers, joint 1 has servo %s\n", on ? "on" : "off");
  return on ? 0 : 1;
}
