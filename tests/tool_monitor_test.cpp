// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <nlohmann/json.hpp>
#include <regex>

#include "monitor_model.h"
#include "support/velta_program.h"

using namespace velta::test;
using velta::tools::MonitorModel;

namespace {

constexpr std::int64_t kMs = 1'000'000;

/// A program in a terminal of its own (tmux), with its screen as a person sees it.
class Terminal {
 public:
  /// @param command a shell command line
  Terminal(const std::string& columns, const std::string& lines, const std::string& command) {
    Tmux({"new-session", "-d", "-s", "t", "-x", columns, "-y", lines, command + "; echo EXIT $?; sleep 60"});
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal() { Tmux({"kill-server"}); }

  /// @param key a character or tmux's name of a key
  void Press(const std::string& key) { Tmux({"send-keys", "-t", "t", key}); }
  void Resize(const std::string& columns, const std::string& lines) {
    Tmux({"resize-window", "-t", "t", "-x", columns, "-y", lines});
  }

  /// Expects the screen to come to show text (or, with `shown` false, no longer to), and these patterns within a line.
  std::string Expect(const std::string& text, bool shown = true, const std::vector<std::string>& patterns = {}) {
    std::string screen;
    EXPECT_TRUE(Until([&] {
      std::this_thread::sleep_for(Milliseconds(20));
      screen = Tmux({"capture-pane", "-p", "-t", "t"}).out;
      return Has(screen, text) == shown &&
             std::all_of(patterns.begin(), patterns.end(),
                         [&](const std::string& pattern) { return std::regex_search(screen, std::regex(pattern)); });
    })) << text
        << "\n"
        << screen;
    return screen;
  }

 private:
  RunResult Tmux(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"tmux", "-L", server_, "-f", "/dev/null"});
    return RunProgram(arguments);
  }

  /// Of its own: one that is about to end would still take a new session.
  const std::string server_ =
      "velta-test-" + std::to_string(getpid()) + "-" + std::to_string(Clock::now().time_since_epoch().count());
};

TEST(MonitorModel, ShowsStatesInWordsAndMarksWhatChanged) {
  MonitorModel model(2);
  EXPECT_EQ(model.Traffic(0), "no status yet  discarded 0 bytes");
  model.Take(Status(1, {{0}, {2, 'm'}}), 1000 * kMs);
  model.Take(Status(2, {{3, 2, 12, 1.5F}, {2, 'm'}}), 1010 * kMs);
  /// The cells of a joint, * for changed and ! for a fault behind them.
  const auto row = [&](std::size_t joint, std::int64_t now_ms) {
    std::string text;
    for (const auto& cell : model.Row(joint, now_ms * kMs)) {
      text += cell.text + (cell.changed ? "*" : "") + (cell.fault ? "!" : "") + " ";
    }
    return text;
  };
  EXPECT_EQ(row(0, 1011), "1.5000* 0.0000 0.0000 0.0000 0.0 FAULT*! trajectory 0x0000000c*! moving* ");
  EXPECT_EQ(row(0, 2010), "1.5000 0.0000 0.0000 0.0000 0.0 FAULT! trajectory 0x0000000c! moving ");  // marks fade
  EXPECT_EQ(row(1, 1011), "0.0000 0.0000 0.0000 0.0000 0.0 servo on trajectory ok servo off! ");
}

TEST(MonitorModel, CountsBytesThatBelongToNoStatus) {
  MonitorModel model(1);
  const std::vector<char> status = StatusFrame(1, 1), begun = Part(status, 0, 60), rest = Part(status, 60, 103);
  std::vector<char> damaged = status;
  damaged[70] = 1;
  model.Take(Joined({{'n', 'o', 'i', 's', 'e'}, status, begun}), kMs);
  EXPECT_TRUE(Has(model.Traffic(kMs), "statuses 1  discarded 5 bytes"));  // the rest may still come
  model.Take(Joined({rest, damaged, begun}), 2 * kMs);
  EXPECT_TRUE(Has(model.Traffic(2 * kMs), "statuses 2  discarded 108 bytes")) << model.Traffic(2 * kMs);
  model.Restart();  // a new connection starts at a frame's first byte
  model.Take(status, 3 * kMs);
  EXPECT_TRUE(Has(model.Traffic(3 * kMs), "statuses 3  discarded 108 bytes")) << model.Traffic(3 * kMs);
}

TEST(MonitorModel, DrawsTheHistoryOfAJoint) {
  MonitorModel model(1);
  for (int i = 0; i < 4; ++i) {
    model.Take(Status(1, {{2, 0, 0, static_cast<float>(i)}}), (1000 + 50 * i) * kMs);
    model.Take(Status(1, {{2, 0, 0, 99}}), (1001 + 50 * i) * kMs);  // between two samples
  }
  using Picture = std::vector<std::string>;
  EXPECT_EQ(model.History(0, 6, 4),
            (Picture{"position of joint 0, last 0.2 s, 0.0000 to 3.0000", "     *", "    * ", "   *  ", "  *   "}));
  EXPECT_EQ(model.History(0, 2, 1), (Picture{"position of joint 0, last 0.1 s, 2.0000 to 3.0000", "**"}));
}

