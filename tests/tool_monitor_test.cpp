// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "monitor_model.h"
#include "support/process.h"
#include "support/simulated_arm.h"
#include "support/terminal.h"
#include "support/wire_bytes.h"

using velta::test::Chars;
using velta::test::Process;
using velta::test::RunProgram;
using velta::test::SimulatedArm;
using velta::test::StatusBytes;
using velta::test::Terminal;
using velta::tools::MonitorModel;

namespace {

constexpr std::int64_t kMs = 1'000'000;

TEST(MonitorModel, ShowsStatesInWordsAndMarksWhatChanged) {
  MonitorModel model(2);
  EXPECT_EQ(model.Traffic(0), "no status yet  discarded 0 bytes");
  model.Take(Chars(StatusBytes(1, 0, {{0}, {2, 'm'}})), 1000 * kMs);
  for (const auto& cell : model.Row(0, 1000 * kMs)) EXPECT_FALSE(cell.changed || cell.fault) << cell.text;
  EXPECT_EQ(model.Row(1, 1000 * kMs)[8].text, "servo off!");

  model.Take(Chars(StatusBytes(2, 0, {{3, 2, 12, 1.5F}, {2, 'm'}})), 1010 * kMs);
  const auto row = model.Row(0, 1011 * kMs);
  struct Expected {
    std::size_t column;
    const char* text;
    bool changed;
    bool fault;
  };
  for (const Expected& e : {Expected{0, "1.5000", true, false}, Expected{1, "0.0000", false, false},
                            Expected{5, "FAULT", true, true}, Expected{6, "trajectory", false, false},
                            Expected{7, "0x0000000c", true, true}, Expected{8, "moving", true, false}}) {
    EXPECT_EQ(row[e.column].text, e.text);
    EXPECT_EQ(row[e.column].changed, e.changed) << e.text;
    EXPECT_EQ(row[e.column].fault, e.fault) << e.text;
  }
  for (const auto& cell : model.Row(1, 1011 * kMs)) EXPECT_FALSE(cell.changed || cell.fault) << cell.text;
  EXPECT_FALSE(model.Row(0, 2010 * kMs)[0].changed);  // the mark fades
  EXPECT_TRUE(model.Row(0, 2010 * kMs)[7].fault);     // the fault stays
}

TEST(MonitorModel, CountsBytesThatBelongToNoStatus) {
  MonitorModel model(1);
  const std::string status = StatusBytes(1, 0, {{}});
  model.Take(Chars("noise" + status + status.substr(0, 60)), kMs);
  EXPECT_NE(model.Traffic(kMs).find("discarded 0 bytes"), std::string::npos);  // the rest may still come
  std::string damaged = status;
  damaged[70] = static_cast<char>(damaged[70] ^ 1);
  model.Take(Chars(status.substr(60) + damaged), 2 * kMs);
  EXPECT_NE(model.Traffic(2 * kMs).find("statuses 2  discarded 108 bytes"), std::string::npos)
      << model.Traffic(2 * kMs);
}

TEST(MonitorModel, DrawsTheHistoryOfAJoint) {
  MonitorModel model(1);
  for (int i = 0; i < 4; ++i) {
    model.Take(Chars(StatusBytes(1, 0, {{2, 0, 0, static_cast<float>(i)}})), (1000 + 50 * i) * kMs);
    model.Take(Chars(StatusBytes(1, 0, {{2, 0, 0, 99}})), (1001 + 50 * i) * kMs);  // between two samples
  }
  EXPECT_EQ(model.History(0, 6, 4), (std::vector<std::string>{"position of joint 0, last 0.2 s, 0.0000 to 3.0000",
                                                              "     *", "    * ", "   *  ", "  *   "}));
  EXPECT_EQ(model.History(0, 2, 1),
            (std::vector<std::string>{"position of joint 0, last 0.1 s, 2.0000 to 3.0000", "**"}));
}

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::string LineWith(const std::string& text, const std::string& part) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (Has(line, part)) return line;
  }
  return {};
}

