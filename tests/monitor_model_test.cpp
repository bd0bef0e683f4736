// SPDX-License-Identifier: MIT
#include "monitor_model.h"

#include <gtest/gtest.h>

#include "support/bytes.h"

using velta::analysis::MonitorModel;
using velta::test::Bytes;

namespace {

constexpr std::int64_t kMs = 1'000'000;

TEST(MonitorModel, CountsBytesThatBelongToNoStatus) {
  MonitorModel model(1);
  const std::vector<char> status = velta::test::StatusFrame(1, 1);
  const std::vector<char> begun(status.begin(), status.begin() + 60), rest(status.begin() + 60, status.end());
  std::vector<char> damaged = status;
  damaged[70] = 1;
  model.Take(Bytes().Fill(5, 'n').Add(status).Add(begun), kMs);
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "statuses 1  discarded 5 bytes",
                      model.Traffic(kMs));  // the rest may still come
  model.Take(Bytes().Add(rest).Add(damaged).Add(begun), 2 * kMs);
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "statuses 2  discarded 108 bytes", model.Traffic(2 * kMs));
  model.Restart();  // a new connection starts at a frame's first byte
  model.Take(status, 3 * kMs);
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "statuses 3  discarded 108 bytes", model.Traffic(3 * kMs));
}

TEST(MonitorModel, DrawsTheHistoryOfAJoint) {
  MonitorModel model(1);
  const auto take = [&](int position, int at_ms) {
    Bytes frame;
    frame.U8(0xAB).U8(0xCD).U64(1).U64(0).F32(0).Fill(35, 0).F32(static_cast<float>(position)).Fill(40, 0);
    model.Take(frame.Crc(), at_ms * kMs);
  };
  for (int i = 0; i < 4; ++i) {
    take(i, 1000 + 50 * i);
    take(99, 1001 + 50 * i);  // between two samples
  }
  using Picture = std::vector<std::string>;
  EXPECT_EQ(model.History(0, 6, 4),
            (Picture{"position of joint 0, last 0.2 s, 0.0000 to 3.0000", "     *", "    * ", "   *  ", "  *   "}));
  EXPECT_EQ(model.History(0, 2, 1), (Picture{"position of joint 0, last 0.1 s, 2.0000 to 3.0000", "**"}));
}

}  // namespace
