// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <list>

#include "RecvPacket.h"
#include "diagnosis.h"
#include "support/velta_program.h"

using namespace velta::test;
using namespace velta::tools;

namespace fs = std::filesystem;

namespace {

using Diagnosis = InFolder;
using Doctor = InFolder;

TEST_F(Diagnosis, FindsTheJointCountThatFits) {
  const std::vector<char> seven = Joined({StatusFrame(7, 1), StatusFrame(7, 2)});
  EXPECT_EQ(FitJointCount(seven, 16), 7);
  EXPECT_EQ(FitJointCount(seven, 6), std::nullopt);
  EXPECT_EQ(FitJointCount(Joined({{'\xAB', '\xCD', 'n'}, Part(seven, 100, 300), seven, seven}), 16), 7);
  EXPECT_EQ(FitJointCount(Part(seven, 0, 577), 16), std::nullopt);  // one frame may be chance
  EXPECT_EQ(FitJointCount({}, 16), std::nullopt);
  EXPECT_EQ(FitJointCount(Joined({StatusFrame(0, 1), StatusFrame(0, 2)}), 16), 0);
}

TEST_F(Diagnosis, NamesTheProcessesThatHoldADeviceAndItsLatencyTimer) {
  const fs::path root(folder), device(Put("ttyUSB0", std::string()));
  fs::create_symlink(device, root / "arm");
  const std::string self = "proc/" + std::to_string(getpid());
  for (const std::string& holder : {std::string("proc/12"), self, std::string("proc/tty")}) {  // the last: no process
    Put(holder + "/comm", std::string("screen\n"));
    fs::create_directories(root / holder / "fd");
    fs::create_symlink("/dev/null", root / holder / "fd/0");
    for (const char* fd : {"fd/3", "fd/4"}) fs::create_symlink(fs::canonical(device), root / holder / fd);
  }
  Put("proc/13/comm", std::string("bash\n"));
  const std::vector<std::string> holders = {"screen (pid 12)"};
  EXPECT_EQ(HoldersOf(root / "proc", device), holders);
  EXPECT_EQ(HoldersOf(root / "proc", root / "arm"), holders);
  EXPECT_TRUE(HoldersOf(root / "proc", root / "tty1").empty());
  EXPECT_TRUE(HoldersOf(root / "nothing", device).empty());

  Put("sys/bus/usb-serial/devices/ttyUSB0/latency_timer", std::string("16\n"));
  EXPECT_EQ(LatencyTimerMs(root / "sys", root / "arm"), 16);
  EXPECT_EQ(LatencyTimerMs(root / "sys", "/dev/ttyS0"), std::nullopt);
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
  const Peer silent(Peer::Kind::kTcp);
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
  const std::string device = velta::wire::ParseLink(arm.link).device;
  const auto expect = [&](const RunResult& run, int status, const std::string& said) {
    EXPECT_EQ(run.status, status) << run.out << run.err;
    EXPECT_TRUE(Has(run.out, said)) << run.out;
  };
  {
    const Peer holder(velta::wire::ParseLink(arm.link));
    expect(Velta("doctor -n 3 " + arm.link), 0, "[warn] another process holds " + device + ": ");
  }
  expect(Velta("doctor -n 3 serial://" + device + "?baud=123457"), 1, "cannot be set to 123457 baud");

  std::vector<std::string> nobody;  // for root every device is open
  if (getuid() == 0) nobody = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  ASSERT_EQ(chmod(device.c_str(), 0), 0);
  nobody.insert(nobody.end(), {VELTA_PROGRAM, "doctor", "-n", "3", arm.link});
  expect(RunProgram(nobody), 1, "[FAIL] no permission on " + device + ": join its group with sudo usermod -aG ");
}

TEST_F(Doctor, NoticesAnotherHost) {
  SimulatedArm arm;
  Process other(Argv("ping -n 3 " + arm.link + " -c 100000"));
  const auto run = Velta("doctor -n 3 " + arm.link);
  EXPECT_EQ(run.status, 0) << run.out;
  EXPECT_TRUE(Has(run.out, "[warn] the controller also echoes commands that are not from here")) << run.out;
}

}  // namespace
