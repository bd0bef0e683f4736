// SPDX-License-Identifier: MIT
#include "velta_log.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "TcpClient.h"
#include "support/capture.h"
#include "support/scripted_link.h"

namespace {

using velta::LogLevel;
using velta::test::Printed;
using velta::test::PrintedError;
using velta::test::ScriptedClient;
using Lines = std::vector<std::pair<LogLevel, std::string>>;

class LogSink : public testing::Test {
 protected:
  ~LogSink() override { velta::SetLogSink(nullptr); }

  /// What reaches a sink while `act` runs; nothing may be printed.
  template <typename Act>
  static Lines Logged(Act act) {
    Lines lines;
    velta::SetLogSink([&](LogLevel level, std::string_view text) { lines.emplace_back(level, text); });
    EXPECT_EQ(Printed([&] { EXPECT_EQ(PrintedError(act), ""); }), "");
    velta::SetLogSink(nullptr);
    return lines;
  }

  ScriptedClient client{1};
};

TEST_F(LogSink, ReceivesEveryLineInsteadOfTheStreams) {
  client.link->connect_results = {false, true};
  client.link->read_result = -1;
  EXPECT_EQ(Logged([&] {
              client.ReConnect(2);
              client.ReceiveStatus();
              errno = ENOENT;
              TcpClient("127.0.0.1", 1).PrintError("why");
              errno = ENOENT;
              TcpClient("127.0.0.1", 1).PrintError("");
            }),
            (Lines{{LogLevel::kInformation, "[VELTA] Try to Re-Connect"},
                   {LogLevel::kInformation, "[VELTA] Try: 0...failed."},  // an attempt is one line
                   {LogLevel::kInformation, "[VELTA] Try: 1...succeeded!"},
                   {LogLevel::kInformation, "[VELTA] lost connection"},
                   {LogLevel::kError, "why: No such file or directory"},
                   {LogLevel::kError, "No such file or directory"}}));
  EXPECT_EQ(Printed([&] { client.ReceiveStatus(); }), "[VELTA] lost connection\n") << "the default is back";
}

TEST_F(LogSink, MayReplaceItselfAndThrow) {
  int calls = 0;
  velta::SetLogSink([&](LogLevel, std::string_view) {
    velta::SetLogSink(nullptr);
    ++calls;  // what the sink holds lives until the call is over
    throw std::runtime_error("dropped");
  });
  client.link->read_result = -1;
  EXPECT_EQ(Printed([&] {
              client.ReceiveStatus();
              client.ReceiveStatus();
            }),
            "[VELTA] lost connection\n");
  EXPECT_EQ(calls, 1);
}

TEST_F(LogSink, ByDefaultAnAttemptShowsWhileItRuns) {
  struct Slow : velta::test::ScriptedLink {
    bool Connect() override {
      shown = testing::internal::GetCapturedStdout();
      testing::internal::CaptureStdout();
      return true;
    }
    std::string shown;
  };
  auto* const link = new Slow;
  ScriptedClient waiting(1, link);
  EXPECT_EQ(Printed([&] { waiting.ReConnect(1); }), "succeeded!\n");
  EXPECT_EQ(link->shown, "[VELTA] Try to Re-Connect\n[VELTA] Try: 0...");
}

TEST_F(LogSink, LinesOfTwoThreadsNeverRunTogether) {
  constexpr int kLines = 5000;
  const std::string printed = Printed([] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([] {
        ScriptedClient lost(1);
        lost.link->read_result = -1;
        for (int line = 0; line < kLines; ++line) lost.ReceiveStatus();
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  std::string whole;
  for (int line = 0; line < 2 * kLines; ++line) whole += "[VELTA] lost connection\n";
  EXPECT_TRUE(printed == whole);
}

}  // namespace
