// SPDX-License-Identifier: MIT
// Takes command documents, one a line, and prints the status document that confirms each. usage: json_bridge IP PORT
#include <MasterControllerClient.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

namespace {

constexpr int kJoints = 6;

/// @return the first status document whose echo is another than before; empty when none comes
std::string NextEcho(MasterControllerClient& arm) {
  const unsigned long before = arm.GetLastRecvPacket().header.hostTimestamp;
  for (int step = 0; step < 520 && arm.IsConnected(); ++step) {
    arm.ReceiveStatus();
    arm.SendPacketInBuffer();
    const bool echoed = arm.GetLastRecvPacket().header.hostTimestamp != before;
    const auto documents = arm.GetCurStateJson();  // also what keeps the receive buffer from filling up
    if (echoed && !documents.empty()) return documents.back();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return "";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: json_bridge IP PORT\n");
    return 2;
  }
  MasterControllerClient arm(kJoints);
  if (!arm.InitAsTcpClient(argv[1], std::atoi(argv[2]))) return 1;
  int bad = 0;
  for (std::string line; std::getline(std::cin, line);) {
    if (!arm.PushSendQueueJson(line, true)) {  // false: no such document, and nothing was queued
      std::fprintf(stderr, "json_bridge: not a command document: %s\n", line.c_str());
      ++bad;
      continue;
    }
    const std::string status = NextEcho(arm);
    if (status.empty()) {
      std::fprintf(stderr, "json_bridge: not confirmed\n");
      return 1;
    }
    std::printf("%s\n", status.c_str());
    std::fflush(stdout);
  }
  return bad == 0 ? 0 : 1;
}
