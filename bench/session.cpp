// SPDX-License-Identifier: MIT
// What a session adds to the steps that it runs: a cycle next to the steps by hand, a cycle while threads send, its
// wake-ups next to cyclictest's, and 40 sessions next to 40 bare loops.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "MasterControllerClient.h"
#include "support.h"
#include "velta_session.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using velta::bench::Allocations;
using velta::bench::Peer;
using velta::bench::Require;

constexpr int kRounds = 5;  // of what the clock measures; the median counts

double Quantile(std::vector<double>& values, double share) {
  const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return values[static_cast<std::size_t>(at)];
}

bool HaveFifo(int priority) {
  sched_param parameters{};
  parameters.sched_priority = priority;
  return pthread_setschedparam(pthread_self(), priority > 0 ? SCHED_FIFO : SCHED_OTHER, &parameters) == 0;
}

velta::SessionOptions Options(const std::string& link, int joints) {
  velta::SessionOptions options;
  options.link = link;
  options.joints = joints;
  return options;
}

/// A session on a socket of this program, stepped by it.
class Stepped {
 public:
  explicit Stepped(int joints, velta::SessionOptions options = {})
      : arm(Complete(std::move(options), joints, peer)), status(velta::bench::StatusFrame(joints)) {
    arm.Step();
    peer.Accept();
    peer.Send(status);
    while (!arm.IsConnected()) arm.Step();
  }
  Peer peer;
  velta::Session arm;
  const std::vector<char> status;

 private:
  static velta::SessionOptions Complete(velta::SessionOptions options, int joints, const Peer& peer) {
    options.link = "tcp://127.0.0.1:" + std::to_string(peer.Port());
    options.joints = joints;
    return options;
  }
};

class ByHand {
 public:
  explicit ByHand(int joints) : client(joints), status(velta::bench::StatusFrame(joints)) {
    Require(client.InitAsTcpClient("127.0.0.1", peer.Port()), "no connection");
    peer.Accept();
  }
  Peer peer;
  MasterControllerClient client;
  const std::vector<char> status;
};

/// Nanoseconds of act.
template <typename Act>
double Time(Act act) {
  const auto begin = Clock::now();
  act();
  return std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
}

template <typename Configure>
void CompareCycle(const char* name, int joints, Configure configure) {
  velta::SessionOptions options;
  configure(options);
  Stepped session(joints, options);
  ByHand hand(joints);
  SendPacket packet(joints);
  packet.SetRefPosition("all", 1);
  std::vector<double> by_session, by_hand;
  std::uint64_t allocations = 0;
  constexpr int kCycles = 40000;
  for (int i = 0; i < kCycles + 1000; ++i) {
    session.peer.Send(session.status);
    hand.peer.Send(hand.status);
    velta::Ticket ticket = session.arm.Send(packet);
    hand.client.PushSendQueue(packet, false);
    const auto step = [&] {
      const std::uint64_t before = Allocations();
      const double time = Time([&] { session.arm.Step(); });
      if (i < 1000) return;
      allocations += Allocations() - before;
      by_session.push_back(time);
    };
    const auto steps = [&] {
      const double time = Time([&] { hand.client.ReceiveStatus(), hand.client.SendPacketInBuffer(); });
      if (i >= 1000) by_hand.push_back(time);
    };
    if (i % 2 == 0) {
      step(), steps();
    } else {
      steps(), step();
    }
    Require(ticket.Outcome() == velta::Outcome::kSent, "a command was not sent");
    if (i % 64 == 0) session.arm.Drain(), hand.client.FlushRecvBuffer(), session.peer.Drain(), hand.peer.Drain();
  }
  const double session_ns = Quantile(by_session, 0.5), hand_ns = Quantile(by_hand, 0.5);
  std::printf("| %s | n %d | %.0f | %.0f | %.2f | %.4f |\n", name, joints, hand_ns, session_ns, session_ns / hand_ns,
              static_cast<double>(allocations) / kCycles);
}

void MeasureSend() {
  velta::Session arm(Options("sim:", 7));
  arm.Start();
  velta::Source source = arm.AddSource("bench");
  const SendPacket packet(7);
  std::vector<double> times;
  std::uint64_t allocations = 0;
  for (int i = 0; i < 5000; ++i) {
    const std::uint64_t before = Allocations();
    times.push_back(Time([&] { static_cast<void>(source.Send(packet)); }));
    allocations += Allocations() - before;
    if (i % 4 == 0) std::this_thread::sleep_for(milliseconds(4));
  }
  std::printf("Send: median %.0f ns, p99 %.0f ns, %.2f allocations\n", Quantile(times, 0.5), Quantile(times, 0.99),
              static_cast<double>(allocations) / 5000);
}

