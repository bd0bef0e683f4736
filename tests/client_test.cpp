// SPDX-License-Identifier: MIT
// The client on a link in memory: connection, receive step, send step, and the JSON bridge.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>

#include "MasterControllerClient.h"
#include "support/bytes.h"
#include "support/capture.h"
#include "support/scripted_link.h"

namespace {

using velta::test::Bytes;
using velta::test::Printed;
using velta::test::ScriptedClient;
using velta::test::ScriptedLink;
using velta::test::StatusFrame;
using Texts = std::vector<std::string>;
using Stamps = std::vector<std::uint64_t>;

const std::string kLost = "[VELTA] lost connection\n";

SendPacket Stamped(unsigned long stamp) {
  SendPacket p(1);
  p.SetTimeStamp(stamp);
  return p;
}

class Client : public testing::Test {
 protected:
  /// Status frames arrive in one read. @return how many packets the receive step found
  int Receive(const Stamps& stamps, std::uint64_t echo = 0) {
    Bytes bytes;
    for (const std::uint64_t stamp : stamps) bytes.Add(StatusFrame(1, stamp, echo));
    link.reads.push_back(bytes);
    return client.ReceiveStatus();
  }
  Stamps Collect() {
    Stamps stamps;
    for (const RecvPacket& packet : client.GetCurStatePacket()) stamps.push_back(+packet.header.timestamp);
    return stamps;
  }

  ScriptedClient client{1};
  ScriptedLink& link = *client.link;
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
  EXPECT_EQ(client.GetRecvBufferSize(), 0u);
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
      {-3, {}, 0, ""},
      {3, {false, true, true}, 2, "[VELTA] Try: 0...failed.\n[VELTA] Try: 1...succeeded!\n"},
      {3, {false, false, false}, 3, "[VELTA] Try: 0...failed.\n[VELTA] Try: 1...failed.\n[VELTA] Try: 2...failed.\n"}};
  for (const auto& [tries, results, attempts, printed] : rows) {
    link.connects = link.disconnects = 0;
    link.connect_results = results;
    const bool succeeds = printed.find("succeeded") != std::string::npos;
    EXPECT_EQ(Printed([&, tries = tries] { EXPECT_EQ(client.ReConnect(tries), succeeds); }),
              "[VELTA] Try to Re-Connect\n" + printed);
    EXPECT_EQ((std::pair{link.connects, link.disconnects}), (std::pair{attempts, attempts}));
    EXPECT_TRUE(client.IsConnected());
  }
  link.read_result = -1;
  link.connect_results = {true, true, false};
  Printed([&] {
    client.ReceiveStatus();
    EXPECT_TRUE(client.ReConnect(1));
  });
  EXPECT_FALSE(client.IsConnected());
  EXPECT_TRUE(client.Connect() && client.IsConnected());
  EXPECT_TRUE(client.Disconnect() && client.IsConnected());
  EXPECT_FALSE(client.Connect() || client.IsConnected());
}

TEST_F(Client, ReceivesPacketsInStreamOrder) {
  const std::vector<char> third = StatusFrame(1, 3, 13);
  link.reads = {Bytes().Add(StatusFrame(1, 1, 11)).Add(StatusFrame(1, 2, 12)).Add({third.begin(), third.begin() + 50}),
                {third.begin() + 50, third.end()}};
  EXPECT_EQ(client.ReceiveStatus(), 2);
  EXPECT_EQ(client.GetRecvBufferSize(), 2u);
  EXPECT_EQ(client.last_recv_host_timestamp_, 12u);
  EXPECT_EQ(+client.GetLastRecvPacket().header.timestamp, 2u);
  EXPECT_EQ(client.ReceiveStatus(), 1);
  EXPECT_EQ(client.ReceiveStatus(), 0);
  EXPECT_EQ(client.recv_buffer_.back().joints.size(), 1u);
  EXPECT_EQ(Collect(), (Stamps{1, 2, 3}));
  EXPECT_EQ(client.GetRecvBufferSize(), 0u);
  EXPECT_EQ(Collect(), Stamps{});
  Receive({4});
  client.FlushRecvBuffer();
  EXPECT_EQ(client.GetRecvBufferSize(), 0u);
}

