// SPDX-License-Identifier: MIT
// Each example as a user runs it: a process of its own, over a real link, against the simulated controller.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "support/process.h"
#include "support/served_controller.h"

namespace {

using velta::sim::Summary;
using velta::test::Has;
using velta::test::Process;
using velta::test::RunResult;
using velta::test::Split;
using Kind = velta::sim::EndpointConfig::Kind;

/// The controller, and the last status that it has sent.
class Arm {
 public:
  explicit Arm(std::size_t joints, const std::string& fault = "", Kind kind = Kind::Tcp, int port = 0)
      : served_(
            kind, static_cast<int>(joints), 1, fault, [this](const auto& frame) { last_status_ = frame; }, port) {}

  /// Ends the service. @return what happened
  Summary Stop() { return served_.Stop(); }

  /// The port, or the device's path.
  std::string Address() const {
    const std::string link = served_.Link();
    return link.substr(link[0] == 's' ? std::strlen("serial://") : link.rfind(':') + 1);
  }

  /// From the last status frame, after Stop().
  float Position(std::size_t joint) const {
    float position = 0;
    std::memcpy(&position, &last_status_.at(22 + 79 * joint + 35), sizeof position);
    return position;
  }

 private:
  std::vector<char> last_status_;
  velta::test::ServedController served_;  // behind what its thread writes to
};

/// An example's command line; '@' stands for the controller's address.
std::vector<std::string> Command(std::string text, const Arm& arm) {
  if (text.find('@') != std::string::npos) text.replace(text.find('@'), 1, arm.Address());
  return Split(VELTA_EXAMPLES "/" + text, ' ');
}
RunResult Play(const std::string& text, const Arm& arm, const std::string& input = "") {
  return velta::test::RunProgram(Command(text, arm), input);
}

/// How often a command was sent again: the library tells it, and a busy machine causes it.
std::size_t Timeouts(const std::string& output) {
  std::size_t count = 0;
  for (const std::string& line : velta::test::Lines(output)) count += line.rfind("Timeout: ", 0) == 0 ? 1 : 0;
  return count;
}

struct Row {
  const char* name;
  const char* command;
  std::vector<float> positions;  ///< of every joint, in the end
  unsigned commands;             ///< that reach the controller, beside those sent again
  const char* output;
  const char* fault = "";
  Kind kind = Kind::Tcp;
  float tolerance = 0.01f;
};

class LinkedExample : public testing::TestWithParam<Row> {};

TEST_P(LinkedExample, DoesWhatItsPageTells) {
  const Row& row = GetParam();
  Arm arm(row.positions.size(), row.fault, row.kind);
  const RunResult run = Play(row.command, arm);
  const Summary summary = arm.Stop();
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Has(run.out, row.output)) << run.out;
  EXPECT_EQ(summary.commands, row.commands + Timeouts(run.out)) << run.out;
  EXPECT_EQ(summary.bad_crc + summary.garbage, 0u);
  for (const auto& fault : summary.faults) EXPECT_GT(fault.second, 0u);
  for (std::size_t i = 0; i < row.positions.size(); ++i) {
    EXPECT_NEAR(arm.Position(i), row.positions[i], row.tolerance) << i;
  }
}

// drive_arm sends servo on, mode and four trajectory commands that two sources have each a half of; two_sources ends on
// its way.
// clang-format off
INSTANTIATE_TEST_SUITE_P(
    All, LinkedExample,
    testing::Values(
        Row{"DriveArmOverTcp", "drive_arm --tcp 127.0.0.1:@ -n 6", {10, -15, 20, -25, 30, -35}, 6, "confirmations    6\n"},
        Row{"DriveArmOverUdp", "drive_arm --udp 127.0.0.1:@ -n 7", {10, -15, 20, -25, 30, -35, 40}, 6,
            "confirmations    6\n", "", Kind::Udp},
        Row{"DriveArmOfOneJoint", "drive_arm --udp 127.0.0.1:@ -n 1", {10}, 6, "confirmations    6\n", "", Kind::Udp},
        Row{"DriveArmOverPty", "drive_arm --serial @:115200 -n 2", {10, -15}, 6, "confirmations    6\n", "", Kind::Pty},
        Row{"DriveArmWithLostCommands", "drive_arm --tcp 127.0.0.1:@ -n 3", {10, -15, 20}, 6, "confirmations    6\n",
            "drop-command=0.7"},
        Row{"MoveJoint", "move_joint 127.0.0.1 @", {0, 0, 30, 0, 0, 0}, 5, "joint 2 is at 30.00\n"},
        Row{"TwoSources", "two_sources 127.0.0.1 @", {18, 0, 0, 0, 0, 0}, 5,
            "different joints: 4 packets become 2 frames\na joint that both want: 4 packets become 4 frames\n"
            "200 set-points under one key: still 4 frames, and 1 that waits until they are gone\n", "", Kind::Tcp, 17},
        Row{"ConfirmedCommands", "confirmed_commands 127.0.0.1 @", {0, 0, 0, 0, 0, 0}, 4, "home: confirmed\n",
            "drop-command=0.7"},
        Row{"StatusThread", "status_thread 127.0.0.1 @", {0, 0, 0, 0, 0, 0}, 60,
            "60 commands fed, 0 left, statuses collected\n"},
        Row{"GripperAndPayload", "gripper_and_payload 127.0.0.1 @", {0, 0, 0, 0, 0, 0, 12}, 9,
            "gripper at 12.00\npayload set\n"},
        Row{"SimulatorSwap", "simulator_swap 127.0.0.1 @", {15, 15, 15, 15, 15, 15}, 5, "arrived\n"},
        Row{"SerialLine", "serial_line @ 115200", {0, 0}, 1, "the controller answers, joint 1 has servo on\n", "",
            Kind::Pty}),
    [](const auto& row) { return row.param.name; });
