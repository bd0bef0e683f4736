// SPDX-License-Identifier: MIT
#include "MasterControllerClient.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

#include "support/bytes.h"
#include "support/capture.h"
#include "support/scripted_link.h"

namespace {

using velta::test::Printed;
using velta::test::ReadU64;
using velta::test::ScriptedClient;
using velta::test::ScriptedLink;
using velta::test::StatusFrame;

const std::string kLost = "[VELTA] lost connection\n";

SendPacket Stamped(unsigned long stamp) {
  SendPacket p(1);
  p.SetTimeStamp(stamp);
  return p;
}

class Client : public testing::Test {
 protected:
  void Queue(unsigned long stamp, bool confirm = false) {
    SendPacket p = Stamped(stamp);
    client.PushSendQueue(p, confirm);
  }
  void QueueUnique(const std::string& key, unsigned long stamp) {
    SendPacket p = Stamped(stamp);
    p.SetUniqueKey(key);
    client.InsertUniqueSendMap(p);
  }
  void Steps(int count) {
    for (int i = 0; i < count; ++i) client.SendPacketInBuffer();
  }
  void Arrive(std::uint64_t timestamp, std::uint64_t echo = 0) {
    link.reads.push_back(StatusFrame(1, timestamp, echo));
  }
  /// Time stamps of the frames written so far.
  std::vector<unsigned long> Sent() const {
    std::vector<unsigned long> stamps;
    for (const auto& frame : link.writes) stamps.push_back(ReadU64(frame, 2));
    return stamps;
  }

