// SPDX-License-Identifier: MIT
// Who holds control over the arm, when it must stop, and what the bridge's messages and request heads say.
#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <tuple>

#include "control.h"
#include "gate.h"
#include "messages.h"

namespace velta::bridge {
namespace {

using std::chrono::milliseconds;

/// What the bridge has to do after an event, in a form that compares:
/// {refusal, stop, disarm, keep_alive, rearm, changed}.
using Did = std::tuple<Refusal, bool, bool, bool, bool, bool>;

Did Refused(Refusal why) { return {why, false, false, false, false, false}; }
const Did kNothing = Refused(Refusal::kNone);
const Did kAlive{Refusal::kNone, false, false, true, false, false};
const Did kTaken{Refusal::kNone, false, false, true, false, true};
const Did kGiven{Refusal::kNone, false, true, false, false, true};
const Did kRearmed{Refusal::kNone, false, false, true, true, false};
const Did kStopped{Refusal::kNone, true, false, false, false, false};
const Did kLostHolder{Refusal::kNone, true, false, false, false, true};
const Did kAliveButStopped{Refusal::kDeadMan, false, false, true, false, false};

class ControlTest : public testing::Test {
 protected:
  using Event = Control::Effects (Control::*)(const Commander&, Control::Time);

  Did On(Event event, const char* sender) { return From((control_.*event)(sender, now_)); }
  Did Take(const char* sender) { return On(&Control::Take, sender); }
  Did Keep(const char* sender) { return On(&Control::Keep, sender); }
  Did Give(const char* sender) { return On(&Control::Give, sender); }
  Did Command(const char* sender) { return On(&Control::Command, sender); }
  Did Rearm(const char* sender) { return On(&Control::Rearm, sender); }
  Did Stop(const char* sender) { return On(&Control::Stop, sender); }
  Did Leave(const char* sender) { return From(control_.Leave(sender)); }
  Did Expire() { return From(control_.Expire(now_)); }
  void Wait(int ms) { now_ += milliseconds(ms); }
  void ForbidViewersToStop() { control_ = Control({true, false, milliseconds(500)}); }

 private:
  static Did From(const Control::Effects& e) { return {e.refusal, e.stop, e.disarm, e.keep_alive, e.rearm, e.changed}; }

