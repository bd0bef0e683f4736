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

/// A link on which a status frame has always arrived.
struct BusyLink : velta::test::ScriptedLink {
  int Read(std::vector<char>& data) override {
    data = velta::test::StatusFrame(1, ++stamp);
    return static_cast<int>(data.size());
  }
  std::uint64_t stamp = 0;
};

TEST(Threads, StepsOverlapWithFeedingAndCollecting) {
  constexpr unsigned kFeeders = 3, kCommands = 400;
  velta::test::ScriptedClient client(1, new BusyLink);
  std::atomic<unsigned> feeding{kFeeders};
  std::vector<std::thread> threads;
  for (unsigned feeder = 0; feeder < kFeeders; ++feeder) {
    threads.emplace_back([&, feeder] {
      for (unsigned i = 0; i < kCommands; ++i) {
        SendPacket p(1);
        p.SetTimeStamp(1000000 * feeder + 10 * i + 10);
        client.PushSendQueue(p, false);
        if (i % 100 == 0) client.PushSendQueueJson("{}", false), client.GetSendBufferSize();
      }
      --feeding;
    });
  }
  std::atomic<bool> stepping{true};
  threads.emplace_back([&] {
    for (std::uint64_t last = 0; stepping; client.GetRecvBufferSize()) {
      for (const RecvPacket& packet : client.GetCurStatePacket()) {
        ASSERT_GT(+packet.header.timestamp, last);  // in order, none twice
        last = packet.header.timestamp;
      }
    }
  });
  while (feeding != 0 || client.GetSendBufferSize() != 0) {
    client.ReceiveStatus();
    client.SendPacketInBuffer();
  }
  stepping = false;
  for (std::thread& thread : threads) thread.join();

  std::vector<unsigned> sent(kFeeders);
  for (const auto& frame : client.link->writes) {
    const std::uint64_t stamp = velta::test::ReadU64(frame, 2);
    EXPECT_EQ(stamp % 1000000 / 10, ++sent.at(stamp / 1000000));  // each feeder's order holds
  }
  EXPECT_EQ(sent, std::vector<unsigned>(kFeeders, kCommands));
}

TEST(Threads, ASimulatorIsFedWhileItsStateThreadRuns) {
  MasterControllerClientMock sim(2, 1);
  std::thread feeder([&sim] {
    SendPacket p(2);
    p.SetServoOn("all");
    for (int i = 0; i < 200; ++i) sim.PushSendQueue(p, false);
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
