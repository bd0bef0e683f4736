// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstring>
#include <set>
#include <string>

#include "support/listener.h"
#include "support/process.h"
#include "support/simulated_arm.h"
#include "support/wire_bytes.h"

using namespace velta::test;

namespace {

RunResult Send(const std::string& arguments, const std::string& input = "") {
  return Velta(Split("send " + arguments, ' '), input);
}

std::string FromHex(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2)
    bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  return bytes;
}

/// A whole command frame: this body, and the time stamp of another frame.
std::string Frame(const std::string& stamped, const std::string& body) {
  std::string frame = "\xAB\xCD" + stamped.substr(2, 8) + body;
  AppendCrc(frame);
  return frame;
}

struct WordCase {
  const char* words;
  int arm;   ///< whole-arm code in the header
  int code;  ///< code of joints 0 and 2
  std::array<float, 4> values;
};

// clang-format off
constexpr WordCase kWordCases[] = {
    {"reset", 0, 0xA0, {}}, {"servo-off", 0, 0xA1, {}}, {"servo-on", 0, 0xA2, {}}, {"brake-off", 0, 0xC0, {}},
    {"brake-on", 0, 0xC1, {}}, {"control-mode 9", 0, 0xA3, {9}}, {"position-control-mode", 0, 0xA3, {20}},
    {"velocity-control-mode", 0, 0xA3, {1}}, {"current-control-mode", 0, 0xA3, {2}},
    {"external-force-following-control-mode", 0, 0xA3, {5}}, {"trajectory-control-mode", 0, 0xA3, {0}},
    {"online-trajectory-control-mode", 0, 0xA3, {7}}, {"rotation-fixed-control-mode", 0, 0xA3, {10}},
    {"get-slave-effort-offset", 0, 0xAB, {}}, {"param-kp 1.5", 0, 0xB0, {1.5F}}, {"param-ki 1.5", 0, 0xB1, {1.5F}},
    {"param-kd 1.5", 0, 0xB2, {1.5F}}, {"param-windup-limit 1.5", 0, 0xB3, {1.5F}},
    {"param-velocity-override 1.5", 0, 0xBA, {1.5F}}, {"param-velocity-max 1.5", 0, 0xBB, {1.5F}},
    {"param-acceleration-max 1.5", 0, 0xBC, {1.5F}}, {"param-jerk-max 1.5", 0, 0xBD, {1.5F}},
    {"param-ext-ff-on-traj-softness-override 1.5", 0, 0xBF, {80, 1.5F}},
    {"arbitrary-param 33 1.5", 0, 0xBF, {33, 1.5F}}, {"ref-current -2", 0, 0x10, {-2}},
    {"ref-position -30.25", 0, 0x11, {-30.25F}}, {"ref-velocity 1e3", 0, 0x12, {1000}},
    {"ref-position-velocity 1 2", 0, 0x1A, {1, 2}}, {"ref-position-velocity-acceleration 1 2 3", 0, 0x1B, {1, 2, 3}},
    {"dynamics 1 2 3 4", 0, 0x20, {1, 2, 3, 0}}, {"trajectory-via-clear", 0, 0x30, {}},
    {"trajectory-control-start", 0, 0x35, {}}, {"trajectory-control-cancel", 0, 0x36, {}},
    {"trajectory-p-double-s 1", 0, 0x50, {1}},
    {"trajectory-pt-lin-spline 1 2 1", 0, 0x3A, {1, 2}}, {"trajectory-pt-lin-spline 1 2 0", 0, 0x4A, {1, 2}},
    {"trajectory-pt-trapezoidal 1 2 1", 0, 0x3B, {1, 2}}, {"trajectory-pt-trapezoidal 1 2 0", 0, 0x4B, {1, 2}},
    {"trajectory-pt-double-s 1 2 1", 0, 0x3C, {1, 2}}, {"trajectory-pt-double-s 1 2 0", 0, 0x4C, {1, 2}},
    {"trajectory-pvt 1 2 3 1", 0, 0x3D, {1, 2, 3}}, {"trajectory-pvt 1 2 3 0", 0, 0x4D, {1, 2, 3}},
    {"trajectory-pvat 1 2 3 4 1", 0, 0x3E, {1, 2, 3, 4}}, {"trajectory-pvat 1 2 3 4 0", 0, 0x4E, {1, 2, 3, 4}},
    {"move-home-position", 0, 0xD0, {}}, {"general-register-type 3 4", 0, 0xE0, {3, 4}},
    {"payload 1 2 3 4", 0xA0, 0, {1, 2, 3, 4}}, {"payload-inertia-tensor-diagonal 1 2 3", 0xA1, 0, {1, 2, 3}},
    {"payload-inertia-tensor-triangle 1 2 3", 0xA2, 0, {1, 2, 3}}, {"gripper-max-effort 5", 0xB0, 0, {5}},
};
// clang-format on

