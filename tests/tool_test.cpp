// SPDX-License-Identifier: MIT
// What holds for every subcommand: links, help, bad usage and failures in one line, an end at once when asked to stop.
#include <gtest/gtest.h>

#include <csignal>
#include <regex>

#include "command.h"
#include "support/velta_program.h"

using namespace velta::test;
using velta::wire::ParseLink;

namespace {

TEST(Link, IsReadInEveryFormAndRefusedInOneLineOtherwise) {
  for (const char* text :
       {"tcp://127.0.0.1:43210", "udp://10.0.0.7:0", "serial:///dev/ttyUSB0?baud=921600", "pty:/run/arm", "pty:"}) {
    EXPECT_EQ(ToString(ParseLink(text)), text);
  }
  EXPECT_EQ(ToString(ParseLink("serial:///dev/ttyS0")), "serial:///dev/ttyS0?baud=115200");
  for (const char* text :
       {"", "tcp://", "tcp://127.0.0.1", "tcp://127.0.0.1:", "tcp://127.0.0.1:65536", "tcp://127.0.0.1:-1",
        "tcp://127.0.0.1:80x", "tcp://localhost:80", "udp://1.2.3:5", "http://127.0.0.1:80", "serial://",
        "serial://ttyS0", "serial:///dev/ttyS0?baud=0", "serial:///dev/ttyS0?speed=9600", "127.0.0.1:80"}) {
    try {
      ParseLink(text);
      ADD_FAILURE() << "accepted '" << text << "'";
    } catch (const velta::tools::UsageError& error) {
      EXPECT_TRUE(Has(error.what(), text) && !Has(error.what(), "\n")) << error.what();
    }
  }
}

TEST(Program, TellsVersionAndHelpOnStandardOutput) {
  EXPECT_EQ(Velta("--version").out, "2.1.0\n");
  for (const char* command : {"sim", "monitor", "record", "convert", "plot", "play", "send", "ping", "doctor"}) {
    const RunResult help = Velta(std::string(command) + " --help");
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.err, "") << command;
    EXPECT_TRUE(std::regex_search(help.out, std::regex(std::string(" velta ") + command + " .*n"))) << help.out;
    EXPECT_TRUE(Has(Velta("--help").out, std::string("\n  ") + command)) << command;
  }
}

struct Complaint {
  int status;
  const char *arguments, *complaint;
};

