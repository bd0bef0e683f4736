// SPDX-License-Identifier: MIT
// Every call that the thread contract lets overlap, at once; the thread sanitizer is the judge.
// usage: hammer [MILLISECONDS, 2000 by default]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <thread>

#include "support/bytes.h"
#include "support/scripted_link.h"

namespace {

constexpr int kJoints = 2;

/// Always readable, always writable; its Read and Write share nothing.
struct BusyLink : AbstractClient {
  bool Init() override { return true; }
  bool Connect() override { return true; }
  int Disconnect() override { return 0; }
  int Write(const std::vector<char>& data) override { return static_cast<int>(written += data.size()) | 1; }
  int Read(std::vector<char>& data) override {
    data = velta::test::StatusFrame(kJoints, ++stamp);
    return static_cast<int>(data.size());
  }
  std::size_t written = 0;
  std::uint64_t stamp = 0;
};

struct Client : MasterControllerClient {
  Client() : MasterControllerClient(kJoints) {
    client_ = new BusyLink;
    is_init_ = is_connected_ = true;
    CreateIndependentSendPacketBuffer("a");
  }
};

struct Call {
  int thread;  ///< calls of one thread never overlap
  std::function<void()> act;
};

}  // namespace

int main(int argc, char** argv) {
  const auto duration = std::chrono::milliseconds(argc > 1 ? std::atoi(argv[1]) : 2000);
  std::cout.rdbuf(nullptr);
  Client client;
  UniqueSendPacketMap map;
  SendPacketBuffer buffer;
  SendPacket step_packet(kJoints), keyed(kJoints), source(kJoints), feeder_packet(kJoints), other_packet(kJoints);
  keyed.SetUniqueKey("key");
  source.SetServoOn("all");
  const std::string document = R"({"armOrder":"0","jointCommand":[]})";
  std::unordered_map<std::string, SendPacket> unique;
  std::vector<SendPacket> ordinary;
  const Call calls[] = {
      // The steps' thread.
      {0, [&] { client.ReceiveStatus(); }},
      {0, [&] { client.SendPacketInBuffer(); }},
      {0, [&] { client.SendOnce(step_packet, false); }},
      {0, [&] { client.InsertUniqueSendMap(keyed); }},
      {0, [&] { client.CreateIndependentSendPacketBuffer("b"); }},
      {0, [&] { client.PushBackIndependentSendBuffer(source, "a", false, true, "k"); }},
      {0, [&] { client.MergeIndependentSendPacketBuffer(); }},
      {0, [&] { client.GetLastRecvPacket(); }},
      {0, [&] { client.IsConnected(); }},
      // The collecting thread.
      {1, [&] { client.GetCurStatePacket(); }},
      {1, [&] { client.GetCurStateJson(); }},
      {1, [&] { client.FlushRecvBuffer(); }},
      {1, [&] { client.GetRecvBufferSize(); }},
      // Feeding threads.
      {2, [&] { client.PushSendQueue(feeder_packet, false); }},
      {2, [&] { client.PushSendQueueJson(document, false); }},
      {2, [&] { client.FlushSendBuffer(); }},
      {3, [&] { client.PushFrontSendQueue(other_packet, false); }},
      {3, [&] { client.PushSendQueueJson(document, false); }},
      {3, [&] { client.GetSendBufferSize(); }},
      // Containers of their own.
      {4, [&] { map.Insert("key", keyed); }},
      {5, [&] { map.GetSendPacket("key"); }},
      {4, [&] { buffer.pushBack(keyed); }},
      {5, [&] { buffer.popAllPackets(unique, ordinary); }},
      {5, [&] { ordinary.clear(), unique.clear(); }},
      {5, [&] { buffer.empty(); }},
  };
  constexpr int kThreads = 6;
  std::atomic<bool> running{true};
  std::atomic<unsigned long> count{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      while (running) {
        for (const Call& call : calls) {
          if (call.thread != thread) continue;
          call.act();
          ++count;
        }
        if (thread != 0) std::this_thread::yield();
      }
    });
  }
  std::this_thread::sleep_for(duration);
  running = false;
  for (std::thread& thread : threads) thread.join();
  std::fprintf(stderr, "hammer: %lu calls of %zu kinds from %d threads\n", count.load(), std::size(calls), kThreads);
  return 0;
}
