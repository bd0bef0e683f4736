// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "command.h"
#include "link.h"
#include "support/process.h"

using velta::test::RunProgram;
using velta::tools::ParseLink;

namespace {

TEST(Link, ReadsEveryForm) {
  for (const char* text :
       {"tcp://127.0.0.1:43210", "udp://10.0.0.7:0", "serial:///dev/ttyUSB0?baud=921600", "pty:/run/arm", "pty:"}) {
    EXPECT_EQ(ToString(ParseLink(text)), text);
  }
  EXPECT_EQ(ToString(ParseLink("serial:///dev/ttyS0")), "serial:///dev/ttyS0?baud=115200");
}

TEST(Link, RefusesTheRestInOneLine) {
  for (const char* text : {"", "tcp://", "tcp://127.0.0.1", "tcp://127.0.0.1:", "tcp://127.0.0.1:65536",
                           "tcp://127.0.0.1:-1", "tcp://127.0.0.1:80x", "tcp://localhost:80", "udp://1.2.3:5",
                           "http://127.0.0.1:80", "serial://", "serial://ttyS0", "serial:///dev/ttyS0?baud=",
                           "serial:///dev/ttyS0?baud=0", "serial:///dev/ttyS0?speed=9600", "127.0.0.1:80"}) {
    try {
      ParseLink(text);
      ADD_FAILURE() << "accepted '" << text << "'";
    } catch (const velta::tools::UsageError& error) {
      EXPECT_NE(std::string(error.what()).find(text), std::string::npos);
      EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
    }
  }
}

TEST(Program, TellsVersionAndHelpOnStandardOutput) {
  const auto version = RunProgram({VELTA_PROGRAM, "--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out, "2.1.0\n");
  EXPECT_EQ(version.err, "");
  const auto help = RunProgram({VELTA_PROGRAM, "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("velta sim -n 6"), std::string::npos);
}

TEST(Program, BadUsageIsOneLineAndStatus2) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{}, {"fly"}, {"--fly"}}) {
    std::vector<std::string> argv{VELTA_PROGRAM};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const auto result = RunProgram(argv);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.find("velta: "), 0u) << result.err;
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
  }
}

}  // namespace
