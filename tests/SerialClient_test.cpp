// SPDX-License-Identifier: MIT
#include "SerialClient.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/capture.h"
#include "support/system_calls.h"

namespace {

using velta::test::Calls;
using velta::test::Printed;

struct Exposed : SerialClient {
  using SerialClient::fd_;
  using SerialClient::SerialClient;
};

/// A pseudo terminal: the link opens its other end by name.
class Serial : public testing::Test {
 protected:
  void SetUp() override {
    Calls() = {};
    master_ = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master_, 0);
    ASSERT_EQ(grantpt(master_) + unlockpt(master_), 0);
    device_ = ptsname(master_);
  }
  void TearDown() override {
    Calls() = {};
    close(master_);
  }
  int master_ = -1;
  std::string device_;
};

TEST_F(Serial, CarriesRawBytesBothWays) {
  Exposed link(device_, 115200);
  EXPECT_EQ(link.Disconnect(), 0);
  EXPECT_EQ(Printed([&] { ASSERT_TRUE(link.Init()); }), "");
  std::string all(256, '\0');
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<char>(i);
  EXPECT_EQ(link.Write({all.begin(), all.end()}), 256);
  std::string got(256, ' ');
  ASSERT_EQ(read(master_, got.data(), got.size()), 256);
  EXPECT_EQ(got, all);
  ASSERT_EQ(write(master_, all.data(), all.size()), 256);
  std::vector<char> data;
  for (int i = 0; i < 500 && link.Read(data) == 0; ++i) usleep(1000);
  EXPECT_EQ(std::string(data.begin(), data.end()), all);
  data = {'o', 'l', 'd'};
  EXPECT_EQ(link.Read(data), 0);
  EXPECT_TRUE(data.empty());
  EXPECT_EQ(link.Write({}), 0);
}

TEST_F(Serial, BeforeInitItOnlyComplains) {
  SerialClient link(device_, 115200);
  std::vector<char> data = {'x'};
  EXPECT_EQ(Printed([&] {
              EXPECT_EQ(link.Read(data), 0);
              EXPECT_EQ(link.Write(data), 0);
            }),
            "[Read] This object doesn't init\n[Write] This object doesn't init\n");
}

TEST_F(Serial, SetsExactlyTheseFlagsAndRestoresTheOldOnes) {
  termios before{};
  {
    Exposed link(device_, 115200);
    ASSERT_TRUE(link.Init());
    tcgetattr(master_, &before);
    ASSERT_EQ(Calls().applied.size(), 1u);
    const termios set = Calls().applied[0];
    EXPECT_EQ(set.c_iflag & (IXON | IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL), 0u);
    EXPECT_EQ(set.c_oflag, 0u);
    EXPECT_EQ(set.c_lflag & (ISIG | ICANON | ECHO | ECHOE | ECHONL | IEXTEN), 0u);
    EXPECT_EQ(set.c_cflag & (CRTSCTS | PARENB | CSTOPB | CSIZE), 0u);
    EXPECT_EQ(set.c_cflag & (CLOCAL | CREAD), static_cast<tcflag_t>(CLOCAL | CREAD));
    EXPECT_EQ(set.c_cc[VMIN] + set.c_cc[VTIME], 0);
    EXPECT_EQ(cfgetospeed(&set), static_cast<speed_t>(B115200));
    EXPECT_EQ(cfgetispeed(&set), static_cast<speed_t>(B115200));
    EXPECT_EQ(fcntl(link.fd_, F_GETFL) & O_NONBLOCK, 0);
    const int fd = link.fd_;
    EXPECT_EQ(link.Disconnect(), 0);
    EXPECT_EQ(link.fd_, fd);
    EXPECT_EQ(link.Disconnect(), -1);  // closes the same number again
  }
  EXPECT_NE(Calls().applied[1].c_lflag & (ICANON | ECHO), 0u);
  EXPECT_NE(Calls().applied[1].c_oflag, 0u);
}

TEST_F(Serial, MapsEveryStandardRateAndLeavesTheDriverAlone) {
  Calls().answers["ioctl"] = {{{-1, ENOTTY}}};  // would fail if asked
  const std::vector<std::pair<unsigned, speed_t>> rates = {
      {50, B50},     {75, B75},       {110, B110},     {134, B134},     {150, B150},       {200, B200},
      {300, B300},   {600, B600},     {1200, B1200},   {1800, B1800},   {2400, B2400},     {4800, B4800},
      {9600, B9600}, {19200, B19200}, {38400, B38400}, {57600, B57600}, {115200, B115200}, {230400, B230400}};
  for (const auto& [rate, speed] : rates) {
    SerialClient link(device_, rate);
    EXPECT_TRUE(link.Init());
    EXPECT_EQ(cfgetospeed(&Calls().applied.back()), speed) << rate;
  }
}

