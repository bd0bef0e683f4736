// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "MasterControllerClient.h"
#include "link.h"
#include "support/bytes.h"
#include "support/peer.h"
#include "support/process.h"
#include "support/simulated_arm.h"

using nlohmann::json;
using velta::test::Bytes;
using velta::test::Peer;
using velta::test::Process;
using velta::test::RunProgram;
using velta::test::SimulatedArm;
using velta::tools::Link;
using velta::tools::ParseLink;

namespace {

using Text = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

/// A recording put together by hand.
class Tape {
 public:
  explicit Tape(int joints) {
    Bytes head;
    head.U8(0x89).U8('V').U8('R').U8('E').U8('C').U8('\r').U8('\n').U8(0x1A).U16(1);
    head.U16(static_cast<unsigned>(joints)).U16(0);
    all_.Add(head.Crc());
  }
  Tape& Record(unsigned event, double ms, const std::vector<char>& bytes = {}) {
    const auto ns = static_cast<std::uint64_t>(ms * 1e6);
    Bytes record;
    record.U8('R').U8(event).U16(static_cast<unsigned>(bytes.size())).U64(5'000'000'000 + ns).U64(1'000'000'000 + ns);
    all_.Add(record.Add(bytes).Crc());
    return *this;
  }
  const std::vector<char>& Content() const { return all_; }