TEST_F(Client, FullReceiveBufferDropsTheNewestButRemembersIt) {
  for (unsigned i = 1; i <= 4098; ++i) EXPECT_EQ(Receive({i}, i), 1);
  EXPECT_EQ(client.GetRecvBufferSize(), 4096u);
  EXPECT_EQ(+client.GetLastRecvPacket().header.timestamp, 4098u);
  EXPECT_EQ(client.last_recv_host_timestamp_, 4098u);
  EXPECT_EQ(Collect().back(), 4096u);
}

TEST_F(Client, AFailedReadOrWriteIsALostConnection) {
  SendPacket p = Stamped(5);
  EXPECT_EQ(Printed([&] { EXPECT_EQ(client.ReceiveStatus(), 0); }), "");
  link.write_result = 0;  // not writable, or short: the frame counts as sent
  EXPECT_TRUE(client.SendOnce(p, false) && client.IsConnected());
  link.read_result = link.write_result = -1;
  EXPECT_EQ(Printed([&] { EXPECT_EQ(client.ReceiveStatus() + client.ReceiveStatus(), 0); }), kLost + kLost);
  EXPECT_FALSE(client.IsConnected());
  client.Connect();
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
      if (what == 'r') Receive({1}, number);
      if (what == 'o') client.SendOnce(p, text.back() == 'k');
      if (what == 's' && number != 0) {
        printed = Printed([&] {
          for (unsigned long i = 0; i < number; ++i) client.SendPacketInBuffer();
        });
      }
      if (text == "flush") client.FlushSendBuffer();
      if (text == "shut") client.ready_to_send_ = false;
      std::string is = text, sent;
      for (const auto& frame : what == '=' ? link.writes : decltype(link.writes)()) {
        sent += (sent.empty() ? "" : " ") + std::to_string(velta::test::ReadU64(frame, 2));
      }
      if (what == '=') is = "=" + sent;
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
  EXPECT_TRUE(client.PopSendQueue().joints.empty());  // from an empty queue
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
  EXPECT_EQ(arm.unique_send_map_.GetNotSentKeys(), Texts{"key"});
  const SendPacket merged = arm.PopSendQueue();
  EXPECT_EQ(std::pair(+merged.joints[0].order, +merged.joints[1].order), std::pair(0xA2, 0xA2));
  EXPECT_TRUE(merged.GetConfirmReceived());

  push("0", "b", false, false);  // buffers are emptied in the order of their names
  push("0", "a", true, false);
  arm.SendPacketInBuffer();
  EXPECT_TRUE(arm.cur_send_packet_.GetConfirmReceived());
}

TEST_F(Client, SizesAndKeysAreReadWithoutTheMutex) {
  const std::lock_guard<std::mutex> lock(*client.mutex_);
  EXPECT_EQ(client.GetRecvBufferSize() + client.GetSendBufferSize(), 0u);
  client.SendPacketInBuffer();  // nothing queued: the size check only
}

TEST_F(Client, APacketOverridesReachPushRecvBuffer) {
  struct Counting : ScriptedClient {
    using ScriptedClient::ScriptedClient;
    void PushRecvBuffer(RecvPacket packet) override { seen.insert(+packet.header.timestamp); }
    std::set<std::uint64_t> seen;
  } counting(1);
  counting.link->reads = {StatusFrame(1, 5), StatusFrame(1, 6)};
  EXPECT_EQ(counting.ReceiveStatus() + counting.ReceiveStatus(), 2);
  EXPECT_EQ(counting.seen, (std::set<std::uint64_t>{5, 6}));
}

TEST_F(Client, UniqueKeysAreSentInTheMapsOrder) {
  std::mt19937 random(4);
  for (unsigned step = 0; step < 2000; ++step) {
    for (auto fresh = random() % (step % 500 < 250 ? 4 : 2); fresh > 0; --fresh) {
      SendPacket packet(1);
      packet.SetUniqueKey(std::to_string(random() % (20 + step)));
      client.InsertUniqueSendMap(packet);
    }
    const Texts waiting = client.unique_send_map_.GetNotSentKeys();
    client.SendPacketInBuffer();
    if (waiting.empty()) continue;
    ASSERT_EQ(client.cur_send_packet_.GetUniqueKey(), waiting.front()) << step;
    ASSERT_EQ(client.unique_send_map_.GetNotSentKeys().size(), waiting.size() - 1);
  }
}

