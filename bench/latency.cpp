// SPDX-License-Identifier: MIT
// Round trips over loopback: a command frame out, a status frame back, next to the same by plain sockets, in turn.
// First by the library's steps, where both hosts poll without a pause, as a control loop with nothing else to do; then
// by the programs `velta ping` and `velta sim`, where all wait.
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
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

/// Median and 99.9th percentile.
std::array<double, 2> Quantiles(std::vector<double>& times) { return {Quantile(times, 0.5), Quantile(times, 0.999)}; }

void PrintHeader(const char* job, const char* what) {
  std::printf(
      "| %s | bare p50 us | %s p50 us | ratio | bare p99.9 us | %s p99.9 us | ratio |\n|---|---|---|---|---|---|---|\n",
      job, what, what);
}

void PrintRow(int n, const std::array<double, 2>& bare, const std::array<double, 2>& measured) {
  std::printf("| n %d | %.1f | %.1f | %.2f | %.1f | %.1f | %.2f |\n", n, bare[0], measured[0], measured[0] / bare[0],
              bare[1], measured[1], measured[1] / bare[1]);
  std::fflush(stdout);
}

void Measure(int n, int round_trips) {
  Peer bare_peer, library_peer;
  std::unique_ptr<Echo> bare_echo, library_echo;  // they end when their hosts below have left
  const BareSocket bare(bare_peer);
  MasterControllerClient client(n);
  Require(client.InitAsTcpClient("127.0.0.1", library_peer.Port()), "cannot connect");
  library_peer.Accept();
  bare_echo = std::make_unique<Echo>(bare_peer, n);
  library_echo = std::make_unique<Echo>(library_peer, n);

  const std::vector<char> command = CommandFrame(n);
  const int status_size = static_cast<int>(StatusFrame(n).size());
  std::vector<char> buffer(65535);
  std::vector<double> bare_times, library_times;
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
  PrintRow(n, Quantiles(bare_times), Quantiles(library_times));
}

/// `velta sim` in a process of its own, which ends with the object.
class Simulator {
 public:
  explicit Simulator(int n) {
    int out[2];
    Require(pipe(out) == 0, "no pipe");
    const std::string joints = std::to_string(n);
    process_ = fork();
    if (process_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      execl(VELTA_PROGRAM, "velta", "sim", "-n", joints.c_str(), "--on-command", "tcp://127.0.0.1:0", nullptr);
      _exit(127);
    }
    close(out[1]);
    output_ = fdopen(out[0], "r");
    char link[64] = "";
    Require(std::fscanf(output_, "listening on %63s", link) == 1, "velta sim does not listen");
    link_ = link;
  }
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;
  ~Simulator() {
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
    std::fclose(output_);
  }

  const std::string& Link() const { return link_; }

 private:
  pid_t process_;
  std::FILE* output_;
  std::string link_;
};

std::array<double, 2> RunPing(const std::string& link, int n, int round_trips) {
  const std::string command = std::string(VELTA_PROGRAM) + " ping --json -i 0 -n " + std::to_string(n) + " -c " +
                              std::to_string(round_trips) + " " + link;
  std::FILE* const output = popen(command.c_str(), "r");
  Require(output != nullptr, "cannot run velta ping");
  const auto report = nlohmann::json::parse(output, nullptr, false);
  Require(pclose(output) == 0 && report.is_object(), "velta ping failed");
  return {report["round_trip_us"]["p50"], report["round_trip_us"]["p99_9"]};
}

std::array<double, 2> RunBare(int n, int round_trips) {
  Peer peer;
  std::unique_ptr<Echo> echo;  // ends when its host has left
  std::vector<double> times;
  times.reserve(static_cast<std::size_t>(round_trips));
  const BareSocket bare(peer);
  echo = std::make_unique<Echo>(peer, n);
  const std::vector<char> command = CommandFrame(n);
  const int status_size = static_cast<int>(StatusFrame(n).size());
  std::vector<char> buffer(65535);
  for (int i = 0; i < round_trips; ++i) {
    times.push_back(Microseconds([&] {
      bare.Send(command);
      for (int got = 0; got < status_size;) got += std::max(bare.WaitAndReceive(buffer.data(), buffer.size()), 0);
    }));
  }
  return Quantiles(times);
}

/// Five runs of either in turn, and the medians of what they say.
void MeasurePrograms(int n, int round_trips) {
  constexpr int kRuns = 5;
  std::array<std::vector<double>, 2> bare, programs;
  const Simulator simulator(n);
  for (int i = 0; i < kRuns; ++i) {
    const auto by_sockets = RunBare(n, round_trips / kRuns),
               by_programs = RunPing(simulator.Link(), n, round_trips / kRuns);
    for (std::size_t q = 0; q < 2; ++q) {
      bare[q].push_back(by_sockets[q]);
      programs[q].push_back(by_programs[q]);
    }
  }
  const auto medians = [](std::array<std::vector<double>, 2>& runs) {
    return std::array<double, 2>{Quantile(runs[0], 0.5), Quantile(runs[1], 0.5)};
  };
  PrintRow(n, medians(bare), medians(programs));
}

}  // namespace

int main(int argc, char** argv) {
  const int round_trips = argc > 1 ? std::atoi(argv[1]) : 20000;
  Require(argc <= 2 && round_trips >= 1000, "usage: velta_latency [round trips, 1000 at least]");
  std::cout.setstate(std::ios::badbit);
  PrintHeader("steps", "library");
  for (const int n : {1, 7, 32}) Measure(n, round_trips);
  std::printf("\n");
  // On one processor, which threads and processes inherit: else the scheduler's choice for a pair, to share one or to
  // wake an idle one each time, would be most of the difference.
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(0, &one);
  Require(sched_setaffinity(0, sizeof one, &one) == 0, "cannot stay on one processor");
  PrintHeader("`velta ping` to `velta sim`", "velta");
  for (const int n : {1, 7, 32}) MeasurePrograms(n, round_trips);
}