TEST(MonitorScreen, ShowsTheArmAndObeysKeysAndResizing) {
  SimulatedArm arm;
  const auto send = [&](std::vector<std::string> command) {
    command.insert(command.begin(), {VELTA_PROGRAM, "send", arm.Link(), "-n", "3", "--confirm"});
    ASSERT_EQ(RunProgram(command).status, 0);
  };
  send({"servo-on", "--joints", "0/2"});
  send({"--json", R"({"armOrder":"0","jointCommand":[{"jointName":"2","jointOrder":"255","value1":"12","value2":"0",)"
                  R"("value3":"0","value4":"0"}]})"});
  Terminal terminal(120, 24, std::string(VELTA_PROGRAM) + " monitor -n 3 " + arm.Link());
  std::string screen = terminal.Await("0x0000000c");
  EXPECT_TRUE(Has(screen, arm.Link() + "  3 joints")) << screen;
  EXPECT_TRUE(Has(screen, " Hz  age ")) << screen;
  EXPECT_TRUE(Has(LineWith(screen, ">0 "), "servo on  trajectory          ok         idle")) << screen;
  EXPECT_TRUE(Has(LineWith(screen, " 1!"), "FAULT  trajectory  0x0000000c         idle")) << screen;
  EXPECT_TRUE(Has(screen, "position of joint 0")) << screen;

  send({"position-control-mode", "--joints", "2"});
  send({"ref-position", "42", "--joints", "2"});
  screen = terminal.Await("42.0000*");
  EXPECT_TRUE(Has(LineWith(screen, "42.0000*"), "position*")) << screen;
  screen = terminal.Await("42.0000*", false);  // the mark fades
  EXPECT_TRUE(Has(screen, "42.0000 ")) << screen;

  terminal.Press("Down");
  terminal.Press("Down");
  terminal.Press("Down");  // stays on the last
  screen = terminal.Await("position of joint 2");
  EXPECT_TRUE(Has(screen, ">2 ")) << screen;
  EXPECT_TRUE(Has(screen, "0.0000 to 42.0000")) << screen;
  terminal.Press("2");
  screen = terminal.Await("velocity", false);
  EXPECT_FALSE(Has(screen, "velocity")) << screen;
  terminal.Press("p");
  screen = terminal.Await("PAUSED");
  EXPECT_TRUE(Has(screen, "PAUSED")) << screen;
  send({"ref-position", "43", "--joints", "2"});
  terminal.Press("Up");
  screen = terminal.Await("position of joint 1");
  EXPECT_FALSE(Has(screen, "43.0000")) << screen;
  terminal.Press("p");
  screen = terminal.Await("43.0000");
  EXPECT_TRUE(Has(screen, "43.0000")) << screen;

  terminal.Resize(64, 12);  // the columns that tell least give way
  screen = terminal.Await("temp", false);
  EXPECT_TRUE(Has(LineWith(screen, "joint "), "status   trajectory")) << screen;
  EXPECT_TRUE(Has(screen, "0x0000000c")) << screen;
  terminal.Resize(10, 2);
  terminal.Resize(120, 24);
  terminal.Await("trajectory");

  arm.Program().Signal(SIGTERM);
  screen = terminal.Await("trying again");
  EXPECT_TRUE(Has(screen, arm.Link() + ": ")) << screen;
  EXPECT_TRUE(Has(screen, "43.0000")) << screen;  // the last status stays in sight
  terminal.Press("q");
  screen = terminal.Await("EXIT");
  EXPECT_TRUE(Has(screen, "watched for ")) << screen;
  EXPECT_TRUE(Has(screen, "EXIT 0")) << screen;
}

TEST(MonitorScreen, LeavesTheTerminalInOrderOnCtrlC) {
  SimulatedArm arm;
  Terminal terminal(80, 24, std::string(VELTA_PROGRAM) + " monitor -n 3 " + arm.Link());
  EXPECT_TRUE(Has(terminal.Await("q quit"), "q quit"));
  terminal.Press("C-c");
  const std::string screen = terminal.Await("EXIT");
  EXPECT_TRUE(Has(screen, "EXIT 0")) << screen;
  EXPECT_FALSE(Has(screen, "q quit")) << screen;
}

