// SPDX-License-Identifier: MIT
#include "diagnosis.h"

#include <gtest/gtest.h>

#include <cerrno>

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

  /// The findings as the program prints them.
  std::vector<std::string> Shown() const {
    std::vector<std::string> lines;
    for (const Finding& finding : Diagnose(seen))
      lines.push_back(std::string(1, "k?!"[static_cast<int>(finding.kind)]) + " " + finding.text);
    return lines;
  }

  Observation seen;
};

TEST_F(DiagnosisTest, OfSilenceNamesWhatToCheckOnEachKindOfLink) {
  seen.bytes.clear();
  const std::string check = ": check the port, that the controller runs, and that 2 is its joint count";
  EXPECT_EQ(Shown(), std::vector{"! connected, but silent" + check});
  seen.kind = LinkAddress::Kind::kUdp;
  EXPECT_EQ(Shown(), std::vector{"! nothing came back, to no command" + check});
  seen.kind = LinkAddress::Kind::kSerial;
  seen.is_shared = true;
  EXPECT_EQ(Shown(), std::vector<std::string>{"! the device is open, but silent: check the wiring, the baud rate and "
                                              "that the controller is on; the other process may take its bytes"});
}

TEST_F(DiagnosisTest, OfUnreadableBytesTriesJointCountsUpTo64) {
  const auto hear_only = [&](int joints) {
    seen.statuses.clear();
    seen.bytes.clear();
    for (int i = 0; i < 2; ++i) Hear(StatusFrame(joints, 1));
    return Shown().front();
  };
  EXPECT_EQ(hear_only(64),
            "! 10160 bytes arrived, but no good frame of 2 joints: the controller is set to 64 joints; use -n 64");
  EXPECT_EQ(hear_only(65),
            "! 10318 bytes arrived, but no good frame of 2 joints, nor of 0 to 64 joints: this is another service, or "
            "the bytes are damaged on the way");
  seen.kind = LinkAddress::Kind::kSerial;
  const std::string finding = hear_only(65);
  EXPECT_EQ(finding.substr(finding.rfind(':')), ": check the baud rate and the wiring");
}

TEST_F(DiagnosisTest, CountsAFrameOfLostBytesAsNoise) {
  seen.bytes.resize(seen.bytes.size() + 181);
  EXPECT_EQ(Shown()[0], "k 10 good statuses of 2 joints");
  seen.bytes.resize(seen.bytes.size() + 1);
  EXPECT_EQ(Shown()[0], "? 10 good statuses of 2 joints, but 182 bytes outside them: look for noise or lost bytes");
}

TEST_F(DiagnosisTest, SeesAFrozenStatusAndStampsThatRunBackwards) {
  seen.statuses[4].header.timestamp = 1;
  EXPECT_EQ(Shown()[2],
            "? the controller's time stamps run backwards at times: it restarted, or statuses overtake each other");
  for (RecvPacket& status : seen.statuses) status.header.timestamp = 1;
  EXPECT_EQ(Shown()[1], "! the status is frozen: its time stamp never changes; restart the controller");
}

TEST_F(DiagnosisTest, SeesAClockThatJumps) {
  seen.clock_jump = 500 * kMs;
  EXPECT_EQ(
      Shown()[2],
      "! this machine's clock jumps by 500 ms: time stamps repeat or leap; let the time service slew instead of step");
}

TEST_F(DiagnosisTest, TellsTheWaysInWhichEchoesFail) {
  seen.foreign_echoes = {77};
  EXPECT_EQ(Shown().size(), 4U);  // one may be left from an earlier host
  seen.foreign_echoes = {77, 78};
  EXPECT_EQ(Shown()[1], "? the controller also echoes commands that are not from here: another host drives it");
  seen.foreign_echoes.clear();
  seen.commands[3].delay.reset();  // one may be lost
  EXPECT_EQ(Shown()[1], "k the controller echoes 9 of 10 commands, usually after 1.00 ms");
  seen.commands[4].delay.reset();
  EXPECT_EQ(Shown()[1], "? the controller echoes only 8 of 10 commands: the others are lost on the way");
  for (auto& [stamp, command] : seen.commands) command.delay = 21 * kMs;
  EXPECT_EQ(Shown()[1], "? the echo comes late, usually after 21.0 ms: confirmed commands wait that long");
  for (auto& [stamp, command] : seen.commands) command.delay = 40 * kMs;
  seen.commands[10].delay.reset();
  EXPECT_EQ(Shown()[1],
            "! the echo is stale: a command is echoed only after the next one, so no confirmation ever comes");
  for (auto& [stamp, command] : seen.commands) command.delay.reset();
  EXPECT_EQ(Shown()[1].substr(0, 71), "! statuses arrive, but the echo never comes: the controller accepts no ");
}

TEST_F(DiagnosisTest, NamesWhatKeepsJointsFromMovingAndTheCommandThatHelps) {
  RecvPacket& last = seen.statuses.back();
  last.joints[0].systemMode = 0;
  last.joints[1].ewStatus = 12;
  EXPECT_EQ(Shown()[3], "? fault reported on joint 1: find its cause, then velta send LINK reset --select 1");
  EXPECT_EQ(Shown()[4], "? servo off on joint 0: velta send LINK servo-on --select 0");
  last.joints[0].systemMode = 2;
  last.joints[1].ewStatus = 0;
  const auto refused = [&](char code) {
    for (rxJoint_t& joint : last.joints) joint.trjStatus = static_cast<std::uint8_t>(code);
    return Shown()[3];
  };
  EXPECT_EQ(refused('m'),
            "? trajectory refused with the servo off on joints 0/1: switch it on, then velta send LINK "
            "trajectory-control-start --select 0/1");
  EXPECT_EQ(refused('f').substr(0, 46), "? trajectory refused without points on joints ");
  EXPECT_EQ(refused('o'), "? servo switched off while moving on joints 0/1: velta send LINK servo-on --select 0/1");
}

TEST(FitJointCount, WantsTwoWholeFrames) {
  std::vector<char> bytes = {'\xAB', '\xCD', 'n'};
  const std::vector<char> frame = StatusFrame(7, 1);
  bytes.insert(bytes.end(), frame.begin(), frame.end());
  bytes.insert(bytes.end(), frame.begin(), frame.end() - 1);
  EXPECT_EQ(FitJointCount(bytes, 16), std::nullopt);  // one frame may be chance
  bytes.push_back(frame.back());
  EXPECT_EQ(FitJointCount(bytes, 16), 7);
  EXPECT_EQ(FitJointCount(bytes, 6), std::nullopt);
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

TEST(Explanations, NameTheCauseOfEachError) {
  LinkAddress link;
  link.host = "10.0.0.7";
  link.port = 5000;
  EXPECT_EQ(ExplainOpening(link, EHOSTUNREACH, "").text,
            "cannot reach 10.0.0.7: check power, cable, address, netmask and firewall");
  EXPECT_EQ(ExplainOpening(link, EIO, "what it says").text, "what it says");
  EXPECT_EQ(ExplainLoss(link, ETIMEDOUT, "").text,
            "the controller takes no more bytes: it is stuck, or this is another service");
  link.device = "/dev/ttyUSB0";
  EXPECT_EQ(ExplainOpening(link, EBUSY, "").text, "/dev/ttyUSB0 is busy: another process opened it exclusively");
}

}  // namespace
