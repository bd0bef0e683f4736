// SPDX-License-Identifier: MIT
// The C++ side of python_bench.py: one JSON object with ns per call of Latest() and Send(), and the loop's lateness
// while another thread computes. usage: python_baseline SECONDS JOINTS
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "velta_log.h"
#include "velta_session.h"

namespace {

using Clock = std::chrono::steady_clock;

/// @return ns per call, the best of several rounds
template <typename Call>
double NsPerCall(Call call) {
  constexpr int kCalls = 2000;
  double best = 1e9;
  for (int round = 0; round < 50; ++round) {
    const auto start = Clock::now();
    for (int i = 0; i < kCalls; ++i) call();
    const std::chrono::duration<double, std::nano> took = Clock::now() - start;
    best = std::min(best, took.count() / kCalls);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  velta::SetLogSink([](velta::LogLevel, std::string_view) {});
  velta::SessionOptions options;
  options.link = "sim:";
  options.joints = std::atoi(argv[2]);
  options.queue_size = 1'000'000;
  double latest = 0;
  double send = 0;
  {
    velta::Session arm(options);
    arm.Start();
    arm.WaitConnected(std::chrono::seconds(5));
    float sum = 0;
    latest = NsPerCall([&] { sum += arm.Latest()->joints[0].position; });
    const SendPacket command(options.joints);
    send = NsPerCall([&] { arm.Send(command); });
    if (sum > 1e30F) return 1;
  }
  velta::Session arm(options);
  arm.OnStatus([](const RecvPacket&) {});
  arm.Start();
  std::atomic<bool> is_over{false};
  std::thread computes([&] {
    while (!is_over) {
    }
  });
  std::this_thread::sleep_for(std::chrono::duration<double>(std::atof(argv[1])));
  const std::string statistics = velta::ToJson(arm.GetStatistics());
  is_over = true;
  computes.join();
  std::printf("{\"latest_ns\":%.1f,\"send_ns\":%.1f,\"statistics\":%s}\n", latest, send, statistics.c_str());
}