  Control control_{{true, true, milliseconds(500)}};
  Control::Time now_{};
};

TEST_F(ControlTest, OneAtATimeHoldsControlUntilItIsGivenBack) {
  EXPECT_EQ(Command("a"), Refused(Refusal::kNotHeld));
  EXPECT_EQ(Take("a"), kTaken);
  EXPECT_EQ(Take("a"), kAlive);
  EXPECT_EQ(Take("b"), Refused(Refusal::kHeldByAnother));
  for (const Event event : {&Control::Command, &Control::Keep, &Control::Give, &Control::Rearm}) {
    EXPECT_EQ(On(event, "b"), Refused(Refusal::kNotHeld));
  }
  EXPECT_EQ(Command("a"), kAlive);
  EXPECT_EQ(Give("a"), kGiven);
  EXPECT_EQ(Take("b"), kTaken);
  EXPECT_EQ(Command("b"), kAlive) << "giving back stops nothing";
}

TEST_F(ControlTest, EveryMessageOfTheHolderKeepsControl) {
  Take("a");
  for (const Event event : {&Control::Keep, &Control::Command, &Control::Take, &Control::Rearm}) {
    Wait(500);
    EXPECT_TRUE(std::get<3>(On(event, "a")));
  }
  Wait(400);
  Keep("b");  // somebody else's does not
  Wait(101);
  EXPECT_EQ(Expire(), kLostHolder);
}

TEST_F(ControlTest, AHolderThatFallsSilentOrLeavesStopsTheArm) {
  Take("a");
  Wait(501);
  EXPECT_EQ(Command("a"), (Did{Refusal::kNotHeld, true, false, false, false, true})) << "too late, also without Expire";
  EXPECT_EQ(Take("b"), kTaken);
  EXPECT_EQ(Leave("a"), kNothing);
  EXPECT_EQ(Leave("b"), kLostHolder);
  EXPECT_EQ(Expire(), kNothing);
}

TEST_F(ControlTest, AfterAStopCommandsWaitForTheHolderToRearm) {
  Take("a");
  EXPECT_EQ(Stop("viewer"), kStopped);
  EXPECT_EQ(Command("a"), kAliveButStopped);
  Give("a");
  Take("b");
  EXPECT_EQ(Command("b"), kAliveButStopped) << "a new holder must rearm, too";
  EXPECT_EQ(Rearm("b"), kRearmed);
  EXPECT_EQ(Command("b"), kAlive);
  Leave("b");
  Take("a");
  EXPECT_EQ(Command("a"), kAliveButStopped);
}

TEST_F(ControlTest, WithoutViewerStopOnlyTheHolderStops) {
  ForbidViewersToStop();
  EXPECT_EQ(Stop("a"), Refused(Refusal::kNoStop));
  Take("a");
  EXPECT_EQ(Stop("b"), Refused(Refusal::kNoStop));
  EXPECT_EQ(Stop("a"), (Did{Refusal::kNone, true, false, true, false, false}));
}

TEST(ExecutedIdsTest, ForgetsTheOldestAndKeepsSendersApart) {
  ExecutedIds ids(2);
  ids.Add("a", "1");
  ids.Add("a", "1");
  ids.Add("a", "2");
  EXPECT_TRUE(ids.Contains("a", "1"));
  EXPECT_FALSE(ids.Contains("b", "1"));
  ids.Add("a", "3");
  EXPECT_FALSE(ids.Contains("a", "1"));
  EXPECT_TRUE(ids.Contains("a", "2"));
}

constexpr const char* kDocument =
    R"({"armOrder":"0","jointCommand":[{"jointName":"2","jointOrder":"17","value1":"0.5",)"
    R"("value2":"0","value3":"0","value4":"0"}]})";

TEST(Messages, AreReadStrictly) {
  using Kind = Message::Kind;
  const std::string document = kDocument;
  const std::string deep = std::string(101, '[') + std::string(101, ']');
  const struct {
    std::string text;
    Kind kind;
    const char* id;
    bool confirm;
  } cases[] = {{R"({"control":"take"})", Kind::kTake, "", false},
               {R"({"control":"keep"})", Kind::kKeep, "", false},
               {R"({"control":"give"})", Kind::kGive, "", false},
               {R"({"control":"grab"})", Kind::kUnknown, "", false},
               {R"({"rearm":true})", Kind::kRearm, "", false},
               {R"({"rearm":"true"})", Kind::kUnknown, "", false},
               {R"({"stop":true})", Kind::kStop, "", false},
               {R"({"stop":true,"command":{}})", Kind::kStop, "", false},
               {R"({"stop":false})", Kind::kUnknown, "", false},
               {R"({"token":"x"})", Kind::kToken, "", false},
               {document, Kind::kCommand, "", false},
               {R"({"id":"7","confirm":true,"command":)" + document + "}", Kind::kCommand, "\"7\"", true},
               {R"({"id":7,"command":)" + document + "}", Kind::kCommand, "7", false},
               {R"({"id":"7","command":"x"})", Kind::kUnknown, "\"7\"", false},
               {R"({"id":"7","confirm":1,"command":{}})", Kind::kUnknown, "\"7\"", false},
               {R"({"id":[7],"command":{}})", Kind::kUnknown, "", false},
               {R"({"id":")" + std::string(kMaxId, 'x') + R"(","command":{}})", Kind::kUnknown, "", false},
               {document + "x", Kind::kUnknown, "", false},
               {"{\"stop\":true,\"a\":" + deep + "}", Kind::kUnknown, "", false},
               {"{\"stop\":true,\"a\":\"" + std::string(kMaxMessage, 'x') + "\"}", Kind::kUnknown, "", false},
               {"[]", Kind::kUnknown, "", false},
               {"", Kind::kUnknown, "", false}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.text.substr(0, 80));
    const Message message = ParseMessage(row.text);
    EXPECT_EQ(message.kind, row.kind);
    EXPECT_EQ(message.id, row.id);
    EXPECT_EQ(message.confirm, row.confirm);
  }
}

TEST(Messages, NestingIsCountedOutsideStrings) {
  EXPECT_FALSE(NestsDeeperThan(R"([["[[[\"[[["],[]])", 2));
  EXPECT_TRUE(NestsDeeperThan("[[[", 2));
}

TEST(StopDocuments, AreReadOneAfterAnotherOrNotAtAll) {
  const std::string path = testing::TempDir() + "stop_documents.json";
  const auto read = [&](const std::string& text) {
    std::ofstream(path) << text;
    return ReadStopDocuments(path, 3);
  };
  EXPECT_EQ(read(std::string(kDocument) + "\n\n" + kDocument + "\n").size(), 2U);
  for (const char* bad : {"", "{}", "x"}) EXPECT_THROW(read(bad), std::runtime_error) << bad;
  EXPECT_THROW(read(std::string(kDocument) + "{}"), std::runtime_error);
}

TEST(RequestHeads, AreForThisHostAndFromItsOwnPages) {
  const Gate gate({"localhost", "127.0.0.1", "Arm.Example"}, "");
  const struct {
    const char *host, *origin, *wrong;
  } cases[] = {{"localhost:8080", "", ""},
               {"127.0.0.1", "http://127.0.0.1:8080", ""},
               {"arm.example:1", "https://ARM.example", ""},
               {"192.0.2.1:80", "", ""},  // the connection's own address
               {"", "", "host"},
               {"evil.example", "", "host"},
               {"localhost.evil.example:8080", "", "host"},
               {"localhost:80x", "", "host"},
               {"[::1", "", "host"},
               {"localhost", "http://evil.example", "origin"},
               {"localhost", "http://127.0.0.1", "origin"},
               {"localhost", "null", "origin"},
               {"localhost", "file://localhost", "origin"}};
  for (const auto& row : cases) {
    const char* wrong = gate.Check(row.host, row.origin, "192.0.2.1");
    EXPECT_STREQ(wrong ? wrong : "", row.wrong) << row.host << " from " << row.origin;
  }
}

TEST(RefusalsTest, AreCountedAlwaysAndLoggedOncePerPeerAndMinute) {
  Refusals refusals;
  const Refusals::Time start{};
  EXPECT_TRUE(refusals.Count("host", "a", start));
  EXPECT_FALSE(refusals.Count("origin", "a", start + std::chrono::seconds(59)));
  EXPECT_TRUE(refusals.Count("host", "b", start));
  EXPECT_TRUE(refusals.Count("host", "a", start + std::chrono::seconds(60)));
  EXPECT_EQ(refusals.ByReason().at("host"), 3U);
}

}  // namespace
}  // namespace velta::bridge
