// SPDX-License-Identifier: MIT
// Moves one joint to 30 degrees and prints where it is. usage: session_move [LINK]
#include <velta_session.h>

#include <cmath>
#include <cstdio>
#include <thread>

using namespace std::chrono_literals;

int main(int argc, char** argv) {
  velta::SessionOptions options;
  options.link = argc > 1 ? argv[1] : "sim:";  // or tcp://192.168.0.10:5000, udp://..., serial:///dev/ttyUSB0
  options.joints = 6;                          // as the controller is set up; no frame carries it
  velta::Session arm(options);
  arm.Start();
  std::string why;
  if (!arm.WaitConnected(3s, &why)) {
    std::fprintf(stderr, "session_move: %s\n", why.c_str());
    return 1;
  }

  SendPacket servo(6), mode(6), move(6);
  servo.SetServoOn("2");  // joint 2, counted from 0
  mode.SetTrajectoryControlMode("2");
  move.SetRefPosition("2", 30);
  for (const SendPacket& command : {servo, mode, move}) {
    const velta::Ticket ticket = arm.Send(command, velta::Confirm::kYes);
    if (ticket.Wait(1s) == velta::Outcome::kConfirmed) continue;
    std::fprintf(stderr, "session_move: %s %s\n", ToString(ticket.Outcome()), ToString(ticket.Reason()));
    return 1;
  }
  float position = 0;
  for (int i = 0; i < 100 && std::fabs(position - 30) > 0.01f; ++i) {
    std::this_thread::sleep_for(100ms);
    if (const auto status = arm.Latest()) position = status->joints[2].position;
  }
  std::printf("joint 2 is at %.2f\n", static_cast<double>(position));
}