/// The p99 of a step every ms, by itself or beside threads that send. They do not sleep in between: the interrupts that end
/// a sleep would be measured.
double StepP99(int senders_count) {
  Stepped session(7);
  std::atomic<bool> is_over{false};
  std::vector<std::thread> senders;
  for (int i = 0; i < senders_count; ++i) {
    senders.emplace_back([&, source = session.arm.AddSource("sender")]() mutable {
      const SendPacket packet(7);
      for (auto next = Clock::now(); !is_over; next = std::max(next + milliseconds(1), Clock::now())) {
        static_cast<void>(source.Send(packet));
        while (Clock::now() < next && !is_over) {
        }
      }
    });
  }
  HaveFifo(80);
  std::vector<double> times;
  for (int i = 0; i < 2000; ++i) {
    session.peer.Send(session.status);
    velta::Ticket ticket = session.arm.Send(SendPacket(7));
    times.push_back(Time([&] { session.arm.Step(); }));
    session.peer.Drain();
    std::this_thread::sleep_for(milliseconds(1));
  }
  HaveFifo(0);
  is_over = true;
  for (std::thread& sender : senders) sender.join();
  return Quantile(times, 0.99);
}

void MeasureContention() {
  std::vector<double> alone, beside;
  for (int round = 0; round < kRounds; ++round) {
    alone.push_back(StepP99(0));
    beside.push_back(StepP99(8));
  }
  const double lonely = Quantile(alone, 0.5), contended = Quantile(beside, 0.5);
  std::printf("a step's p99: by itself %.1f us, beside 8 sending threads %.1f us, ratio %.2f\n", lonely / 1e3,
              contended / 1e3, contended / lonely);
}

constexpr std::array<double, 3> kShares = {0.5, 0.99, 0.999};
using Quantiles = std::array<double, kShares.size()>;

/// Quantiles in us by cyclictest on one processor; zeros where it is not installed.
Quantiles Cyclictest(int priority, unsigned processor, int seconds) {
  const std::string command = "cyclictest -q -m -t1 -i1000 -h10000 -a" + std::to_string(processor) + " -p" +
                              std::to_string(priority) + " -D" + std::to_string(seconds) + " 2>/dev/null";
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return {};
  std::vector<double> samples;
  char line[256];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    unsigned long us = 0, count = 0;
    if (line[0] == '#' || std::sscanf(line, "%lu %lu", &us, &count) != 2) continue;
    samples.insert(samples.end(), count, static_cast<double>(us));
  }
  pclose(pipe);
  if (samples.empty()) return {};
  return {Quantile(samples, kShares[0]), Quantile(samples, kShares[1]), Quantile(samples, kShares[2])};
}

/// Of each quantile the median of all rounds.
Quantiles Typical(const std::vector<Quantiles>& rounds) {
  Quantiles typical{};
  for (std::size_t i = 0; i < typical.size(); ++i) {
    std::vector<double> values;
    for (const Quantiles& round : rounds) values.push_back(round[i]);
    typical[i] = Quantile(values, 0.5);
  }
  return typical;
}

/// While it lives, no processor enters a sleep state. cyclictest asks for that itself; here both get it.
class Awake {
 public:
  Awake() : fd_(open("/dev/cpu_dma_latency", O_WRONLY)) {
    const std::int32_t longest_us = 0;
    if (write(fd_, &longest_us, sizeof longest_us) < 0) std::puts("(the processors may sleep)");
  }
  Awake(const Awake&) = delete;
  Awake& operator=(const Awake&) = delete;
  ~Awake() {
    if (fd_ >= 0) close(fd_);
  }

 private:
  int fd_;
};

