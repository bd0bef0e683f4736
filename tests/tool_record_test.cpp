// SPDX-License-Identifier: MIT
// The tools around recordings: record, convert, plot, play.
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <limits>
#include <nlohmann/json.hpp>

#include "MasterControllerClient.h"
#include "support/velta_program.h"

using namespace velta::test;
using nlohmann::json;
using velta::tools::ParseLink;

namespace {

class Tools : public InFolder {
 protected:
  /// The lines of a recording, as velta convert tells them.
  static std::vector<json> Documents(const std::string& path) {
    const auto result = Velta("convert --format jsonl " + path);
    EXPECT_EQ(result.status, 0) << result.err;
    std::vector<json> documents;
    for (const std::string& line : Lines(result.out)) documents.push_back(json::parse(line));
    return documents;
  }

  const std::string file = Path("run.vrec");
};
using Record = Tools;
using Convert = Tools;
using Plot = Tools;
using Play = Tools;

TEST_F(Record, ListensToAControllerAndAsksASilentOne) {
  for (const bool silent : {false, true}) {
    SimulatedArm arm("udp://127.0.0.1:0", silent ? "-n 3 --on-command" : "-n 3");
    const auto run = Velta("record -n 3 " + arm.link + " " + file + " --force --seconds 0.3 --poll-ms 5");
    ASSERT_EQ(run.status, 0) << run.err;
    int commands = 0, statuses = 0;
    for (const json& document : Documents(file)) {
      if (document["event"] == "status") ++statuses;
      if (document["event"] == "command") ++commands;
    }
    EXPECT_TRUE(Has(run.out, " s: " + std::to_string(statuses) + " status frames, ")) << run.out;
    EXPECT_GE(statuses, 5);
    EXPECT_GE(commands, silent ? 5 : 1);
  }
  // One that never answers is asked all the same, again and again, by what commands nothing, with a new time stamp.
  Peer controller(Peer::Kind::Tcp);
  const Process recorder(Argv("record -n 1 " + controller.Name() + " " + Path("silent.vrec") + " --poll-ms 5"));
  std::uint64_t last = 0;
  for (int i = 0; i < 3; ++i) {
    const std::vector<char> question = controller.Read(31);
    ASSERT_EQ(question.size(), 31U);
    EXPECT_EQ(question, Command(1, ReadU64(question, 2)));
    EXPECT_GT(ReadU64(question, 2), std::exchange(last, ReadU64(question, 2)));
  }
}

// The unmodified client works through the recorder as it works without it, and all of it is in the file.
TEST_F(Record, NotesWhatHostAndControllerTellEachOther) {
  constexpr const char* kRoutes[][2] = {{"tcp://127.0.0.1:0", "tcp://127.0.0.1:0"},
                                        {"udp://127.0.0.1:0", "udp://127.0.0.1:0"},
                                        {"pty:", "pty:"},
                                        {"pty:", "tcp://127.0.0.1:0"}};
  for (const auto& [controller, endpoint] : kRoutes) {
    SimulatedArm arm(controller);
    Process recorder(Argv("record -n 3 " + arm.link + " " + file + " --force --via " + endpoint));
    const auto via = recorder.ReadAfter("listening on ");
    ASSERT_TRUE(via);
    const std::vector<std::string> stamps = {"1000", "1001", "1002", "1003", "1004"};
    {
      MasterControllerClient client(3);
      ASSERT_TRUE(OpenLink(client, ParseLink(*via)));
      for (const std::string& stamp : stamps) {
        SendPacket command(3);
        command.SetServoOn("all");
        command.SetTimeStamp(std::stoull(stamp));
        client.SendOnce(command, true);
        ASSERT_TRUE(Until([&] {
          client.ReceiveStatus();
          return client.GetLastRecvPacket().header.hostTimestamp == command.GetTimeStamp();
        })) << endpoint;
      }
    }
    recorder.Signal(SIGINT);
    ASSERT_EQ(recorder.Wait(), 0) << recorder.Errors();
    EXPECT_TRUE(Has(recorder.Output(), " 5 commands, 1 connection,")) << recorder.Output();

    std::vector<std::string> sent, echoed = {"0"}, events;
    for (const json& document : Documents(file)) {
      events.push_back(document["event"]);
      if (events.back() == "command") {
        sent.push_back(document["command"]["timeStamp"]);
        EXPECT_EQ(document["command"]["jointCommand"].at(2)["jointOrder"], "162");
      } else if (events.back() == "status" && document["status"]["hostTimestamp"] != echoed.back()) {
        echoed.push_back(document["status"]["hostTimestamp"]);
      }
    }
    EXPECT_EQ(events.front() + " " + events.back(), "opened closed");
    EXPECT_EQ(sent, stamps);
    EXPECT_EQ(std::vector<std::string>(echoed.begin() + 1, echoed.end()), stamps);
  }
}

TEST_F(Record, KeepsWhatItHasWhenItIsKilledOrLeft) {
  SimulatedArm arm;
  Process killed(Argv("record -n 3 " + arm.link + " " + file));
  ASSERT_TRUE(Until([&] { return Content("run.vrec").size() > 20'000; }));
  killed.Signal(SIGKILL);
  ASSERT_EQ(killed.Wait(), 128 + SIGKILL);
  EXPECT_GE(Documents(file).size(), 20'000U / (261 + 22) - 1);

  Peer controller(Peer::Kind::Tcp);
  Process left(Argv("record -n 1 " + controller.Name() + " " + Path("left.vrec") + " --poll-ms 0"));
  ASSERT_TRUE(Until([&] { return controller.Accept(); }));
  ASSERT_EQ(controller.Send(StatusFrame(1, 7)), 103U);
  controller.Close();
  ASSERT_EQ(left.Wait(), 1);
  EXPECT_TRUE(Has(left.Output(), " 1 status frame, 0 commands, 1 connection,")) << left.Output();
  EXPECT_EQ(left.Errors(), "velta: " + controller.Name() + ": the other end closed the link\n");
  EXPECT_EQ(Documents(Path("left.vrec")).size(), 3U);
}

// Neither the host nor the controller may notice that the disk is full.
TEST_F(Record, RelaysOnWhenTheDiskIsFull) {
  Peer controller(Peer::Kind::Tcp);
  Process recorder({"/bin/sh", "-c",
                    "trap '' XFSZ; ulimit -f 1; exec \"$0\" record -n 1 " + controller.Name() + " " + file +
                        " --via tcp://127.0.0.1:0",
                    VELTA_PROGRAM});
  const auto via = recorder.ReadAfter("listening on ");
  ASSERT_TRUE(via);
  Peer host(ParseLink(*via));
  std::size_t passed = 0;
  ASSERT_TRUE(Until([&] {
    host.Send(std::vector<char>(500, 'x'));
    if (const auto bytes = controller.Receive()) passed += bytes->size();
    return passed > 50'000;
  }));
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 1);
  EXPECT_EQ(recorder.Errors(), "velta: " + file + ": File too large; the recording ends here\n");
  EXPECT_LE(Content("run.vrec").size(), 1024U);
  EXPECT_EQ(Velta("convert " + file).err, "");
}

std::vector<char> GoldenStatus() {
  Bytes frame;
  frame.U8(0xAB).U8(0xCD).U64(7).U64(9).F32(0.5f);
  frame.U8(1).U8(2).U8(3).U8(20).U32(0x80000001).U8(5).U16(300);
  for (const float value : {0.1f, -2.5f, 1e-7f, 3.f, 4.f, 5.f, 6.25f, 7.f, 8.f, 9.f, 10.f, 11.f, 36.6f, 12.f, 13.f,
                            std::nanf(""), -std::numeric_limits<float>::infinity()}) {
    frame.F32(value);
  }
  return frame.Crc();
}

TEST_F(Convert, WritesARowPerStatusOrALinePerFrameAndEvent) {
  Put("run.vrec", Tape(1)
                      .Record(Tape::kOpened, 0)
                      .Record(Tape::kCommand, 1, Command(1, 4, 17, {0.1f}))
                      .Record(Tape::kCommand, 2, Command(1, 5, 0, {1.5f}, 0xB0))  // of the arm: a value and no order
                      .Record(Tape::kStatus, 2.5, GoldenStatus())
                      .Record(Tape::kClosed, 4));
  EXPECT_EQ(Velta("convert " + file).out,
            "time_s,wall_ns,timestamp,hostTimestamp,duration,j0_type,j0_comStatus,j0_systemMode,j0_ctrlMode,"
            "j0_ewStatus,j0_trjStatus,j0_trjViaRemain,j0_refCurrent,j0_refPosition,j0_refVelocity,j0_refAcceleration,"
            "j0_refEffort,j0_current,j0_position,j0_velocity,j0_outConvInVelocity,j0_acceleration,"
            "j0_outConvInAcceleration,j0_effort,j0_temperature,j0_general_0,j0_general_1,j0_general_2,j0_general_3\n"
            "0.002500000,1002500000,7,9,0.5,1,2,3,20,2147483649,5,300,0.1,-2.5,1e-07,3,4,5,6.25,7,8,9,10,11,36.6,12,"
            "13,nan,-inf\n");
  const auto run = Velta("convert -f jsonl " + file + " -o " + Path("run.jsonl"));
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "");
  const auto lines = Lines(Content("run.jsonl"));
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(lines[0], R"({"time_s":0.000000000,"wall_ns":"1000000000","event":"opened"})");
  EXPECT_EQ(lines[1],
            R"({"time_s":0.001000000,"wall_ns":"1001000000","event":"command","command":{"timeStamp":"4",)"
            R"("armOrder":"0","jointCommand":[{"jointName":"1","jointOrder":"17","value1":"0.1","value2":"0",)"
            R"("value3":"0","value4":"0"}]}})");
  EXPECT_EQ(lines[2],
            R"({"time_s":0.002000000,"wall_ns":"1002000000","event":"command","command":{"timeStamp":"5",)"
            R"("armOrder":"176","jointCommand":[{"jointName":"1","jointOrder":"0","value1":"1.5","value2":"0",)"
            R"("value3":"0","value4":"0"}]}})");
  EXPECT_EQ(json::parse(lines[3])["status"]["jointState"].at(0)["position"], "6.250000");
  EXPECT_EQ(lines[4], R"({"time_s":0.004000000,"wall_ns":"1004000000","event":"closed"})");
  EXPECT_EQ(Files(), (std::vector<std::string>{"run.jsonl", "run.vrec"}));
}

/// Ten statuses, 10 ms apart, time stamps 0 to 9.
Tape TenStatuses() {
  Tape tape(1);
  for (unsigned i = 0; i < 10; ++i) tape.Record(Tape::kStatus, 10.0 * i, StatusFrame(1, i));
  return tape;
}

TEST_F(Convert, CutsExcerptsOfWholeFrames) {
  const std::vector<char> frame = StatusFrame(1, 4), begun = Part(frame, 0, 50), rest = Part(frame, 50, 103);
  const struct {
    std::vector<char> tape;
    const char *options, *stamps;
  } cases[] = {
      {TenStatuses(), "", "0123456789"},
      {TenStatuses(), " --from 0.03", "3456789"},
      {TenStatuses(), " --to 0.03", "0123"},
      {TenStatuses(), " --from 0.025 --to 0.055", "345"},
      {TenStatuses(), " --from 1", ""},
      // A frame that a chunk before the excerpt began is complete, and has the time of its end.
      {Tape(1).Record(Tape::kStatus, 0, begun).Record(Tape::kStatus, 10, rest), " --from 0.005", "4"},
      // A connection that was cut in a frame does not cost the next one's first frame.
      {Tape(1).Record(Tape::kStatus, 1, begun).Record(Tape::kOpened, 3).Record(Tape::kStatus, 4, frame), "", "4"},
      // What was recorded with a wrong joint count is read with the right one.
      {Tape(4).Record(Tape::kStatus, 0, frame), "", ""},
      {Tape(4).Record(Tape::kStatus, 0, frame), " -n 1", "4"},
  };
  for (const auto& c : cases) {
    std::string stamps;
    const std::vector<std::string> lines = Lines(Velta("convert " + Put("run.vrec", c.tape) + c.options).out);
    for (std::size_t i = 1; i < lines.size(); ++i) stamps += Split(lines[i], ',').at(2);
    EXPECT_EQ(stamps, c.stamps) << c.options;
  }
}

TEST_F(Convert, LeavesNothingHalfDoneOfADamagedRecording) {
  std::vector<char> bytes = TenStatuses();
  const auto cut = Velta("convert " + Put("cut.vrec", Part(bytes, 0, bytes.size() - 1)));
  EXPECT_EQ(cut.status, 0);
  EXPECT_EQ(Lines(cut.out).size(), 10U);
  EXPECT_TRUE(Has(cut.err, ": the recording was cut short; 124 bytes of its last record are missing the rest"));

  bytes[500] = static_cast<char>(bytes[500] ^ 1);
  Put("run.vrec", bytes);
  for (const char* name : {"kept.csv", "kept.png"}) Put(name, std::string("k"));
  const auto before = Files();
  for (const char* arguments : {"convert F -o kept.csv", "plot F -o kept.png", "convert F -o new"}) {
    const auto words = Split(arguments, ' ');
    ExpectComplaint(Velta(words[0] + " " + file + " -o " + Path(words[3])), 1,
                    file + ": damaged at byte 391, behind 3 good records: its checksum is wrong", arguments);
  }
  EXPECT_EQ(Files(), before);
  EXPECT_EQ(Content("kept.csv") + Content("kept.png"), "kk");
}

TEST_F(Plot, DrawsAPicture) {
  const std::string tape = Put("it's run.vrec", Tape(1)
                                                    .Record(Tape::kOpened, 0)
                                                    .Record(Tape::kCommand, 1, Command(1, 1, 162))
                                                    .Record(Tape::kStatus, 2, StatusFrame(1, 1))
                                                    .Record(Tape::kCommand, 3, Command(1, 2, 255, {std::nanf("")}))
                                                    .Record(Tape::kStatus, 4, GoldenStatus())
                                                    .Record(Tape::kClosed, 5));
  const auto missing = RunProgram({"/usr/bin/env", "PATH=/nowhere", VELTA_PROGRAM, "plot", tape});
  ExpectComplaint(missing, 1, "gnuplot is not installed; its Debian package is gnuplot-nox", "plot");
  EXPECT_EQ(Files(), std::vector<std::string>{"it's run.vrec"});

  const auto png = RunProgram({VELTA_PROGRAM, "plot", tape});
  EXPECT_EQ(png.status, 0) << png.err;
  EXPECT_EQ(png.out, "plotted 0.005 s of 1 joint to " + Path("it's run.png") + "\n");
  EXPECT_EQ(Content("it's run.png").substr(0, 8), "\x89PNG\r\n\x1a\n");
  RunProgram({VELTA_PROGRAM, "plot", tape, "-o", Path("run.svg"), "--fields", "position,general_2"});
  for (const char* text : {"</svg>", "position", "general_2", "joint 0", "servo-on", "FAULT", "0x80000001", "opened"}) {
    EXPECT_TRUE(Has(Content("run.svg"), text)) << text;
  }
  EXPECT_TRUE(Has(Content("run.svg"), "it's run") || Has(Content("run.svg"), "it&#39;s run"));
  EXPECT_EQ(Files(), (std::vector<std::string>{"it's run.png", "it's run.vrec", "run.svg"}));

  // One frame, and one without a single finite number, are pictures too.
  for (const std::string fields : {"position", "general_2"}) {
    Put("run.vrec", Tape(1).Record(Tape::kStatus, 0, GoldenStatus()));
    EXPECT_EQ(Velta("plot " + file + " --fields " + fields + " -o " + Path("one.svg")).status, 0) << fields;
    EXPECT_TRUE(Has(Content("one.svg"), fields)) << fields;
  }
}

TEST_F(Play, SendsTheCommandsAgainWithTheirTiming) {
  Tape tape(2);
  std::vector<std::vector<char>> commands;
  for (unsigned i = 0; i < 4; ++i) {
    commands.push_back(Command(2, 100 + i, 17, {static_cast<float>(i)}));
    tape.Record(Tape::kCommand, 1000 + 60.0 * i, commands.back());
    tape.Record(Tape::kCommand, 1010 + 60.0 * i, {'j', 'u', 'n', 'k'});  // of no good frame: never sent
  }
  Put("run.vrec", tape);
  const struct {
    const char* options;
    std::vector<std::size_t> sent;
    int least_ms;
  } cases[] = {{"", {0, 1, 2, 3}, 180},
               {" --speed 0.5", {0, 1, 2, 3}, 360},
               {" --from 0.06 --to 0.121", {1, 2}, 60},
               {" --speed 100 --loop", {0, 1, 2, 3, 0, 1, 2, 3, 0}, 4}};
  for (const auto& c : cases) {
    Peer controller(Peer::Kind::Tcp);
    const auto start = Clock::now();
    Process player(Argv("play " + file + " " + controller.Name() + c.options));
    for (const std::size_t i : c.sent) EXPECT_EQ(controller.Read(49), commands[i]) << c.options << i;
    EXPECT_GE(Clock::now() - start, Milliseconds(c.least_ms)) << c.options;
    EXPECT_LE(Clock::now() - start, Milliseconds(c.least_ms + 3000)) << c.options;
    if (Has(c.options, "--loop")) continue;
    controller.Send(StatusFrame(2, 1, 100 + c.sent.back()));  // the last command's echo
    ASSERT_EQ(player.Wait(), 0) << player.Errors();
    EXPECT_EQ(player.Output(), "sent " + std::to_string(c.sent.size()) +
                                   " commands, 1 echoed before the next, 1 status frame received\n");
  }
}

// The host is told the recorded frames bit by bit; one that leaves early does not cost the next one any.
TEST_F(Play, IsTheControllerForAHost) {
  Put("run.vrec", TenStatuses());
  for (const char* endpoint : {"tcp://127.0.0.1:0", "udp://127.0.0.1:0", "pty:"}) {
    Process player(Argv("play " + file + " --serve " + endpoint));
    const auto address = player.ReadAfter("listening on ");
    ASSERT_TRUE(address);
    // A datagram host cannot leave, and one on a pty that is followed at once by another has not left for the program.
    const bool has_early_host = Begins(endpoint, "tcp");
    if (has_early_host) {
      ASSERT_EQ(Peer(ParseLink(*address)).Read(1).size(), 1U);
    }
    Peer host(ParseLink(*address));
    if (Begins(endpoint, "udp")) host.Send(Command(1, 1));
    for (unsigned i = 0; i < 10; ++i) EXPECT_EQ(host.Read(103), StatusFrame(1, i)) << endpoint << i;
    host.Close();
    EXPECT_EQ(player.Wait(), 0) << player.Errors();
    EXPECT_TRUE(Begins(player.Output(), has_early_host ? "served 2 hosts: " : "served 1 host: ")) << player.Output();
  }
}

}  // namespace
