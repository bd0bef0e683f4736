// SPDX-License-Identifier: MIT
// One thread runs the steps, one collects status, and several feed commands. usage: status_thread IP PORT
#include <MasterControllerClient.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

namespace {

constexpr int kJoints = 6;
constexpr int kPerFeeder = 20;

std::atomic<bool> running{true};
std::atomic<bool> connected{true};

/// The only thread that touches the link. IsConnected() is its own, so it passes the result on.
void RunSteps(MasterControllerClient& arm) {
  auto next = std::chrono::steady_clock::now();
  while (running && arm.IsConnected()) {
    arm.ReceiveStatus();
    arm.SendPacketInBuffer();
    std::this_thread::sleep_until(next += std::chrono::milliseconds(1));
  }
  connected = arm.IsConnected();
}

/// Any number of threads may push.
void Feed(MasterControllerClient& arm, int joint) {
  for (int i = 1; i <= kPerFeeder; ++i) {
    SendPacket packet(kJoints);
    packet.SetRefPosition(std::to_string(joint), static_cast<float>(i));
    arm.PushSendQueue(packet, false);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: status_thread IP PORT\n");
    return 2;
  }
  MasterControllerClient arm(kJoints);
  if (!arm.InitAsTcpClient(argv[1], std::atoi(argv[2]))) return 1;

  std::thread steps(RunSteps, std::ref(arm));
  std::array<std::thread, 3> feeders;
  int joint = 0;
  for (std::thread& feeder : feeders) feeder = std::thread(Feed, std::ref(arm), joint++);
  std::size_t statuses = 0;
  std::thread collector([&] {  // one thread collects
    while (running) {
      statuses += arm.GetCurStatePacket().size();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });

  for (std::thread& feeder : feeders) feeder.join();
  const auto queued = [&arm] { return static_cast<unsigned long>(arm.GetStatistics().commands_queued); };  // any thread
  for (int i = 0; i < 2000 && queued() > 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const unsigned long left = queued();
  running = false;  // threads end before the client does
  steps.join();
  collector.join();
  std::printf("%d commands fed, %lu left, %s\n", kPerFeeder * static_cast<int>(feeders.size()), left,
              statuses > 0 ? "statuses collected" : "no status");
  return connected && left == 0 && statuses > 0 ? 0 : 1;
}
