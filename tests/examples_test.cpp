// SPDX-License-Identifier: MIT
// Each example as a user runs it, over a real link, against a controller that shares no code with the library.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "support/stand_in.h"

namespace {

using velta::test::StandIn;

/// A running example: its lines as they come, then its status.
class Example {
 public:
  explicit Example(const std::string& arguments, const std::string& input = "") {
    const std::string from = input.empty() ? "" : "printf '%s' '" + input + "' | ";
    pipe_ = popen((from + "timeout 60 " VELTA_EXAMPLES "/" + arguments + " 2>&1").c_str(), "r");
  }
  ~Example() { Status(); }
  Example(const Example&) = delete;
  Example& operator=(const Example&) = delete;

  /// Reads on until text has come, or everything.
  bool Tells(const std::string& text) {
    char bytes[4096];
    while (output.find(text) == std::string::npos && pipe_ != nullptr && std::fgets(bytes, sizeof bytes, pipe_))
      output += bytes;
    return output.find(text) != std::string::npos;
  }

  int Status() {
    if (pipe_ == nullptr) return status_;
    Tells("\n\n");  // never comes: reads everything
    const int status = pclose(pipe_);
    pipe_ = nullptr;
    return status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string output;

 private:
  std::FILE* pipe_ = nullptr;
  int status_ = -1;
};

/// "127.0.0.1:PORT" as two arguments.
std::string Arguments(const StandIn& controller) {
  std::string address = controller.Address();
  return address.replace(address.find(':'), 1, " ");
}

struct Row {
  const char* name;
  int joints;
  int drop_every;
  int commands;  ///< that the controller accepts
  const char* output;
  int joint;  ///< that ends at
  float position;
};

class ExampleOverTcp : public testing::TestWithParam<Row> {};

TEST_P(ExampleOverTcp, DoesWhatItsPageTells) {
  const Row& row = GetParam();
  StandIn controller(StandIn::Link::Tcp, row.joints, row.drop_every);
  Example example(std::string(row.name) + " " + Arguments(controller));
  EXPECT_EQ(example.Status(), 0) << example.output;
  controller.Stop();
  EXPECT_TRUE(example.Tells(row.output)) << example.output;
  EXPECT_EQ(controller.commands, row.commands);
  EXPECT_EQ(controller.bad_bytes, 0);
  EXPECT_EQ(controller.positions[static_cast<std::size_t>(row.joint)], row.position);
}

INSTANTIATE_TEST_SUITE_P(
    All, ExampleOverTcp,
    testing::Values(Row{"move_joint", 6, 0, 5, "joint 2 is at 30.00\n", 2, 30},
                    Row{"two_sources", 6, 0, 5,
                        "different joints: 4 packets become 2 frames\n"
                        "a joint that both want: 4 packets become 4 frames\n"
                        "200 set-points under one key: still 4 frames, and 1 that waits until they are gone\n",
                        0, 0},
                    Row{"confirmed_commands", 6, 2, 4,  // every second frame is lost, and sent again
                        "home: confirmed\n", 0, 0},
                    Row{"status_thread", 6, 0, 60, "60 commands fed, 0 left, statuses collected\n", 0, 0},
                    Row{"gripper_and_payload", 7, 0, 9, "gripper at 12.00\npayload set\n", 6, 12},
                    Row{"simulator_swap", 6, 0, 5, "arrived\n", 5, 15}),
    [](const auto& row) { return row.param.name; });

TEST(Example, ConfirmedCommandsGivesUpOnAControllerThatConfirmsNothing) {
  StandIn controller(StandIn::Link::Tcp, 6, 1);
  Example example("confirmed_commands " + Arguments(controller));
  EXPECT_EQ(example.Status(), 1);
  EXPECT_TRUE(example.Tells("brakes off: not confirmed\n")) << example.output;
}

TEST(Example, JsonBridgeConfirmsDocumentsAndRefusesOthers) {
  StandIn controller(StandIn::Link::Tcp, 6);
  const std::string on =
      R"({"armOrder":"0","jointCommand":[{"jointName":"3","jointOrder":"162","value1":"0","value2":"0","value3":"0","value4":"0"}]})";
  Example example("json_bridge " + Arguments(controller), on + "\nnonsense\n");
  EXPECT_EQ(example.Status(), 1);
  EXPECT_TRUE(example.Tells("json_bridge: not a command document: nonsense\n")) << example.output;
  const std::size_t third = example.output.find(R"("joint_id":"3")");
  EXPECT_EQ(example.output.find(R"("systemMode":"2")"), example.output.find(R"("systemMode":"2")", third));
  controller.Stop();
  EXPECT_EQ(controller.commands, 1);
}

TEST(Example, SerialLineTalksToATty) {
  StandIn controller(StandIn::Link::Pty, 2);
  Example example("serial_line " + controller.Address() + " 115200");
  EXPECT_EQ(example.Status(), 0) << example.output;
  EXPECT_TRUE(example.Tells("the controller answers, joint 1 has servo on\n"));
}

TEST(Example, ReconnectSendsNothingOldOverTheNewLink) {
  auto deaf = std::make_unique<StandIn>(StandIn::Link::Tcp, 6, 1);  // confirms nothing, so commands stay queued
  const std::string arguments = Arguments(*deaf);
  const int port = std::stoi(arguments.substr(arguments.find(' ')));
  Example example("reconnect " + arguments);
  ASSERT_TRUE(example.Tells("connected, joint 0 is at 0.00\n"));
  deaf.reset();
  ASSERT_TRUE(example.Tells("link lost, 4 queued commands discarded\n")) << example.output;
  StandIn controller(StandIn::Link::Tcp, 6, 0, port);
  EXPECT_EQ(example.Status(), 0) << example.output;
  controller.Stop();
  EXPECT_TRUE(example.Tells("arrived\n")) << example.output;
  EXPECT_EQ(controller.commands, 5);  // those of the new session alone
  EXPECT_EQ(controller.positions[0], 20);
}

TEST(Example, SimulatorSwapNeedsNoArm) {
  Example example("simulator_swap");
  EXPECT_EQ(example.Status(), 0) << example.output;
  EXPECT_TRUE(example.Tells("arrived\n"));
}

TEST(Example, BadUsageIsOneLineAndStatus2) {
  for (const char* name : {"move_joint", "two_sources", "confirmed_commands", "json_bridge", "reconnect",
                           "status_thread", "gripper_and_payload", "serial_line"}) {
    Example example(name);
    EXPECT_EQ(example.Status(), 2) << name;
    EXPECT_EQ(example.output.find(std::string("usage: ") + name + " "), 0u) << example.output;
  }
}

}  // namespace
