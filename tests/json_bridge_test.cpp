// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "MasterControllerClient.h"
#include "support/bytes.h"
#include "support/scripted_link.h"

namespace {

using velta::test::ScriptedClient;
using velta::test::StatusFrame;

/// A client of n joints into which one status packet per stamp has arrived.
struct Received : ScriptedClient {
  Received(int n, const std::vector<std::uint64_t>& stamps) : ScriptedClient(n) {
    for (const std::uint64_t stamp : stamps) link->reads.push_back(StatusFrame(n, stamp, ~std::uint64_t{0}));
    for (std::size_t i = 0; i < stamps.size(); ++i) ReceiveStatus();
  }
};

TEST(StateJson, IsThisExactText) {
  Received client(1, {42});
  RecvPacket& packet = client.recv_buffer_[0];
  packet.header.duration = -12.5f;
  rxJoint_t joint{};
  joint.type = 1;
  joint.comStatus = 2;
  joint.systemMode = 3;
  joint.ctrlMode = 255;
  joint.ewStatus = 4294967295u;
  joint.trjStatus = 6;
  joint.trjViaRemain = 65535;
  joint.refCurrent = 1;
  joint.refPosition = 2;
  joint.refVelocity = 3;
  joint.refAcceleration = 4;
  joint.refEffort = 5;
  joint.current = 6;
  joint.position = 1e10f;
  joint.velocity = 0.0000004f;
  joint.outConvInVelocity = 9;
  joint.acceleration = 10;
  joint.outConvInAcceleration = 11;
  joint.effort = -INFINITY;
  joint.temperature = NAN;
  for (int i = 0; i < 4; ++i) joint.general[i] = 20.25f + static_cast<float>(i);
  packet.joints[0] = joint;
  EXPECT_EQ(client.GetCurStateJson(),
            std::vector<std::string>{
                R"({"duration":"-12.500000","hostTimestamp":"18446744073709551615","jointState":[{)"
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
  Received client(3, {1, 2, 3});
  client.recv_buffer_[1].joints[2].position = 5;  // must not show in the third document
  const std::vector<std::string> documents = client.GetCurStateJson();
  ASSERT_EQ(documents.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    const nlohmann::json json = nlohmann::json::parse(documents[i]);
    EXPECT_EQ(json.size(), 4u);
    EXPECT_EQ(json["timestamp"], std::to_string(i + 1));
    ASSERT_EQ(json["jointState"].size(), 3u);
    for (std::size_t joint = 0; joint < 3; ++joint) {
      EXPECT_EQ(json["jointState"][joint].size(), 25u);
      EXPECT_EQ(json["jointState"][joint]["joint_id"], std::to_string(joint + 1));
    }
    EXPECT_EQ(json["jointState"][2]["position"], i == 1 ? "5.000000" : "0.000000");
  }
  EXPECT_TRUE(client.GetCurStateJson().empty());
}

TEST(StateJson, JointCountsAtTheEdges) {
  const std::string empty = R"({"duration":"0.000000","hostTimestamp":"18446744073709551615","jointState":[],)"
                            R"("timestamp":"1"})";
  EXPECT_EQ(Received(0, {1}).GetCurStateJson(), std::vector<std::string>{empty});
  Received client(2, {});
  client.PushRecvBuffer(RecvPacket(1));  // a packet of fewer joints shows those that it has
  client.PushRecvBuffer(RecvPacket(3));
  const std::vector<std::string> documents = client.GetCurStateJson();
  EXPECT_EQ(nlohmann::json::parse(documents[0])["jointState"].size(), 1u);
  EXPECT_EQ(nlohmann::json::parse(documents[1])["jointState"].size(), 2u);
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
  const std::string json =
      Document(Joint("1", R"("jointOrder":"99",)" + kValues) + "," +
                   Joint(" +2x", R"("jointOrder":"273","extra":[{}],)" + kValues) + "," +
                   Joint("1", R"("jointOrder":"-1","value1":"1.5abc","value2":"0","value3":"0","value4":"0")"),
               R"("300")");
  EXPECT_TRUE(client.PushSendQueueJson(" \n" + json + "{ trailing [[[", true));
  ASSERT_EQ(client.GetSendBufferSize(), 1u);
  const SendPacket p = client.PopSendQueue();
  EXPECT_TRUE(p.GetConfirmReceived());
  EXPECT_EQ(p.header.armOrder, 44);
  const txJoint_t first = p.joints[0];
  const txJoint_t second = p.joints[1];
  EXPECT_EQ(first.id, 0);
  EXPECT_EQ(first.order, 255);
  EXPECT_EQ(first.value1, 1.5f);
  EXPECT_EQ(first.value4, 0.0f);
  EXPECT_EQ(second.id, 1);
  EXPECT_EQ(second.order, 17);
  EXPECT_EQ(second.value1, 0.5f);
  EXPECT_EQ(second.value2, -1.0f);
  EXPECT_EQ(second.value3, 20.0f);
  EXPECT_EQ(second.value4, 16.0f);
  EXPECT_EQ(p.joints[2].order, 0);
}

TEST(CommandJson, SkipsJointsThatTheArmDoesNotHave) {
  ScriptedClient client(2);
  for (const char* name : {"0", "-1", "3", "-2147483648", "2147483647"}) {
    EXPECT_TRUE(client.PushSendQueueJson(Document(Joint(name, R"("jointOrder":5)")), false)) << name;
    const SendPacket p = client.PopSendQueue();
    EXPECT_FALSE(p.GetConfirmReceived());
    for (const txJoint_t& joint : p.joints) EXPECT_EQ(joint.order, 0);
  }
  EXPECT_TRUE(client.PushSendQueueJson(Document(""), false));
  EXPECT_TRUE(client.PushSendQueueJson(
      R"({"\u0061rmOrder":"0 ]}","jointCommand":[],"deep":)" + std::string(50, '[') + std::string(50, ']') + "}",
      false));
  ScriptedClient none(-5);
  EXPECT_TRUE(none.PushSendQueueJson(Document(Joint("1", kValues)), false));
}

TEST(CommandJson, RefusesEverythingElseAndQueuesNothing) {
  const auto nested = [](const std::string& open, std::size_t depth) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text += open;
    return R"({"armOrder":"0","jointCommand":[],"x":)" + text;
  };
  const std::string order = R"("jointOrder":"1",)";
  const std::vector<std::string> rows = {
      "",
      "{",
      "null",
      "[]",
      "\"text\"",
      "12",
      "1e999",
      Document("", "0"),
      Document("", R"("x")"),
      Document("", R"("2147483648")"),
      Document("", "null"),
      R"({"jointCommand":[]})",
      R"({"armOrder":"0"})",
      R"({"armOrder":"0","jointCommand":{}})",
      R"({"armOrder":"0","jointCommand":"[]"})",
      Document("1"),
      Document("{}"),
      Document(Joint("", order + kValues)),
      Document(R"({"jointName":1,)" + order + kValues + "}"),
      Document(Joint("1", kValues)),
      Document(Joint("1", R"("jointOrder":17,)" + kValues)),
      Document(Joint("2", order + R"("value1":"0","value2":"0","value3":"0")")),
      Document(Joint("1", order + R"("value1":"abc","value2":"0","value3":"0","value4":"0")")),
      Document(Joint("1", order + R"("value1":1,"value2":"0","value3":"0","value4":"0")")),
      Document(Joint("1", order + R"("value1":"0","value2":"0","value3":"0","value4":"1e39")")),
      Document(Joint("1", order + R"("value1":"0","value2":"0","value3":"1e-50","value4":"0")")),
      Document(Joint("1", order + kValues) + "," + Joint("x", "")),
      "{\"a",
      nested("[", 1000000),
      nested(R"({"a":)", 1000000),
      nested(R"([{"a":)", 1000000),
      std::string("{\0}", 3),
      R"({"armOrder":"0","jointCommand":[],"x":1e999})"};
  ScriptedClient client(2);
  for (const std::string& json : rows) EXPECT_FALSE(client.PushSendQueueJson(json, true)) << json.substr(0, 200);
  EXPECT_EQ(client.GetSendBufferSize(), 0u);
}

}  // namespace
