// SPDX-License-Identifier: MIT
// The example as a user runs it: a process of its own, over real links, against a controller that shares no code.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>

#include "support/stand_in.h"

namespace {

using velta::test::StandIn;

struct Outcome {
  int status;
  std::string output;  // standard output and error
};

Outcome DriveArm(const std::string& arguments) {
  const std::string command = std::string("timeout 60 ") + VELTA_DRIVE_ARM + " " + arguments + " 2>&1";
  std::FILE* pipe = popen(command.c_str(), "r");
  Outcome outcome{-1, ""};
  char bytes[1024];
  for (std::size_t count = 0; (count = std::fread(bytes, 1, sizeof bytes, pipe)) > 0;)
    outcome.output.append(bytes, count);
  const int status = pclose(pipe);
  if (WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
  return outcome;
}

struct LinkCase {
  const char* name;
  StandIn::Link link;
  const char* option;
  const char* suffix;
  int joints;
  int drop_every;
};

class DriveArmOver : public testing::TestWithParam<LinkCase> {};

TEST_P(DriveArmOver, MovesTheArmOfAControllerThatSpeaksTheFrames) {
  const LinkCase& row = GetParam();
  StandIn controller(row.link, row.joints, row.drop_every);
  const Outcome outcome = DriveArm(std::string("--") + row.option + " " + controller.Address() + row.suffix + " -n " +
                                   std::to_string(row.joints));
  controller.Stop();
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_EQ(controller.bad_bytes, 0);
  EXPECT_EQ(controller.commands, 6);
  EXPECT_EQ(controller.merged_commands, 6);  // servo, mode and four merged trajectory commands
  EXPECT_NE(outcome.output.find("confirmations    6\n"), std::string::npos) << outcome.output;
  EXPECT_EQ(outcome.output.find("time-outs        0\n") == std::string::npos, row.drop_every != 0) << outcome.output;
  for (std::size_t i = 0; i < controller.positions.size(); ++i) {
    const auto target = (i % 2 == 0 ? 1.0f : -1.0f) * (10.0f + 5.0f * static_cast<float>(i));
    EXPECT_EQ(controller.positions[i], target);
  }
}

INSTANTIATE_TEST_SUITE_P(All, DriveArmOver,
                         testing::Values(LinkCase{"Tcp", StandIn::Link::Tcp, "tcp", "", 6, 0},
                                         LinkCase{"Udp", StandIn::Link::Udp, "udp", "", 7, 0},
                                         LinkCase{"Pty", StandIn::Link::Pty, "serial", ":115200", 2, 0},
                                         LinkCase{"TcpWithLostCommands", StandIn::Link::Tcp, "tcp", "", 3, 4},
                                         LinkCase{"UdpOfOneJoint", StandIn::Link::Udp, "udp", "", 1, 0}),
                         [](const auto& row) { return row.param.name; });

TEST(DriveArm, MovesTheSimulator) {
  const Outcome outcome = DriveArm("-n 4");
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_NE(outcome.output.find("joint 3   position   -25.000  target   -25.000  arrived"), std::string::npos);
}

TEST(DriveArm, TellsWhatIsWrongInOneLineAndItsStatus) {
  const StandIn other(StandIn::Link::Udp, 3);  // a controller of another joint count
  struct Row {
    std::string arguments;
    int status;
    const char* line;
  };
  for (const Row& row :
       {Row{"--tcp nonsense", 2, "drive_arm: --tcp: needs IP:PORT\n"}, Row{"--joints 0", 2, "drive_arm: "},
        Row{"--tcp 127.0.0.1:1", 1, "drive_arm: cannot open 127.0.0.1:1\n"},
        Row{"--serial /no/such/tty:9600", 1, "drive_arm: cannot open /no/such/tty:9600\n"},
        Row{"--udp " + other.Address() + " -n 2 --timeout 1", 1, "drive_arm: the controller does not confirm\n"}}) {
    const Outcome outcome = DriveArm(row.arguments);
    EXPECT_EQ(outcome.status, row.status) << row.arguments;
    EXPECT_NE(outcome.output.find(row.line), std::string::npos) << outcome.output;
  }
}

}  // namespace
