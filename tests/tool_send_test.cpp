// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <set>

#include "support/velta_program.h"

using namespace velta::test;

namespace {

/// The bytes of a frame that the program prints.
std::vector<char> Printed(const RunResult& run) {
  EXPECT_EQ(run.status, 0) << run.err;
  std::vector<char> bytes;
  for (std::size_t i = 0; i + 1 < run.out.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(run.out.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

struct WordCase {
  const char* words;
  unsigned arm;   ///< whole-arm code in the header
  unsigned code;  ///< code of joints 0 and 2
  std::vector<float> values;
};

// clang-format off
const WordCase kWordCases[] = {
    {"reset", 0, 0xA0, {}}, {"servo-off", 0, 0xA1, {}}, {"servo-on", 0, 0xA2, {}}, {"brake-off", 0, 0xC0, {}},
    {"brake-on", 0, 0xC1, {}}, {"control-mode 9", 0, 0xA3, {9}}, {"position-control-mode", 0, 0xA3, {20}},
    {"velocity-control-mode", 0, 0xA3, {1}}, {"current-control-mode", 0, 0xA3, {2}},
    {"external-force-following-control-mode", 0, 0xA3, {5}}, {"trajectory-control-mode", 0, 0xA3, {0}},
    {"online-trajectory-control-mode", 0, 0xA3, {7}}, {"rotation-fixed-control-mode", 0, 0xA3, {10}},
    {"get-slave-effort-offset", 0, 0xAB, {}}, {"param-kp 1.5", 0, 0xB0, {1.5f}}, {"param-ki 1.5", 0, 0xB1, {1.5f}},
    {"param-kd 1.5", 0, 0xB2, {1.5f}}, {"param-windup-limit 1.5", 0, 0xB3, {1.5f}},
    {"param-velocity-override 1.5", 0, 0xBA, {1.5f}}, {"param-velocity-max 1.5", 0, 0xBB, {1.5f}},
    {"param-acceleration-max 1.5", 0, 0xBC, {1.5f}}, {"param-jerk-max 1.5", 0, 0xBD, {1.5f}},
    {"param-ext-ff-on-traj-softness-override 1.5", 0, 0xBF, {80, 1.5f}},
    {"arbitrary-param 33 1.5", 0, 0xBF, {33, 1.5f}}, {"ref-current -2", 0, 0x10, {-2}},
    {"ref-position -30.25", 0, 0x11, {-30.25f}}, {"ref-velocity 1e3", 0, 0x12, {1000}},
    {"ref-position-velocity 1 2", 0, 0x1A, {1, 2}}, {"ref-position-velocity-acceleration 1 2 3", 0, 0x1B, {1, 2, 3}},
    {"dynamics 1 2 3 4", 0, 0x20, {1, 2, 3}}, {"trajectory-via-clear", 0, 0x30, {}},
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

// Orders of joints go to joints 0 and 2 of three; of the arm, the values are those of joint 0.
TEST(SendWords, BecomeTheFramesOfTheWire) {
  std::set<std::string> tested, listed;
  for (const WordCase& c : kWordCases) {
    tested.insert(Split(c.words, ' ').front());
    const std::string words = c.words + std::string(c.arm == 0 ? " --joints 0/2" : "");
    const auto frame = Printed(Velta("send tcp://127.0.0.1:1 -n 3 --dry-run " + words));
    const auto named = c.arm == 0 ? std::vector<int>{0, 2} : std::vector<int>{0};
    EXPECT_EQ(frame, Command(3, ReadU64(frame, 2), c.code, c.values, c.arm, named)) << words;
  }
  for (const std::string& line : Lines(Velta("send --list").out)) listed.insert(Split(line, ' ').front());
  EXPECT_EQ(listed, tested);
}

TEST(SendDocuments, ComeFromTheArgumentOrStandardInput) {
  const std::string send = "send tcp://127.0.0.1:1 -n 2 --dry-run --json ";
  const std::string document =
      R"({"armOrder":"0","jointCommand":[{"jointName":"2","jointOrder":"17","value1":"0.5","value2":"0",)"
      R"("value3":"0","value4":"0"}]})";
  for (const auto& frame : {Printed(Velta(send + document)), Printed(Velta(send + "-", document))}) {
    EXPECT_EQ(frame, Command(2, ReadU64(frame, 2), 17, {0.5f}, 0, {1}));
  }
}

TEST(SendLink, CarriesTheFrameWhole) {
  Peer controller(Peer::Kind::Tcp);
  const auto run = Velta("send " + controller.Name() + " -n 1 ref-position 0.5 --joints 0");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "sent 31 bytes to " + controller.Name() + "\n");
  const std::vector<char> frame = controller.Read(32);
  ASSERT_EQ(frame.size(), 31U);
  EXPECT_EQ(frame, Command(1, ReadU64(frame, 2), 17, {0.5f}));
}

struct ConfirmCase {
  const char *endpoint, *options;
  int status;
  const char* said;
};

constexpr ConfirmCase kConfirmCases[] = {
    {"tcp://127.0.0.1:0", "", 0, ", confirmed after "},
    {"udp://127.0.0.1:0", "", 0, ", confirmed after "},
    {"pty:", "", 0, ", confirmed after "},
    {"tcp://127.0.0.1:0", "--on-command", 0, "and 0 resends"},
    {"tcp://127.0.0.1:0", R"(--script FILE)", 0, "and 1 resends"},
    {"tcp://127.0.0.1:0", "--fault no-echo", 1, "no echo from "},
    {"udp://127.0.0.1:0", "--fault drop-status", 1, "no echo from "},
    {"pty:", "--fault stale-echo", 1, "no echo from "},
    {"tcp://127.0.0.1:0", "--fault reset", 1, "velta: "},
};

class SendConfirmed : public InFolder {};

TEST_F(SendConfirmed, WaitsForTheEchoOnEveryKindOfLinkAndSendsALostCommandAgain) {
  const std::string script = Put("FILE", std::string(R"({"fault": "drop-command", "at_command": 1})"));
  for (const ConfirmCase& c : kConfirmCases) {
    const bool is_scripted = Has(c.options, "FILE");
    SimulatedArm arm(c.endpoint, "-n 3 " + (is_scripted ? "--script " + script : c.options));
    const auto run = Velta("send " + arm.link + " -n 3 servo-on --joints all --confirm");
    EXPECT_EQ(run.status, c.status) << c.endpoint << run.err;
    EXPECT_TRUE(Has(c.status == 0 ? run.out : run.err, c.said)) << run.out << run.err;
    EXPECT_EQ(c.status == 0 ? run.err : run.out, "");
  }
}

}  // namespace