// AT is a link where nobody listens, HERE one to listen on; GOOD is a recording of one joint, BAD is none, SCRIPT has a
// mistake in its second line, FILE is a file, LINK leads to it, DIR is the folder, NEW and NO/DIR do not exist.
constexpr Complaint kComplaints[] = {
    {2, "sim -n 2", "give an endpoint"},
    {2, "sim HERE", "--joints"},
    {2, "sim -n 2 tcp://127.0.0.1", "the port is missing"},
    {2, "sim -n 2 serial:///dev/ttyS0", "use pty:"},
    {2, "sim -n 2 HERE --fault corrupt=2", "bad --fault 'corrupt=2'"},
    {2, "sim -n 2 HERE --check AT", "--check"},
    {2, "sim -n 2 --check pty:", "device of a pty"},
    {1, "sim -n 2 --check AT --timeout-ms 50", "Connection refused"},
    {1, "sim -n 2 HERE --script SCRIPT", ":2: there is no fault 'corrput'"},
    {1, "sim -n 2 HERE --script NEW", "No such file"},
    {1, "sim -n 2 HERE --script DIR", "cannot read"},
    {1, "sim -n 2 HERE pty:FILE", "does not lead to a pty"},
    {1, "sim -n 2 HERE pty:LINK", "does not lead to a pty"},
    {1, "sim -n 2 HERE pty:NO/DIR", "No such file"},
    {1, "sim -n 2 tcp://192.0.2.1:0", "cannot listen on tcp://192.0.2.1:0"},
    {2, "record -n 1 AT", "FILE is required"},
    {2, "record -n 1 here NEW", "bad link 'here'"},
    {2, "record -n 1 AT NEW --via udp://127.0.0.1:0", "udp:// goes with udp://"},
    {2, "record -n 1 pty: NEW --via pty:", "a place to listen on"},
    {1, "record -n 1 serial:///dev/null NEW", "not a serial device"},
    {1, "record -n 1 udp://127.0.0.1:9 GOOD", "there is such a file already"},
    {1, "record -n 1 AT NO/DIR --via HERE", "No such file"},
    {1, "record -n 1 AT NEW --via pty:FILE", "File exists"},
    {1, "convert BAD", "not a recording"},
    {1, "convert DIR", "Is a directory"},
    {1, "convert GOOD -o NO/DIR", "No such file"},
    {1, "convert GOOD -o /dev/full", "cannot write"},
    {2, "convert GOOD --from 2 --to 1", "--from must not lie behind --to"},
    {2, "plot GOOD -o NEW.jpg", "a plot is a .png or a .svg"},
    {2, "plot GOOD --fields position,speed", "no field 'speed'"},
    {2, "plot GOOD --show 1", "no joint of this arm"},
    {1, "plot GOOD -n 2", "no good status frame to plot"},
    {1, "plot GOOD -o NO/DIR.png", "No such file"},
    {2, "play GOOD", "LINK"},
    {1, "play GOOD AT", "no good command frame to play for 1 joints"},
    {1, "play GOOD --serve HERE -n 2", "no good status frame to play for 2 joints"},
    {2, "doctor -n 3 tcp://127.0.0.1:port", "bad link"},
    {2, "doctor -n 3 pty:/tmp/arm", "is an endpoint"},
    {1, "ping -n 3 AT", "Connection refused"},
    {1, "monitor -n 3 serial:///dev/null", "not a serial device"},
};

class Refusal : public InFolder {};

TEST_F(Refusal, IsOneLineAndChangesNothing) {
  Put("SCRIPT", std::string("{\"at_ms\": 1, \"fault\": \"corrupt\"}\n{\"at_ms\": 1, \"fault\": \"corrput\"}"));
  Put("GOOD", Tape(1).Record(Tape::kStatus, 0, StatusFrame(1, 1)));
  for (const char* name : {"BAD", "FILE"}) Put(name, std::string("precious"));
  std::filesystem::create_symlink(Path("FILE"), Path("LINK"));
  const std::vector<std::string> before = Files();
  for (const Complaint& c : kComplaints) {
    std::string arguments = std::regex_replace(c.arguments, std::regex("\\bAT\\b"), "tcp://127.0.0.1:1");
    arguments = std::regex_replace(arguments, std::regex("HERE"), "tcp://127.0.0.1:0");
    arguments = std::regex_replace(arguments, std::regex("\\b(SCRIPT|GOOD|BAD|FILE|LINK|NEW|NO/DIR)\\b"), Path("$1"));
    ExpectComplaint(Velta(std::regex_replace(arguments, std::regex("\\bDIR$"), folder)), c.status, c.complaint,
                    c.arguments);
  }
  EXPECT_EQ(Files(), before);
  EXPECT_EQ(Content("FILE"), "precious");
  ExpectComplaint(RunProgram({"sh", "-c", VELTA_PROGRAM " sim -n 2 tcp://127.0.0.1:0 >/dev/full"}), 1,
                  "cannot write to standard output", "sim >/dev/full");
}

struct Stop {
  const char *name, *arguments;
  const char* ready;  ///< begin of the line that tells that it runs; empty: it reads; none: the controller hears of it
  int status;
  const char* summary;  ///< begin of what it prints then, the last on standard output, or for a failure on error
};