// clang-format on

TEST(Example, JsonBridgeConfirmsDocumentsAndRefusesOthers) {
  Arm arm(6);
  const RunResult run = Play("json_bridge 127.0.0.1 @", arm,
                             R"({"armOrder":"0","jointCommand":[{"jointName":"3","jointOrder":"162",)"
                             R"("value1":"0","value2":"0","value3":"0","value4":"0"}]})"
                             "\nnonsense\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "json_bridge: not a command document: nonsense\n");
  const std::size_t servo_on = run.out.find(R"("systemMode":"2")");
  EXPECT_GT(servo_on, run.out.find(R"("joint_id":"3")")) << run.out;
  EXPECT_LT(servo_on, run.out.find(R"("joint_id":"4")")) << run.out;
  EXPECT_EQ(arm.Stop().commands, 1 + Timeouts(run.out));
}

TEST(Example, ReconnectSendsNothingOldOverTheNewLink) {
  auto deaf = std::make_unique<Arm>(6, "drop-command");  // confirms nothing, so commands stay queued
  const int port = std::stoi(deaf->Address());
  Process example(Command("reconnect 127.0.0.1 @", *deaf));
  ASSERT_TRUE(example.ReadAfter("Success to open TCP Connection to 127.0.0.1"));
  ASSERT_TRUE(example.ReadAfter("connected, joint 0 is at 0.00"));
  deaf.reset();
  ASSERT_TRUE(example.ReadAfter("link lost, 4 queued commands discarded"));
  Arm arm(6, "", Kind::Tcp, port);
  EXPECT_EQ(example.Wait(), 0) << example.Errors();
  EXPECT_EQ(arm.Stop().commands, 5 + Timeouts(example.Output()));  // those of the new session alone
  EXPECT_NEAR(arm.Position(0), 20, 0.01f);
}

TEST(Example, NeedsNoArmWithTheSimulator) {
  const Arm unused(1);
  EXPECT_TRUE(Has(Play("simulator_swap", unused).out, "arrived\n"));
  EXPECT_TRUE(Has(Play("drive_arm -n 4", unused).out, "joint 3   position   -25.000  target   -25.000  arrived\n"));
}

TEST(Example, TellsWhatIsWrongInOneLineAndItsStatus) {
  const Arm other(3, "", Kind::Udp);  // a controller of another joint count
  const Arm deaf(6, "drop-command");
  std::vector<std::tuple<std::string, const Arm&, int, std::string>> rows = {
      {"drive_arm --tcp nonsense", other, 2, "drive_arm: --tcp: needs IP:PORT\n"},
      {"drive_arm --joints 0", other, 2, "drive_arm: "},
      {"drive_arm --tcp 127.0.0.1:1", other, 1, "drive_arm: cannot open 127.0.0.1:1\n"},
      {"drive_arm --serial /no/such/tty:9600", other, 1, "drive_arm: cannot open /no/such/tty:9600\n"},
      {"drive_arm --udp 127.0.0.1:@ -n 2 --timeout 1", other, 1, "drive_arm: the controller does not confirm\n"},
      {"confirmed_commands 127.0.0.1 @", deaf, 1, "brakes off: not confirmed\n"}};
  for (const char* name : {"move_joint", "two_sources", "confirmed_commands", "json_bridge", "reconnect",
                           "status_thread", "gripper_and_payload", "serial_line"}) {
    rows.emplace_back(name, other, 2, std::string("usage: ") + name + " ");
  }
  for (const auto& [command, arm, status, text] : rows) {
    const RunResult run = Play(command, arm);
    EXPECT_EQ(run.status, status) << command;
    EXPECT_TRUE(Has(run.err + run.out, text)) << run.err << run.out;
  }
}

}  // namespace
