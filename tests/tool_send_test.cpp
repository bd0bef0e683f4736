// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/listener.h"
#include "support/process.h"
#include "support/simulated_arm.h"
#include "support/wire_bytes.h"

using velta::test::Process;
using velta::test::RunProgram;
using velta::test::RunResult;

namespace {

std::vector<std::string> Words(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

RunResult Send(const std::string& arguments, const std::string& input = "") {
  std::vector<std::string> argv = {VELTA_PROGRAM, "send"};
  for (const std::string& word : Words(arguments)) argv.push_back(word);
  return RunProgram(argv, input);
}

std::string FromHex(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

struct WordCase {
  const char* words;
  int arm;   ///< whole-arm code in the header
  int code;  ///< code of joints 0 and 2
  std::array<float, 4> values;
};

constexpr WordCase kWordCases[] = {
    {"reset", 0, 0xA0, {}},
    {"servo-off", 0, 0xA1, {}},
    {"servo-on", 0, 0xA2, {}},
    {"brake-off", 0, 0xC0, {}},
    {"brake-on", 0, 0xC1, {}},
    {"control-mode 9", 0, 0xA3, {9}},
    {"position-control-mode", 0, 0xA3, {20}},
    {"velocity-control-mode", 0, 0xA3, {1}},
    {"current-control-mode", 0, 0xA3, {2}},
    {"external-force-following-control-mode", 0, 0xA3, {5}},
    {"trajectory-control-mode", 0, 0xA3, {0}},
    {"online-trajectory-control-mode", 0, 0xA3, {7}},
    {"rotation-fixed-control-mode", 0, 0xA3, {10}},
    {"get-slave-effort-offset", 0, 0xAB, {}},
    {"param-kp 1.5", 0, 0xB0, {1.5F}},
    {"param-ki 1.5", 0, 0xB1, {1.5F}},
    {"param-kd 1.5", 0, 0xB2, {1.5F}},
    {"param-windup-limit 1.5", 0, 0xB3, {1.5F}},
    {"param-velocity-override 1.5", 0, 0xBA, {1.5F}},
    {"param-velocity-max 1.5", 0, 0xBB, {1.5F}},
    {"param-acceleration-max 1.5", 0, 0xBC, {1.5F}},
    {"param-jerk-max 1.5", 0, 0xBD, {1.5F}},
    {"param-ext-ff-on-traj-softness-override 1.5", 0, 0xBF, {80, 1.5F}},
    {"arbitrary-param 33 1.5", 0, 0xBF, {33, 1.5F}},
    {"ref-current -2", 0, 0x10, {-2}},
    {"ref-position -30.25", 0, 0x11, {-30.25F}},
    {"ref-velocity 1e3", 0, 0x12, {1000}},
    {"ref-position-velocity 1 2", 0, 0x1A, {1, 2}},
    {"ref-position-velocity-acceleration 1 2 3", 0, 0x1B, {1, 2, 3}},
    {"dynamics 1 2 3 4", 0, 0x20, {1, 2, 3, 0}},
    {"trajectory-via-clear", 0, 0x30, {}},
    {"trajectory-control-start", 0, 0x35, {}},
    {"trajectory-control-cancel", 0, 0x36, {}},
    {"trajectory-p-double-s 1", 0, 0x50, {1}},
    {"trajectory-pt-lin-spline 1 2 1", 0, 0x3A, {1, 2}},
    {"trajectory-pt-lin-spline 1 2 0", 0, 0x4A, {1, 2}},
    {"trajectory-pt-trapezoidal 1 2 1", 0, 0x3B, {1, 2}},
    {"trajectory-pt-trapezoidal 1 2 0", 0, 0x4B, {1, 2}},
    {"trajectory-pt-double-s 1 2 1", 0, 0x3C, {1, 2}},
    {"trajectory-pt-double-s 1 2 0", 0, 0x4C, {1, 2}},
    {"trajectory-pvt 1 2 3 1", 0, 0x3D, {1, 2, 3}},
    {"trajectory-pvt 1 2 3 0", 0, 0x4D, {1, 2, 3}},
    {"trajectory-pvat 1 2 3 4 1", 0, 0x3E, {1, 2, 3, 4}},
    {"trajectory-pvat 1 2 3 4 0", 0, 0x4E, {1, 2, 3, 4}},
    {"move-home-position", 0, 0xD0, {}},
    {"general-register-type 3 4", 0, 0xE0, {3, 4}},
    {"payload 1 2 3 4", 0xA0, 0, {1, 2, 3, 4}},
    {"payload-inertia-tensor-diagonal 1 2 3", 0xA1, 0, {1, 2, 3}},
    {"payload-inertia-tensor-triangle 1 2 3", 0xA2, 0, {1, 2, 3}},
    {"gripper-max-effort 5", 0xB0, 0, {5}},
};

TEST(SendWords, BecomeTheFramesOfTheWire) {
  for (const WordCase& c : kWordCases) {
    SCOPED_TRACE(c.words);
    const RunResult run =
        Send("tcp://127.0.0.1:1 -n 3 --dry-run " + std::string(c.words) + (c.arm == 0 ? " --joints 0/2" : ""));
    ASSERT_EQ(run.status, 0) << run.err;
    const std::string frame = FromHex(run.out);
    ASSERT_EQ(frame.size(), 67U);
    std::string expected = "\xAB\xCD" + frame.substr(2, 8) + static_cast<char>(c.arm);  // any time stamp
    for (int joint = 0; joint < 3; ++joint) {
      const bool named = c.arm != 0 ? joint == 0 : joint != 1;
      expected += static_cast<char>(joint);
      expected += static_cast<char>(named ? c.code : 0);
      for (const float value : c.values) {
        char bytes[4] = {};
        if (named) std::memcpy(bytes, &value, 4);
        expected.append(bytes, 4);
      }
    }
    velta::test::AppendCrc(expected);
    EXPECT_EQ(frame, expected);
  }
}

TEST(SendWords, AreAllListedAndAllTested) {
  std::set<std::string> tested;
  for (const WordCase& c : kWordCases) tested.insert(Words(c.words).front());
  std::set<std::string> listed;
  const RunResult run = Send("--list");
  EXPECT_EQ(run.status, 0);
  std::istringstream lines(run.out);
  for (std::string line; std::getline(lines, line);) listed.insert(Words(line).front());
  EXPECT_EQ(listed, tested);
}

TEST(SendWords, ThatNameNothingAreRefusedBeforeTheLinkIsOpened) {
  struct Case {
    const char* arguments;
    const char* complaint;
  };
  const std::string link = "tcp://127.0.0.1:1 ";
  for (const Case& c : {
           Case{"-n 3 servo-on", "needs --joints"},
           Case{"-n 3 servo-on --joints 3", "'3' is not a joint"},
           Case{"-n 3 servo-on --joints 0/", "needs --joints"},
           Case{"-n 3 servo-on --joints 0//1", "'' is not a joint"},
           Case{"-n 3 servo-on --joints -1", "--joints"},
           Case{"-n 3 servo-on --joints 1-2", "'1-2' is not a joint"},
           Case{"-n 3 servo-on --joints ALL", "'ALL' is not a joint"},
           Case{"-n 3 servo-on 1 --joints all", "takes 0 arguments, not 1"},
           Case{"-n 3 ref-position --joints all", "takes 1 arguments, not 0"},
           Case{"-n 3 ref-position 30deg --joints all", "position '30deg' is not a finite"},
           Case{"-n 3 ref-position nan --joints all", "'nan' is not a finite"},
           Case{"-n 3 ref-position 1e39 --joints all", "'1e39' is not a finite"},
           Case{"-n 3 control-mode 1.5 --joints all", "'1.5' is not an integer"},
           Case{"-n 3 trajectory-pvt 1 2 3 yes --joints all", "'yes' is not 0 or 1"},
           Case{"-n 3 payload 1 2 3 4 --joints 0", "takes no --joints"},
           Case{"-n 3 jump --joints all", "unknown command 'jump'"},
           Case{"servo-on --joints all", "-n is required"},
           Case{"-n 0 servo-on --joints all", "Value 0 not in range"},
           Case{"-n 3", "either a command or --json"},
           Case{"-n 3 servo-on --json {}", "either a command or --json"},
           Case{"-n 3 --json {} --joints all", "leave --joints out"},
       }) {
    const RunResult run = Send(link + c.arguments);
    EXPECT_EQ(run.status, 2) << c.arguments;
    EXPECT_NE(run.err.find(c.complaint), std::string::npos) << c.arguments << ": " << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    EXPECT_EQ(run.out, "");
  }
}

TEST(SendDocuments, ComeFromTheArgumentOrStandardInput) {
  const std::string document =
      R"({"armOrder":"0","jointCommand":[{"jointName":"2","jointOrder":"17","value1":"0.5","value2":"0","value3":"0","value4":"0"}]})";
  const RunResult argument = Send("tcp://127.0.0.1:1 -n 2 --dry-run --json " + document);
  const RunResult input = Send("tcp://127.0.0.1:1 -n 2 --dry-run --json -", document);
  ASSERT_EQ(argument.status, 0) << argument.err;
  ASSERT_EQ(input.status, 0) << input.err;
  const std::string joints = FromHex(argument.out).substr(11, 36);
  EXPECT_EQ(joints, std::string(18, '\0') + "\x01\x11" + std::string(3, '\0') + "\x3F" + std::string(12, '\0'));
  EXPECT_EQ(FromHex(input.out).substr(11, 36), joints);
  for (const char* bad : {"{", "[]", R"({"armOrder":0,"jointCommand":[]})"}) {
    const RunResult run = Send("tcp://127.0.0.1:1 -n 2 --json " + std::string(bad));
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "velta: --json: not a command document; nothing was sent\n");
  }
}

TEST(SendDocuments, WaitedForEndAtOnceWhenAskedToStop) {
  Process send({VELTA_PROGRAM, "send", "tcp://127.0.0.1:1", "-n", "2", "--json", "-"});
  send.Write("{");
  ASSERT_TRUE(velta::test::WaitUntilItCatches(SIGTERM, send.Pid()));
  send.Signal(SIGTERM);
  EXPECT_EQ(send.Wait(std::chrono::milliseconds(1000)), 1);
  EXPECT_EQ(send.Errors(), "velta: interrupted; nothing was sent\n");
}

TEST(SendLink, CarriesTheFrameWhole) {
  velta::test::Listener listener;
  Process send({VELTA_PROGRAM, "send", listener.Link(), "-n", "1", "ref-position", "0.5", "--joints", "0"});
  const std::string frame = listener.Read(31);
  EXPECT_EQ(send.Wait(), 0) << send.Errors();
  EXPECT_EQ(send.Output(), "sent 31 bytes to " + listener.Link() + "\n");
  EXPECT_EQ(listener.Read(1), "");
  std::string expected = "\xAB\xCD" + frame.substr(2, 8) + std::string(2, '\0') + "\x11" + std::string(3, '\0') +
                         "\x3F" + std::string(12, '\0');
  velta::test::AppendCrc(expected);
  EXPECT_EQ(frame, expected);
}

TEST(SendLink, ConfirmsOnEveryKindOfLinkAndFailsWithoutTheEcho) {
  struct Case {
    const char* endpoint;
    std::vector<std::string> options;
    int status;
    const char* said;
  };
  for (const Case& c :
       {Case{"tcp://127.0.0.1:0", {}, 0, ", confirmed after "}, Case{"udp://127.0.0.1:0", {}, 0, ", confirmed after "},
        Case{"pty:", {}, 0, ", confirmed after "}, Case{"tcp://127.0.0.1:0", {"--on-command"}, 0, "and 0 resends"},
        Case{"tcp://127.0.0.1:0", {"--fault", "no-echo"}, 1, "no echo from "},
        Case{"udp://127.0.0.1:0", {"--fault", "drop-status"}, 1, "no echo from "},
        Case{"pty:", {"--fault", "stale-echo"}, 1, "no echo from "},
        Case{"tcp://127.0.0.1:0", {"--fault", "reset"}, 1, "velta: "},
        Case{"tcp://127.0.0.1:0", {"--fault", "refuse"}, 1, "Connection refused; velta doctor"}}) {
    velta::test::SimulatedArm arm(c.endpoint, c.options);
    const RunResult run = Send(arm.Link() + " -n 3 servo-on --joints all --confirm");
    EXPECT_EQ(run.status, c.status) << c.endpoint << run.err;
    EXPECT_NE((c.status == 0 ? run.out : run.err).find(c.said), std::string::npos) << run.out << run.err;
    EXPECT_EQ((c.status == 0 ? run.err : run.out), "");
  }
}

TEST(SendLink, SendsALostCommandAgain) {
  velta::test::SimulatedArm arm("tcp://127.0.0.1:0", {"--fault", "drop-command=0.7", "--seed", "4"});
  int resends = 0;
  for (int i = 0; i < 5; ++i) {
    const RunResult run = Send(arm.Link() + " -n 3 servo-on --joints all --confirm --timeout 0.3");
    if (run.status == 0 && run.out.find("and 0 resends") == std::string::npos) ++resends;
  }
  EXPECT_GT(resends, 0);
}

}  // namespace
