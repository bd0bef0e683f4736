// SPDX-License-Identifier: MIT
// The calls that may overlap, at once. Run under the thread sanitizer these tests are the proof; without it they still
// count every command and packet.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "MasterControllerClientMock.h"
#include "support/bytes.h"
#include "support/scripted_link.h"

namespace {

using velta::test::ReadU64;
using velta::test::ScriptedClient;
using velta::test::ScriptedLink;
using velta::test::StatusFrame;

/// A link on which a status frame has always arrived.
struct BusyLink : ScriptedLink {
  int Read(std::vector<char>& data) override {
    data = StatusFrame(1, ++stamp, 0);
    return static_cast<int>(data.size());
  }
  std::uint64_t stamp = 0;
};

struct BusyClient : ScriptedClient {
  BusyClient() : ScriptedClient(1) {
    delete client_;
    client_ = busy = new BusyLink;
  }
  BusyLink* busy;
};

TEST(Threads, StepsOverlapWithFeedingAndCollecting) {
  constexpr unsigned kFeeders = 3, kCommands = 400;
  BusyClient client;
  std::atomic<unsigned> feeding{kFeeders};
  std::vector<std::thread> feeders;
  for (unsigned feeder = 0; feeder < kFeeders; ++feeder) {
    feeders.emplace_back([&client, &feeding, feeder] {
      for (unsigned i = 0; i < kCommands; ++i) {
        SendPacket p(1);
        p.SetTimeStamp(1000000 * (feeder + 1) + 10 * i);
        client.PushSendQueue(p, false);
        if (i % 100 == 0) {
          client.PushSendQueueJson("{}", false);
          client.GetSendBufferSize();
        }
      }
      --feeding;
    });
  }
  std::atomic<bool> stepping{true};
  std::uint64_t last = 0;
  std::thread collector([&] {
    while (stepping) {
      for (const RecvPacket& packet : client.GetCurStatePacket()) {
        ASSERT_GT(+packet.header.timestamp, last);  // in order, none twice
        last = packet.header.timestamp;
      }
      client.GetRecvBufferSize();
    }
  });
  while (feeding != 0 || client.GetSendBufferSize() != 0) {
    client.ReceiveStatus();
    client.SendPacketInBuffer();
  }
  stepping = false;
  collector.join();
  for (std::thread& feeder : feeders) feeder.join();

  std::vector<unsigned> sent(kFeeders);
  for (const auto& frame : client.busy->writes) {
    const std::uint64_t stamp = ReadU64(frame, 2);
    EXPECT_EQ(stamp % 1000000 / 10, sent.at(stamp / 1000000 - 1)++);  // each feeder's order holds
  }
  EXPECT_EQ(sent, std::vector<unsigned>(kFeeders, kCommands));
}

TEST(Threads, ASimulatorIsFedWhileItsStateThreadRuns) {
  MasterControllerClientMock sim(2, 1);
  std::thread feeder([&sim] {
    for (int i = 0; i < 200; ++i) {
      SendPacket p(2);
      p.SetServoOn("all");
      sim.PushSendQueue(p, false);
    }
  });
  for (int i = 0; i < 300; ++i) {
    sim.SendPacketInBuffer();
    sim.ReceiveStatus();
    sim.SetJointType(i % 2, static_cast<unsigned char>(i));
    if (i % 50 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  feeder.join();
  EXPECT_EQ(sim.GetRecvBufferSize(), 300u);
}

}  // namespace