TEST_F(Serial, OtherRatesUseTheDriversDivisor) {
  struct Row {
    int base;
    unsigned rate;
    int divisor;
  };
  for (const Row& row : {Row{24000000, 250000, 96}, Row{24000000, 7000000, 3}, Row{115200, 1000000, 1},
                         Row{1843200, 4000000000u, 1}, Row{100, 40, 3}, Row{2147483647, 1, 2147483647}}) {
    Calls().serial.emplace();
    Calls().serial->baud_base = row.base;
    Calls().serial->flags = ASYNC_SPD_VHI | ASYNC_LOW_LATENCY;
    SerialClient link(device_, row.rate);
    EXPECT_TRUE(link.Init());
    EXPECT_EQ(Calls().serial->custom_divisor, row.divisor) << row.rate;
    EXPECT_EQ(Calls().serial->flags, ASYNC_SPD_CUST | ASYNC_LOW_LATENCY);
    EXPECT_EQ(cfgetospeed(&Calls().applied.back()), static_cast<speed_t>(B38400));
  }
}

TEST_F(Serial, EveryFailureOfConnectIsSilent) {
  EXPECT_EQ(Printed([&] {
              EXPECT_FALSE(SerialClient("/no/such/device", 9600).Init());
              EXPECT_FALSE(SerialClient(device_, 0).Init());
              EXPECT_FALSE(SerialClient(device_, 250000).Init());  // a pseudo terminal has no serial driver
              for (std::size_t fails = 1; fails <= 3; ++fails) {   // TIOCGSERIAL, TIOCSSERIAL, TIOCGSERIAL
                Calls().serial.emplace();
                Calls().answers["ioctl"].assign(fails - 1, std::nullopt);
                Calls().answers["ioctl"].push_back({{-1, EIO}});
                EXPECT_FALSE(SerialClient(device_, 250000).Init());
              }
              Calls().answers["tcsetattr"] = {{{-1, EIO}}};
              Exposed link(device_, 9600);
              EXPECT_FALSE(link.Init());
              EXPECT_EQ(link.fd_, 0);
            }),
            "");
}

TEST_F(Serial, OverflowingAndFailedReadsGiveNothing) {
  SerialClient link(device_, 9600);
  ASSERT_TRUE(link.Init());
  for (const auto& [count, printed] : std::vector<std::pair<long, std::string>>{
           {65534, ""}, {65535, "[Read] Buffer Overflow:65535\n"}, {0, ""}, {-1, ""}}) {
    Calls().answers["read"] = {{{count, EIO}}};
    std::vector<char> data = {'o', 'l', 'd'};
    const int expected = count == 65534 ? 65534 : 0;
    EXPECT_EQ(Printed([&] { EXPECT_EQ(link.Read(data), expected); }), printed);
    EXPECT_EQ(data.size(), static_cast<std::size_t>(expected));
  }
}

TEST_F(Serial, WritesInALoopThatCountsFailuresAsMinusOne) {
  SerialClient link(device_, 9600);
  ASSERT_TRUE(link.Init());
  Calls().capture_writes = true;
  auto& answers = Calls().answers["write"];
  using Strings = std::vector<std::string>;

  answers = {{{2}}, {{1}}};
  EXPECT_EQ(link.Write({'a', 'b', 'c', 'd'}), 4);
  EXPECT_EQ(Calls().written, (Strings{"abcd", "cd", "d"}));

  Calls().written.clear();
  answers = {{{-1, EINTR}}, {{3}}, {{-1, EINTR}}};
  EXPECT_EQ(link.Write({'a', 'b', 'c'}), 3);
  EXPECT_EQ(Calls().written, (Strings{"abc", std::string("\0abc", 4), "c", "bc"}));

  Calls().written.clear();
  answers.assign(10000, {{-1, EIO}});
  EXPECT_EQ(link.Write({'a'}), -65);
  answers.clear();
  for (std::size_t i = 0; i < Calls().written.size(); ++i) {
    ASSERT_EQ(Calls().written[i], std::string(i, '\0') + "a");  // never memory from outside the buffer
  }
  EXPECT_EQ(Calls().written.size(), 65u);
  Calls().capture_writes = false;
}

}  // namespace
