// SPDX-License-Identifier: MIT
#include "monitor_model.h"

#include <gtest/gtest.h>

#include "support/bytes.h"

using velta::analysis::MonitorModel;
using velta::test::Bytes;

namespace {

constexpr std::int64_t kMs = 1'000'000;

/// What differs from joint to joint.
struct Joint {
  unsigned char system_mode = 2;
  unsigned char trj_status = 0;
  std::uint32_t ew_status = 0;
  float position = 0;
};

std::vector<char> Status(std::uint64_t stamp, const std::vector<Joint>& joints) {
  Bytes frame;
  frame.U8(0xAB).U8(0xCD).U64(stamp).U64(0).F32(0);
  for (const Joint& joint : joints) {
    frame.U16(0).U8(joint.system_mode).U8(0).U32(joint.ew_status).U8(joint.trj_status).U16(0);
    frame.Fill(24, 0).F32(joint.position).Fill(40, 0);
  }
  return frame.Crc();
}

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
  const auto traffic = [&](std::int64_t now) {
    const std::string text = model.Traffic(now);
    const std::size_t from = text.find("statuses");
    return text.substr(from, text.find(" bytes", from) + 6 - from);
  };
  const std::vector<char> status = velta::test::StatusFrame(1, 1);
  const std::vector<char> begun(status.begin(), status.begin() + 60), rest(status.begin() + 60, status.end());
  std::vector<char> damaged = status;
  damaged[70] = 1;
  model.Take(Bytes().Fill(5, 'n').Add(status).Add(begun), kMs);
  EXPECT_EQ(traffic(kMs), "statuses 1  discarded 5 bytes");  // the rest may still come
  model.Take(Bytes().Add(rest).Add(damaged).Add(begun), 2 * kMs);
  EXPECT_EQ(traffic(2 * kMs), "statuses 2  discarded 108 bytes");
  model.Restart();  // a new connection starts at a frame's first byte
  model.Take(status, 3 * kMs);
  EXPECT_EQ(traffic(3 * kMs), "statuses 3  discarded 108 bytes");
}

TEST(MonitorModel, ShowsWhatTheSessionCounts) {
  velta::SessionStatistics statistics;
  statistics.client.bytes_received = statistics.client.frames_sent = 1;
  statistics.client.reconnections = 3;
  statistics.overruns = 2;
  statistics.lateness.p99_us = 1500;
  EXPECT_EQ(velta::analysis::LinkLine(statistics),
            "received 1 byte  sent 1 frame  reconnections 3  woke up late p99 1.50 ms, missed 2 cycles");
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