TEST(SendWords, BecomeTheFramesOfTheWire) {
  for (const WordCase& c : kWordCases) {
    const RunResult run =
        Send("tcp://127.0.0.1:1 -n 3 --dry-run " + std::string(c.words) + (c.arm == 0 ? " --joints 0/2" : ""));
    ASSERT_EQ(run.status, 0) << c.words << run.err;
    std::string values(16, '\0');
    std::memcpy(values.data(), c.values.data(), 16);
    std::string body(1, static_cast<char>(c.arm));
    for (char joint = 0; joint < 3; ++joint) {
      const bool named = c.arm != 0 ? joint == 0 : joint != 1;
      (body += joint) += named ? static_cast<char>(c.code) : '\0';
      body += named ? values : std::string(16, '\0');
    }
    EXPECT_EQ(FromHex(run.out), Frame(FromHex(run.out), body)) << c.words;
  }
}

TEST(SendWords, AreAllListedAndAllTested) {
  std::set<std::string> tested, listed;
  for (const WordCase& c : kWordCases) tested.insert(Split(c.words, ' ').front());
  for (const std::string& line : Lines(Send("--list").out)) listed.insert(Split(line, ' ').front());
  EXPECT_EQ(listed, tested);
}

TEST(SendWords, ThatNameNothingAreRefusedBeforeTheLinkIsOpened) {
  // clang-format off
  constexpr const char* kCases[][2] = {
      {"-n 3 servo-on", "needs --joints"}, {"-n 3 servo-on --joints 3", "'3' is not a joint"},
      {"-n 3 servo-on --joints 0/", "needs --joints"}, {"-n 3 servo-on --joints 0//1", "'' is not a joint"},
      {"-n 3 servo-on --joints -1", "--joints"}, {"-n 3 servo-on --joints 1-2", "'1-2' is not a joint"},
      {"-n 3 servo-on --joints ALL", "'ALL' is not a joint"},
      {"-n 3 servo-on 1 --joints all", "takes 0 arguments, not 1"},
      {"-n 3 ref-position --joints all", "takes 1 arguments, not 0"},
      {"-n 3 ref-position 30deg --joints all", "position '30deg' is not a finite"},
      {"-n 3 ref-position nan --joints all", "'nan' is not a finite"},
      {"-n 3 ref-position 1e39 --joints all", "'1e39' is not a finite"},
      {"-n 3 control-mode 1.5 --joints all", "'1.5' is not an integer"},
      {"-n 3 trajectory-pvt 1 2 3 yes --joints all", "'yes' is not 0 or 1"},
      {"-n 3 payload 1 2 3 4 --joints 0", "takes no --joints"}, {"-n 3 jump --joints all", "unknown command 'jump'"},
      {"servo-on --joints all", "-n is required"}, {"-n 0 servo-on --joints all", "Value 0 not in range"},
      {"-n 3", "either a command or --json"}, {"-n 3 servo-on --json {}", "either a command or --json"},
      {"-n 3 --json {} --joints all", "leave --joints out"},
  };
  // clang-format on
  for (const auto& [arguments, complaint] : kCases) {
    const RunResult run = Send(std::string("tcp://127.0.0.1:1 ") + arguments);
    EXPECT_EQ(run.status, 2) << arguments;
    EXPECT_TRUE(Has(run.err, complaint)) << arguments << ": " << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    EXPECT_EQ(run.out, "");
  }
}

