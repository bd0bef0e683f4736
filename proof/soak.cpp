// SPDX-License-Identifier: MIT
// A host at 1 kHz against a simulated controller over TCP that loses 5 % of the frames either way, with a reconnection
// every few seconds: memory and descriptors stay flat, and confirmed commands keep arriving.
// usage: soak [SECONDS, 60 by default]
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

#include "MasterControllerClient.h"
#include "server.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Footprint {
  long kib = 0;
  std::ptrdiff_t descriptors = 0;
};

Footprint Measure() {
  Footprint now;
  std::ifstream("/proc/self/statm") >> now.kib >> now.kib;
  now.kib *= sysconf(_SC_PAGESIZE) / 1024;
  using Iterator = std::filesystem::directory_iterator;
  now.descriptors = std::distance(Iterator("/proc/self/fd"), Iterator());
  return now;
}

velta::sim::FaultRule Loss(velta::sim::Fault fault) {
  velta::sim::FaultRule rule;
  rule.fault = fault;
  rule.rate = 0.05;
  return rule;
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned long seconds = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 60;
  if (seconds == 0) {
    std::fputs("usage: soak [SECONDS]\n", stderr);
    return 2;
  }
  std::cout.rdbuf(nullptr);
  constexpr int kJoints = 6;
  velta::sim::ServerConfig config;
  config.joints = kJoints;
  config.listen.push_back({velta::LinkAddress::Kind::kTcp, "127.0.0.1", 0, "", 0, 1});
  config.faults = {Loss(velta::sim::Fault::kDropCommand), Loss(velta::sim::Fault::kDropStatus)};
  velta::sim::Server server(config);
  const std::string link = server.Links().front();
  const int stop = eventfd(0, 0);
  std::thread controller([&] { server.Run(stop); });

  MasterControllerClient client(kJoints);
  bool good = client.InitAsTcpClient("127.0.0.1", std::atoi(link.c_str() + link.rfind(':') + 1));
  client.CreateIndependentSendPacketBuffer("source");
  unsigned long statuses = 0, reconnections = 0, steps = 0;
  const auto begin = Clock::now(), end = begin + std::chrono::seconds(seconds);
  auto reconnect = begin;
  const auto interval = std::chrono::milliseconds(seconds > 20 ? 3000 : 300);
  Footprint settled;
  for (auto wake = begin; good && wake < end; wake += std::chrono::milliseconds(1), ++steps) {
    if (settled.kib == 0 && wake - begin > std::chrono::seconds(seconds) / 4) settled = Measure();
    if (wake - reconnect > interval) {
      reconnect = wake;
      ++reconnections;
      good = client.Disconnect() && client.Connect();
    }
    SendPacket command(kJoints);
    command.SetParamKp("all", 1);  // sets a value; a position would queue up as a via point
    if (steps % 100 == 0) {
      client.PushBackIndependentSendBuffer(command, "source", true, false, "");
    } else {
      command.SetUniqueKey("newest");
      client.InsertUniqueSendMap(command);
    }
    client.ReceiveStatus();
    client.SendPacketInBuffer();
    statuses += steps % 2 == 0 ? client.GetCurStatePacket().size() : client.GetCurStateJson().size();
    std::this_thread::sleep_until(wake);
  }
  const Footprint last = Measure();
  client.Disconnect();
  const bool written = eventfd_write(stop, 1) == 0;
  controller.join();
  const velta::sim::Summary summary = server.GetSummary();
#ifndef VELTA_SANITIZED
  good = good && last.kib - settled.kib < 1024;
#endif
  good = good && written && last.descriptors == settled.descriptors && statuses > steps / 4 &&
         summary.executed > steps / 10 && summary.bad_crc == 0 && summary.garbage == 0;
  std::fprintf(stderr,
               "soak: %lu s, %lu steps, %lu statuses, %llu commands, %lu reconnections; memory %+ld KiB, descriptors "
               "%+td since a quarter of the time  %s\n",
               seconds, steps, statuses, static_cast<unsigned long long>(summary.executed), reconnections,
               last.kib - settled.kib, last.descriptors - settled.descriptors, good ? "ok" : "OUT OF BOUNDS");
  return good ? 0 : 1;
}
