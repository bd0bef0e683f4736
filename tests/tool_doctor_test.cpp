// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "RecvPacket.h"
#include "diagnosis.h"
#include "support/wire_bytes.h"

using velta::test::Chars;
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

}  // namespace