  ScriptedClient client{1};
  ScriptedLink& link = *client.link;
};

using Stamps = std::vector<unsigned long>;

TEST(ClientWithoutLink, RefusesEverythingQuietly) {
  MasterControllerClient client(2);
  EXPECT_EQ(Printed([&] {
              EXPECT_FALSE(client.IsInit());
              EXPECT_FALSE(client.IsConnected());
              EXPECT_FALSE(client.Connect());
              EXPECT_FALSE(client.Disconnect());
              EXPECT_FALSE(client.ReConnect(5));
            }),
            "");
  EXPECT_EQ(client.GetVersion(), "2.1.0");
  EXPECT_EQ(client.GetLastRecvPacket().joints.size(), 2u);
}

TEST(ClientInit, OpensTheLinkAtOnceAndNeverReleasesAnEarlierOne) {
  struct Exposed : MasterControllerClient {
    using MasterControllerClient::client_;
    using MasterControllerClient::MasterControllerClient;
  } client(1);
  EXPECT_EQ(Printed([&] { EXPECT_TRUE(client.InitAsUdpClient("127.0.0.1", 9)); }),
            "Success to open UDP Connection to 127.0.0.1\n");
  EXPECT_TRUE(client.IsInit());
  EXPECT_TRUE(client.IsConnected());
  const std::unique_ptr<AbstractClient> first(client.client_);
  client.PushRecvBuffer(RecvPacket(1));
  EXPECT_EQ(Printed([&] { EXPECT_FALSE(client.InitAsSerialClient("/no/such/device", 9600)); }), "");
  EXPECT_EQ(client.GetRecvBufferSize(), 0u);
  EXPECT_FALSE(client.IsInit());
  EXPECT_TRUE(client.IsConnected());  // as it was
  EXPECT_NE(client.client_, first.get());
  EXPECT_EQ(first->Write({'x'}), 1);  // still open
  EXPECT_FALSE(client.ReConnect(1));

  MasterControllerClient refused(1);
  velta::test::PrintedError([&] { EXPECT_FALSE(refused.InitAsTcpClient("127.0.0.1", 1)); });
  EXPECT_FALSE(refused.IsConnected());
}

TEST_F(Client, ReConnectPrintsItsAttemptsAndKeepsTheConnectedFlag) {
  struct Row {
    int tries;
    std::deque<bool> results;
    bool connected;
    std::string printed;
    int attempts;
  };
  const std::string head = "[VELTA] Try to Re-Connect\n";
  for (const Row& row :
       {Row{0, {}, false, head, 0}, Row{-3, {}, false, head, 0},
        Row{3, {false, true, true}, true, head + "[VELTA] Try: 0...failed.\n[VELTA] Try: 1...succeeded!\n", 2},
        Row{3,
            {false, false, false},
            false,
            head + "[VELTA] Try: 0...failed.\n[VELTA] Try: 1...failed.\n[VELTA] Try: 2...failed.\n",
            3}}) {
    link.connects = link.disconnects = 0;
    link.connect_results = row.results;
    EXPECT_EQ(Printed([&] { EXPECT_EQ(client.ReConnect(row.tries), row.connected); }), row.printed);
    EXPECT_EQ(link.connects, row.attempts);
    EXPECT_EQ(link.disconnects, row.attempts);
    EXPECT_TRUE(client.IsConnected());
  }
  link.read_result = -1;
  Printed([&] { client.ReceiveStatus(); });
  link.connect_results.clear();
  Printed([&] { EXPECT_TRUE(client.ReConnect(1)); });
  EXPECT_FALSE(client.IsConnected());
  EXPECT_TRUE(client.Connect());
  EXPECT_TRUE(client.IsConnected());
  EXPECT_TRUE(client.Disconnect());
  EXPECT_TRUE(client.IsConnected());
  link.connect_results = {false};
  EXPECT_FALSE(client.Connect());
  EXPECT_FALSE(client.IsConnected());
}

TEST_F(Client, ReceivesPacketsInStreamOrder) {
  std::vector<char> bytes = StatusFrame(1, 1, 11);
  const std::vector<char> second = StatusFrame(1, 2, 12);
  const std::vector<char> third = StatusFrame(1, 3, 13);
  bytes.insert(bytes.end(), second.begin(), second.end());
  bytes.insert(bytes.end(), third.begin(), third.begin() + 50);
  link.reads = {bytes, {third.begin() + 50, third.end()}};
  EXPECT_EQ(client.ReceiveStatus(), 2);
  EXPECT_EQ(client.GetRecvBufferSize(), 2u);
  EXPECT_EQ(client.last_recv_host_timestamp_, 12u);
  EXPECT_EQ(+client.GetLastRecvPacket().header.timestamp, 2u);
  EXPECT_EQ(client.ReceiveStatus(), 1);
  EXPECT_EQ(client.ReceiveStatus(), 0);
  const std::vector<RecvPacket> packets = client.GetCurStatePacket();
  ASSERT_EQ(packets.size(), 3u);
  for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(+packets[i].header.timestamp, i + 1u);
  EXPECT_EQ(packets[2].joints.size(), 1u);
  EXPECT_EQ(client.GetRecvBufferSize(), 0u);
  EXPECT_TRUE(client.GetCurStatePacket().empty());
  Arrive(4);
  client.ReceiveStatus();
  client.FlushRecvBuffer();
  EXPECT_EQ(client.GetRecvBufferSize(), 0u);
}

TEST_F(Client, FullReceiveBufferDropsTheNewestButRemembersIt) {
  for (unsigned i = 1; i <= 4098; ++i) {
    Arrive(i, i);
    EXPECT_EQ(client.ReceiveStatus(), 1);
  }
  EXPECT_EQ(client.GetRecvBufferSize(), 4096u);
  EXPECT_EQ(+client.GetLastRecvPacket().header.timestamp, 4098u);
  EXPECT_EQ(client.last_recv_host_timestamp_, 4098u);
  EXPECT_EQ(+client.GetCurStatePacket().back().header.timestamp, 4096u);
}

TEST_F(Client, AFailedReadOrWriteIsALostConnection) {
  link.read_result = 0;
  EXPECT_EQ(Printed([&] { EXPECT_EQ(client.ReceiveStatus(), 0); }), "");
  EXPECT_TRUE(client.IsConnected());
  link.read_result = -1;
  EXPECT_EQ(Printed([&] {
              EXPECT_EQ(client.ReceiveStatus(), 0);
              EXPECT_EQ(client.ReceiveStatus(), 0);
            }),
            kLost + kLost);
  EXPECT_FALSE(client.IsConnected());

  client.Connect();
  SendPacket p = Stamped(5);
  link.write_result = 0;  // not writable, or short: the frame counts as sent
  EXPECT_TRUE(client.SendOnce(p, false));
  EXPECT_TRUE(client.IsConnected());
  link.write_result = -1;
  EXPECT_EQ(Printed([&] { EXPECT_FALSE(client.SendOnce(p, false)); }), kLost);
  EXPECT_FALSE(client.IsConnected());
}

TEST_F(Client, SendsTheQueueInOrderThenTheUniqueKeys) {
  Steps(1);
  QueueUnique("k", 40);
  Queue(10);
  Queue(20);
  SendPacket front = Stamped(30);
  client.PushFrontSendQueue(front, false);
  EXPECT_EQ(client.GetSendBufferSize(), 3u);
  Steps(6);
  EXPECT_EQ(Sent(), (Stamps{30, 10, 20, 40}));
  QueueUnique("k", 50);
  QueueUnique("k", 60);
  Steps(2);
  EXPECT_EQ(Sent(), (Stamps{30, 10, 20, 40, 60}));
  Queue(70);
  client.FlushSendBuffer();
  Steps(1);
  EXPECT_EQ(link.writes.size(), 5u);
  EXPECT_EQ(client.PopSendQueue().joints.size(), 1u);
}

TEST_F(Client, TwoFramesInARowNeverCarryTheSameStamp) {
  for (const unsigned long stamp : {7UL, 7UL, 8UL, 9UL, 9UL}) Queue(stamp);
  Steps(5);
  EXPECT_EQ(Sent(), (Stamps{7, 8, 9, 10, 9}));  // only the frame before counts
  SendPacket again = Stamped(9);
  client.SendOnce(again, true);
  EXPECT_EQ(Sent().back(), 9u);
  EXPECT_EQ(again.GetTimeStamp(), 9u);
  client.SendOnce(again, false);
  EXPECT_EQ(again.GetTimeStamp(), 10u);
  EXPECT_EQ(client.last_send_timestamp_, 10u);
}

TEST_F(Client, AnEchoEndsTheWaitAndTheSameStepSendsTheNext) {
  Queue(100, true);
  Queue(200);
  Steps(50);
  EXPECT_EQ(Sent(), Stamps{100});
  Arrive(1, 99);
  client.ReceiveStatus();
  Steps(1);
  EXPECT_EQ(Sent(), Stamps{100});
  Arrive(2, 100);
  client.ReceiveStatus();
  Steps(1);
  EXPECT_EQ(Sent(), (Stamps{100, 200}));
  EXPECT_EQ(client.wait_count_, 0);
}

TEST_F(Client, AnUnconfirmedCommandIsSentFiveTimesThenTheQueueIsDropped) {
  Queue(100, true);
  Queue(900);
  QueueUnique("k", 800);
  Steps(1);
  for (int timeout = 1; timeout <= 4; ++timeout) {
    EXPECT_EQ(Printed([&] { Steps(100); }), "");
    const std::string line = "Timeout: " + std::to_string(timeout) + "\n";
    EXPECT_EQ(Printed([&] { Steps(1); }), line);
    EXPECT_EQ(Sent().back(), 100u + static_cast<unsigned>(timeout));
    EXPECT_EQ(link.writes.size(), 1u + static_cast<unsigned>(timeout));
  }
  EXPECT_EQ(Printed([&] { Steps(101); }), "Timeout: 5\nSend timeout. Clear all send data buffer.\n");
  EXPECT_EQ(link.writes.size(), 5u);
  EXPECT_EQ(client.GetSendBufferSize(), 0u);
  EXPECT_FALSE(client.wait_confirm_);
  EXPECT_TRUE(client.ready_to_send_);
  EXPECT_EQ(client.wait_count_ + client.timeout_count_, 0);
  Steps(1);
  EXPECT_EQ(Sent().back(), 800u);  // the unique map keeps its packets
}

TEST_F(Client, ALateEchoOfAnEarlierSendDoesNotConfirmTheResend) {
  Queue(100, true);
  Printed([&] { Steps(102); });
  EXPECT_EQ(Sent(), (Stamps{100, 101}));
  Arrive(1, 100);
  client.ReceiveStatus();
  Steps(1);
  EXPECT_TRUE(client.wait_confirm_);
  EXPECT_EQ(client.timeout_count_, 1);
  Arrive(1, 101);
  client.ReceiveStatus();
  Steps(1);
  EXPECT_FALSE(client.wait_confirm_);
  EXPECT_EQ(client.timeout_count_, 0);
}

TEST_F(Client, TheGateStaysShutWhileNeitherReadyNorWaiting) {
  client.ready_to_send_ = false;
  Queue(1);
  Steps(300);
  EXPECT_TRUE(link.writes.empty());
  EXPECT_EQ(client.GetSendBufferSize(), 1u);
}

TEST_F(Client, NamedBuffersMergeIntoTheQueueAndTheUniqueMap) {
  ScriptedClient arm(2);
  const auto push = [&](const char* ids, const char* buffer, bool confirm, bool unique) {
    SendPacket p(2);
    p.SetServoOn(ids);
    arm.PushBackIndependentSendBuffer(p, buffer, confirm, unique, unique ? "key" : "");
    EXPECT_EQ(p.GetConfirmReceived(), confirm);
    EXPECT_EQ(p.IsUnique(), unique);
    EXPECT_EQ(p.GetUniqueKey(), unique ? "key" : "");
  };
  push("0", "a", false, false);  // only creates the buffer
  arm.CreateIndependentSendPacketBuffer("b");
  arm.MergeIndependentSendPacketBuffer();
  EXPECT_EQ(arm.GetSendBufferSize(), 0u);

  push("1", "b", true, false);
  arm.CreateIndependentSendPacketBuffer("b");  // an existing buffer is kept
  push("0", "a", false, false);
  push("all", "a", false, true);
  arm.MergeIndependentSendPacketBuffer();
  EXPECT_EQ(arm.GetSendBufferSize(), 1u);
  EXPECT_EQ(arm.unique_send_map_.GetNotSentKeys(), std::vector<std::string>{"key"});
  const SendPacket merged = arm.PopSendQueue();
  EXPECT_EQ(merged.joints[0].order, 0xA2);
  EXPECT_EQ(merged.joints[1].order, 0xA2);
  EXPECT_TRUE(merged.GetConfirmReceived());

  push("0", "b", false, false);  // buffers are emptied in the order of their names
  push("0", "a", true, false);
  arm.SendPacketInBuffer();
  EXPECT_TRUE(arm.cur_send_packet_.GetConfirmReceived());
}

TEST_F(Client, UniquePacketsThatCollideReplaceEachOther) {
  const auto push = [&](const char* buffer, unsigned long stamp) {
    SendPacket p = Stamped(stamp);
    p.SetServoOn("0");
    client.PushBackIndependentSendBuffer(p, buffer, false, true, "k");
  };
  client.CreateIndependentSendPacketBuffer("a");
  client.CreateIndependentSendPacketBuffer("b");
  push("a", 1);
  push("b", 2);
  Steps(3);
  EXPECT_EQ(Sent(), Stamps{2});
}

TEST_F(Client, SizesAndKeysAreReadWithoutTheMutex) {
  const std::lock_guard<std::mutex> lock(*client.mutex_);
  EXPECT_EQ(client.GetRecvBufferSize() + client.GetSendBufferSize(), 0u);
  Steps(1);  // nothing queued: the size check alone
}

TEST_F(Client, APacketOverridesReachPushRecvBuffer) {
  struct Counting : ScriptedClient {
    using ScriptedClient::ScriptedClient;
    void PushRecvBuffer(RecvPacket packet) override {
      seen.insert(packet.header.timestamp);
      ScriptedClient::PushRecvBuffer(packet);
    }
    std::set<std::uint64_t> seen;
  } counting(1);
  counting.link->reads = {StatusFrame(1, 5), StatusFrame(1, 6)};
  counting.ReceiveStatus();
  counting.ReceiveStatus();
  EXPECT_EQ(counting.seen, (std::set<std::uint64_t>{5, 6}));
}

TEST(UniqueKeys, AreSentInTheMapsOrder) {
  ScriptedClient client(1);
  std::mt19937 random(4);
  for (unsigned step = 0; step < 2000; ++step) {
    for (auto fresh = random() % (step % 500 < 250 ? 4 : 2); fresh > 0; --fresh) {
      SendPacket packet(1);
      packet.SetUniqueKey(std::to_string(random() % (20 + step)));
      client.InsertUniqueSendMap(packet);
    }
    const std::vector<std::string> waiting = client.unique_send_map_.GetNotSentKeys();
    client.SendPacketInBuffer();
    if (waiting.empty()) continue;
    ASSERT_EQ(client.cur_send_packet_.GetUniqueKey(), waiting.front()) << step;
    ASSERT_EQ(client.unique_send_map_.GetNotSentKeys().size(), waiting.size() - 1);
  }
}

}  // namespace
