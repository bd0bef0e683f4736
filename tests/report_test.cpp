// SPDX-License-Identifier: MIT
#include "report.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

using namespace velta::tools;
namespace fs = std::filesystem;

TEST(Report, HasOnlyThoseWordsOfTheKernelsCommandLineThatAreAboutTime) {
  const fs::path root = testing::TempDir() + "velta_report_" + std::to_string(getpid());
  fs::create_directories(root / "proc");
  std::ofstream(root / "proc/cmdline") << "root=/dev/mapper/private isolcpus=2 nosmt quiet\n";
  const std::string text = RealtimeText(root);
  fs::remove_all(root);
  EXPECT_NE(text.find("\nkernel's command line: isolcpus=2 nosmt\n"), std::string::npos) << text;
}
