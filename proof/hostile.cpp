// SPDX-License-Identifier: MIT
// A controller that floods, babbles or drips: the host's loop keeps its step time and its memory.
// usage: hostile [MIB of each attack, 1024 by default]
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <random>

#include "support/bytes.h"
#include "support/scripted_link.h"

namespace {

using Bytes = std::vector<char>;
constexpr int kJoints = 6;
constexpr double kMaxStepMs = 50;      // of processor time: a receive step reads at most 65,534 bytes
constexpr long kMaxGrowthKib = 65536;  // 4,096 packets, one read and what the allocator keeps
#ifdef VELTA_SANITIZED
constexpr bool kJudge = false;  // a sanitizer's own memory and slowness stay out of it
#else
constexpr bool kJudge = true;
#endif

long ResidentKib() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * sysconf(_SC_PAGESIZE) / 1024;
}

double ThreadMs() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

struct Attack {
  const char* name;
  const Bytes& bytes;  ///< repeated
  std::size_t piece;   ///< bytes per read
  std::size_t total;
  bool collects;  ///< whether the host takes its packets out
  long frames_at_least;
};

struct Link : velta::test::ScriptedLink {
  explicit Link(const Attack& from) : attack(from) {}
  int Read(Bytes& data) override {
    data.resize(attack.piece);
    for (char& byte : data) byte = attack.bytes[at++ % attack.bytes.size()];
    return static_cast<int>(data.size());
  }
  int Write(const Bytes& data) override { return static_cast<int>(data.size()); }
  const Attack& attack;
  std::size_t at = 0;
};

bool Run(const Attack& attack) {
  auto* const link = new Link(attack);
  velta::test::ScriptedClient client(kJoints, link);
  const long before = ResidentKib();
  long peak = before, frames = 0;
  double longest = 0;
  for (std::size_t step = 0; link->at < attack.total; ++step) {
    const double begin = ThreadMs();
    frames += client.ReceiveStatus();
    client.SendPacketInBuffer();
    longest = std::max(longest, ThreadMs() - begin);
    if (attack.collects) client.GetCurStatePacket();
    if (step % 64 == 0) peak = std::max(peak, ResidentKib());
  }
  peak = std::max(peak, ResidentKib());
  const bool good = frames >= attack.frames_at_least && client.GetRecvBufferSize() <= 4096 &&
                    (!kJudge || (longest <= kMaxStepMs && peak - before <= kMaxGrowthKib));
  std::fprintf(stderr, "%-30s %8.1f MiB %9ld frames  step %7.3f ms  memory +%6ld KiB  %s\n", attack.name,
               static_cast<double>(attack.total) / 1048576, frames, longest, peak - before,
               good ? "ok" : "OUT OF BOUNDS");
  return good;
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t much = (argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1024) << 20;
  std::mt19937_64 random(5);
  Bytes garbage(1 << 20);
  for (char& byte : garbage) byte = static_cast<char>(random());
  const Bytes marks = {'\xAB', '\xCD'}, halves = {'\xAB'}, frame = velta::test::StatusFrame(kJoints, 1, 2, 3);
  bool good = true;
  for (const Attack& attack :
       {Attack{"garbage", garbage, 65534, much, true, 0}, Attack{"start marks", marks, 65534, much, true, 0},
        Attack{"first halves of start marks", halves, 65534, much, true, 0},
        Attack{"a byte at a time", frame, 1, 100 * frame.size(), true, 100},
        Attack{"a flood, not collected", frame, 65534, much, false, 5000}}) {
    good = Run(attack) && good;
  }
  return good ? 0 : 1;
}
