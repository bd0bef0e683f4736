// SPDX-License-Identifier: MIT
// The client on a link in memory: connection, receive step, send step.
#include "MasterControllerClient.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "support/bytes.h"
#include "support/capture.h"
#include "support/scripted_link.h"

namespace {

using velta::test::Bytes;
using velta::test::Printed;
using velta::test::ScriptedClient;
using velta::test::StatusFrame;
using Stamps = std::vector<std::uint64_t>;

const std::string kLost = "[VELTA] lost connection\n";

class Client : public testing::Test {
 protected:
  static SendPacket Command(unsigned long stamp, const std::string& key = "") {
    SendPacket packet(1);
    packet.SetServoOn("0");
    packet.SetTimeStamp(stamp);
    packet.SetUniqueKey(key);
    return packet;
  }
  void Queue(unsigned long stamp, bool confirm = false) {
    SendPacket packet = Command(stamp);
    client.PushSendQueue(packet, confirm);
    EXPECT_EQ(packet.GetConfirmReceived(), confirm);
  }
  void File(const std::string& key, unsigned long stamp) {
    SendPacket packet = Command(stamp, key);
    client.InsertUniqueSendMap(packet);
  }
  /// Status frames arrive in one read. @return how many packets the receive step found
  int Receive(const Stamps& stamps, std::uint64_t echo = 0) {
    Bytes bytes;
    for (const std::uint64_t stamp : stamps) bytes.Add(StatusFrame(1, stamp, echo));
    client.link->reads.push_back(bytes);
    return client.ReceiveStatus();
  }
  void ReceiveEchoOf(std::uint64_t stamp) { Receive({1}, stamp); }
  /// @return what the steps print
  std::string Steps(int count) {
    return Printed([&] {
      for (; count > 0; --count) client.SendPacketInBuffer();
    });
  }
  /// Of the frames sent since the last call.
  Stamps Sent() {
    Stamps stamps;
    for (const auto& frame : std::exchange(client.link->writes, {})) std::memcpy(&stamps.emplace_back(), &frame[2], 8);
    return stamps;
  }

