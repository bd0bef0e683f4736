// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "MasterControllerClient.h"
#include "TcpClient.h"
#include "link.h"
#include "support/process.h"

using nlohmann::json;
using velta::test::Process;
using velta::test::RunProgram;
using velta::test::RunResult;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

std::vector<std::string> Sim(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {VELTA_PROGRAM, "sim"});
  return arguments;
}

/// A directory of one's own that goes with its object.
class Folder {
 public:
  Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "velta-XXXXXX").string();
    path_ = mkdtemp(name.data());
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() { std::filesystem::remove_all(path_); }
  std::string File(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

void ExpectOneLine(const RunResult& result, int status, const std::string& part) {
  EXPECT_EQ(result.status, status) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err.find("velta: "), 0u) << result.err;
  EXPECT_NE(result.err.find(part), std::string::npos) << result.err;
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
}

TEST(SimProgram, ListensOnEveryEndpointAndAnswersTheCheckThere) {
  const Folder folder;
  Process sim(Sim({"-n", "2", "tcp://127.0.0.1:0", "udp://127.0.0.1:0", "pty:" + folder.File("arm"), "pty:"}));
  for (const std::string& prefix : {std::string("tcp://127.0.0.1:"), std::string("udp://127.0.0.1:"),
                                    "serial://" + folder.File("arm"), std::string("serial:///dev/pts/")}) {
    const auto link = sim.ReadAfter("listening on ");
    ASSERT_TRUE(link) << prefix;
    EXPECT_EQ(link->find(prefix), 0u) << *link;
    for (int host = 1; host <= 2; ++host) {  // the second one finds nothing of the first one's
      const RunResult check = RunProgram(Sim({"-n", "2", "--check", *link}));
      EXPECT_EQ(check.status, 0) << check.err;
      EXPECT_NE(check.out.find(" answers, after "), std::string::npos) << check.out;
      EXPECT_EQ(check.err, "");
    }
  }
  sim.Signal(SIGINT);
  EXPECT_EQ(sim.Wait(), 0);
  EXPECT_EQ(sim.Errors(), "");  // no progress in a pipe
  EXPECT_NE(sim.Output().find("connections     8\n"), std::string::npos) << sim.Output();
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(folder.File("arm"))));
}

TEST(SimProgram, CheckWaitsForAControllerThatComesLater) {
  Process sim(Sim({"-n", "1", "tcp://127.0.0.1:0", "--fault", "refuse=300"}));
  const auto link = sim.ReadAfter("listening on ");
  ASSERT_TRUE(link);
  const auto start = Clock::now();
  EXPECT_EQ(RunProgram(Sim({"-n", "1", "--check", *link, "--timeout-ms", "9000"})).status, 0);
  EXPECT_LT(Clock::now() - start, milliseconds(8000));
}

TEST(SimProgram, CheckTellsHowFarItCame) {
  Process sim(Sim({"-n", "2", "tcp://127.0.0.1:0", "tcp://127.0.0.1:0", "--fault", "no-echo"}));
  const std::string link = sim.ReadAfter("listening on ").value_or("");
  const auto check = [](const std::string& joints, const std::string& where) {
    return RunProgram(Sim({"-n", joints, "--check", where, "--timeout-ms", "150"}));
  };
  ExpectOneLine(check("2", link), 1, "none echoes a command");
  ExpectOneLine(check("5", link), 1, "no status frame arrives");
  ExpectOneLine(check("2", "tcp://127.0.0.1:1"), 1, "Connection refused");
  ExpectOneLine(check("2", "serial:///nonexistent/tty"), 1, "No such file or directory");

  Process slow(Sim({"-n", "2", "tcp://127.0.0.1:0", "--cycle-ms", "60000"}));
  ExpectOneLine(check("2", slow.ReadAfter("listening on ").value_or("")), 1, "no status frame arrives");
  const Folder folder;
  Process refusing(Sim({"-n", "2", "tcp://127.0.0.1:0", "pty:" + folder.File("arm"), "--fault", "refuse"}));
  ExpectOneLine(check("2", refusing.ReadAfter("listening on ").value_or("")), 1, "Connection refused");
  ExpectOneLine(check("2", refusing.ReadAfter("listening on ").value_or("")), 1, "No such file or directory");
}

/// The next status of a client, within the tests' patience.
bool Receive(MasterControllerClient& client) {
  const auto deadline = Clock::now() + Process::kPatience;
  while (Clock::now() < deadline) {
    if (client.ReceiveStatus() > 0) return true;
  }
  return false;
}

