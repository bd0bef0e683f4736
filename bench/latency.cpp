// SPDX-License-Identifier: MIT
// Round trips over loopback: a command frame out, a status frame back, by the library's steps and by plain sockets, in
// turn. Both hosts poll without a pause, as a control loop with nothing else to do.
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <thread>
#include <vector>

#include "MasterControllerClient.h"
#include "SendPacket.h"
#include "support.h"

namespace {

using velta::bench::BareSocket;
using velta::bench::CommandFrame;
using velta::bench::Peer;
using velta::bench::Require;
using velta::bench::StatusFrame;

/// Answers every command frame of n joints with a status frame that echoes its time stamp, until the host leaves.
class Echo {
 public:
  Echo(const Peer& peer, int n)
      : thread_([&peer, n] {
          std::vector<char> command = CommandFrame(n);
          while (recv(peer.Fd(), command.data(), command.size(), MSG_WAITALL) == static_cast<ssize_t>(command.size())) {
            std::uint64_t stamp = 0;
            std::memcpy(&stamp, &command[2], sizeof stamp);
            peer.Send(StatusFrame(n, stamp));
          }
        }) {}
  Echo(const Echo&) = delete;
  Echo& operator=(const Echo&) = delete;
  ~Echo() { thread_.join(); }

 private:
  std::thread thread_;
};

template <typename RoundTrip>
double Microseconds(RoundTrip round_trip) {
  const auto begin = std::chrono::steady_clock::now();
  round_trip();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count();
}

double Quantile(std::vector<double>& times, double share) {
  const auto at = times.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(times.size()));
  std::nth_element(times.begin(), at, times.end());
  return *at;
}

void Measure(int n, int round_trips) {
  Peer bare_peer, library_peer;
  const Echo* echoes[2];  // they end when their hosts below have left
  std::vector<double> bare_times, library_times;
  {
    const BareSocket bare(bare_peer);
    MasterControllerClient client(n);
    Require(client.InitAsTcpClient("127.0.0.1", library_peer.Port()), "cannot connect");
    library_peer.Accept();
    echoes[0] = new Echo(bare_peer, n);
    echoes[1] = new Echo(library_peer, n);

    const std::vector<char> command = CommandFrame(n);
    const int status_size = static_cast<int>(StatusFrame(n).size());
    std::vector<char> buffer(65535);
    SendPacket packet(n);
    for (int i = 0; i < round_trips; ++i) {
      bare_times.push_back(Microseconds([&] {
        bare.Send(command);
        for (int got = 0; got < status_size;) got += std::max(bare.Receive(buffer.data(), buffer.size()), 0);
      }));
      library_times.push_back(Microseconds([&] {
        client.PushSendQueue(packet, true);
        client.SendPacketInBuffer();
        while (client.ReceiveStatus() == 0) {
        }
      }));
      client.FlushRecvBuffer();
    }
  }
  for (const Echo* echo : echoes) delete echo;
  const double bare50 = Quantile(bare_times, 0.5), bare999 = Quantile(bare_times, 0.999);
  const double library50 = Quantile(library_times, 0.5), library999 = Quantile(library_times, 0.999);
  std::printf("| n %d | %.1f | %.1f | %.2f | %.1f | %.1f | %.2f |\n", n, bare50, library50, library50 / bare50, bare999,
              library999, library999 / bare999);
}

}  // namespace

int main(int argc, char** argv) {
  const int round_trips = argc > 1 ? std::atoi(argv[1]) : 20000;
  Require(argc <= 2 && round_trips > 0, "usage: velta_latency [round trips]");
  std::cout.setstate(std::ios::badbit);
  std::printf(
      "| round trip | bare p50 us | library p50 us | ratio | bare p99.9 us | library p99.9 us | ratio |\n"
      "|---|---|---|---|---|---|---|\n");
  for (const int n : {1, 7, 32}) Measure(n, round_trips);
}