  ScriptedClient client{1};
};

TEST(ClientWithoutLink, RefusesEverythingQuietly) {
  MasterControllerClient client(2);
  EXPECT_EQ(Printed([&] {
              EXPECT_FALSE(client.IsInit() || client.IsConnected());
              EXPECT_FALSE(client.Connect() || client.Disconnect() || client.ReConnect(5));
            }),
            "");
  EXPECT_EQ(client.GetVersion(), "2.1.0");
  EXPECT_EQ(client.GetLastRecvPacket().joints.size(), 2u);
}

TEST(ClientInit, OpensTheLinkAtOnceAndNeverReleasesAnEarlierOne) {
  struct Exposed : MasterControllerClient {
    using MasterControllerClient::client_;
    using MasterControllerClient::MasterControllerClient;
  } client(1), refused(1);
  EXPECT_EQ(Printed([&] { EXPECT_TRUE(client.InitAsUdpClient("127.0.0.1", 9)); }),
            "Success to open UDP Connection to 127.0.0.1\n");
  EXPECT_TRUE(client.IsInit() && client.IsConnected());
  const std::unique_ptr<AbstractClient> first(client.client_);
  client.PushRecvBuffer(RecvPacket(1));
  EXPECT_EQ(Printed([&] { EXPECT_FALSE(client.InitAsSerialClient("/no/such/device", 9600)); }), "");
  EXPECT_EQ(client.GetRecvBufferSize() + client.GetStatistics().packets_waiting, 0u);
  EXPECT_FALSE(client.IsInit());
  EXPECT_TRUE(client.IsConnected());  // as it was
  EXPECT_NE(client.client_, first.get());
  EXPECT_EQ(first->Write({'x'}), 1);  // still open
  EXPECT_FALSE(client.ReConnect(1));
  velta::test::PrintedError([&] { EXPECT_FALSE(refused.InitAsTcpClient("127.0.0.1", 1)); });
  EXPECT_FALSE(refused.IsConnected());
}

TEST_F(Client, ReConnectPrintsItsAttemptsAndKeepsTheConnectedFlag) {
  const std::vector<std::tuple<int, std::deque<bool>, int, std::string>> rows = {
      {0, {}, 0, ""},
      {3, {false, true, true}, 2, "[VELTA] Try: 0...failed.\n[VELTA] Try: 1...succeeded!\n"},
      {3, {false, false, false}, 3, "[VELTA] Try: 0...failed.\n[VELTA] Try: 1...failed.\n[VELTA] Try: 2...failed.\n"}};
  for (const auto& [tries, results, attempts, printed] : rows) {
    client.link->connects = client.link->disconnects = 0;
    client.link->connect_results = results;
    const bool succeeds = printed.find("succeeded") != std::string::npos;
    EXPECT_EQ(Printed([&, tries = tries] { EXPECT_EQ(client.ReConnect(tries), succeeds); }),
              "[VELTA] Try to Re-Connect\n" + printed);
    EXPECT_EQ((std::pair{client.link->connects, client.link->disconnects}), (std::pair{attempts, attempts}));
    EXPECT_TRUE(client.IsConnected());
  }
  client.link->read_result = -1;
  client.link->connect_results = {true, true, false};
  Printed([&] {
    client.ReceiveStatus();
    EXPECT_TRUE(client.ReConnect(1));
  });
  EXPECT_FALSE(client.IsConnected());
  EXPECT_TRUE(client.Connect() && client.IsConnected());
  EXPECT_TRUE(client.Disconnect() && client.IsConnected());
  EXPECT_EQ(client.link->disconnects, 5);
  EXPECT_FALSE(client.Connect() || client.IsConnected());
  EXPECT_EQ(client.GetStatistics().reconnections, 3u);
}

TEST_F(Client, FullReceiveBufferDropsTheNewestButRemembersIt) {
  for (unsigned i = 1; i <= 4098; ++i) EXPECT_EQ(Receive({i}, i), 1);
  EXPECT_EQ(client.GetRecvBufferSize(), 4096u);
  EXPECT_EQ(client.GetStatistics().packets_refused, 2u);
  EXPECT_EQ(client.GetStatistics().packets_waiting, 4096u);
  EXPECT_EQ(+client.GetLastRecvPacket().header.timestamp, 4098u);
  EXPECT_EQ(client.last_recv_host_timestamp_, 4098u);
  EXPECT_EQ(+client.GetCurStatePacket().back().header.timestamp, 4096u);
  EXPECT_EQ(client.GetRecvBufferSize(), 0u);
  Receive({1});
  client.FlushRecvBuffer();
  EXPECT_EQ(client.GetRecvBufferSize() + client.GetStatistics().packets_waiting, 0u);
}

TEST_F(Client, AFailedReadOrWriteIsALostConnection) {
  SendPacket p = Command(5);
  EXPECT_EQ(Printed([&] { EXPECT_EQ(client.ReceiveStatus(), 0); }), "");
  client.link->write_result = 0;  // not writable, or short: the frame counts as sent
  EXPECT_TRUE(client.SendOnce(p, false) && client.IsConnected());
  client.link->read_result = client.link->write_result = -1;
  EXPECT_EQ(Printed([&] { EXPECT_EQ(client.ReceiveStatus() + client.ReceiveStatus(), 0); }), kLost + kLost);
  EXPECT_FALSE(client.IsConnected());
  client.Connect();
  EXPECT_EQ(Printed([&] { EXPECT_FALSE(client.SendOnce(p, false)); }), kLost);
  EXPECT_FALSE(client.IsConnected());
  EXPECT_EQ(client.GetStatistics().frames_sent, 1u);
}

TEST_F(Client, OverridesReachPushRecvBuffer) {
  struct Counting : ScriptedClient {
    using ScriptedClient::ScriptedClient;
    void PushRecvBuffer(RecvPacket packet) override { seen.insert(+packet.header.timestamp); }
    std::set<std::uint64_t> seen;
  } counting(1);
  counting.link->reads = {StatusFrame(1, 5), StatusFrame(1, 6)};
  EXPECT_EQ(counting.ReceiveStatus() + counting.ReceiveStatus(), 2);
  EXPECT_EQ(counting.seen, (std::set<std::uint64_t>{5, 6}));
}

TEST_F(Client, TheQueueGoesInOrderAndBeforeTheUniqueKeys) {
  File("k", 40);
  Queue(10);
  Queue(20);
  SendPacket first = Command(30);
  client.PushFrontSendQueue(first, false);
  EXPECT_EQ(client.GetStatistics().commands_queued, 3u);
  Steps(5);
  EXPECT_EQ(Sent(), (Stamps{30, 10, 20, 40}));
  File("k", 50);
  File("k", 60);
  Queue(70);
  client.FlushSendBuffer();
  EXPECT_EQ(client.GetSendBufferSize() + client.GetStatistics().commands_queued, 0u);
  Steps(2);
  EXPECT_EQ(Sent(), Stamps{60});
  Queue(80);
  EXPECT_EQ(client.PopSendQueue().GetTimeStamp(), 80u);
  EXPECT_TRUE(client.PopSendQueue().joints.empty());  // from an empty queue
  Queue(90);
  client.send_queue_.clear();  // as if flushed between the count and the taking
  File("k", 95);
  Steps(1);
  EXPECT_EQ(Sent(), Stamps{95});
}

TEST_F(Client, TwoFramesInARowNeverCarryTheSameStamp) {
  for (const unsigned long stamp : {7u, 7u, 8u, 9u, 9u}) Queue(stamp);
  Steps(5);
  EXPECT_EQ(Sent(), (Stamps{7, 8, 9, 10, 9}));
  SendPacket same = Command(9);
  client.SendOnce(same, true);
  client.SendOnce(same, false);
  EXPECT_EQ(Sent(), (Stamps{9, 10}));
  EXPECT_EQ(same.GetTimeStamp(), 10u);
}

TEST_F(Client, AnEchoEndsTheWaitAndTheSameStepSendsTheNext) {
  Queue(100, true);
  Queue(200, true);
  Steps(50);
  EXPECT_EQ(Sent(), Stamps{100});
  EXPECT_TRUE(client.IsConfirmationPending());
  ReceiveEchoOf(99);
  Steps(1);
  EXPECT_EQ(Sent(), Stamps{});
  ReceiveEchoOf(100);
  Steps(1);
  EXPECT_EQ(Sent(), Stamps{200});
  Steps(101);
  EXPECT_EQ(Sent(), Stamps{201});
  ReceiveEchoOf(200);  // of the earlier send
  Steps(1);
  EXPECT_TRUE(client.IsConfirmationPending());
  ReceiveEchoOf(201);
  Steps(1);
  EXPECT_FALSE(client.IsConfirmationPending());
  EXPECT_EQ(client.timeout_count_ + client.wait_count_, 0);
  EXPECT_EQ(client.GetStatistics().commands_confirmed, 2u);
}

TEST_F(Client, AnUnconfirmedCommandIsSentFiveTimesThenTheQueueIsDropped) {
  Queue(100, true);
  Queue(900);
  File("k", 800);
  Steps(1);
  SendPacket resent = Command(100);
  EXPECT_EQ(Sent(), Stamps{100});
  for (std::uint64_t timeout = 1; timeout <= 4; ++timeout) {
    EXPECT_EQ(Steps(100), "");
    EXPECT_EQ(Steps(1), "Timeout: " + std::to_string(timeout) + "\n");
    resent.SetTimeStamp(100 + timeout);
    EXPECT_EQ(client.link->writes.at(0), resent.GetCharVector());
    EXPECT_EQ(Sent(), Stamps{100 + timeout});
  }
  EXPECT_EQ(Steps(100), "");
  EXPECT_EQ(client.GetSendBufferSize(), 1u);
  EXPECT_EQ(Steps(1), "Timeout: 5\nSend timeout. Clear all send data buffer.\n");
  EXPECT_EQ(Sent(), Stamps{});
  EXPECT_EQ(client.GetSendBufferSize(), 0u);
  EXPECT_TRUE(client.ready_to_send_ && !client.IsConfirmationPending());
  EXPECT_EQ(client.wait_count_ + client.timeout_count_, 0);
  Steps(1);
  EXPECT_EQ(Sent(), Stamps{800});  // the unique map keeps its packets
  const velta::Statistics counted = client.GetStatistics();
  EXPECT_EQ(velta::ToJson(counted),
            R"({"bytes_discarded":0,"bytes_received":0,"commands_confirmed":0,"commands_dropped":1,)"
            R"("commands_given_up":1,"commands_queued":0,"frames_bad_crc":0,"frames_received":0,"frames_sent":6,)"
            R"("frames_sent_again":4,"packets_refused":0,"packets_waiting":0,"reconnections":0})");
}

TEST_F(Client, NamedBuffersMergeIntoTheQueueAndTheUniqueMap) {
  ScriptedClient arm(2);
  const auto push = [&](const char* ids, const char* buffer, bool confirm, bool unique, unsigned long stamp = 1) {
    SendPacket p(2);
    p.SetServoOn(ids);
    p.SetTimeStamp(stamp);
    arm.PushBackIndependentSendBuffer(p, buffer, confirm, unique, unique ? "key" : "");
    EXPECT_EQ(std::tuple(p.GetConfirmReceived(), p.IsUnique(), p.GetUniqueKey()),
              std::tuple(confirm, unique, std::string(unique ? "key" : "")));
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
  EXPECT_EQ(std::pair(+merged.joints[0].order, +merged.joints[1].order), std::pair(0xA2, 0xA2));
  EXPECT_TRUE(merged.GetConfirmReceived());

  push("0", "b", false, false);  // buffers are emptied in the order of their names
  push("0", "a", true, false);
  arm.SendPacketInBuffer();
  EXPECT_TRUE(arm.cur_send_packet_.GetConfirmReceived());
  arm.wait_confirm_ = false;
  arm.ready_to_send_ = true;
  arm.FlushSendBuffer();

  push("0", "a", false, true, 9);  // of one key, and colliding: the later buffer's packet replaces the other
  push("0", "b", false, true, 8);
  arm.SendPacketInBuffer();
  EXPECT_EQ(arm.cur_send_packet_.GetTimeStamp(), 8u);
}

TEST_F(Client, SizesAndKeysAreReadWithoutTheMutex) {
  const std::lock_guard<std::mutex> lock(*client.mutex_);
  EXPECT_EQ(client.GetRecvBufferSize() + client.GetSendBufferSize(), 0u);
  client.SendPacketInBuffer();  // nothing is queued, so nothing is taken
}

TEST_F(Client, CountsWhatTheStreamBrings) {
  std::vector<char> bad = StatusFrame(1, 2);
  bad.back() = static_cast<char>(bad.back() ^ 1);
  client.link->reads = {Bytes().Fill(7, 'x').Add(StatusFrame(1, 1)).Add(bad).U8(0xAB)};
  client.ReceiveStatus();
  const velta::Statistics counted = client.GetStatistics();
  EXPECT_EQ(counted.bytes_received, 7u + 103 + 103 + 1);
  EXPECT_EQ(counted.frames_received, 1u);
  EXPECT_EQ(counted.frames_bad_crc, 1u);
  EXPECT_EQ(counted.bytes_discarded, 7u + 103);
}

}  // namespace