TEST(SimProgram, AnswersTheUdpPeerThatSentLastAlone) {
  Process sim(Sim({"-n", "2", "udp://127.0.0.1:0"}));
  const velta::tools::Link link = velta::tools::ParseLink(sim.ReadAfter("listening on ").value_or(""));
  MasterControllerClient first(2);
  MasterControllerClient second(2);
  SendPacket command(2);
  for (MasterControllerClient* host : {&first, &second}) {
    ASSERT_TRUE(velta::tools::OpenLink(*host, link));
    host->SendOnce(command, true);
    ASSERT_TRUE(Receive(*host));
  }
  while (first.ReceiveStatus() > 0) continue;  // what was on its way
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(Receive(second));
  EXPECT_EQ(first.ReceiveStatus(), 0);
}

TEST(SimProgram, ServesLargeArmsForLong) {
  Process sim(Sim({"-n", "200", "tcp://127.0.0.1:0", "--cycle-ms", "2"}));
  MasterControllerClient host(200);
  ASSERT_TRUE(velta::tools::OpenLink(host, velta::tools::ParseLink(sim.ReadAfter("listening on ").value_or(""))));
  for (int frames = 0; frames < 100; ++frames) ASSERT_TRUE(Receive(host)) << frames;  // 1.6 MB
}