/// A session and cyclictest in the same seconds, on a processor each, which they exchange after each round: what the
/// machine's host takes away comes and goes.
void MeasureLateness(int seconds) {
  const Awake awake;
  const unsigned processors = std::thread::hardware_concurrency();
  for (const bool loaded : {false, true}) {
    std::atomic<bool> is_over{false};
    std::vector<std::thread> load;
    for (unsigned i = 0; loaded && i < std::thread::hardware_concurrency(); ++i) {
      load.emplace_back([&] {
        while (!is_over) {
        }
      });
    }
    std::vector<Quantiles> session_rounds, cyclictest_rounds;
    std::string note;
    for (unsigned round = 0; round < 6 * processors; ++round) {
      Peer peer;
      velta::SessionOptions options = Options("tcp://127.0.0.1:" + std::to_string(peer.Port()), 7);
      options.silence = std::chrono::nanoseconds(0);
      options.priority = 80;
      options.processor = static_cast<int>(round % processors);
      options.lock_memory = true;
      velta::Session arm(options);
      arm.OnEvent([&](const velta::Event& event) {
        if (event.kind == velta::Event::Kind::kNotice) note = " (" + event.text + ")";
      });
      arm.Start();
      peer.Accept();
      cyclictest_rounds.push_back(Cyclictest(80, (round + 1) % processors, seconds));
      const velta::Lateness lateness = arm.GetStatistics().lateness;
      session_rounds.push_back({lateness.p50_us, lateness.p99_us, lateness.p999_us});
    }
    is_over = true;
    for (std::thread& thread : load) thread.join();
    const Quantiles session = Typical(session_rounds), cyclictest = Typical(cyclictest_rounds);
    std::printf("wake-up lateness at 1 kHz, SCHED_FIFO 80, %s%s:\n", loaded ? "every processor busy" : "idle",
                note.c_str());
    for (std::size_t i = 0; i < kShares.size(); ++i) {
      std::printf("  p%g: %.0f us, cyclictest %.0f us, ratio %.2f\n", 100 * kShares[i], session[i], cyclictest[i],
                  cyclictest[i] > 0 ? session[i] / cyclictest[i] : 0);
    }
  }
}

constexpr int kLoops = 40;
constexpr milliseconds kLoopPeriod(10);

/// Deadlines that the worst of 40 sessions at 100 Hz misses, in a thousand.
double WorstSession(int seconds) {
  double worst = 0;
  std::vector<std::unique_ptr<velta::Session>> arms;
  for (int i = 0; i < kLoops; ++i) {
    velta::SessionOptions options = Options("sim:?cycle=10", 7);
    options.period = kLoopPeriod;
    arms.push_back(std::make_unique<velta::Session>(options));
    arms.back()->Start();
  }
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  for (const auto& arm : arms) {
    const velta::SessionStatistics statistics = arm->GetStatistics();
    worst = std::max(worst, 1e3 * static_cast<double>(statistics.overruns) / static_cast<double>(statistics.cycles));
  }
  return worst;
}

/// The same of bare loops.
double WorstTimer(int seconds) {
  double worst = 0;
  std::array<std::atomic<int>, kLoops> missed{};
  std::vector<std::thread> loops;
  const int cycles = seconds * 100;
  for (auto& count : missed) {
    loops.emplace_back([&count, cycles] {
      auto due = Clock::now();
      for (int i = 0; i < cycles; ++i) {
        std::this_thread::sleep_until(due += kLoopPeriod);
        for (; Clock::now() >= due + kLoopPeriod; due += kLoopPeriod) ++count;
      }
    });
  }
  for (std::thread& loop : loops) loop.join();
  for (const auto& count : missed) worst = std::max(worst, 1e3 * count / cycles);
  return worst;
}

void MeasureMany(int seconds) {
  std::vector<double> sessions, timers;
  for (int round = 0; round < kRounds; ++round) {
    sessions.push_back(WorstSession(seconds));
    timers.push_back(WorstTimer(seconds));
  }
  std::printf("40 loops at 100 Hz, deadlines missed in a thousand by the worst: sessions %.2f, bare timers %.2f\n",
              Quantile(sessions, 0.5), Quantile(timers, 0.5));
}

}  // namespace

// usage: velta_session_bench [seconds per measurement of the clock]
int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 4;
  std::cout.rdbuf(nullptr);  // the clients' lines
  std::puts(
      "| cycle with a status and a command, TCP loopback | size | by hand ns | session ns | ratio | allocations |");
  std::puts("|---|---|---|---|---|---|");
  for (const int joints : {7, 32}) CompareCycle("session", joints, [](velta::SessionOptions&) {});
  for (const int joints : {7, 32}) {
    CompareCycle("with the flight recorder", joints,
                 [](velta::SessionOptions& options) { options.flight_recorder = std::chrono::seconds(10); });
  }
  std::puts("");
  MeasureSend();
  MeasureContention();
  if (seconds == 0) return 0;
  MeasureLateness(seconds);
  MeasureMany(5 * seconds);  // long enough for one miss in a thousand
}
