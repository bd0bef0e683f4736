// SPDX-License-Identifier: MIT
// The arm is stopped when its host falls silent: this host reports that it is well, then hangs for a second in the
// middle of a move. usage: session_dead_man [LINK]
#include <velta_session.h>

#include <cstdio>
#include <thread>

using namespace std::chrono_literals;

int main(int argc, char** argv) {
  velta::SessionOptions options;
  options.link = argc > 1 ? argv[1] : "sim:";
  options.joints = 6;
  options.dead_man = 200ms;
  velta::Session arm(options);
  arm.OnEvent([](const velta::Event& event) {
    if (event.kind == velta::Event::Kind::kOverrun) return;  // of a busy machine
    std::printf("event: %s\n", ToString(event.kind));
  });
  arm.Start();
  std::string why;
  if (!arm.WaitConnected(3s, &why)) {
    std::fprintf(stderr, "session_dead_man: %s\n", why.c_str());
    return 1;
  }

  SendPacket servo(6), move(6);
  servo.SetServoOn("all");
  move.SetRefPosition("0", 90);  // takes the simulator 5 s
  arm.KeepAlive();               // from here on the host must be heard every 200 ms
  arm.Send(servo, velta::Confirm::kYes).Wait(1s);
  arm.Send(move, velta::Confirm::kYes).Wait(1s);
  for (int i = 0; i < 5; ++i) {  // a loop that is well
    std::this_thread::sleep_for(50ms);
    arm.KeepAlive();
  }
  std::this_thread::sleep_for(1s);  // a loop that hangs

  const velta::Ticket refused = arm.Send(move);
  std::printf("a command: %s, %s\n", ToString(refused.Outcome()), ToString(refused.Reason()));
  const auto status = arm.Latest();
  if (status) std::printf("joint 0 was stopped %s\n", status->joints[0].position < 45 ? "on its way" : "too late");

  // Somebody has looked at the arm, and lets it go on.
  arm.Rearm();
  arm.KeepAlive();
  const bool goes_on = arm.Send(move, velta::Confirm::kYes).Wait(150ms) == velta::Outcome::kConfirmed;
  std::printf("after Rearm(): %s\n", goes_on ? "confirmed" : "not confirmed");
  arm.Disarm();
  return goes_on ? 0 : 1;
}
