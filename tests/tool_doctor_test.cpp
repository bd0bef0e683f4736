// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "RecvPacket.h"
#include "diagnosis.h"
#include "support/listener.h"
#include "support/process.h"
#include "support/simulated_arm.h"
#include "support/wire_bytes.h"

using velta::test::Chars;
using velta::test::Process;
using velta::test::RunProgram;
using velta::test::SimulatedArm;
using velta::test::StatusBytes;
using velta::test::StatusJoint;
using velta::tools::FitJointCount;

namespace fs = std::filesystem;

namespace {

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (fs::temp_directory_path() / "velta-XXXXXX").string();
    path_ = mkdtemp(name.data());
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory() { fs::remove_all(path_); }
  const fs::path& Path() const { return path_; }

 private:
  fs::path path_;
};

void Fill(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  std::ofstream(file) << text;
}

TEST(Diagnosis, FindsTheJointCountThatFits) {
  const std::string seven =
      StatusBytes(1, 0, std::vector<StatusJoint>(7)) + StatusBytes(2, 0, std::vector<StatusJoint>(7));
  const std::string damaged = "\xAB\xCD noise" + seven.substr(100, 200) + seven + seven;
  struct Case {
    const char* name;
    std::string bytes;
    std::optional<int> joints;
  };
  for (const Case& c : {Case{"clean", seven, 7}, Case{"amid noise", damaged, 7},
                        Case{"one frame may be chance", seven.substr(0, 577), {}}, Case{"none", "hello, world", {}},
                        Case{"nothing", "", {}}, Case{"no joints", StatusBytes(1, 0, {}) + StatusBytes(2, 0, {}), 0}}) {
    EXPECT_EQ(FitJointCount(Chars(c.bytes), 16), c.joints) << c.name;
  }
  EXPECT_EQ(FitJointCount(Chars(seven), 6), std::nullopt);
}

TEST(Diagnosis, NamesTheProcessesThatHoldADevice) {
  const TemporaryDirectory root;
  const fs::path proc = root.Path() / "proc";
  const fs::path device = root.Path() / "tty0";
  Fill(device, "");
  fs::create_symlink(device, root.Path() / "arm");
  Fill(proc / "12/comm", "screen\n");
  Fill(proc / "13/comm", "bash\n");
  Fill(proc / std::to_string(getpid()) / "comm", "self\n");
  for (const std::string& pid : {std::string("12"), std::to_string(getpid())}) {
    fs::create_directories(proc / pid / "fd");
    fs::create_symlink("/dev/null", proc / pid / "fd/0");
    fs::create_symlink(fs::canonical(device), proc / pid / "fd/3");
    fs::create_symlink(fs::canonical(device), proc / pid / "fd/4");
  }
  fs::create_directories(proc / "tty/fd");  // not a process
  fs::create_symlink(fs::canonical(device), proc / "tty/fd/3");
  const std::vector<std::string> holder = {"screen (pid 12)"};
  EXPECT_EQ(velta::tools::HoldersOf(proc, device), holder);
  EXPECT_EQ(velta::tools::HoldersOf(proc, root.Path() / "arm"), holder);
  EXPECT_TRUE(velta::tools::HoldersOf(proc, root.Path() / "tty1").empty());
  EXPECT_TRUE(velta::tools::HoldersOf(root.Path() / "nothing", device).empty());
}

TEST(Diagnosis, ReadsTheLatencyTimerOfUsbAdapters) {
  const TemporaryDirectory root;
  Fill(root.Path() / "dev/ttyUSB0", "");
  fs::create_symlink(root.Path() / "dev/ttyUSB0", root.Path() / "arm");
  Fill(root.Path() / "sys/bus/usb-serial/devices/ttyUSB0/latency_timer", "16\n");
  EXPECT_EQ(velta::tools::LatencyTimerMs(root.Path() / "sys", root.Path() / "arm"), 16);
  EXPECT_EQ(velta::tools::LatencyTimerMs(root.Path() / "sys", "/dev/ttyS0"), std::nullopt);
}

