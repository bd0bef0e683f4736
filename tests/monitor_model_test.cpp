// SPDX-License-Identifier: MIT
#include "monitor_model.h"

#include <gtest/gtest.h>

#include "support/velta_program.h"

using namespace velta::test;
using velta::tools::MonitorModel;

namespace {

constexpr std::int64_t kMs = 1'000'000;

TEST(MonitorModel, ShowsStatesInWordsAndMarksWhatChanged) {
  MonitorModel model(2);
  EXPECT_EQ(model.Traffic(0), "no status yet  discarded 0 bytes");
  model.Take(Status(1, {{0}, {2, 'm'}}), 1000 * kMs);
  model.Take(Status(2, {{3, 2, 12, 1.5F}, {2, 'm'}}), 1010 * kMs);
  /// The cells of a joint, * for changed and ! for a fault behind them.
  const auto row = [&](std::size_t joint, std::int64_t now_ms) {
    std::string text;
    for (const auto& cell : model.Row(joint, now_ms * kMs)) {
      text += cell.text + (cell.changed ? "*" : "") + (cell.fault ? "!" : "") + " ";
    }
    return text;
  };
  EXPECT_EQ(row(0, 1011), "1.5000* 0.0000 0.0000 0.0000 0.0 FAULT*! trajectory 0x0000000c*! moving* ");
  EXPECT_EQ(row(0, 2010), "1.5000 0.0000 0.0000 0.0000 0.0 FAULT! trajectory 0x0000000c! moving ");  // marks fade
  EXPECT_EQ(row(1, 1011), "0.0000 0.0000 0.0000 0.0000 0.0 servo on trajectory ok servo off! ");
}

TEST(MonitorModel, CountsBytesThatBelongToNoStatus) {
  MonitorModel model(1);
  const std::vector<char> status = StatusFrame(1, 1), begun = Part(status, 0, 60), rest = Part(status, 60, 103);
  std::vector<char> damaged = status;
  damaged[70] = 1;
  model.Take(Joined({{'n', 'o', 'i', 's', 'e'}, status, begun}), kMs);
  EXPECT_TRUE(Has(model.Traffic(kMs), "statuses 1  discarded 5 bytes"));  // the rest may still come
  model.Take(Joined({rest, damaged, begun}), 2 * kMs);
  EXPECT_TRUE(Has(model.Traffic(2 * kMs), "statuses 2  discarded 108 bytes")) << model.Traffic(2 * kMs);
  model.Restart();  // a new connection starts at a frame's first byte
  model.Take(status, 3 * kMs);
  EXPECT_TRUE(Has(model.Traffic(3 * kMs), "statuses 3  discarded 108 bytes")) << model.Traffic(3 * kMs);
}

TEST(MonitorModel, DrawsTheHistoryOfAJoint) {
  MonitorModel model(1);
  for (int i = 0; i < 4; ++i) {
    model.Take(Status(1, {{2, 0, 0, static_cast<float>(i)}}), (1000 + 50 * i) * kMs);
    model.Take(Status(1, {{2, 0, 0, 99}}), (1001 + 50 * i) * kMs);  // between two samples
  }
  using Picture = std::vector<std::string>;
  EXPECT_EQ(model.History(0, 6, 4),
            (Picture{"position of joint 0, last 0.2 s, 0.0000 to 3.0000", "     *", "    * ", "   *  ", "  *   "}));
  EXPECT_EQ(model.History(0, 2, 1), (Picture{"position of joint 0, last 0.1 s, 2.0000 to 3.0000", "**"}));
}

}  // namespace
