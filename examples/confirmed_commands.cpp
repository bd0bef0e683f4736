// SPDX-License-Identifier: MIT
// Commands that the controller must confirm, one after the other, with a verdict on each.
// usage: confirmed_commands IP PORT
#include <MasterControllerClient.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

constexpr int kJoints = 6;

/// Sends packet and waits until the controller has echoed its time stamp.
///
/// The send step sends it again after 100 steps without the echo, and gives up after the fifth time: 505 steps. A
/// packet sent again carries its stamp raised by 1, so an echo of the stamp or a little more is this packet's.
bool Confirmed(MasterControllerClient& arm, SendPacket packet) {
  arm.PushSendQueue(packet, true);
  for (int step = 0; step < 520 && arm.IsConnected(); ++step) {
    arm.ReceiveStatus();
    arm.SendPacketInBuffer();
    arm.FlushRecvBuffer();  // only the newest status is of interest here
    const unsigned long echo = arm.GetLastRecvPacket().header.hostTimestamp;
    if (echo - packet.GetTimeStamp() < 16) return true;  // unsigned: an older echo gives a huge number
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: confirmed_commands IP PORT\n");
    return 2;
  }
  MasterControllerClient arm(kJoints);
  if (!arm.InitAsTcpClient(argv[1], std::atoi(argv[2]))) return 1;

  struct Command {
    const char* name;
    void (*set)(SendPacket&);
  };
  constexpr Command kCommands[] = {
      {"brakes off", [](SendPacket& packet) { packet.SetBrakeOff("all"); }},
      {"servo on", [](SendPacket& packet) { packet.SetServoOn("all"); }},
      {"trajectory mode", [](SendPacket& packet) { packet.SetTrajectoryControlMode("all"); }},
      {"home", [](SendPacket& packet) { packet.SetMoveHomePosition("all"); }},
  };
  for (const Command& command : kCommands) {
    SendPacket packet(kJoints);  // stamped with the time at which it is made
    command.set(packet);
    const bool confirmed = Confirmed(arm, packet);
    std::printf("%s: %s\n", command.name, confirmed ? "confirmed" : "not confirmed");
    std::fflush(stdout);
    if (!confirmed) return 1;  // what follows relies on it
  }
  return 0;
}