TEST(Diagnosis, TellsAJumpOfTheClockFromSlewing) {
  constexpr std::int64_t kMs = 1'000'000;
  velta::tools::ClockWatch clock;
  clock.Add(1000 * kMs, 10 * kMs);
  clock.Add(1010 * kMs + kMs / 2, 20 * kMs);
  clock.Add(1021 * kMs, 30 * kMs);
  EXPECT_EQ(clock.Jump(), 0);
  clock.Add(531 * kMs, 40 * kMs);
  EXPECT_EQ(clock.Jump(), 500 * kMs);
  clock.Add(541 * kMs, 50 * kMs);
  EXPECT_EQ(clock.Jump(), 500 * kMs);
}

TEST(Diagnosis, TellsWhatKeepsJointsFromMoving) {
  RecvPacket status(4);
  ASSERT_TRUE(status.Parse(Chars(StatusBytes(1, 0, {{0}, {2, 'f'}, {3, 0, 12}, {0, 'm'}}))));
  const std::vector<std::string> causes = velta::tools::WhyNothingMoves(status);
  ASSERT_EQ(causes.size(), 4U);
  EXPECT_EQ(causes[0].rfind("joints 2 report a fault", 0), 0U) << causes[0];
  EXPECT_EQ(causes[1], "joints 0/3 have their servo off: velta send LINK servo-on --joints 0/3");
  EXPECT_EQ(causes[2].rfind("joints 3 refused a trajectory because their servo", 0), 0U) << causes[2];
  EXPECT_EQ(causes[3].rfind("joints 1 refused a trajectory because it had no points", 0), 0U) << causes[3];
  ASSERT_TRUE(status.Parse(Chars(StatusBytes(1, 0, std::vector<StatusJoint>(4)))));
  EXPECT_TRUE(velta::tools::WhyNothingMoves(status).empty());
}

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(Doctor, NamesTheCause) {
  struct Case {
    const char* endpoint;
    std::vector<std::string> options;
    int status;
    const char* said;
  };
  const Case cases[] = {
      {"tcp://127.0.0.1:0", {}, 0, "[warn] joints 0/1/2 have their servo off: velta send LINK servo-on --joints 0/1/2"},
      {"udp://127.0.0.1:0", {"--on-command"}, 0, "[ ok ] 30 good statuses of 3 joints, only in answer to commands"},
      {"pty:", {}, 0, "[ ok ] the controller echoes "},
      {"tcp://127.0.0.1:0", {"--fault", "refuse"}, 1, "refuses: the machine is there, but nothing listens on port "},
      {"tcp://127.0.0.1:0", {"--fault", "drop-status"}, 1, "[FAIL] connected, but silent"},
      {"udp://127.0.0.1:0", {"--fault", "drop-status"}, 1, "[FAIL] nothing came back, to no command"},
      {"pty:", {"--fault", "drop-status"}, 1, "[FAIL] the device is open, but silent"},
      {"tcp://127.0.0.1:0", {"--fault", "wrong-joints=5"}, 1, "the controller is set to 5 joints; use -n 5"},
      {"pty:", {"--fault", "truncate"}, 1, "nor of 0 to 64 joints: check the baud rate and the wiring"},
      {"tcp://127.0.0.1:0", {"--fault", "no-echo"}, 1, "[FAIL] statuses arrive, but the echo never comes"},
      {"tcp://127.0.0.1:0", {"--fault", "stale-echo"}, 1, "[FAIL] the echo is stale"},
      {"tcp://127.0.0.1:0", {"--fault", "late-echo=60"}, 0, "[warn] the echo comes late, usually after "},
      {"tcp://127.0.0.1:0", {"--fault", "freeze"}, 1, "[FAIL] the status is frozen"},
      {"tcp://127.0.0.1:0", {"--fault", "close"}, 1, "[FAIL] the controller closed the link"},
      {"tcp://127.0.0.1:0", {"--fault", "reset=100"}, 1, "[FAIL] the controller closed the link"},
      {"tcp://127.0.0.1:0", {"--fault", "garbage=0.5"}, 0, "belong to none: look for noise or lost bytes"},
      {"tcp://127.0.0.1:0", {"--fault", "drop-command=0.5"}, 0, "[warn] the controller echoes only "},
  };
  // All at once: each takes its time listening.
  std::vector<std::unique_ptr<SimulatedArm>> arms;
  std::vector<std::unique_ptr<Process>> doctors;
  for (const Case& c : cases) {
    arms.push_back(std::make_unique<SimulatedArm>(c.endpoint, c.options));
    doctors.push_back(
        std::make_unique<Process>(std::vector<std::string>{VELTA_PROGRAM, "doctor", "-n", "3", arms.back()->Link()}));
  }
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string fault = cases[i].options.empty() ? "none" : cases[i].options.back();
    EXPECT_EQ(doctors[i]->Wait(), cases[i].status) << cases[i].endpoint << " " << fault << "\n" << doctors[i]->Output();
    EXPECT_TRUE(Has(doctors[i]->Output(), cases[i].said)) << cases[i].endpoint << " " << fault << "\n"
                                                          << doctors[i]->Output();
    EXPECT_TRUE(Has(doctors[i]->Output(), "\nverdict: ")) << doctors[i]->Output();
    EXPECT_EQ(doctors[i]->Errors(), "");
  }
}

