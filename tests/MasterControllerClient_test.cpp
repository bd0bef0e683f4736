// SPDX-License-Identifier: MIT
#include "MasterControllerClient.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <set>
#include <sstream>

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

/// A story of the send step, in statements separated by ';':
///   q100 q100c f100    push a packet of that stamp to the queue's back (c: confirmed) or front
///   k100 x100          file it under the unique key k or x
///   a100 b100          push it, unique with key k, to the named buffer a or b
///   r100               a status arrives that echoes that stamp
///   o100 o100k         SendOnce, or with the stamp kept
///   s3                 three send steps
///   flush shut         empty the queue; shut the gate
///   =1 2               what was sent so far
///   #2                 packets left in the queue
///   >1                 lines printed by the last statement of steps, the last of them ending with this
class SendStory : public Client {
 protected:
  void Play(const std::string& story) {
    std::istringstream statements(story);
    std::string printed;
    for (std::string text; statements >> std::ws && std::getline(statements, text, ';');) {
      SCOPED_TRACE(text);
      const char what = text[0];
      const unsigned long number = std::strtoul(text.c_str() + 1, nullptr, 10);
      SendPacket p = Stamped(number);
      p.SetServoOn("0");
      p.SetUniqueKey(std::string(1, what));
      if (what == 'q') client.PushSendQueue(p, text.back() == 'c');
      if (what == 'f' && number != 0) client.PushFrontSendQueue(p, false);
      if (what == 'k' || what == 'x') client.InsertUniqueSendMap(p);
      if (what == 'a' || what == 'b') client.PushBackIndependentSendBuffer(p, std::string(1, what), false, true, "k");
      if (what == 'r') Arrive(1, number), client.ReceiveStatus();
      if (what == 'o') client.SendOnce(p, text.back() == 'k');
      if (what == 's' && number != 0) printed = Printed([&] { Steps(static_cast<int>(number)); });
      if (text == "flush") client.FlushSendBuffer();
      if (text == "shut") client.ready_to_send_ = false;
      std::string is = text;
      if (what == '=') {
        is = "=";
        for (const unsigned long stamp : Sent()) is += (is == "=" ? "" : " ") + std::to_string(stamp);
      }
      if (what == '#') is = "#" + std::to_string(client.GetSendBufferSize());
      if (what == '>') is = ">" + printed.substr(0, printed.size() - (printed.empty() ? 0 : 1));
      EXPECT_EQ(is, text);
    }
  }
};

TEST_F(SendStory, TheQueueGoesInOrderAndBeforeTheUniqueKeys) {
  Play(
      "s1; =; k40; q10; q20; f30; #3; s6; =30 10 20 40; k50; k60; s2; =30 10 20 40 60; q70; flush; #0; s1; #0; =30 10 "
      "20 40 60");
  EXPECT_EQ(client.PopSendQueue().joints[0].order, 0);  // from an empty queue: nothing is commanded
}

TEST_F(SendStory, TwoFramesInARowNeverCarryTheSameStamp) {
  Play("q7; q7; q8; q9; q9; s5; =7 8 9 10 9; o9k; =7 8 9 10 9 9; o9; =7 8 9 10 9 9 10");
  EXPECT_EQ(client.last_send_timestamp_, 10u);
}

TEST_F(SendStory, AnEchoEndsTheWaitAndTheSameStepSendsTheNext) {
  Play("q100c; q200c; s50; =100; r99; s1; =100; r100; s1; =100 200; s100; =100 200; >; s1; =100 200 201");
}

TEST_F(SendStory, AnUnconfirmedCommandIsSentFiveTimesThenTheQueueIsDropped) {
  Play(
      "q100c; q900; k800; s1; =100; s100; >; =100; s1; >Timeout: 1; =100 101; s100; >; s1; >Timeout: 2; =100 101 102; "
      "s100; >;"
      "s1; >Timeout: 3; s100; >; s1; >Timeout: 4; =100 101 102 103 104; #1; s100; >; s1;"
      ">Timeout: 5\nSend timeout. Clear all send data buffer.; =100 101 102 103 104; #0");
  EXPECT_FALSE(client.wait_confirm_);
  EXPECT_TRUE(client.ready_to_send_);
  EXPECT_EQ(client.wait_count_ + client.timeout_count_, 0);
  Play("s1; =100 101 102 103 104 800");  // the unique map keeps its packets
}

TEST_F(SendStory, ALateEchoOfAnEarlierSendDoesNotConfirmTheResend) {
  Play("q100c; q300; s102; >Timeout: 1; =100 101; r100; s1; =100 101; r101; s1; =100 101 300");
  EXPECT_EQ(client.timeout_count_ + client.wait_count_, 0);
}

TEST_F(SendStory, TheGateStaysShutWhileNeitherReadyNorWaiting) { Play("shut; q1; s300; >; =; #1"); }

TEST_F(SendStory, UniquePacketsThatCollideReplaceEachOther) { Play("a9; b9; a1; b2; s3; =2"); }

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