// LINK is a controller that never answers; TAPE is a recording of commands and statuses, NEW is none yet.
constexpr Stop kStops[] = {
    {"Sim", "sim -n 3 tcp://127.0.0.1:0 --cycle-ms 60000", "listening on ", 0, "served "},
    {"SimCheck", "sim -n 3 --check LINK --timeout-ms 60000", nullptr, 1, "velta: no controller answers: tcp://"},
    {"Monitor", "monitor -n 3 LINK", nullptr, 0, "watched for "},
    {"MonitorVia", "monitor -n 3 LINK --via tcp://127.0.0.1:0", "listening on ", 0, "watched for "},
    {"Record", "record -n 3 LINK NEW", nullptr, 0, "recorded "},
    {"RecordVia", "record -n 3 LINK NEW --via tcp://127.0.0.1:0", "listening on ", 0, "recorded "},
    {"Play", "play TAPE LINK", nullptr, 0, "sent 1 command, 0 echoed before the next, 0 status frames received"},
    {"PlayLoop", "play TAPE LINK --loop", nullptr, 0, "sent "},
    {"PlayServe", "play TAPE --serve tcp://127.0.0.1:0", "listening on ", 0, "served 0 hosts"},
    {"Send", "send LINK -n 3 servo-on --select all --confirm --timeout 60s", nullptr, 1, "velta: interrupted before"},
    {"SendInput", "send LINK -n 2 --document -", "", 1, "velta: interrupted; nothing was sent"},
    {"Ping", "ping -n 3 LINK -t 10s", nullptr, 0, "0 commands, 0 echoed, 0.0 % lost, 0 resends"},
    {"Doctor", "doctor -n 3 LINK", "[ ok ] opened ", 1, "interrupted: the examination is not complete"},
};

class Stopping : public InFolder, public testing::WithParamInterface<Stop> {};

TEST_P(Stopping, EndsWithin100MsWithItsSummary) {
  Put("TAPE", Tape(3)
                  .Record(Tape::kCommand, 0, Command(3, 1))
                  .Record(Tape::kStatus, 1, StatusFrame(3, 1))
                  .Record(Tape::kCommand, 60000, Command(3, 2)));
  const std::string at_tape = std::regex_replace(GetParam().arguments, std::regex("TAPE|NEW"), Path("$&"));
  for (const int signal : {SIGINT, SIGTERM}) {
    auto fastest = Milliseconds::max();  // of a few attempts: the machine may be busy
    for (int attempt = 0; attempt < 5 && fastest >= Milliseconds(100); ++attempt) {
      std::filesystem::remove(Path("NEW"));
      Peer controller(Peer::Kind::kTcp);
      Process process(Argv(std::regex_replace(at_tape, std::regex("LINK"), controller.Name())));
      if (GetParam().ready == nullptr) {
        ASSERT_EQ(controller.Read(67).size(), 67U);
      } else if (*GetParam().ready == '\0') {
        ASSERT_TRUE(process.Write(std::string(1 << 18, ' ')));  // more than a pipe holds: once taken, it is waiting
      } else {
        const bool told_on_error = Begins(GetParam().arguments, "monitor");
        ASSERT_TRUE(told_on_error ? process.ReadErrorAfter(GetParam().ready) : process.ReadAfter(GetParam().ready));
      }
      const auto start = Clock::now();
      process.Signal(signal);
      ASSERT_EQ(process.Wait(), GetParam().status) << process.Errors();
      fastest = std::min(fastest, std::chrono::duration_cast<Milliseconds>(Clock::now() - start));
      const bool failed = Begins(GetParam().summary, "velta: ");
      EXPECT_TRUE(Begins(failed ? process.Errors() : process.Output(), GetParam().summary))
          << process.Output() << process.Errors();
      EXPECT_EQ(failed ? process.Output() : process.Errors(), "");
    }
    EXPECT_LT(fastest, Milliseconds(100)) << signal;
  }
}

INSTANTIATE_TEST_SUITE_P(, Stopping, testing::ValuesIn(kStops), [](const auto& row) { return row.param.name; });

}  // namespace