TEST(StateJson, IsThisExactText) {
  ScriptedClient client(1);
  Bytes frame;
  frame.U8(0xAB).U8(0xCD).U64(42).U64(~std::uint64_t{0}).F32(-12.5f);
  frame.U8(1).U8(2).U8(3).U8(255).U32(4294967295u).U8(6).U16(65535);
  for (const float v : {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 1e10f, 0.0000004f, 9.0f, 10.0f, 11.0f, -INFINITY, NAN})
    frame.F32(v);
  for (const float v : {20.25f, 21.25f, 22.25f, 23.25f}) frame.F32(v);
  client.link->reads = {frame.Crc()};
  client.ReceiveStatus();
  EXPECT_EQ(client.GetCurStateJson(),
            Texts{R"({"duration":"-12.500000","hostTimestamp":"18446744073709551615","jointState":[{)"
                  R"("acceleration":"10.000000","comStatus":"2","ctrlMode":"255","current":"6.000000",)"
                  R"("effort":"-inf","ewStatus":"4294967295","general_0":"20.250000","general_1":"21.250000",)"
                  R"("general_2":"22.250000","general_3":"23.250000","joint_id":"1",)"
                  R"("outConvInAcceleration":"11.000000","outConvInVelocity":"9.000000",)"
                  R"("position":"10000000000.000000","refAcceleration":"4.000000","refCurrent":"1.000000",)"
                  R"("refEffort":"5.000000","refPosition":"2.000000","refVelocity":"3.000000","systemMode":"3",)"
                  R"("temperature":"nan","trjStatus":"6","trjViaRemain":"65535","type":"1",)"
                  R"("velocity":"0.000000"}],"timestamp":"42"})"});
}

TEST(StateJson, GivesOneDocumentPerPacketAndEmptiesTheBuffer) {
  ScriptedClient client(3);
  for (const int joints : {3, 2, 3, 4}) client.PushRecvBuffer(RecvPacket(joints));
  client.recv_buffer_[0].joints[2].position = 5;  // must not show in later documents
  const Texts documents = client.GetCurStateJson();
  ASSERT_EQ(documents.size(), 4u);
  for (std::size_t i = 0; i < 4; ++i) {
    const nlohmann::json json = nlohmann::json::parse(documents[i]);
    EXPECT_EQ(json.size(), 4u);
    ASSERT_EQ(json["jointState"].size(), i == 1 ? 2u : 3u);  // a packet of fewer joints shows those that it has
    for (std::size_t joint = 0; joint < json["jointState"].size(); ++joint) {
      EXPECT_EQ(json["jointState"][joint].size(), 25u);
      EXPECT_EQ(json["jointState"][joint]["joint_id"], std::to_string(joint + 1));
      EXPECT_EQ(json["jointState"][joint]["position"], i == 0 && joint == 2 ? "5.000000" : "0.000000");
    }
  }
  EXPECT_TRUE(client.GetCurStateJson().empty());
  ScriptedClient none(0);
  none.PushRecvBuffer(RecvPacket(0));
  EXPECT_EQ(none.GetCurStateJson(),
            Texts{R"({"duration":"0.000000","hostTimestamp":"0","jointState":[],"timestamp":"0"})"});
}

const std::string kValues = R"("value1":"0.5","value2":"-1","value3":"2e1","value4":"0x10")";

std::string Joint(const std::string& name, const std::string& rest) {
  return R"({"jointName":")" + name + R"(",)" + rest + "}";
}

std::string Document(const std::string& joints, const std::string& arm = R"("0")") {
  return R"({"armOrder":)" + arm + R"(,"jointCommand":[)" + joints + "]}";
}

