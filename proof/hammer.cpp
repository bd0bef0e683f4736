// SPDX-License-Identifier: MIT
// Every call that the thread contract lets overlap, at once. The thread sanitizer is the judge, and so are counts that
// hold at any moment: sizes that the steps read are possible ones, nothing is refused while there is room, and no frame
// leaves that nobody queued.
// usage: hammer [MILLISECONDS, 2000 by default]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

#include "MasterControllerClientMock.h"
#include "support/bytes.h"
#include "support/scripted_link.h"
#include "velta_log.h"

namespace {

constexpr int kJoints = 2;
constexpr std::size_t kMostWaiting = 256;

std::atomic<const char*> broken{nullptr};

void Check(bool holds, const char* promise) {
  if (!holds) broken = promise;
}

/// Always readable, always writable; its Read and Write share nothing.
struct BusyLink : velta::test::ScriptedLink {
  int Write(const std::vector<char>& data) override {
    Check(data[12] != 0 || data[30] != 0, "a frame leaves only if a command was queued");
    return static_cast<int>(data.size());
  }
  int Read(std::vector<char>& data) override {
    data = velta::test::StatusFrame(kJoints, ++stamp);
    return static_cast<int>(data.size());
  }
  std::uint64_t stamp = 0;
};

struct Client : MasterControllerClient {
  Client() : MasterControllerClient(kJoints) {
    client_ = new BusyLink;
    is_init_ = is_connected_ = true;
    CreateIndependentSendPacketBuffer("a");
  }
  const RecvPacket status{kJoints};
  /// Receives while few packets wait; with these many there is always room.
  void ReceiveStep() {
    if (GetStatistics().packets_waiting < kMostWaiting) ReceiveStatus();
    for (int i = 0; i < 500; ++i) {
      if (GetStatistics().packets_waiting < kMostWaiting) PushRecvBuffer(status);
      Check(GetRecvBufferSize() <= kMostWaiting, "a size that the steps read is right");
    }
    Check(GetStatistics().packets_refused == 0, "no packet is refused while there is room");
  }
};

template <typename Act>
void FiftyTimes(Act act) {
  for (int i = 0; i < 50; ++i) act();
}

struct Call {
  int thread;  ///< calls of one thread never overlap
  std::function<void()> act;
};

}  // namespace

int main(int argc, char** argv) {
  const auto duration = std::chrono::milliseconds(argc > 1 ? std::atoi(argv[1]) : 2000);
  velta::SetLogSink([](velta::LogLevel, std::string_view) {});
  Client client;
  MasterControllerClientMock simulator(kJoints, 1);
  UniqueSendPacketMap map;
  SendPacketBuffer buffer;
  SendPacket step_packet(kJoints), keyed(kJoints), source(kJoints), feeder_packet(kJoints), other_packet(kJoints);
  for (SendPacket* packet : {&step_packet, &keyed, &source, &feeder_packet, &other_packet}) packet->SetServoOn("all");
  keyed.SetUniqueKey("key");
  std::unordered_map<std::string, SendPacket> unique;
  std::vector<SendPacket> ordinary;
  const Call calls[] = {
      // The steps' thread.
      {0, [&] { client.ReceiveStep(); }},
      {0, [&] { FiftyTimes([&] { client.SendPacketInBuffer(); }); }},
      {0, [&] { client.SendOnce(step_packet, false); }},
      {0, [&] { client.InsertUniqueSendMap(keyed); }},
      {0, [&] { client.CreateIndependentSendPacketBuffer("b"); }},
      {0, [&] { client.PushBackIndependentSendBuffer(source, "a", false, true, "k"); }},
      {0, [&] { client.MergeIndependentSendPacketBuffer(); }},
      {0, [&] { client.GetLastRecvPacket(); }},
      {0, [&] { client.GetSendBufferSize(); }},
      {0, [&] { client.IsConfirmationPending(); }},
      {0, [&] { simulator.SendPacketInBuffer(); }},
      {0, [&] { simulator.SetJointType(1, static_cast<unsigned char>(1)); }},
      {0, [&] { Check(simulator.ReceiveStatus() <= 3, "a simulator's size is right"); }},
      {0, [&] { simulator.FlushRecvBuffer(); }},
      // The collecting thread.
      {1, [&] { FiftyTimes([&] { client.GetCurStatePacket(); }); }},
      {1, [&] { client.GetCurStateJson(); }},
      {1, [&] { client.FlushRecvBuffer(); }},
      {1, [&] { simulator.GetCurStatePacket(); }},
      // Feeding threads.
      {2, [&] { client.PushSendQueueJson(velta::test::kDocument, false); }},
      {2,
       [&] {
         for (int i = 0; i < 50; ++i) {
           client.PushSendQueue(feeder_packet, false);
           client.FlushSendBuffer();
         }
       }},
      {3, [&] { client.PushFrontSendQueue(other_packet, false); }},
      {3, [&] { simulator.PushSendQueue(other_packet, false); }},
      {3,
       [&] {
         FiftyTimes([&] { Check(client.GetStatistics().commands_queued < 1000000000, "the gauges are right"); });
       }},
      // Containers of their own.
      {4, [&] { map.Insert("key", keyed); }},
      {5, [&] { map.GetSendPacket("key"); }},
      {4, [&] { buffer.pushBack(keyed); }},
      {5, [&] { buffer.popAllPackets(unique, ordinary); }},
      {5, [&] { unique.clear(); }},
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
      }
    });
  }
  std::this_thread::sleep_for(duration);
  running = false;
  for (std::thread& thread : threads) thread.join();
  std::fprintf(stderr, "hammer: %lu calls of %zu kinds from %d threads\n", count.load(), std::size(calls), kThreads);
  if (broken != nullptr) std::fprintf(stderr, "hammer: broken: %s\n", broken.load());
  return broken != nullptr ? 1 : 0;
}
