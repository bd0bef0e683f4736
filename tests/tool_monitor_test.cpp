// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "monitor_model.h"
#include "support/wire_bytes.h"

using velta::test::Chars;
using velta::test::StatusBytes;
using velta::tools::MonitorModel;

namespace {

constexpr std::int64_t kMs = 1'000'000;

TEST(MonitorModel, ShowsStatesInWordsAndMarksWhatChanged) {
  MonitorModel model(2);
  EXPECT_EQ(model.Traffic(0), "no status yet  discarded 0 bytes");
  model.Take(Chars(StatusBytes(1, 0, {{0}, {2, 'm'}})), 1000 * kMs);
  for (const auto& cell : model.Row(0, 1000 * kMs)) EXPECT_FALSE(cell.changed || cell.fault) << cell.text;
  EXPECT_EQ(model.Row(1, 1000 * kMs)[8].text, "servo off!");

  model.Take(Chars(StatusBytes(2, 0, {{3, 2, 12, 1.5F}, {2, 'm'}})), 1010 * kMs);
  const auto row = model.Row(0, 1011 * kMs);
  struct Expected {
    std::size_t column;
    const char* text;
    bool changed;
    bool fault;
  };
  for (const Expected& e : {Expected{0, "1.5000", true, false}, Expected{1, "0.0000", false, false},
                            Expected{5, "FAULT", true, true}, Expected{6, "trajectory", false, false},
                            Expected{7, "0x0000000c", true, true}, Expected{8, "moving", true, false}}) {
    EXPECT_EQ(row[e.column].text, e.text);
    EXPECT_EQ(row[e.column].changed, e.changed) << e.text;
    EXPECT_EQ(row[e.column].fault, e.fault) << e.text;
  }
  for (const auto& cell : model.Row(1, 1011 * kMs)) EXPECT_FALSE(cell.changed || cell.fault) << cell.text;
  EXPECT_FALSE(model.Row(0, 2010 * kMs)[0].changed);  // the mark fades
  EXPECT_TRUE(model.Row(0, 2010 * kMs)[7].fault);     // the fault stays
}

TEST(MonitorModel, CountsBytesThatBelongToNoStatus) {
  MonitorModel model(1);
  const std::string status = StatusBytes(1, 0, {{}});
  model.Take(Chars("noise" + status + status.substr(0, 60)), kMs);
  EXPECT_NE(model.Traffic(kMs).find("discarded 0 bytes"), std::string::npos);  // the rest may still come
  std::string damaged = status;
  damaged[70] = static_cast<char>(damaged[70] ^ 1);
  model.Take(Chars(status.substr(60) + damaged), 2 * kMs);
  EXPECT_NE(model.Traffic(2 * kMs).find("statuses 2  discarded 108 bytes"), std::string::npos)
      << model.Traffic(2 * kMs);
}

TEST(MonitorModel, DrawsTheHistoryOfAJoint) {
  MonitorModel model(1);
  for (int i = 0; i < 4; ++i) {
    model.Take(Chars(StatusBytes(1, 0, {{2, 0, 0, static_cast<float>(i)}})), (1000 + 50 * i) * kMs);
    model.Take(Chars(StatusBytes(1, 0, {{2, 0, 0, 99}})), (1001 + 50 * i) * kMs);  // between two samples
  }
  EXPECT_EQ(model.History(0, 6, 4), (std::vector<std::string>{"position of joint 0, last 0.2 s, 0.0000 to 3.0000",
                                                              "     *", "    * ", "   *  ", "  *   "}));
  EXPECT_EQ(model.History(0, 2, 1),
            (std::vector<std::string>{"position of joint 0, last 0.1 s, 2.0000 to 3.0000", "**"}));
}

}  // namespace