TEST(MonitorLines, ComeOnceASecondAndEndWithASummary) {
  for (const char* endpoint : {"tcp://127.0.0.1:0", "udp://127.0.0.1:0", "pty:"}) {
    SimulatedArm arm(endpoint, {"--on-command"});  // silent until it is asked
    Process monitor({VELTA_PROGRAM, "monitor", "-n", "3", arm.Link(), "--poll-ms", "20"});
    const auto line = monitor.ReadLine();
    ASSERT_TRUE(line) << endpoint << monitor.Errors();
    EXPECT_TRUE(Has(*line, " | J0 0.0000 servo off | J1 0.0000 servo off | J2 0.0000 servo off")) << *line;
    monitor.Signal(SIGTERM);
    EXPECT_EQ(monitor.Wait(std::chrono::milliseconds(1000)), 0);
    EXPECT_EQ(monitor.Output().rfind("watched for ", 0), 0U) << monitor.Output();
    EXPECT_EQ(monitor.Errors(), "");
  }
}

TEST(MonitorLines, EndInAnErrorWithoutStatusOrLink) {
  SimulatedArm silent("tcp://127.0.0.1:0", {"--on-command"});
  auto run = RunProgram({VELTA_PROGRAM, "monitor", "-n", "3", silent.Link(), "--poll-ms", "0", "--seconds", "0.3"});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(Has(run.out, "no status yet")) << run.out;

  SimulatedArm closing("tcp://127.0.0.1:0", {"--fault", "close=50"});
  run = RunProgram({VELTA_PROGRAM, "monitor", "-n", "3", closing.Link()});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(Has(run.out, "statuses 50 ")) << run.out;
  EXPECT_EQ(run.err, "velta: " + closing.Link() + ": the other end closed the link\n");
}

TEST(MonitorJson, PrintsOneDocumentPerStatus) {
  SimulatedArm arm;
  const auto run = RunProgram({VELTA_PROGRAM, "monitor", "-n", "3", arm.Link(), "--json", "--count", "20"});
  ASSERT_EQ(run.status, 0) << run.err;
  std::istringstream lines(run.out);
  int count = 0;
  std::uint64_t last = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    const auto document = nlohmann::json::parse(line);
    ASSERT_EQ(document["jointState"].size(), 3U);
    EXPECT_EQ(document["jointState"][2]["joint_id"], "3");
    const std::uint64_t stamp = std::stoull(document["timestamp"].get<std::string>());
    EXPECT_GE(stamp, last);
    last = stamp;
  }
  EXPECT_EQ(count, 20);
  EXPECT_EQ(run.err.rfind("watched for ", 0), 0U) << run.err;
}

TEST(MonitorVia, ShowsWhatPassesBetweenHostAndController) {
  SimulatedArm arm("tcp://127.0.0.1:0", {"--on-command"});
  Process monitor({VELTA_PROGRAM, "monitor", "-n", "3", arm.Link(), "--via", "tcp://127.0.0.1:0", "--json"});
  const auto said = monitor.ReadErrorLine();
  ASSERT_TRUE(said && said->rfind("listening on ", 0) == 0) << monitor.Errors();
  const std::string via = said->substr(13);
  const auto send = RunProgram({VELTA_PROGRAM, "send", via, "-n", "3", "servo-on", "--joints", "all", "--confirm"});
  EXPECT_EQ(send.status, 0) << send.err;
  const auto ping = RunProgram({VELTA_PROGRAM, "ping", via, "-n", "3", "-c", "20"});
  EXPECT_EQ(ping.status, 0) << ping.out << ping.err;
  monitor.Signal(SIGINT);
  EXPECT_EQ(monitor.Wait(), 0);
  EXPECT_TRUE(Has(monitor.Errors(), "statuses 21  discarded 0 bytes")) << monitor.Errors();
  const auto first = nlohmann::json::parse(monitor.Output().substr(0, monitor.Output().find('\n')));
  EXPECT_EQ(first["jointState"][0]["systemMode"], "2");
}

}  // namespace