TEST(SimProgram, ANewUserOfThePtyFindsNothingOld) {
  Process sim(Sim({"-n", "2", "pty:", "--cycle-ms", "1"}));
  const velta::tools::Link link = velta::tools::ParseLink(sim.ReadAfter("listening on ").value_or(""));
  std::uint64_t newest = 0;
  {
    MasterControllerClient host(2);
    ASSERT_TRUE(velta::tools::OpenLink(host, link));
    ASSERT_TRUE(Receive(host));
    newest = host.GetLastRecvPacket().header.timestamp;
    std::this_thread::sleep_for(milliseconds(100));  // frames that nobody reads
  }
  std::this_thread::sleep_for(milliseconds(100));  // nothing tells that the device is seen to be free
  MasterControllerClient host(2);
  ASSERT_TRUE(velta::tools::OpenLink(host, link));
  ASSERT_TRUE(Receive(host));
  EXPECT_GT(host.GetCurStatePacket().front().header.timestamp, newest + 100'000);  // us
}

TEST(SimProgram, JsonIsOneDocumentALine) {
  Process sim(Sim({"-n", "2", "tcp://127.0.0.1:0", "--json", "--fault", "drop-command=0", "--fault", "corrupt"}));
  const auto line = sim.ReadLine();
  ASSERT_TRUE(line);
  const json listening = json::parse(*line);
  EXPECT_EQ(listening.at("event"), "listening");
  EXPECT_EQ(RunProgram(Sim({"-n", "2", "--timeout-ms", "100", "--check", listening.at("link")})).status, 1);
  sim.Signal(SIGTERM);
  EXPECT_EQ(sim.Wait(), 0);
  const json summary = json::parse(sim.Output());
  EXPECT_EQ(summary.at("event"), "summary");
  EXPECT_GE(summary.at("commands"), 1);
  EXPECT_EQ(summary.at("executed"), summary.at("commands"));
  EXPECT_EQ(summary.at("faults").size(), 2u);
  EXPECT_EQ(summary.at("faults").at("drop-command"), 0);
  EXPECT_EQ(summary.at("faults").at("corrupt"), summary.at("status_frames"));
}

// The frames of one joint, by hand: an idle command with stamp 0x0102030405060708, and what its answer begins with.
TEST(SimProgram, OnCommandAnswersEachCommandOnce) {
  const std::vector<char> command = {'\xAB', '\xCD', 8, 7, 6, 5, 4, 3, 2, 1, 0, 0, 0, 0,      0,     0,
                                     0,      0,      0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, '\x14', '\x3E'};
  Process sim(Sim({"-n", "1", "tcp://127.0.0.1:0", "--on-command", "--cycle-ms", "1"}));
  const velta::tools::Link link = velta::tools::ParseLink(sim.ReadAfter("listening on ").value_or(""));
  TcpClient host(link.host, link.port);
  ASSERT_TRUE(host.Init());
  for (std::size_t answers = 1; answers <= 3; ++answers) {
    ASSERT_EQ(host.Write(command), 31);
    std::vector<char> answer;
    std::vector<char> bytes;
    const auto deadline = Clock::now() + Process::kPatience;
    while (answer.size() < 103 && Clock::now() < deadline) {
      if (host.Read(bytes) > 0) answer.insert(answer.end(), bytes.begin(), bytes.end());
    }
    ASSERT_EQ(answer.size(), 103u);
    EXPECT_EQ(std::string(answer.begin(), answer.begin() + 2), "\xAB\xCD");
    EXPECT_EQ(std::string(answer.begin() + 10, answer.begin() + 18), "\x08\x07\x06\x05\x04\x03\x02\x01");
  }
  sim.Signal(SIGTERM);
  EXPECT_EQ(sim.Wait(), 0);
  EXPECT_NE(sim.Output().find("status_frames   3\n"), std::string::npos) << sim.Output();
}

TEST(SimProgram, EndsWithin100MsOfASignal) {
  auto fastest = milliseconds::max();  // of a few: the machine may be busy
  for (int i = 0; i < 5 && fastest >= milliseconds(100); ++i) {
    Process sim(Sim({"-n", "6", "tcp://127.0.0.1:0", "--cycle-ms", "60000"}));
    ASSERT_TRUE(sim.ReadLine());
    const auto start = Clock::now();
    sim.Signal(i % 2 == 0 ? SIGINT : SIGTERM);
    EXPECT_EQ(sim.Wait(), 0);
    fastest = std::min(fastest, std::chrono::duration_cast<milliseconds>(Clock::now() - start));
  }
  EXPECT_LT(fastest, milliseconds(100));
}

TEST(SimProgram, BadUsageIsOneLine) {
  const std::vector<std::string> cases[] = {
      {},
      {"-n", "2"},
      {"tcp://127.0.0.1:0"},
      {"-n", "0", "tcp://127.0.0.1:0"},
      {"-n", "829", "tcp://127.0.0.1:0"},
      {"-n", "2", "tcp://127.0.0.1"},
      {"-n", "2", "serial:///dev/ttyS0"},
      {"-n", "2", "tcp://127.0.0.1:0", "--cycle-ms", "0"},
      {"-n", "2", "tcp://127.0.0.1:0", "--fault", "corrupt=2"},
      {"-n", "2", "tcp://127.0.0.1:0", "--fault"},
      {"-n", "2", "tcp://127.0.0.1:0", "--seed", "x"},
      {"-n", "2", "tcp://127.0.0.1:0", "--check", "tcp://127.0.0.1:1"},
      {"-n", "2", "--check", "pty:"},
  };
  for (const std::vector<std::string>& arguments : cases) ExpectOneLine(RunProgram(Sim(arguments)), 2, "");
}

TEST(SimProgram, WhatItCannotDoIsOneLine) {
  const Folder folder;
  const std::string script = folder.File("faults.jsonl");
  std::ofstream(script) << "{\"at_ms\": 1, \"fault\": \"corrupt\"}\n{\"at_ms\": 1, \"fault\": \"corrput\"}\n";
  const std::string file = folder.File("file");
  std::ofstream(file) << "precious";
  const std::string other_link = folder.File("link");
  std::filesystem::create_symlink(file, other_link);
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--script", script}, "faults.jsonl:2: there is no fault 'corrput'"},
      {{"--script", folder.File("missing")}, "No such file"},
      {{"--script", folder.File("")}, "cannot read"},
      {{"pty:" + file}, "does not lead to a pty"},
      {{"pty:" + other_link}, "does not lead to a pty"},
      {{"pty:" + folder.File("no/such")}, "No such file"},
      {{"tcp://192.0.2.1:0"}, "cannot listen on tcp://192.0.2.1:0"},
  };
  for (auto [arguments, part] : cases) {
    arguments.insert(arguments.begin(), {"-n", "2", "udp://127.0.0.1:0"});
    ExpectOneLine(RunProgram(Sim(arguments)), 1, part);
  }
  ExpectOneLine(RunProgram({"sh", "-c", VELTA_PROGRAM " sim -n 2 tcp://127.0.0.1:0 >/dev/full"}), 1,
                "cannot write to standard output");
  std::string text;
  std::ifstream(file) >> text;
  EXPECT_EQ(text, "precious");
}

TEST(SimProgram, HelpNamesEveryFaultAndGivesAnExample) {
  const RunResult help = RunProgram(Sim({"--help"}));
  EXPECT_EQ(help.status, 0);
  for (const char* part : {"--joints", "--script", "wrong-joints", "velta sim -n 6 tcp://127.0.0.1:43210"}) {
    EXPECT_NE(help.out.find(part), std::string::npos) << part;
  }
}

}  // namespace
