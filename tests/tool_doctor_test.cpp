// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <list>
#include <string>
#include <vector>

#include "RecvPacket.h"
#include "diagnosis.h"
#include "support/bytes.h"
#include "support/peer.h"
#include "support/velta_program.h"

using namespace velta::test;
using namespace velta::tools;

namespace fs = std::filesystem;

namespace {

using Diagnosis = InFolder;
using Doctor = InFolder;

TEST_F(Diagnosis, FindsTheJointCountThatFits) {
  const std::vector<char> seven = Joined({StatusFrame(7, 1), StatusFrame(7, 2)});
  const struct {
    std::optional<int> fit;
    std::vector<char> bytes;
    int most;
  } cases[] = {
      {7, seven, 16},
      {std::nullopt, seven, 6},
      {7, Joined({{'\xAB', '\xCD', 'n'}, Part(seven, 100, 300), seven, seven}), 16},
      {std::nullopt, Part(seven, 0, 577), 16},  // one frame may be chance
      {std::nullopt, {'h', 'e', 'l', 'l', 'o'}, 16},
      {std::nullopt, {}, 16},
      {0, Joined({StatusFrame(0, 1), StatusFrame(0, 2)}), 16},
  };
  for (const auto& c : cases) EXPECT_EQ(FitJointCount(c.bytes, c.most), c.fit) << c.bytes.size();
}

TEST_F(Diagnosis, NamesTheProcessesThatHoldADevice) {
  const fs::path root(folder);
  const std::string self = "proc/" + std::to_string(getpid());
  fs::create_symlink(Put("tty0", std::string()), root / "arm");
  Put("proc/12/comm", std::string("screen\n"));
  Put("proc/13/comm", std::string("bash\n"));
  Put(self + "/comm", std::string("self\n"));
  for (const std::string& holder : {std::string("proc/12"), self, std::string("proc/tty")}) {  // the last: no process
    fs::create_directories(root / holder / "fd");
    fs::create_symlink("/dev/null", root / holder / "fd/0");
    for (const char* fd : {"fd/3", "fd/4"}) fs::create_symlink(fs::canonical(root / "tty0"), root / holder / fd);
  }
  const std::vector<std::string> holders = {"screen (pid 12)"};
  EXPECT_EQ(HoldersOf(root / "proc", root / "tty0"), holders);
  EXPECT_EQ(HoldersOf(root / "proc", root / "arm"), holders);
  EXPECT_TRUE(HoldersOf(root / "proc", root / "tty1").empty());
  EXPECT_TRUE(HoldersOf(root / "nothing", root / "tty0").empty());
}

TEST_F(Diagnosis, ReadsTheLatencyTimerOfUsbAdapters) {
  fs::create_symlink(Put("dev/ttyUSB0", std::string()), Path("arm"));
  Put("sys/bus/usb-serial/devices/ttyUSB0/latency_timer", std::string("16\n"));
  EXPECT_EQ(LatencyTimerMs(Path("sys"), Path("arm")), 16);
  EXPECT_EQ(LatencyTimerMs(Path("sys"), "/dev/ttyS0"), std::nullopt);
}

TEST_F(Diagnosis, TellsAJumpOfTheClockFromSlewingAndABusyMachine) {
  constexpr std::int64_t kUs = 1000;
  ClockWatch clock;
  // the system clock, the monotonic one, how long reading both took, the jump known then
  constexpr std::int64_t kSteps[][4] = {{1'000'000, 10'000, 1, 0},     {1'010'500, 20'000, 500, 0},
                                        {1'021'000, 30'000, 1, 0},     {1'040'000, 40'000, 9'000, 0},
                                        {531'000, 40'000, 1, 500'000}, {541'000, 50'000, 1, 500'000}};
  for (const auto& [wall, monotonic, took, jump] : kSteps) {
    clock.Add(monotonic * kUs, wall * kUs, (monotonic + took) * kUs);
    EXPECT_EQ(clock.Jump(), jump * kUs) << wall;
  }
}

TEST_F(Diagnosis, TellsWhatKeepsJointsFromMoving) {
  RecvPacket status(5);
  ASSERT_TRUE(status.Parse(Status(1, {{0}, {2, 'f'}, {3, 0, 12}, {0, 'm'}, {2, 'o'}})));
  const std::vector<std::string> causes = WhyNothingMoves(status);
  constexpr const char* kCauses[] = {
      "joints 2 report a fault", "joints 0/3 have their servo off: velta send LINK servo-on --joints 0/3",
      "joints 3 refused a trajectory because their servo", "joints 1 refused a trajectory because it had no points",
      "joints 4 stopped because their servo went off"};
  ASSERT_EQ(causes.size(), 5U);
  for (std::size_t i = 0; i < 5; ++i) EXPECT_TRUE(Begins(causes[i], kCauses[i])) << causes[i];
  ASSERT_TRUE(status.Parse(Status(1, std::vector<StatusJoint>(5))));
  EXPECT_TRUE(WhyNothingMoves(status).empty());
}

struct Cause {
  const char *endpoint, *options;
  int status;
  const char* said;
};

// Few frames where each is cut at the wrong places: one in 65,536 has a right CRC by chance.
// clang-format off
constexpr Cause kCauses[] = {
    {"tcp:", "", 0, "[warn] joints 0/1/2 have their servo off: velta send LINK servo-on --joints 0/1/2"},
    {"udp:", "--on-command", 0, " good statuses of 3 joints, only in answer to commands"},
    {"pty:", "", 0, "[ ok ] the controller echoes "},
    {"tcp:", "--fault refuse", 1, "refuses: the machine is there, but nothing listens on port "},
    {"tcp:", "--fault drop-status", 1, "[FAIL] connected, but silent"},
    {"udp:", "--fault drop-status", 1, "[FAIL] nothing came back, to no command"},
    {"pty:", "--fault drop-status", 1, "[FAIL] the device is open, but silent"},
    {"tcp:", "--fault wrong-joints=5 --on-command", 1, "the controller is set to 5 joints; use -n 5"},
    {"pty:", "--fault truncate --on-command", 1, "nor of 0 to 64 joints: check the baud rate and the wiring"},
    {"tcp:", "--fault no-echo", 1, "[FAIL] statuses arrive, but the echo never comes"},
    {"tcp:", "--fault stale-echo", 1, "[FAIL] the echo is stale"},
    {"tcp:", "--fault late-echo=60", 0, "[warn] the echo comes late, usually after "},
    {"tcp:", "--fault freeze", 1, "[FAIL] the status is frozen"},
    {"tcp:", "--fault close", 1, "[FAIL] the controller closed the link"},
    {"tcp:", "--fault reset=100", 1, "[FAIL] the controller closed the link"},
    {"tcp:", "--fault garbage=0.5", 0, "belong to none: look for noise or lost bytes"},
    {"tcp:", "--fault drop-command=0.5", 0, "[warn] the controller echoes only "},
};
// clang-format on

TEST_F(Doctor, NamesTheCause) {
  std::list<SimulatedArm> arms;
  std::list<Process> doctors;  // all at once: each takes its time listening
  for (const Cause& c : kCauses) {
    const std::string endpoint = c.endpoint;
    arms.emplace_back(endpoint == "pty:" ? endpoint : endpoint + "//127.0.0.1:0", std::string("-n 3 ") + c.options);
    doctors.emplace_back(Argv("doctor -n 3 " + arms.back().link));
  }
  for (const Cause& c : kCauses) {
    Process& doctor = doctors.front();
    EXPECT_EQ(doctor.Wait(), c.status) << c.endpoint << " " << c.options << "\n" << doctor.Output();
    EXPECT_TRUE(Has(doctor.Output(), c.said)) << c.endpoint << " " << c.options << "\n" << doctor.Output();
    EXPECT_TRUE(Has(doctor.Output(), "\nverdict: ")) << doctor.Output();
    EXPECT_EQ(doctor.Errors(), "");
    doctors.pop_front();
  }
}

TEST_F(Doctor, NamesTheCauseWithoutAController) {
  const Peer silent(Peer::Kind::Tcp);
  const std::pair<std::string, const char*> cases[] = {
      {"tcp://no-such-host.invalid:5000", "[FAIL] cannot resolve 'no-such-host.invalid'"},
      {"udp://127.0.0.1:9", "refuses: the machine is there, but nothing listens on that UDP port"},
      {"serial://" + Path("nothing"), "nothing does not exist: plug the adapter in"},
      {"serial://" + Put("file", std::string()), "not a serial device"},
      {"tcp://localhost:" + std::to_string(silent.link.port),
       "[warn] 'localhost' is a name, which the library does not resolve: use 127.0.0.1"}};
  for (const auto& [link, said] : cases) {
    const auto run = Velta("doctor -n 3 " + link);
    EXPECT_EQ(run.status, 1) << link << run.err;
    EXPECT_TRUE(Has(run.out, said)) << link << "\n" << run.out << run.err;
  }
}

TEST_F(Doctor, LooksAtTheSerialDeviceItself) {
  SimulatedArm arm("pty:");
  const std::string device = arm.link.substr(9, arm.link.find('?') - 9);
  const int held = open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(held, 0) << arm.link;
  const auto busy = Velta("doctor -n 3 " + arm.link);
  close(held);
  EXPECT_EQ(busy.status, 0) << busy.out;
  EXPECT_TRUE(Has(busy.out, "[warn] another process holds " + device + ": ")) << busy.out;
  EXPECT_TRUE(Has(busy.out, "(pid " + std::to_string(getpid()) + ")")) << busy.out;

  const auto baud = Velta("doctor -n 3 serial://" + device + "?baud=123457");
  EXPECT_EQ(baud.status, 1);
  EXPECT_TRUE(Has(baud.out, "cannot be set to 123457 baud")) << baud.out;

  std::vector<std::string> nobody;  // for root every device is open
  if (getuid() == 0) nobody = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  ASSERT_EQ(chmod(device.c_str(), 0), 0);
  nobody.insert(nobody.end(), {VELTA_PROGRAM, "doctor", "-n", "3", arm.link});
  const auto forbidden = RunProgram(nobody);
  EXPECT_EQ(forbidden.status, 1) << forbidden.err;
  EXPECT_TRUE(Has(forbidden.out, "[FAIL] no permission on " + device + ": join its group with sudo usermod -aG "))
      << forbidden.out << forbidden.err;
}

TEST_F(Doctor, NoticesAnotherHost) {
  SimulatedArm arm;
  Process other(Argv("ping -n 3 " + arm.link + " -c 100000"));
  const auto run = Velta("doctor -n 3 " + arm.link);
  EXPECT_EQ(run.status, 0) << run.out;
  EXPECT_TRUE(Has(run.out, "[warn] the controller also echoes commands that are not from here")) << run.out;
}

}  // namespace