 private:
  Bytes all_;
};

std::vector<char> Command(int joints, std::uint64_t stamp, unsigned order = 0, float value = 0) {
  Bytes frame;
  frame.U8(0xAB).U8(0xCD).U64(stamp).U8(0);
  for (int i = 0; i < joints; ++i) {
    frame.U8(static_cast<unsigned>(i)).U8(i == 0 ? order : 0).F32(i == 0 ? value : 0).Fill(12, 0);
  }
  return frame.Crc();
}

std::vector<std::string> Lines(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::size_t Commas(const std::string& line) {
  return static_cast<std::size_t>(std::count(line.begin(), line.end(), ','));
}

class Tools : public testing::Test {
 protected:
  Tools() : folder_(testing::TempDir() + "velta_record_" + std::to_string(getpid())) {
    std::filesystem::create_directory(folder_);
  }
  ~Tools() override { std::filesystem::remove_all(folder_); }

  std::string Path(const std::string& name) const { return folder_ + "/" + name; }
  std::string Put(const std::string& name, const std::vector<char>& content) const {
    std::ofstream(Path(name), std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
    return Path(name);
  }
  std::string Content(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  Text Files() const {
    Text names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  static velta::test::RunResult Velta(Text arguments) {
    arguments.insert(arguments.begin(), VELTA_PROGRAM);
    return RunProgram(arguments);
  }
  static Text Argv(Text arguments) {
    arguments.insert(arguments.begin(), VELTA_PROGRAM);
    return arguments;
  }
  /// The frames of a recording, as velta convert tells them.
  std::vector<json> Documents(const std::string& path) const {
    const auto result = Velta({"convert", "--format", "jsonl", path});
    EXPECT_EQ(result.status, 0) << result.err;
    std::vector<json> documents;
    for (const std::string& line : Lines(result.out)) documents.push_back(json::parse(line));
    return documents;
  }
  static bool Until(const std::function<bool()>& done) {
    const auto deadline = Clock::now() + Process::kPatience;
    while (!done()) {
      if (Clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
  }

  const std::string folder_;
};

TEST_F(Tools, RecordListensToAControllerAndConvertTellsWhatItSaid) {
  SimulatedArm arm;
  const std::string file = Path("run.vrec");
  const auto recorded = Velta({"record", "-n", "3", arm.Link(), file, "--seconds", "0.3"});
  ASSERT_EQ(recorded.status, 0) << recorded.err;
  int count = 0;
  double seconds = 0;
  ASSERT_EQ(std::sscanf(recorded.out.c_str(), "recorded %lf s: %d status frames, 0 commands, 1 connection,", &seconds,
                        &count),
            2)
      << recorded.out;
  EXPECT_GE(count, 10);

  const auto converted = Velta({"convert", file});
  ASSERT_EQ(converted.status, 0) << converted.err;
  const auto lines = Lines(converted.out);
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(count) + 1);
  double before = 0;
  for (const std::string& line : lines) {
    EXPECT_EQ(Commas(line), 4u + 3 * 24);
    if (&line == &lines[0]) continue;
    const double time = std::stod(line);
    EXPECT_GE(time, before);
    before = time;
  }
  EXPECT_LE(before, 10);
}

// A silent controller is asked with commands that command nothing, and these are recorded too.
TEST_F(Tools, RecordAsksASilentController) {
  SimulatedArm arm("udp://127.0.0.1:0", {"--on-command"});
  const std::string file = Path("run.vrec");
  ASSERT_EQ(Velta({"record", "-n", "3", arm.Link(), file, "--seconds", "0.3", "--poll-ms", "5"}).status, 0);
  int commands = 0, statuses = 0;
  for (const json& document : Documents(file)) {
    if (document["event"] == "status") ++statuses;
    if (document["event"] != "command") continue;
    ++commands;
    EXPECT_TRUE(document["command"]["jointCommand"].empty());
  }
  EXPECT_GE(commands, 5);
  EXPECT_GE(statuses, 5);

  // One that never answers is asked all the same, again and again, with the same command and a new time stamp.
  Peer silent(Link::Kind::Tcp);
  Process recorder(Argv({"record", "-n", "1", ToString(silent.link), Path("silent.vrec"), "--poll-ms", "5"}));
  std::vector<char> asked;
  ASSERT_TRUE(Until([&] {
    if (const auto bytes = silent.Receive()) asked.insert(asked.end(), bytes->begin(), bytes->end());
    return asked.size() >= 3 * 31;
  }));
  for (std::size_t i = 0; i < 3; ++i) {
    const std::vector<char> question(asked.begin() + static_cast<std::ptrdiff_t>(31 * i),
                                     asked.begin() + static_cast<std::ptrdiff_t>(31 * (i + 1)));
    EXPECT_EQ(question, Command(1, velta::test::ReadU64(question, 2)));
  }
  recorder.Signal(SIGINT);
  EXPECT_EQ(recorder.Wait(), 0);
}

struct Via {
  const char* name;
  const char* controller;
  const char* endpoint;
};

class Between : public Tools, public testing::WithParamInterface<Via> {};

// The unmodified client works through the recorder as it works without it, and all of it is in the file.
TEST_P(Between, RecordNotesWhatHostAndControllerTellEachOther) {
  SimulatedArm arm(GetParam().controller);
  const std::string file = Path("run.vrec");
  Process recorder(Argv({"record", "-n", "3", arm.Link(), file, "--via", GetParam().endpoint}));
  const auto via = recorder.ReadAfter("listening on ");
  ASSERT_TRUE(via);
  std::vector<std::uint64_t> stamps;
  {
    MasterControllerClient client(3);
    ASSERT_TRUE(OpenLink(client, ParseLink(*via)));
    for (int i = 0; i < 5; ++i) {
      SendPacket command(3);
      command.SetServoOn("all");
      command.SetTimeStamp(1000 + static_cast<unsigned>(i));
      stamps.push_back(command.GetTimeStamp());
      client.PushSendQueue(command, false);
      client.SendPacketInBuffer();
      ASSERT_TRUE(Until([&] {
        client.ReceiveStatus();
        return client.GetLastRecvPacket().header.hostTimestamp == stamps.back();
      }));
    }
  }
  recorder.Signal(std::string(GetParam().name) == "Tcp" ? SIGINT : SIGTERM);
  ASSERT_EQ(recorder.Wait(), 0) << recorder.Errors();
  EXPECT_EQ(recorder.Output().find("recorded "), 0u) << recorder.Output();
  EXPECT_NE(recorder.Output().find(" 5 commands, 1 connection,"), std::string::npos) << recorder.Output();
  EXPECT_EQ(recorder.Errors(), "");

  const auto documents = Documents(file);
  ASSERT_FALSE(documents.empty());
  EXPECT_EQ(documents.front()["event"], "opened");
  EXPECT_EQ(documents.back()["event"], "closed");
  std::vector<std::uint64_t> sent, echoed;
  for (const json& document : documents) {
    if (document["event"] == "command") {
      sent.push_back(std::stoull(document["command"]["timeStamp"].get<std::string>()));
      ASSERT_EQ(document["command"]["jointCommand"].size(), 3u);
      EXPECT_EQ(document["command"]["jointCommand"][2]["jointOrder"], "162");
    } else if (document["event"] == "status") {
      const auto echo = std::stoull(document["status"]["hostTimestamp"].get<std::string>());
      if (echo != 0 && (echoed.empty() || echoed.back() != echo)) echoed.push_back(echo);
    }
  }
  EXPECT_EQ(sent, stamps);
  EXPECT_EQ(echoed, stamps);
}

INSTANTIATE_TEST_SUITE_P(Record, Between,
                         testing::Values(Via{"Tcp", "tcp://127.0.0.1:0", "tcp://127.0.0.1:0"},
                                         Via{"Udp", "udp://127.0.0.1:0", "udp://127.0.0.1:0"},
                                         Via{"Pty", "pty:", "pty:"}, Via{"TcpToPty", "pty:", "tcp://127.0.0.1:0"}),
                         [](const auto& row) { return row.param.name; });

TEST_F(Tools, RecordingOutlivesAKilledRecorder) {
  SimulatedArm arm;
  const std::string file = Path("run.vrec");
  Process recorder(Argv({"record", "-n", "3", arm.Link(), file}));
  ASSERT_TRUE(Until([&] { return Content("run.vrec").size() > 20'000; }));
  recorder.Signal(SIGKILL);
  ASSERT_EQ(recorder.Wait(), 128 + SIGKILL);
  const auto documents = Documents(file);
  EXPECT_GE(documents.size(), 20'000u / (261 + 22) - 1);
}

TEST_F(Tools, RecordTellsThatTheControllerLeftAndKeepsWhatItSaid) {
  Peer controller(Link::Kind::Tcp);
  Process recorder(Argv({"record", "-n", "1", ToString(controller.link), Path("run.vrec"), "--poll-ms", "0"}));
  ASSERT_TRUE(Until([&] { return controller.Accept(); }));
  ASSERT_EQ(controller.Send(velta::test::StatusFrame(1, 7)), 103u);
  controller.Close();
  ASSERT_EQ(recorder.Wait(), 1);
  EXPECT_NE(recorder.Output().find(" 1 status frame, 0 commands, 1 connection,"), std::string::npos);
  EXPECT_EQ(recorder.Errors(), "velta: " + ToString(controller.link) + ": the other end closed the link\n");
  EXPECT_EQ(Documents(Path("run.vrec")).size(), 3u);
}

// Neither the host nor the controller may notice that the disk is full.
TEST_F(Tools, RelayGoesOnWhenTheDiskIsFull) {
  Peer controller(Link::Kind::Tcp);
  const std::string file = Path("run.vrec");
  Process recorder({"/bin/sh", "-c",
                    "trap '' XFSZ; ulimit -f 1; exec \"$0\" record -n 1 " + ToString(controller.link) + " " + file +
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
  EXPECT_LE(Content("run.vrec").size(), 1024u);
  EXPECT_EQ(Velta({"convert", file}).err, "");
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

TEST_F(Tools, ConvertWritesARowPerStatus) {
  const std::string file =
      Put("run.vrec", Tape(1).Record(2, 0).Record(0, 1, Command(1, 9)).Record(1, 2.5, GoldenStatus()).Content());
  const auto result = Velta({"convert", file});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "time_s,wall_ns,timestamp,hostTimestamp,duration,j0_type,j0_comStatus,j0_systemMode,j0_ctrlMode,"
            "j0_ewStatus,j0_trjStatus,j0_trjViaRemain,j0_refCurrent,j0_refPosition,j0_refVelocity,j0_refAcceleration,"
            "j0_refEffort,j0_current,j0_position,j0_velocity,j0_outConvInVelocity,j0_acceleration,"
            "j0_outConvInAcceleration,j0_effort,j0_temperature,j0_general_0,j0_general_1,j0_general_2,j0_general_3\n"
            "0.002500000,1002500000,7,9,0.5,1,2,3,20,2147483649,5,300,0.1,-2.5,1e-07,3,4,5,6.25,7,8,9,10,11,36.6,12,"
            "13,nan,-inf\n");
}

TEST_F(Tools, ConvertWritesALinePerFrameAndEvent) {
  std::vector<char> arm_command = Command(2, 5, 0, 1.5f);  // of the arm: joint 0 carries a value without an order
  arm_command[10] = static_cast<char>(0xB0);
  arm_command.resize(arm_command.size() - 2);
  const std::vector<char> frame = Bytes().Add(arm_command).Crc();
  const std::string file = Put("run.vrec", Tape(2)
                                               .Record(2, 0)
                                               .Record(0, 1, Command(2, 4, 17, 0.1f))
                                               .Record(0, 2, frame)
                                               .Record(1, 3, velta::test::StatusFrame(2, 8, 5))
                                               .Record(3, 4)
                                               .Content());
  const auto result = Velta({"convert", "-f", "jsonl", file, "-o", Path("run.jsonl")});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "");
  const auto lines = Lines(Content("run.jsonl"));
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], R"({"time_s":0.000000000,"wall_ns":"1000000000","event":"opened"})");
  EXPECT_EQ(
      lines[1],
      R"({"time_s":0.001000000,"wall_ns":"1001000000","event":"command","command":{"timeStamp":"4","armOrder":"0",)"
      R"("jointCommand":[{"jointName":"1","jointOrder":"17","value1":"0.1","value2":"0","value3":"0",)"
      R"("value4":"0"}]}})");
  EXPECT_EQ(lines[2],
            R"({"time_s":0.002000000,"wall_ns":"1002000000","event":"command","command":{"timeStamp":"5",)"
            R"("armOrder":"176","jointCommand":[{"jointName":"1","jointOrder":"0","value1":"1.5","value2":"0",)"
            R"("value3":"0","value4":"0"}]}})");
  const json status = json::parse(lines[3]);
  EXPECT_EQ(status["status"]["timestamp"], "8");
  EXPECT_EQ(status["status"]["jointState"].size(), 2u);
  EXPECT_EQ(lines[4], R"({"time_s":0.004000000,"wall_ns":"1004000000","event":"closed"})");
  EXPECT_EQ(Files(), (Text{"run.jsonl", "run.vrec"}));
}

/// Ten statuses, 10 ms apart, time stamps 0 to 9.
Tape TenStatuses() {
  Tape tape(1);
  for (unsigned i = 0; i < 10; ++i) tape.Record(1, 10.0 * i, velta::test::StatusFrame(1, i));
  return tape;
}

TEST_F(Tools, ExcerptsBeginAndEndWithWholeFrames) {
  const std::string file = Put("run.vrec", TenStatuses().Content());
  const auto stamps = [&](Text options) {
    options.insert(options.begin(), {"convert", file});
    std::string all;
    for (const std::string& line : Lines(Velta(options).out)) {
      if (line[0] != 't') all += line[line.find(',', line.find(',') + 1) + 1];
    }
    return all;
  };
  EXPECT_EQ(stamps({}), "0123456789");
  EXPECT_EQ(stamps({"--from", "0.03"}), "3456789");
  EXPECT_EQ(stamps({"--to", "0.03"}), "0123");
  EXPECT_EQ(stamps({"--from", "0.025", "--to", "0.055"}), "345");
  EXPECT_EQ(stamps({"--from", "1"}), "");

  // A frame that a chunk before the excerpt began is complete, and has the time of its end.
  const std::vector<char> frame = velta::test::StatusFrame(1, 4);
  Tape split(1);
  split.Record(1, 0, {frame.begin(), frame.begin() + 50}).Record(1, 10, {frame.begin() + 50, frame.end()});
  EXPECT_EQ(Lines(Velta({"convert", Put("split.vrec", split.Content()), "--from", "0.005"}).out).size(), 2u);

  // A connection that was cut in a frame does not cost the next one's first frame.
  Tape reopened(1);
  reopened.Record(2, 0).Record(1, 1, {frame.begin(), frame.begin() + 50}).Record(3, 2).Record(2, 3).Record(1, 4, frame);
  EXPECT_EQ(Lines(Velta({"convert", Put("reopened.vrec", reopened.Content())}).out).size(), 2u);
}

TEST_F(Tools, RecordingWithAWrongJointCountIsReadWithTheRightOne) {
  Tape tape(4);
  tape.Record(1, 0, velta::test::StatusFrame(1, 1));
  const std::string file = Put("run.vrec", tape.Content());
  EXPECT_EQ(Lines(Velta({"convert", file}).out).size(), 1u);
  EXPECT_EQ(Lines(Velta({"convert", file, "-n", "1"}).out).size(), 2u);
}

TEST_F(Tools, DamagedRecordingsLeaveNothingHalfDone) {
  const std::vector<char> good = TenStatuses().Content();
  const std::string cut = Put("cut.vrec", {good.begin(), good.end() - 1});
  const auto rest = Velta({"convert", cut});
  EXPECT_EQ(rest.status, 0);
  EXPECT_EQ(Lines(rest.out).size(), 10u);
  EXPECT_EQ(rest.err, "velta: " + cut +
                          ": the recording was cut short; 124 bytes of its last record are missing the rest and were "
                          "left out\n");

  std::vector<char> bad = good;
  bad[500] = static_cast<char>(bad[500] ^ 1);
  const std::string damaged = Put("damaged.vrec", bad);
  Put("kept.csv", {'k'});
  Put("kept.png", {'k'});
  const Text before = Files();
  for (const Text& arguments :
       {Text{"convert", damaged, "-o", Path("kept.csv")}, Text{"plot", damaged, "-o", Path("kept.png")},
        Text{"convert", damaged, "-o", Path("new")}}) {
    const auto result = Velta(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "velta: " + damaged + ": damaged at byte 391, behind 3 good records: its checksum is wrong\n");
  }
  EXPECT_EQ(Files(), before);
  EXPECT_EQ(Content("kept.csv") + Content("kept.png"), "kk");
}

TEST_F(Tools, BadUsageAndFailuresAreOneLine) {
  const std::string good = Put("good.vrec", TenStatuses().Content());
  const std::string bad = Put("bad.vrec", {'x'});
  const std::string nowhere = Path("nowhere") + "/x";
  const struct {
    int status;
    Text arguments;
    std::string complaint;
  } cases[] = {
      {2, {"record", "-n", "1", "tcp://127.0.0.1:1"}, "FILE is required"},
      {2, {"record", "-n", "1", "here", Path("new")}, "bad link 'here'"},
      {2, {"record", "-n", "0", "tcp://127.0.0.1:1", Path("new")}, "--joints"},
      {2,
       {"record", "-n", "1", "tcp://127.0.0.1:1", Path("new"), "--via", "udp://127.0.0.1:0"},
       "udp:// goes with udp://"},
      {2, {"record", "-n", "1", "pty:", Path("new"), "--via", "pty:"}, "a place to listen on"},
      {1, {"record", "-n", "1", "tcp://127.0.0.1:1", Path("new")}, "Connection refused"},
      {1, {"record", "-n", "1", "serial:///dev/null", Path("new")}, "not a serial device"},
      {1, {"record", "-n", "1", "udp://127.0.0.1:9", good}, "there is such a file already"},
      {1, {"record", "-n", "1", "tcp://127.0.0.1:1", nowhere, "--via", "tcp://127.0.0.1:0"}, "No such file"},
      {1, {"record", "-n", "1", "tcp://127.0.0.1:1", Path("new"), "--via", "pty:" + good}, "File exists"},
      {1, {"convert", bad}, "not a recording"},
      {1, {"convert", folder_}, "Is a directory"},
      {1, {"convert", nowhere}, "No such file"},
      {1, {"convert", good, "-o", nowhere}, "No such file"},
      {1, {"convert", good, "-o", "/dev/full"}, "cannot write"},
      {2, {"convert", good, "-f", "xml"}, "--format"},
      {2, {"convert", good, "--from", "2", "--to", "1"}, "--from must not lie behind --to"},
      {2, {"convert", good, "--from", "-1"}, "--from"},
      {1, {"plot", bad}, "not a recording"},
      {2, {"plot", good, "-o", Path("new.jpg")}, "a plot is a .png or a .svg"},
      {2, {"plot", good, "--fields", "position,speed"}, "no field 'speed'"},
      {2, {"plot", good, "--show", "1"}, "no joint of this arm"},
      {1, {"plot", good, "-n", "2"}, "no good status frame to plot"},
      {1, {"plot", good, "-o", nowhere + ".png"}, "No such file"},
      {2, {"play", good}, "LINK"},
      {2, {"play", good, "tcp://127.0.0.1:1", "--serve", "tcp://127.0.0.1:0"}, "LINK"},
      {1, {"play", good, "tcp://127.0.0.1:1"}, "no good command frame to play for 1 joints"},
      {1, {"play", good, "--serve", "tcp://127.0.0.1:0", "-n", "2"}, "no good status frame to play for 2 joints"},
      {2, {"play", good, "--serve", "tcp://127.0.0.1"}, "the port is missing"},
      {2, {"play", good, "--serve", "tcp://127.0.0.1:0", "--speed", "0"}, "--speed"},
  };
  const Text before = Files();
  for (const auto& c : cases) {
    const auto result = Velta(c.arguments);
    const std::string name = c.arguments[0] + " ... " + c.arguments.back();
    EXPECT_EQ(result.status, c.status) << name << ": " << result.err;
    EXPECT_EQ(result.out, "") << name;
    EXPECT_EQ(result.err.rfind("velta: ", 0), 0u) << name << ": " << result.err;
    EXPECT_NE(result.err.find(c.complaint), std::string::npos) << name << ": " << result.err;
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << name << ": " << result.err;
  }
  EXPECT_EQ(Files(), before);
}

TEST_F(Tools, PlotDrawsAPicture) {
  const float nan = std::nanf("");
  Tape tape(1);
  tape.Record(2, 0).Record(0, 1, Command(1, 1, 162)).Record(1, 2, velta::test::StatusFrame(1, 1));
  tape.Record(0, 3, Command(1, 2, 255, nan)).Record(1, 4, GoldenStatus()).Record(3, 5);
  const std::string file = Put("it's run.vrec", tape.Content());
  const auto png = Velta({"plot", file});
  ASSERT_EQ(png.status, 0) << png.err;
  EXPECT_EQ(png.out, "plotted 0.005 s of 1 joint to " + Path("it's run.png") + "\n");
  EXPECT_EQ(Content("it's run.png").substr(0, 8), "\x89PNG\r\n\x1a\n");
  const auto svg = Velta({"plot", file, "-o", Path("run.svg"), "--fields", "position,general_2"});
  ASSERT_EQ(svg.status, 0) << svg.err;
  const std::string picture = Content("run.svg");
  EXPECT_NE(picture.find("</svg>"), std::string::npos);
  for (const char* text :
       {"position", "general_2", "joint 0", "servo-on", "FAULT", "0x80000001", "opened", "it's run"}) {
    const std::string escaped = text == std::string("it's run") ? "it&#39;s run" : text;
    EXPECT_TRUE(picture.find(text) != std::string::npos || picture.find(escaped) != std::string::npos) << text;
  }
  EXPECT_EQ(Files(), (Text{"it's run.png", "it's run.vrec", "run.svg"}));

  // One frame, and one without a single finite number, are pictures too.
  for (const char* fields : {"position", "general_2"}) {
    const std::string one = Put("one.vrec", Tape(1).Record(1, 0, GoldenStatus()).Content());
    EXPECT_EQ(Velta({"plot", one, "--fields", fields, "-o", Path("one.svg")}).status, 0) << fields;
    EXPECT_NE(Content("one.svg").find(fields), std::string::npos) << fields;
  }
}

TEST_F(Tools, PlotTellsThatGnuplotIsMissing) {
  const std::string file = Put("run.vrec", TenStatuses().Content());
  const auto result = RunProgram({"/usr/bin/env", "PATH=/nowhere", VELTA_PROGRAM, "plot", file});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "velta: gnuplot is not installed; its Debian package is gnuplot-nox\n");
  EXPECT_EQ(Files(), Text{"run.vrec"});
}

TEST_F(Tools, PlaySendsTheCommandsAgainWithTheirTiming) {
  Tape tape(2);
  std::vector<std::vector<char>> commands;
  for (unsigned i = 0; i < 4; ++i) {
    commands.push_back(Command(2, 100 + i, 17, static_cast<float>(i)));
    tape.Record(0, 1000 + 60.0 * i, commands.back());
    tape.Record(0, 1010 + 60.0 * i, {'j', 'u', 'n', 'k'});  // of no good frame: never sent
  }
  const std::string file = Put("run.vrec", tape.Content());
  const struct {
    Text options;
    std::size_t first, count;
    double least_ms;
  } cases[] = {{{}, 0, 4, 180}, {{"--speed", "100"}, 0, 4, 1}, {{"--from", "0.06", "--to", "0.121"}, 1, 2, 60}};
  for (const auto& c : cases) {
    Peer controller(Link::Kind::Tcp);
    Text arguments = {"play", file, ToString(controller.link)};
    arguments.insert(arguments.end(), c.options.begin(), c.options.end());
    const auto start = Clock::now();
    Process player(Argv(arguments));
    std::vector<char> expected;
    for (std::size_t i = c.first; i < c.first + c.count; ++i) {
      expected.insert(expected.end(), commands[i].begin(), commands[i].end());
    }
    std::vector<char> got;
    ASSERT_TRUE(Until([&] {
      while (const auto bytes = controller.Receive()) {
        got.insert(got.end(), bytes->begin(), bytes->end());
      }
      return got.size() >= expected.size();
    }));
    EXPECT_EQ(got, expected);
    const double took = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    EXPECT_GE(took, c.least_ms);
    EXPECT_LE(took, c.least_ms + 3000);
    controller.Send(velta::test::StatusFrame(2, 1, 100 + c.first + c.count - 1));  // the last command's echo
    ASSERT_EQ(player.Wait(), 0) << player.Errors();
    EXPECT_EQ(player.Output(),
              "sent " + std::to_string(c.count) + " commands, 1 echoed before the next, 1 status frame received\n");
  }
}

TEST_F(Tools, PlayLoopsUntilStopped) {
  Tape tape(1);
  for (unsigned i = 0; i < 3; ++i) tape.Record(0, i, Command(1, i + 1));
  const std::string file = Put("run.vrec", tape.Content());
  Peer controller(Link::Kind::Tcp);
  Process player(Argv({"play", file, ToString(controller.link), "--loop"}));
  std::vector<char> got;
  ASSERT_TRUE(Until([&] {
    if (const auto bytes = controller.Receive()) got.insert(got.end(), bytes->begin(), bytes->end());
    return got.size() >= 10 * 31;
  }));
  for (std::size_t i = 0; i < 10; ++i) EXPECT_EQ(velta::test::ReadU64(got, i * 31 + 2), i % 3 + 1);
  player.Signal(SIGINT);
  EXPECT_EQ(player.Wait(), 0);
}

class Served : public Tools, public testing::WithParamInterface<Via> {};

// The host is told the recorded frames bit by bit; one that leaves early does not cost the next one any.
TEST_P(Served, PlayIsTheControllerForAHost) {
  const std::string file = Put("run.vrec", TenStatuses().Content());
  Process player(Argv({"play", file, "--serve", GetParam().endpoint}));
  const auto address = player.ReadAfter("listening on ");
  ASSERT_TRUE(address);
  const bool udp = ParseLink(*address).kind == Link::Kind::Udp;
  // A datagram host cannot leave, and one on a pty that is followed at once by another has not left for the program.
  const bool early_host = std::string(GetParam().name) == "Tcp";
  if (early_host) {
    Peer early(ParseLink(*address));
    ASSERT_TRUE(Until([&] { return early.Receive().has_value(); }));
  }
  std::vector<char> expected, got;
  for (unsigned i = 0; i < 10; ++i) {
    const auto frame = velta::test::StatusFrame(1, i);
    expected.insert(expected.end(), frame.begin(), frame.end());
  }
  Peer host(ParseLink(*address));
  if (udp) host.Send(Command(1, 1));
  ASSERT_TRUE(Until([&] {
    while (const auto bytes = host.Receive()) got.insert(got.end(), bytes->begin(), bytes->end());
    return got.size() >= expected.size();
  })) << got.size();
  EXPECT_EQ(got, expected);
  host.Close();
  EXPECT_EQ(player.Wait(), 0) << player.Errors();
  EXPECT_NE(player.Output().find(early_host ? "served 2 hosts: " : "served 1 host: "), std::string::npos)
      << player.Output();
}

INSTANTIATE_TEST_SUITE_P(Play, Served,
                         testing::Values(Via{"Tcp", "", "tcp://127.0.0.1:0"}, Via{"Udp", "", "udp://127.0.0.1:0"},
                                         Via{"Pty", "", "pty:"}),
                         [](const auto& row) { return row.param.name; });

TEST_F(Tools, HelpShowsAnExample) {
  for (const char* command : {"record", "convert", "plot", "play"}) {
    const auto help = Velta({command, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find(std::string("\n  velta ") + command + " "), std::string::npos) << help.out;
  }
}

}  // namespace