TEST(SendDocuments, ComeFromTheArgumentOrStandardInput) {
  const std::string link = "tcp://127.0.0.1:1 -n 2 --json ";
  const std::string document =
      R"({"armOrder":"0","jointCommand":[{"jointName":"2","jointOrder":"17","value1":"0.5","value2":"0",)"
      R"("value3":"0","value4":"0"}]})";
  const std::string joints = std::string(18, '\0') + "\x01\x11" + std::string(3, '\0') + "\x3F" + std::string(12, '\0');
  for (const RunResult& run : {Send(link + document + " --dry-run"), Send(link + "- --dry-run", document)}) {
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(FromHex(run.out).substr(11, 36), joints);
  }
  for (const char* bad : {"{", "[]", R"({"armOrder":0,"jointCommand":[]})"}) {
    const RunResult run = Send(link + bad);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "velta: --json: not a command document; nothing was sent\n");
  }
}

TEST(SendDocuments, WaitedForEndAtOnceWhenAskedToStop) {
  Process send(Argv({"send", "tcp://127.0.0.1:1", "-n", "2", "--json", "-"}));
  ASSERT_TRUE(send.Write(std::string(1 << 18, ' ')));  // more than a pipe holds: once it is taken, send is waiting
  send.Signal(SIGTERM);
  EXPECT_EQ(send.Wait(std::chrono::milliseconds(1000)), 1);
  EXPECT_EQ(send.Errors(), "velta: interrupted; nothing was sent\n");
}

TEST(SendLink, CarriesTheFrameWhole) {
  Listener listener;
  Process send(Argv({"send", listener.Link(), "-n", "1", "ref-position", "0.5", "--joints", "0"}));
  const std::string frame = listener.Read(31);
  EXPECT_EQ(send.Wait(), 0) << send.Errors();
  EXPECT_EQ(send.Output(), "sent 31 bytes to " + listener.Link() + "\n");
  EXPECT_EQ(listener.Read(1), "");
  const std::string zeros(12, '\0');
  EXPECT_EQ(frame, Frame(frame, zeros.substr(10) + "\x11" + zeros.substr(9) + "\x3F" + zeros));
}

TEST(SendLink, ConfirmsOnEveryKindOfLinkAndFailsWithoutTheEcho) {
  struct Case {
    const char *endpoint, *options;
    int status;
    const char* said;
  };
  for (const Case& c :
       {Case{"tcp://127.0.0.1:0", "", 0, ", confirmed after "}, Case{"udp://127.0.0.1:0", "", 0, ", confirmed after "},
        Case{"pty:", "", 0, ", confirmed after "}, Case{"tcp://127.0.0.1:0", "--on-command", 0, "and 0 resends"},
        Case{"tcp://127.0.0.1:0", "--fault no-echo", 1, "no echo from "},
        Case{"udp://127.0.0.1:0", "--fault drop-status", 1, "no echo from "},
        Case{"pty:", "--fault stale-echo", 1, "no echo from "},
        Case{"tcp://127.0.0.1:0", "--fault reset", 1, "velta: "},
        Case{"tcp://127.0.0.1:0", "--fault refuse", 1, "Connection refused; velta doctor"}}) {
    SimulatedArm arm(c.endpoint, c.options);
    const RunResult run = Send(arm.Link() + " -n 3 servo-on --joints all --confirm");
    EXPECT_EQ(run.status, c.status) << c.endpoint << run.err;
    EXPECT_TRUE(Has(c.status == 0 ? run.out : run.err, c.said)) << run.out << run.err;
    EXPECT_EQ(c.status == 0 ? run.err : run.out, "");
  }
}

TEST(SendLink, SendsALostCommandAgain) {
  SimulatedArm arm("tcp://127.0.0.1:0", "--fault drop-command=0.7 --seed 4");
  bool resent = false;
  for (int i = 0; i < 5; ++i) {
    const RunResult run = Send(arm.Link() + " -n 3 servo-on --joints all --confirm --timeout 0.3");
    resent |= run.status == 0 && !Has(run.out, "and 0 resends");
  }
  EXPECT_TRUE(resent);
}

}  // namespace
