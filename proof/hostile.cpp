// SPDX-License-Identifier: MIT
// A controller that floods, babbles or drips, over real sockets: the host's loop keeps its step time and its memory.
// usage: hostile [MIB of garbage, 1024 by default]
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <random>
#include <thread>

#include "MasterControllerClient.h"
#include "support/bytes.h"

namespace {

using velta::test::StatusFrame;
constexpr int kJoints = 6;
constexpr double kMaxStepMs = 50;      // of processor time: a receive step reads at most 65,535 bytes
constexpr long kMaxGrowthKib = 65536;  // 4,096 packets, one read and what the allocator keeps

/// Keeps a sanitizer's own memory and slowness out of the judgement.
#ifdef VELTA_SANITIZED
constexpr bool kJudge = false;
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

using Bytes = std::vector<char>;

enum class Link { Tcp, Udp, Memory };

struct Attack {
  const char* name;
  Link link;
  std::size_t total;  ///< bytes to send
  std::function<Bytes(std::size_t turn)> make;
  bool collects;  ///< whether the host takes its packets out
  int frames_at_least;
};

/// Gives as many bytes a read as a link can; a busy socket mostly gives one more, which counts as an overflow.
struct MemoryLink : AbstractClient {
  explicit MemoryLink(const Attack& from) : attack(from) {}
  bool Init() override { return true; }
  bool Connect() override { return true; }
  int Disconnect() override { return 0; }
  int Write(const Bytes& data) override { return static_cast<int>(data.size()); }
  int Read(Bytes& data) override {
    constexpr std::size_t kMost = 65534;
    if (sent >= attack.total) return 0;
    if (at >= turn.size()) {
      turn = attack.make(turns++);
      at = 0;
    }
    const std::size_t size = std::min(kMost, turn.size() - at);
    data.assign(&turn[at], &turn[at] + size);
    at += size;
    sent += size;
    return static_cast<int>(size);
  }
  const Attack& attack;
  Bytes turn;
  std::size_t turns = 0, at = 0, sent = 0;
};

struct Client : MasterControllerClient {
  Client() : MasterControllerClient(kJoints) {}
  void Use(AbstractClient* link) { client_ = link; }
};

Bytes Repeated(const Bytes& bytes, std::size_t times) {
  Bytes all;
  for (; times > 0; --times) all.insert(all.end(), bytes.begin(), bytes.end());
  return all;
}

/// Sends everything, waiting for room where the link has a flow control.
void Send(int fd, const Attack& attack, std::atomic<bool>& done) {
  const bool is_datagrams = attack.link == Link::Udp;
  std::size_t sent = 0;
  for (std::size_t turn = 0; sent < attack.total; ++turn) {
    const Bytes bytes = attack.make(turn);
    for (std::size_t at = 0; at < bytes.size();) {
      const ssize_t count = send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
      if (count < 0 && !is_datagrams) return void(done = true);
      at += count > 0 ? static_cast<std::size_t>(count) : bytes.size();
    }
    sent += bytes.size();
  }
  if (!is_datagrams) shutdown(fd, SHUT_WR);
  done = true;
}

/// Opens the client's link to a socket of our own. @return that socket, -1 on failure
int Open(MasterControllerClient& client, bool is_datagrams) {
  const int fd = socket(AF_INET, is_datagrams ? SOCK_DGRAM : SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (bind(fd, any, size) != 0 || getsockname(fd, any, &size) != 0) return -1;
  if (!is_datagrams) {
    if (listen(fd, 1) != 0 || !client.InitAsTcpClient("127.0.0.1", ntohs(address.sin_port))) return -1;
    const int accepted = accept(fd, nullptr, nullptr);
    close(fd);
    return accepted;
  }
  client.InitAsUdpClient("127.0.0.1", ntohs(address.sin_port));
  SendPacket hello(kJoints);
  client.SendOnce(hello, false);
  char byte = 0;
  return recvfrom(fd, &byte, 1, 0, any, &size) == 1 && connect(fd, any, size) == 0 ? fd : -1;
}

bool Run(const Attack& attack) {
  Client client;
  const bool in_memory = attack.link == Link::Memory;
  MemoryLink* const memory = in_memory ? new MemoryLink(attack) : nullptr;
  if (in_memory) client.Use(memory);
  const int fd = in_memory ? -1 : Open(client, attack.link == Link::Udp);
  if (fd == -1 && !in_memory) {
    std::perror("hostile: opening a socket");
    return false;
  }

  const long before = ResidentKib();
  long peak = before, frames = 0;
  double longest = 0, longest_wall = 0;
  std::atomic<bool> done{in_memory};
  std::thread sender([&] {
    if (!in_memory) Send(fd, attack, done);
  });
  const auto begin = std::chrono::steady_clock::now();
  auto last_step = begin;
  for (std::size_t step = 0, quiet = 0; quiet < 500; ++step) {
    const bool was_done = in_memory ? memory->sent >= attack.total : done.load();
    const double cpu = ThreadMs();
    const auto wall = std::chrono::steady_clock::now();
    const int got = client.ReceiveStatus();
    client.SendPacketInBuffer();
    longest = std::max(longest, ThreadMs() - cpu);
    last_step = std::chrono::steady_clock::now();
    longest_wall = std::max(longest_wall, std::chrono::duration<double, std::milli>(last_step - wall).count());
    frames += got;
    quiet = was_done && got == 0 ? quiet + 1 : 0;
    // Behind the last byte a TCP link is readable at once and gives nothing; one step per read empties its buffers.
    if (was_done && quiet > 490) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (attack.collects) client.GetCurStatePacket();
    if (step % 64 == 0) peak = std::max(peak, ResidentKib());
  }
  sender.join();
  close(fd);
  peak = std::max(peak, ResidentKib());
  const double seconds = std::chrono::duration<double>(last_step - begin).count();
  const bool good = frames >= attack.frames_at_least && client.GetRecvBufferSize() <= 4096 &&
                    (!kJudge || (longest <= kMaxStepMs && peak - before <= kMaxGrowthKib));
  std::fprintf(stderr, "%-34s %8.1f MiB %7.1f s %9ld frames  step %7.3f ms (wall %8.3f)  memory +%6ld KiB  %s\n",
               attack.name, static_cast<double>(attack.total) / 1048576, seconds, frames, longest, longest_wall,
               peak - before, good ? "ok" : "OUT OF BOUNDS");
  return good;
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t mib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1024;
  if (mib == 0) {
    std::fputs("usage: hostile [MIB]\n", stderr);
    return 2;
  }
  std::cout.rdbuf(nullptr);
  const std::size_t much = mib << 20, some = std::max<std::size_t>(much / 16, 4 << 20);
  std::mt19937_64 random(5);
  Bytes garbage(1 << 20);
  for (char& byte : garbage) byte = static_cast<char>(random());
  const Bytes marks = Repeated({'\xAB', '\xCD'}, 1 << 19), halves(1 << 20, '\xAB');
  const Bytes frame = StatusFrame(kJoints, 1, 2, 3), flood = Repeated(frame, 2000);
  const Bytes datagram(65507, 'x');
  const std::size_t drip = 20 * frame.size();

  bool good = true;
  const auto is = [](const Bytes& bytes) { return [&bytes](std::size_t) -> Bytes { return bytes; }; };
  const auto byte = [&frame](std::size_t i) { return Bytes(1, frame[i % frame.size()]); };
  for (const Attack& attack : {Attack{"garbage", Link::Memory, much, is(garbage), true, 0},
                               Attack{"garbage, TCP", Link::Tcp, much, is(garbage), true, 0},
                               Attack{"start marks", Link::Memory, some, is(marks), true, 0},
                               Attack{"first halves of start marks", Link::Memory, some, is(halves), true, 0},
                               Attack{"a byte at a time, TCP", Link::Tcp, drip, byte, true, 20},
                               Attack{"a flood, not collected", Link::Memory, some, is(flood), false, 5000},
                               Attack{"a flood, not collected, TCP", Link::Tcp, some, is(flood), false, 1},
                               Attack{"a flood of datagrams, UDP", Link::Udp, some, is(frame), false, 1},
                               Attack{"datagrams of 65,507 bytes, UDP", Link::Udp, some, is(datagram), true, 0}}) {
    good = Run(attack) && good;
  }
  return good ? 0 : 1;
}
