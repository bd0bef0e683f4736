// SPDX-License-Identifier: MIT
#include "json_bridge.h"

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "support/bytes.h"
#include "support/scripted_link.h"

namespace {

using velta::test::Bytes;
using velta::test::ScriptedClient;
using Texts = std::vector<std::string>;

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
  for (const int joints : {3, 2, 4}) client.PushRecvBuffer(RecvPacket(joints));
  client.recv_buffer_[0].joints[1].position = 5;  // must not show in later documents
  const Texts documents = client.GetCurStateJson();
  ASSERT_EQ(documents.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    const nlohmann::json joints = nlohmann::json::parse(documents[i])["jointState"];
    ASSERT_EQ(joints.size(), i == 1 ? 2u : 3u);  // a packet of fewer joints shows those that it has
    EXPECT_EQ(joints[1]["joint_id"], "2");
    EXPECT_EQ(joints[1]["position"], i == 0 ? "5.000000" : "0.000000");
  }
  EXPECT_TRUE(client.GetCurStateJson().empty());
}

const std::string kValues = R"("value1":"0.5","value2":"-1","value3":"2e1","value4":"0x10")";

std::string Joint(const std::string& name, const std::string& rest) {
  return R"({"jointName":")" + name + R"(",)" + rest + "}";
}

std::string Document(const std::string& joints, const std::string& arm = R"("0")") {
  return R"({"armOrder":)" + arm + R"(,"jointCommand":[)" + joints + "]}";
}

/// A good document that nests depth levels of the given brackets in one more member.
std::string Nested(const std::string& open, const std::string& close, int depth) {
  std::string text = R"({"armOrder":"0","jointCommand":[],"x":)";
  for (int i = 1; i < depth; ++i) text += open;
  text += "0";
  for (int i = 1; i < depth; ++i) text += close;
  return text + "}";
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
  Texts documents = {Document(""), R"({"\u0061rmOrder":"0 ]}","jointCommand":[]})", Nested("[", "]", 100),
                     Nested(R"({"a":)", "}", 100),
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
  const std::string order = R"("jointOrder":"1",)";
  const auto joint = [&](const std::string& values) { return Document(Joint("1", order + values)); };
  // clang-format off
  const Texts rows = {
      "", "{", "[]", "1e999", std::string("{\0}", 3),
      Document("", "0"), Document("", R"("x")"), Document("", R"("2147483648")"),
      R"({"jointCommand":[]})", R"({"armOrder":"0"})", R"({"armOrder":"0","jointCommand":{}})",
      Document("1"), Document("{}"), Document(Joint("", order + kValues)), Document(Joint("1", kValues)),
      joint(R"("value1":"0","value2":"0","value3":"0")"),
      joint(R"("value1":1,"value2":"0","value3":"0","value4":"0")"),
      joint(R"("value1":"abc","value2":"0","value3":"0","value4":"0")"),
      joint(R"("value1":"0","value2":"0","value3":"0","value4":"1e39")"),
      joint(R"("value1":"0","value2":"0","value3":"1e-50","value4":"0")"),
      Document(Joint("1", order + kValues) + "," + Joint("x", "")),
      Nested("[", "]", 101), Nested(R"({"a":)", "}", 101), Nested("[", "", 1000000)};
  // clang-format on
  ScriptedClient client(2);
  for (const std::string& json : rows) EXPECT_FALSE(client.PushSendQueueJson(json, true)) << json.substr(0, 200);
  EXPECT_EQ(client.GetSendBufferSize(), 0u);
}

}  // namespace
