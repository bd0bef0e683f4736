// SPDX-License-Identifier: MIT
#include "diagnosis.h"

#include <gtest/gtest.h>

#include "support/bytes.h"

using namespace velta;
using namespace velta::analysis;
using velta::test::StatusFrame;

namespace {

constexpr std::int64_t kMs = 1'000'000;

/// An examination of two joints on which there is nothing to remark; the tests change what they are about.
class DiagnosisTest : public testing::Test {
 protected:
  DiagnosisTest() {
    seen.joints = 2;
    for (std::uint64_t i = 1; i <= 10; ++i) {
      Hear(StatusFrame(2, i));
      seen.commands[i] = {static_cast<std::int64_t>(i) * 40 * kMs, kMs};
    }
    seen.unasked = 182;
    for (rxJoint_t& joint : seen.statuses.back().joints) joint.systemMode = 2;
  }

  void Hear(const std::vector<char>& frame) {
    seen.bytes.insert(seen.bytes.end(), frame.begin(), frame.end());
    RecvPacket status(seen.joints);
    if (status.Parse(frame)) seen.statuses.push_back(status);
  }

  /// The finding of that number begins so: good (k), a warning (?) or a failure (!).
  void Expect(std::size_t number, const std::string& beginning) const {
    const Finding finding = Diagnose(seen).at(number);
    const std::string shown = std::string(1, "k?!"[static_cast<int>(finding.kind)]) + " " + finding.text;
    EXPECT_EQ(shown.substr(0, beginning.size()), beginning);
  }

  Observation seen;
};

TEST_F(DiagnosisTest, OfUnreadableBytesTriesJointCountsUpTo64) {
  const auto hear_only = [&](int joints) {
    seen.statuses.clear();
    seen.bytes.clear();
    for (int i = 0; i < 2; ++i) Hear(StatusFrame(joints, 1));
  };
  hear_only(64);
  Expect(0, "! 10160 bytes arrived, but no good frame of 2 joints: the controller is set to 64 joints; use -n 64");
  hear_only(65);
  const std::string no_fit = "! 10318 bytes arrived, but no good frame of 2 joints, nor of 0 to 64 joints: ";
  Expect(0, no_fit + "this is another service");
  seen.kind = LinkAddress::Kind::kSerial;
  Expect(0, no_fit + "check the baud rate");
  Hear(StatusFrame(7, 1));
  Expect(0, "! 10895 bytes arrived, but no good frame of 2 joints, nor of 0 to 64 joints");  // one may be chance
  Hear(StatusFrame(7, 1));
  Expect(0, "! 11472 bytes arrived, but no good frame of 2 joints: the controller is set to 7 joints");
}

TEST_F(DiagnosisTest, CountsAFrameOfLostBytesAsNoise) {
  seen.bytes.resize(seen.bytes.size() + 181);
  Expect(0, "k 10 good statuses of 2 joints");
  seen.bytes.resize(seen.bytes.size() + 1);
  Expect(0, "? 10 good statuses of 2 joints, but 182 bytes outside them");
}

TEST_F(DiagnosisTest, SeesStampsThatStandStillRunBackwardsOrJump) {
  seen.statuses[4].header.timestamp = 1;
  Expect(2, "? the controller's time stamps run backwards at times");
  for (RecvPacket& status : seen.statuses) status.header.timestamp = 1;
  Expect(1, "! the status is frozen");
  seen.clock_jump = 500 * kMs;
  Expect(3, "! this machine's clock jumps by 500 ms");
}

TEST_F(DiagnosisTest, TellsTheWaysInWhichEchoesFail) {
  seen.foreign_echoes = {77};
  Expect(1,
         "k the controller echoes 10 of 10 commands, usually after 1.00 ms");  // one may be left from an earlier host
  seen.foreign_echoes = {77, 78};
  Expect(1, "? the controller also echoes commands that are not from here");
  seen.foreign_echoes.clear();
  seen.commands[3].delay.reset();  // one may be lost
  Expect(1, "k the controller echoes 9 of 10 commands");
  seen.commands[4].delay.reset();
  Expect(1, "? the controller echoes only 8 of 10 commands");
  for (auto& [stamp, command] : seen.commands) command.delay = 21 * kMs;
  Expect(1, "? the echo comes late, usually after 21.0 ms");
  for (auto& [stamp, command] : seen.commands) command.delay = 40 * kMs;
  seen.commands[10].delay.reset();
  Expect(1, "! the echo is stale");
  for (auto& [stamp, command] : seen.commands) command.delay.reset();
  Expect(1, "! statuses arrive, but the echo never comes");
}

TEST_F(DiagnosisTest, NamesWhatKeepsJointsFromMovingAndTheCommandThatHelps) {
  RecvPacket& last = seen.statuses.back();
  last.joints[0].systemMode = 0;
  last.joints[1].ewStatus = 12;
  Expect(3, "? fault reported on joint 1: find its cause, then velta send LINK reset --select 1");
  Expect(4, "? servo off on joint 0: velta send LINK servo-on --select 0");
  last.joints[0].systemMode = 2;
  last.joints[1].ewStatus = 0;
  const std::pair<char, const char*> refusals[] = {
      {'m', "? trajectory refused with the servo off on joints 0/1: switch it on"},
      {'f', "? trajectory refused without points on joints 0/1: send points"},
      {'o', "? servo switched off while moving on joints 0/1: velta send LINK servo-on --select 0/1"}};
  for (const auto& [code, finding] : refusals) {
    for (rxJoint_t& joint : last.joints) joint.trjStatus = static_cast<std::uint8_t>(code);
    Expect(3, finding);
  }
}

TEST(ClockWatch, TellsAJumpFromSlewingAndABusyMachine) {
  constexpr std::int64_t kUs = 1000;
  ClockWatch clock;
  // the system clock, the monotonic one, how long reading both took, the jump known then
  constexpr std::int64_t kSteps[][4] = {{1'000'000, 10'000, 1, 0},     {1'010'500, 20'000, 500, 0},
                                        {1'021'000, 30'000, 1, 0},     {1'040'000, 40'000, 9'000, 0},
                                        {531'000, 40'000, 1, 500'000}, {541'000, 50'000, 1, 500'000}};
  for (const auto& [wall, monotonic, took, jump] : kSteps) {
    clock.Add(monotonic * kUs, wall * kUs, (monotonic + took) * kUs);
    EXPECT_EQ(clock.Jump(), jump * kUs) << wall;
  }
}

}  // namespace