TEST(CommandJson, QueuesExactlyTheDocumentsCommand) {
  ScriptedClient client(3);
  const std::string first = Joint("1", R"("jointOrder":"99",)" + kValues);
  const std::string second = Joint(" +2x", R"("jointOrder":"273","extra":[{}],)" + kValues);
  const std::string again = Joint("1", R"("jointOrder":"-1","value1":"1.5abc","value2":"0","value3":"0","value4":"0")");
  EXPECT_TRUE(client.PushSendQueueJson(
      " \n" + Document(first + "," + second + "," + again, R"("300")") + "{ trailing [[[", true));
  ASSERT_EQ(client.GetSendBufferSize(), 1u);
  SendPacket p = client.PopSendQueue();
  EXPECT_TRUE(p.GetConfirmReceived());
  p.SetTimeStamp(1);
  Bytes frame;
  frame.U8(0xAB).U8(0xCD).U64(1).U8(44);
  frame.U8(0).U8(255).F32(1.5f).Fill(12, 0);
  frame.U8(1).U8(17).F32(0.5f).F32(-1).F32(20).F32(16);
  frame.U8(2).Fill(17, 0);
  EXPECT_EQ(p.GetCharVector(), static_cast<const std::vector<char>&>(frame.Crc()));
}

TEST(CommandJson, SkipsJointsThatTheArmDoesNotHave) {
  ScriptedClient client(2), none(-5);
  const std::string deep = std::string(50, '[') + std::string(50, ']');
  Texts documents = {Document(""), R"({"\u0061rmOrder":"0 ]}","jointCommand":[],"deep":)" + deep + "}",
                     R"({"armOrder":"0","jointCommand":[],"no depth":"\")" + std::string(600, '[') + "\"}"};
  for (const char* name : {"0", "-1", "3", "-2147483648", "2147483647"}) {
    documents.push_back(Document(Joint(name, R"("jointOrder":5)")));
  }
  for (const std::string& document : documents) {
    EXPECT_TRUE(client.PushSendQueueJson(document, false)) << document;
    const SendPacket p = client.PopSendQueue();
    EXPECT_FALSE(p.GetConfirmReceived());
    EXPECT_EQ(p.joints[0].order + p.joints[1].order + p.header.armOrder, 0);
  }
  EXPECT_TRUE(none.PushSendQueueJson(Document(Joint("1", kValues)), false));
}

TEST(CommandJson, RefusesEverythingElseAndQueuesNothing) {
  const auto nested = [](const std::string& open) {
    std::string text = R"({"armOrder":"0","jointCommand":[],"x":)";
    for (int depth = 0; depth < 1000000; ++depth) text += open;
    return text;
  };
  const std::string order = R"("jointOrder":"1",)";
  const auto joint = [&](const std::string& values) { return Document(Joint("1", order + values)); };
  // clang-format off
  const Texts rows = {
      "", "{", "null", "[]", "\"text\"", "12", "1e999", "{\"a", std::string("{\0}", 3),
      Document("", "0"), Document("", R"("x")"), Document("", R"("2147483648")"), Document("", "null"),
      R"({"jointCommand":[]})", R"({"armOrder":"0"})", R"({"armOrder":"0","jointCommand":{}})",
      R"({"armOrder":"0","jointCommand":"[]"})", R"({"armOrder":"0","jointCommand":[],"x":1e999})",
      Document("1"), Document("{}"), Document(Joint("", order + kValues)),
      Document(R"({"jointName":1,)" + order + kValues + "}"),
      Document(Joint("1", kValues)), Document(Joint("1", R"("jointOrder":17,)" + kValues)),
      joint(R"("value1":"0","value2":"0","value3":"0")"),
      joint(R"("value1":"abc","value2":"0","value3":"0","value4":"0")"),
      joint(R"("value1":1,"value2":"0","value3":"0","value4":"0")"),
      joint(R"("value1":"0","value2":"0","value3":"0","value4":"1e39")"),
      joint(R"("value1":"0","value2":"0","value3":"1e-50","value4":"0")"),
      Document(Joint("1", order + kValues) + "," + Joint("x", "")),
      nested("["), nested(R"({"a":)"), nested(R"([{"a":)")};
  // clang-format on
  ScriptedClient client(2);
  for (const std::string& json : rows) EXPECT_FALSE(client.PushSendQueueJson(json, true)) << json.substr(0, 200);
  EXPECT_EQ(client.GetSendBufferSize(), 0u);
}

}  // namespace
