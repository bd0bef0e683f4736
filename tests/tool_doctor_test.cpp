// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "RecvPacket.h"
#include "diagnosis.h"
#include "support/listener.h"
#include "support/process.h"
#include "support/simulated_arm.h"
#include "support/wire_bytes.h"

using namespace velta::test;
using namespace velta::tools;

namespace fs = std::filesystem;

namespace {

class InFolder : public testing::Test {
 protected:
  InFolder() : root_(testing::TempDir() + "velta_doctor_" + std::to_string(getpid())) {}
  ~InFolder() override { fs::remove_all(root_); }
  void Fill(const char* file, const std::string& text) const {
    fs::create_directories((root_ / file).parent_path());
    std::ofstream(root_ / file) << text;
  }
  const fs::path root_;
};
using Diagnosis = InFolder;
using Doctor = InFolder;

RunResult Examine(const std::string& link) { return Velta({"doctor", "-n", "3", link}); }

TEST_F(Diagnosis, FindsTheJointCountThatFits) {
  const std::vector<StatusJoint> joints(7);
  const std::string seven = StatusText(1, 0, joints) + StatusText(2, 0, joints);
  const std::string damaged = "\xAB\xCD noise" + seven.substr(100, 200) + seven + seven;
  const std::string none = StatusText(1, 0, {}) + StatusText(2, 0, {});
  const auto fit = [](const std::string& bytes, int most = 16) { return FitJointCount(Chars(bytes), most); };
  EXPECT_EQ(fit(seven), 7);
  EXPECT_EQ(fit(seven, 6), std::nullopt);
  EXPECT_EQ(fit(damaged), 7);
  EXPECT_EQ(fit(seven.substr(0, 577)), std::nullopt);  // one frame may be chance
  EXPECT_EQ(fit("hello, world"), std::nullopt);
  EXPECT_EQ(fit(""), std::nullopt);
  EXPECT_EQ(fit(none), 0);
}

TEST_F(Diagnosis, NamesTheProcessesThatHoldADevice) {
  const std::string self = "proc/" + std::to_string(getpid());
  Fill("tty0", "");
  fs::create_symlink(root_ / "tty0", root_ / "arm");
  Fill("proc/12/comm", "screen\n");
  Fill("proc/13/comm", "bash\n");
  Fill((self + "/comm").c_str(), "self\n");
  for (const std::string& holder : {std::string("proc/12"), self, std::string("proc/tty")}) {  // the last: no process
    fs::create_directories(root_ / holder / "fd");
    fs::create_symlink("/dev/null", root_ / holder / "fd/0");
    for (const char* fd : {"fd/3", "fd/4"}) fs::create_symlink(fs::canonical(root_ / "tty0"), root_ / holder / fd);
  }
  const std::vector<std::string> holders = {"screen (pid 12)"};
  EXPECT_EQ(HoldersOf(root_ / "proc", root_ / "tty0"), holders);
  EXPECT_EQ(HoldersOf(root_ / "proc", root_ / "arm"), holders);
  EXPECT_TRUE(HoldersOf(root_ / "proc", root_ / "tty1").empty());
  EXPECT_TRUE(HoldersOf(root_ / "nothing", root_ / "tty0").empty());
}

TEST_F(Diagnosis, ReadsTheLatencyTimerOfUsbAdapters) {
  Fill("dev/ttyUSB0", "");
  fs::create_symlink(root_ / "dev/ttyUSB0", root_ / "arm");
  Fill("sys/bus/usb-serial/devices/ttyUSB0/latency_timer", "16\n");
  EXPECT_EQ(LatencyTimerMs(root_ / "sys", root_ / "arm"), 16);
  EXPECT_EQ(LatencyTimerMs(root_ / "sys", "/dev/ttyS0"), std::nullopt);
}

TEST_F(Diagnosis, TellsAJumpOfTheClockFromSlewing) {
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
  RecvPacket status(4);
  ASSERT_TRUE(status.Parse(Chars(StatusText(1, 0, {{0}, {2, 'f'}, {3, 0, 12}, {0, 'm'}}))));
  const std::vector<std::string> causes = WhyNothingMoves(status);
  constexpr const char* kCauses[] = {
      "joints 2 report a fault", "joints 0/3 have their servo off: velta send LINK servo-on --joints 0/3",
      "joints 3 refused a trajectory because their servo", "joints 1 refused a trajectory because it had no points"};
  ASSERT_EQ(causes.size(), 4U);
  for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(causes[i].rfind(kCauses[i], 0), 0U) << causes[i];
  ASSERT_TRUE(status.Parse(Chars(StatusText(1, 0, std::vector<StatusJoint>(4)))));
  EXPECT_TRUE(WhyNothingMoves(status).empty());
}

TEST_F(Doctor, NamesTheCause) {
  struct Case {
    const char *endpoint, *options;
    int status;
    const char* said;
  };
  // clang-format off
  constexpr Case kCases[] = {
      {"tcp:", "", 0, "[warn] joints 0/1/2 have their servo off: velta send LINK servo-on --joints 0/1/2"},
      {"udp:", "--on-command", 0, "[ ok ] 30 good statuses of 3 joints, only in answer to commands"},
      {"pty:", "", 0, "[ ok ] the controller echoes "},
      {"tcp:", "--fault refuse", 1, "refuses: the machine is there, but nothing listens on port "},
      {"tcp:", "--fault drop-status", 1, "[FAIL] connected, but silent"},
      {"udp:", "--fault drop-status", 1, "[FAIL] nothing came back, to no command"},
      {"pty:", "--fault drop-status", 1, "[FAIL] the device is open, but silent"},
      {"tcp:", "--fault wrong-joints=5", 1, "the controller is set to 5 joints; use -n 5"},
      {"pty:", "--fault truncate", 1, "nor of 0 to 64 joints: check the baud rate and the wiring"},
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
  std::list<SimulatedArm> arms;
  std::list<Process> doctors;  // all at once: each takes its time listening
  for (const Case& c : kCases) {
    const std::string endpoint = c.endpoint;
    arms.emplace_back(endpoint == "pty:" ? endpoint : endpoint + "//127.0.0.1:0", c.options);
    doctors.emplace_back(Argv({"doctor", "-n", "3", arms.back().Link()}));
  }
  for (const Case& c : kCases) {
    Process& doctor = doctors.front();
    EXPECT_EQ(doctor.Wait(), c.status) << c.endpoint << " " << c.options << "\n" << doctor.Output();
    EXPECT_TRUE(Has(doctor.Output(), c.said)) << c.endpoint << " " << c.options << "\n" << doctor.Output();
    EXPECT_TRUE(Has(doctor.Output(), "\nverdict: ")) << doctor.Output();
    EXPECT_EQ(doctor.Errors(), "");
    doctors.pop_front();
  }
}

TEST_F(Doctor, NamesTheCauseWithoutAController) {
  Fill("file", "");
  Listener listener;
  const std::string named = "tcp://localhost:" + std::to_string(listener.link.port);
  struct Case {
    std::string link;
    int status;
    const char* said;
  };
  for (const Case& c :
       {Case{"tcp://no-such-host.invalid:5000", 1, "[FAIL] cannot resolve 'no-such-host.invalid'"},
        Case{"udp://127.0.0.1:9", 1, "refuses: the machine is there, but nothing listens on that UDP port"},
        Case{"serial://" + (root_ / "nothing").string(), 1, "nothing does not exist: plug the adapter in"},
        Case{"serial://" + (root_ / "file").string(), 1, "not a serial device"},
        Case{"tcp://127.0.0.1:port", 2, "velta: bad link "}, Case{"arm", 2, "velta: bad link "},
        Case{"pty:/tmp/arm", 2, "velta: pty:/tmp/arm is an endpoint"},
        Case{named, 1, "[warn] 'localhost' is a name, which the library does not resolve: use 127.0.0.1"}}) {
    const auto run = Examine(c.link);
    EXPECT_EQ(run.status, c.status) << c.link << run.out << run.err;
    EXPECT_TRUE(Has(c.status == 2 ? run.err : run.out, c.said)) << c.link << "\n" << run.out << run.err;
  }
}

TEST_F(Doctor, LooksAtTheSerialDeviceItself) {
  SimulatedArm arm("pty:");
  const std::string device = arm.Link().substr(9, arm.Link().find('?') - 9);
  const int held = open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(held, 0) << arm.Link();
  const auto busy = Examine(arm.Link());
  close(held);
  EXPECT_EQ(busy.status, 0) << busy.out;
  EXPECT_TRUE(Has(busy.out, "[warn] another process holds " + device + ": ")) << busy.out;
  EXPECT_TRUE(Has(busy.out, "(pid " + std::to_string(getpid()) + ")")) << busy.out;

  const auto baud = Examine("serial://" + device + "?baud=123457");
  EXPECT_EQ(baud.status, 1);
  EXPECT_TRUE(Has(baud.out, "cannot be set to 123457 baud")) << baud.out;

  std::vector<std::string> nobody;  // for root every device is open
  if (getuid() == 0) nobody = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  ASSERT_EQ(chmod(device.c_str(), 0), 0);
  nobody.insert(nobody.end(), {VELTA_PROGRAM, "doctor", "-n", "3", arm.Link()});
  const auto forbidden = RunProgram(nobody);
  EXPECT_EQ(forbidden.status, 1) << forbidden.err;
  EXPECT_TRUE(Has(forbidden.out, "[FAIL] no permission on " + device + ": join its group with sudo usermod -aG "))
      << forbidden.out << forbidden.err;
}

TEST_F(Doctor, NoticesAnotherHost) {
  SimulatedArm arm;
  Process other(Argv({"ping", "-n", "3", arm.Link(), "-c", "100000"}));
  const auto run = Examine(arm.Link());
  EXPECT_EQ(run.status, 0) << run.out;
  EXPECT_TRUE(Has(run.out, "[warn] the controller also echoes commands that are not from here")) << run.out;
}

TEST_F(Doctor, StopsAtOnce) {
  Listener listener;
  Process doctor(Argv({"doctor", "-n", "3", listener.Link()}));
  ASSERT_TRUE(doctor.ReadAfter("[ ok ] opened "));
  doctor.Signal(SIGINT);
  EXPECT_EQ(doctor.Wait(std::chrono::milliseconds(1000)), 1);
  EXPECT_EQ(doctor.Output(), "interrupted: the examination is not complete\n");
}

}  // namespace
