// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/velta_program.h"

using namespace velta::test;
using nlohmann::json;
using velta::tools::ParseLink;

namespace {

using SimProgram = InFolder;

/// The time stamp of the next status frame of 2 joints.
std::optional<std::uint64_t> NextStamp(Peer& host) {
  const std::vector<char> frame = host.Read(182);
  if (frame.size() != 182 || frame[0] != '\xAB' || frame[1] != '\xCD') return std::nullopt;
  return ReadU64(frame, 2);
}

TEST_F(SimProgram, ListensOnEveryEndpointAndAnswersTheCheckThere) {
  const std::string prefixes[] = {"tcp://127.0.0.1:", "udp://127.0.0.1:", "serial://" + Path("arm"),
                                  "serial:///dev/pts/"};
  Process sim(Argv("sim -n 2 tcp://127.0.0.1:0 udp://127.0.0.1:0 pty:" + Path("arm") + " pty:"));
  for (const std::string& prefix : prefixes) {
    const auto link = sim.ReadAfter("listening on ");
    ASSERT_TRUE(link && Begins(*link, prefix)) << prefix;
    for (int host = 1; host <= 2; ++host) {  // the second one finds nothing of the first one's
      const auto check = Velta("sim -n 2 --check " + *link + " --timeout-ms 20000");
      EXPECT_EQ(check.status, 0) << check.err;
      EXPECT_TRUE(Has(check.out, " answers, after ")) << check.out;
    }
  }
  sim.Signal(SIGINT);
  EXPECT_EQ(sim.Wait(), 0);
  EXPECT_EQ(sim.Errors(), "");  // no progress in a pipe
  EXPECT_TRUE(Has(sim.Output(), "connections     ")) << sim.Output();
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(Path("arm"))));
}

TEST_F(SimProgram, CheckWaitsForAControllerThatComesLaterAndTellsHowFarItCame) {
  SimulatedArm late("tcp://127.0.0.1:0", "-n 1 --fault refuse=300");
  EXPECT_EQ(Velta("sim -n 1 --check " + late.link + " --timeout-ms 20000").status, 0);
  const char* const cases[][3] = {
      {"tcp://127.0.0.1:0", "-n 2 --fault no-echo", "none echoes a command"},
      {"tcp://127.0.0.1:0", "-n 3", "no status frame arrives"},
      {"tcp://127.0.0.1:0", "-n 2 --cycle-ms 60000", "no status frame arrives"},
      {"tcp://127.0.0.1:0", "-n 2 --fault refuse", "Connection refused"},
      {"pty:ARM", "-n 2 --fault refuse", "No such file or directory"},
  };
  for (const auto& [endpoint, options, complaint] : cases) {
    SimulatedArm arm(Begins(endpoint, "pty:") ? "pty:" + Path("arm") : endpoint, options);
    ExpectComplaint(Velta("sim -n 2 --timeout-ms 150 --check " + arm.link), 1, complaint, options);
  }
}

TEST_F(SimProgram, AnswersTheUdpPeerThatSentLastAlone) {
  SimulatedArm arm("udp://127.0.0.1:0", "-n 2");
  Peer first(ParseLink(arm.link)), second(ParseLink(arm.link));
  for (Peer* host : {&first, &second}) {
    host->Send(Command(2, 1));
    ASSERT_TRUE(NextStamp(*host));
  }
  while (first.Receive()) continue;  // what was on its way
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(NextStamp(second));
  EXPECT_FALSE(first.Receive());
}

TEST_F(SimProgram, ServesLargeArmsForLong) {
  SimulatedArm arm("tcp://127.0.0.1:0", "-n 200 --cycle-ms 2");
  Peer host(ParseLink(arm.link));
  for (int frames = 0; frames < 100; ++frames) {
    const std::vector<char> frame = host.Read(15824);
    ASSERT_TRUE(frame.size() == 15824 && frame[0] == '\xAB' && frame[1] == '\xCD') << frames;
  }
}

TEST_F(SimProgram, GivesANewUserOfThePtyNothingOld) {
  SimulatedArm arm("pty:", "-n 2 --cycle-ms 1");
  std::optional<std::uint64_t> newest;
  {
    Peer host(ParseLink(arm.link));
    ASSERT_TRUE(newest = NextStamp(host));
    std::this_thread::sleep_for(Milliseconds(100));  // frames that nobody reads
  }
  std::this_thread::sleep_for(Milliseconds(100));  // nothing tells that the device is seen to be free
  Peer host(ParseLink(arm.link));
  EXPECT_GT(NextStamp(host), *newest + 100'000);  // us
}

TEST_F(SimProgram, PrintsJsonOneDocumentALine) {
  Process sim(Argv("sim -n 2 tcp://127.0.0.1:0 --json --fault drop-command=0 --fault corrupt"));
  const json listening = json::parse(sim.ReadAfter("").value_or("{}"));
  EXPECT_EQ(listening.at("event"), "listening");
  EXPECT_EQ(Velta("sim -n 2 --timeout-ms 100 --check " + listening.at("link").get<std::string>()).status, 1);
  sim.Signal(SIGTERM);
  EXPECT_EQ(sim.Wait(), 0);
  const json summary = json::parse(sim.Output());
  EXPECT_EQ(summary.at("event"), "summary");
  EXPECT_GE(summary.at("commands"), 1);
  EXPECT_EQ(summary.at("executed"), summary.at("commands"));
  EXPECT_EQ(summary.at("faults"), (json{{"drop-command", 0}, {"corrupt", summary.at("status_frames")}}));
}

TEST_F(SimProgram, OnCommandAnswersEachCommandOnce) {
  SimulatedArm arm("tcp://127.0.0.1:0", "-n 1 --on-command --cycle-ms 1");
  Peer host(ParseLink(arm.link));
  for (std::uint64_t stamp = 0x0102030405060701; stamp <= 0x0102030405060703; ++stamp) {
    host.Send(Command(1, stamp));
    const std::vector<char> answer = host.Read(103);
    ASSERT_EQ(answer.size(), 103U);
    EXPECT_EQ(ReadU64(answer, 10), stamp);
  }
  arm.Signal(SIGTERM);
  EXPECT_EQ(arm.Wait(), 0);
  EXPECT_TRUE(Has(arm.Output(), "status_frames   3\n")) << arm.Output();
}

}  // namespace
