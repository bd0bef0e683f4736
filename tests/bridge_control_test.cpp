// SPDX-License-Identifier: MIT
// When control ends, and what the bridge's messages say.
#include <gtest/gtest.h>

#include <string>

#include "control.h"
#include "messages.h"
#include "support/bytes.h"

namespace velta::bridge {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kTimeout(500);
const ControlOptions kOptions{true, true, kTimeout};

TEST(ControlTest, EveryMessageOfTheHolderKeepsControlAndNobodyElses) {
  Control control(kOptions);
  Control::Time now{};
  control.Take("a", now);
  for (const auto event : {&Control::Keep, &Control::Command, &Control::Take, &Control::Rearm, &Control::Unknown}) {
    now += kTimeout;
    EXPECT_TRUE((control.*event)("a", now).keep_alive);
  }
  control.Keep("b", now + kTimeout);
  EXPECT_FALSE(control.Expire(now + kTimeout).stop);
  const Control::Effects effects = control.Expire(now + kTimeout + milliseconds(1));
  EXPECT_TRUE(effects.stop && effects.changed && !effects.disarm);
  EXPECT_EQ(control.Holder(), "");
}

TEST(ControlTest, AHolderThatSpeaksTooLateHasLostControlAndStopsTheArm) {
  Control control(kOptions);
  control.Take("a", Control::Time());
  const Control::Effects effects = control.Command("a", Control::Time() + kTimeout + milliseconds(1));
  EXPECT_EQ(effects.refusal, Refusal::kNotHeld);
  EXPECT_TRUE(effects.stop && effects.changed && !effects.keep_alive);
}

TEST(Messages, AreReadStrictly) {
  using Kind = Message::Kind;
  const std::string document = test::kDocument;
  const std::string deep = std::string(101, '[') + std::string(101, ']');
  const struct {
    std::string text;
    Kind kind;
    const char* id;
    bool confirm;
  } cases[] = {{R"({"control":"grab"})", Kind::kUnknown, "", false},
               {R"({"rearm":"true"})", Kind::kUnknown, "", false},
               {R"({"stop":true,"command":{}})", Kind::kStop, "", false},
               {"{\"stop\":true,\"a\":\"\\\"" + deep + "\"}", Kind::kStop, "", false},  // which are no arrays
               {R"({"stop":false})", Kind::kUnknown, "", false},
               {R"({"id":"7","confirm":true,"command":)" + document + "}", Kind::kCommand, "\"7\"", true},
               {R"({"id":"7","command":"x"})", Kind::kUnknown, "\"7\"", false},
               {R"({"id":"7","confirm":1,"command":{}})", Kind::kUnknown, "\"7\"", false},
               {R"({"id":[7],"command":{}})", Kind::kUnknown, "", false},
               {R"({"id":")" + std::string(kMaxId, 'x') + R"(","command":{}})", Kind::kUnknown, "", false},
               {document + "x", Kind::kUnknown, "", false},
               {"{\"stop\":true,\"a\":" + deep + "}", Kind::kUnknown, "", false},
               {"{\"stop\":true,\"a\":\"" + std::string(kMaxMessage, 'x') + "\"}", Kind::kUnknown, "", false}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.text.substr(0, 80));
    const Message message = ParseMessage(row.text);
    EXPECT_EQ(message.kind, row.kind);
    EXPECT_EQ(message.id, row.id);
    EXPECT_EQ(message.confirm, row.confirm);
  }
}

TEST(Messages, TimesOfEventsHaveThreeDigitsOfMilliseconds) {
  Event event;
  event.time = std::chrono::system_clock::time_point(milliseconds(7));
  EXPECT_NE(EventText(event).find("\"1970-01-01T00:00:00.007Z\""), std::string::npos);
}

}  // namespace
}  // namespace velta::bridge