TEST(Doctor, NamesTheCauseWithoutAController) {
  const TemporaryDirectory root;
  Fill(root.Path() / "file", "");
  struct Case {
    std::string link;
    int status;
    const char* said;
  };
  for (const Case& c : {
           Case{"tcp://no-such-host.invalid:5000", 1, "[FAIL] cannot resolve 'no-such-host.invalid'"},
           Case{"udp://127.0.0.1:9", 1, "refuses: the machine is there, but nothing listens on that UDP port"},
           Case{"serial://" + (root.Path() / "nothing").string(), 1, "nothing does not exist: plug the adapter in"},
           Case{"serial://" + (root.Path() / "file").string(), 1, "not a serial device"},
           Case{"tcp://127.0.0.1:port", 2, "velta: bad link "},
           Case{"arm", 2, "velta: bad link "},
           Case{"pty:/tmp/arm", 2, "velta: pty:/tmp/arm is an endpoint"},
       }) {
    const auto run = RunProgram({VELTA_PROGRAM, "doctor", "-n", "3", c.link});
    EXPECT_EQ(run.status, c.status) << c.link << run.out << run.err;
    EXPECT_TRUE(Has(c.status == 2 ? run.err : run.out, c.said)) << c.link << "\n" << run.out << run.err;
  }
  velta::test::Listener listener;
  const auto named = RunProgram({VELTA_PROGRAM, "doctor", "-n", "3", "tcp://localhost" + listener.Link().substr(15)});
  EXPECT_TRUE(Has(named.out, "[warn] 'localhost' is a name, which the library does not resolve: use 127.0.0.1"))
      << named.out;
  EXPECT_TRUE(Has(named.out, "[FAIL] connected, but silent")) << named.out;
}

TEST(Doctor, LooksAtTheSerialDeviceItself) {
  SimulatedArm arm("pty:");
  const std::string device = arm.Link().substr(9, arm.Link().find('?') - 9);
  const int held = open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(held, 0) << arm.Link();
  const auto busy = RunProgram({VELTA_PROGRAM, "doctor", "-n", "3", arm.Link()});
  close(held);
  EXPECT_EQ(busy.status, 0) << busy.out;
  EXPECT_TRUE(Has(busy.out, "[warn] another process holds " + device + ": ")) << busy.out;
  EXPECT_TRUE(Has(busy.out, "(pid " + std::to_string(getpid()) + ")")) << busy.out;

  const auto baud = RunProgram({VELTA_PROGRAM, "doctor", "-n", "3", "serial://" + device + "?baud=123457"});
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

TEST(Doctor, StopsAtOnce) {
  velta::test::Listener listener;
  Process doctor({VELTA_PROGRAM, "doctor", "-n", "3", listener.Link()});
  ASSERT_TRUE(doctor.ReadAfter("[ ok ] opened "));
  doctor.Signal(SIGINT);
  EXPECT_EQ(doctor.Wait(std::chrono::milliseconds(1000)), 1);
  EXPECT_EQ(doctor.Output(), "interrupted: the examination is not complete\n");
}

}  // namespace