TEST(MonitorScreen, ShowsTheArmAndObeysKeysAndResizing) {
  SimulatedArm arm;
  const auto send = [&](const std::string& words) {
    ASSERT_EQ(Velta("send " + arm.link + " -n 3 --confirm " + words).status, 0) << words;
  };
  send("servo-on --joints 0/2");
  send(R"(--json {"armOrder":"0","jointCommand":[{"jointName":"2","jointOrder":"255","value1":"12","value2":"0",)"
       R"("value3":"0","value4":"0"}]})");
  Terminal terminal("120", "24", VELTA_PROGRAM " monitor -n 3 " + arm.link);
  terminal.Expect(
      "0x0000000c", true,
      {arm.link + "  3 joints", " Hz  age ", "position of joint 0",
       ">0 .*servo on  trajectory          ok         idle", " 1!.*FAULT  trajectory  0x0000000c         idle"});
  send("position-control-mode --joints 2");
  send("ref-position 42 --joints 2");
  terminal.Expect("42.0000*", true, {"42.0000\\*.*position\\*"});
  terminal.Expect("42.0000*", false, {"42.0000 "});    // the mark fades
  for (int i = 0; i < 3; ++i) terminal.Press("Down");  // stays on the last
  terminal.Expect("position of joint 2", true, {">2 ", "0.0000 to 42.0000"});
  terminal.Press("2");
  terminal.Expect("velocity", false);
  terminal.Press("p");
  terminal.Expect("PAUSED");
  send("ref-position 43 --joints 2");
  terminal.Press("Up");
  EXPECT_FALSE(Has(terminal.Expect("position of joint 1"), "43.0000"));
  terminal.Press("p");
  terminal.Expect("43.0000");
  terminal.Resize("64", "12");  // the columns that tell least give way
  terminal.Expect("temp", false, {"joint .*status   trajectory", "0x0000000c"});
  terminal.Resize("10", "2");
  terminal.Resize("120", "24");
  terminal.Expect("trajectory");
  arm.Signal(SIGTERM);
  terminal.Expect("trying again", true, {arm.link + ": ", "43.0000"});  // the last status stays in sight
  terminal.Press("q");
  terminal.Expect("EXIT", true, {"watched for ", "EXIT 0"});
}

TEST(MonitorScreen, LeavesTheTerminalInOrderOnCtrlC) {
  SimulatedArm arm;
  Terminal terminal("80", "24", VELTA_PROGRAM " monitor -n 3 " + arm.link);
  terminal.Expect("q quit");
  terminal.Press("C-c");
  EXPECT_FALSE(Has(terminal.Expect("EXIT 0"), "q quit"));
}

TEST(MonitorLines, ComeOnceASecondOrEndInAnError) {
  for (const char* endpoint : {"tcp://127.0.0.1:0", "udp://127.0.0.1:0", "pty:"}) {
    SimulatedArm arm(endpoint, "-n 3 --on-command");  // silent until it is asked
    Process monitor(Argv("monitor -n 3 " + arm.link + " --poll-ms 20"));
    const std::string line = monitor.ReadAfter("").value_or("");
    EXPECT_TRUE(Has(line, " | J0 0.0000 servo off | J1 0.0000 servo off | J2 0.0000 servo off")) << endpoint << line;
  }
  SimulatedArm silent("tcp://127.0.0.1:0", "-n 3 --on-command");
  auto run = Velta("monitor -n 3 " + silent.link + " --poll-ms 0 --seconds 0.3");
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(Has(run.out, "no status yet")) << run.out;

  SimulatedArm closing("tcp://127.0.0.1:0", "-n 3 --fault close=50");
  run = Velta("monitor -n 3 " + closing.link);
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(Has(run.out, "statuses 50 ")) << run.out;
  EXPECT_EQ(run.err, "velta: " + closing.link + ": the other end closed the link\n");
}

TEST(MonitorJson, PrintsOneDocumentPerStatus) {
  SimulatedArm arm;
  const auto run = Velta("monitor -n 3 " + arm.link + " --json --count 20");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Begins(run.err, "watched for ")) << run.err;
  std::vector<std::uint64_t> stamps;
  for (const std::string& line : Lines(run.out)) {
    const auto document = nlohmann::json::parse(line);
    EXPECT_EQ(document["jointState"].at(2)["joint_id"], "3");
    stamps.push_back(std::stoull(document["timestamp"].get<std::string>()));
  }
  EXPECT_EQ(stamps.size(), 20U);
  EXPECT_TRUE(std::is_sorted(stamps.begin(), stamps.end()));
}

TEST(MonitorVia, ShowsWhatPassesBetweenHostAndController) {
  SimulatedArm arm("tcp://127.0.0.1:0", "-n 3 --on-command");
  Process monitor(Argv("monitor -n 3 " + arm.link + " --via tcp://127.0.0.1:0 --json"));
  const auto via = monitor.ReadErrorAfter("listening on ");
  ASSERT_TRUE(via);
  for (const std::string& run : {"send " + *via + " servo-on --joints all --confirm", "ping " + *via + " -c 20"}) {
    EXPECT_EQ(Velta(run + " -n 3").status, 0) << run;
  }
  monitor.Signal(SIGINT);
  EXPECT_EQ(monitor.Wait(), 0);
  EXPECT_TRUE(Has(monitor.Errors(), "statuses 21  discarded 0 bytes")) << monitor.Errors();
  EXPECT_EQ(nlohmann::json::parse(Lines(monitor.Output()).at(0))["jointState"][0]["systemMode"], "2");
}

}  // namespace
