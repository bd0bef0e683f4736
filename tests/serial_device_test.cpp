// SPDX-License-Identifier: MIT
#include "serial_device.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

using namespace velta::tools;
namespace fs = std::filesystem;

namespace {

class SerialDeviceTest : public testing::Test {
 protected:
  SerialDeviceTest() : folder(testing::TempDir() + "velta_" + std::to_string(getpid())) { Put("ttyUSB0", ""); }
  ~SerialDeviceTest() override { fs::remove_all(folder); }

  void Put(const fs::path& name, const std::string& content) const {
    fs::create_directories((folder / name).parent_path());
    std::ofstream(folder / name) << content;
  }

  void Hold(const std::string& process, const fs::path& device) const {
    Put("proc/" + process + "/comm", "screen\n");
    fs::create_directories(folder / "proc" / process / "fd");
    for (const char* fd : {"3", "4"})
      fs::create_symlink(fs::canonical(folder / device), folder / "proc" / process / "fd" / fd);
  }

  const fs::path folder;
};

TEST_F(SerialDeviceTest, IsHeldByOtherProcesses) {
  for (const std::string& process : {std::string("12"), std::to_string(getpid()), std::string("tty")})
    Hold(process, "ttyUSB0");
  Put("proc/13/comm", "bash\n");
  fs::create_symlink(folder / "ttyUSB0", folder / "arm");
  EXPECT_EQ(HoldersOf(folder / "proc", folder / "arm"), std::vector<std::string>{"screen (pid 12)"});
  EXPECT_TRUE(HoldersOf(folder / "proc", folder / "tty1").empty());
  EXPECT_TRUE(HoldersOf(folder / "nothing", folder / "ttyUSB0").empty());
}

TEST_F(SerialDeviceTest, MayHaveALatencyTimer) {
  Put("sys/bus/usb-serial/devices/ttyUSB0/latency_timer", "16\n");
  EXPECT_EQ(LatencyTimerMs(folder / "sys", "/dev/ttyUSB0"), 16);
  EXPECT_EQ(LatencyTimerMs(folder / "sys", "/dev/ttyS0"), std::nullopt);
}

}  // namespace
