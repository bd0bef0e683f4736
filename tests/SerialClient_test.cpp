// SPDX-License-Identifier: MIT
// The serial link, over a pseudo terminal, with system calls that fail or move few bytes where a test asks so.
#include "SerialClient.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>

#include "support/system_calls.h"

namespace {

using namespace velta::test;
using Data = std::vector<char>;

struct Link : SerialClient {
  using SerialClient::fd_;
  using SerialClient::SerialClient;
};

/// A pseudo terminal: the link opens its other end by name.
class Serial : public testing::Test {
 protected:
  Serial() {
    Calls() = {};
    peer_ = posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_EQ(grantpt(peer_) + unlockpt(peer_), 0);
    device_ = ptsname(peer_);
  }
  ~Serial() override {
    Calls() = {};
    close(peer_);
  }
  std::string device_;
  int peer_;
};

TEST_F(Serial, CarriesRawBytesBothWays) {
  Link link(device_, 115200);
  EXPECT_EQ(link.Disconnect(), 0);
  EXPECT_TRUE(Calls().applied.empty());  // descriptor 0 is left alone
  EXPECT_EQ(Init(link), (Did{1, ""}));
  Data all, got(256), data, piece;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
  EXPECT_EQ(link.Write(all), 256);
  ASSERT_EQ(read(peer_, got.data(), got.size()), 256);
  EXPECT_EQ(got, all);
  ASSERT_EQ(write(peer_, all.data(), all.size()), 256);
  for (int i = 0; i < 5000 && data.size() < 256; ++i) {  // a pseudo terminal may deliver in pieces
    if (link.Read(piece) == 0) usleep(1000);
    data.insert(data.end(), piece.begin(), piece.end());
  }
  EXPECT_EQ(data, all);
  EXPECT_EQ(Read(link), (Did{0, "", 0}));
  EXPECT_EQ(link.Write({}), 0);
}

TEST_F(Serial, SetsExactlyTheseFlagsAndRestoresTheOldOnes) {
  {
    Link link(device_, 115200);
    ASSERT_TRUE(link.Init());
    ASSERT_EQ(Calls().applied.size(), 1u);
    const termios set = Calls().applied[0];
    EXPECT_EQ(set.c_iflag & (IXON | IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL), 0u);
    EXPECT_EQ(set.c_oflag, 0u);
    EXPECT_EQ(set.c_lflag & (ISIG | ICANON | ECHO | ECHOE | ECHONL | IEXTEN), 0u);
    EXPECT_EQ(set.c_cflag & (CRTSCTS | PARENB | CSTOPB | CSIZE | CLOCAL | CREAD),
              static_cast<tcflag_t>(CLOCAL | CREAD));
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
  NextGives("ioctl", -1);  // would fail if asked
  const std::vector<std::pair<unsigned, speed_t>> rows = {
      {50, B50},     {75, B75},       {110, B110},     {134, B134},     {150, B150},       {200, B200},
      {300, B300},   {600, B600},     {1200, B1200},   {1800, B1800},   {2400, B2400},     {4800, B4800},
      {9600, B9600}, {19200, B19200}, {38400, B38400}, {57600, B57600}, {115200, B115200}, {230400, B230400}};
  for (const auto& [rate, speed] : rows) {
    Calls().applied.clear();
    EXPECT_TRUE(SerialClient(device_, rate).Init());
    EXPECT_EQ(cfgetospeed(&Calls().applied.front()), speed) << rate;
  }
}

TEST_F(Serial, OtherRatesUseTheDriversDivisor) {
  const std::vector<std::tuple<int, unsigned, int>> rows = {{24000000, 250000, 96}, {24000000, 7000000, 3},
                                                            {115200, 1000000, 1},   {1843200, 4000000000u, 1},
                                                            {100, 40, 3},           {2147483647, 1, 2147483647}};
  for (const auto& [base, rate, divisor] : rows) {
    Calls().serial.emplace();
    Calls().serial->baud_base = base;
    Calls().serial->flags = ASYNC_SPD_SHI | ASYNC_LOW_LATENCY;
    Calls().applied.clear();
    EXPECT_TRUE(SerialClient(device_, rate).Init());
    EXPECT_EQ(Calls().serial->custom_divisor, divisor) << rate;
    EXPECT_EQ(Calls().serial->flags, ASYNC_SPD_CUST | ASYNC_LOW_LATENCY);
    EXPECT_EQ(cfgetospeed(&Calls().applied.front()), static_cast<speed_t>(B38400));
  }
}

TEST_F(Serial, EveryFailureOfConnectIsSilent) {
  Link missing("/no/such/device", 9600), zero(device_, 0), odd(device_, 250000), link(device_, 9600);
  EXPECT_EQ(Init(missing), (Did{0, ""}));
  EXPECT_EQ(Init(zero), (Did{0, ""}));
  EXPECT_EQ(Init(odd), (Did{0, ""}));  // a pseudo terminal has no serial driver
  for (int good = 0; good < 3; ++good) {
    Calls().serial.emplace();
    for (int i = 0; i < good; ++i) NextGives("ioctl", kPass);
    NextGives("ioctl", -1);
    EXPECT_EQ(Init(odd), (Did{0, ""}));
  }
  NextGives("tcsetattr", -1);
  EXPECT_EQ(Init(link), (Did{0, ""}));
  EXPECT_EQ(link.fd_, 0);
}

TEST_F(Serial, OverflowingAndFailedReadsGiveNothing) {
  SerialClient link(device_, 9600);
  EXPECT_EQ(Read(link), (Did{0, "[Read] This object doesn't init\n", kKept}));
  EXPECT_EQ(Write(link), (Did{0, "[Write] This object doesn't init\n"}));
  ASSERT_TRUE(link.Init());
  NextGives("read", 65534);
  EXPECT_EQ(Read(link), (Did{65534, "", 65534}));
  NextGives("read", 65535);
  EXPECT_EQ(Read(link), (Did{0, "[Read] Buffer Overflow:65535\n", 0}));
  for (const int count : {0, -1}) {
    NextGives("read", count);
    EXPECT_EQ(Read(link), (Did{0, "", 0}));
  }
}

TEST_F(Serial, WritesInALoopThatCountsFailuresAsMinusOne) {
  SerialClient link(device_, 9600);
  ASSERT_TRUE(link.Init());
  Calls().capture_writes = true;
  std::vector<std::string> endless;
  for (std::size_t i = 0; i < 65; ++i) endless.push_back(std::string(i, '\0') + "a");  // nothing from before the buffer
  const auto expect = [&](const Data& data, const std::vector<long>& results, int sum,
                          const std::vector<std::string>& written) {
    for (const long result : results) NextGives("write", result);
    EXPECT_EQ(link.Write(data), sum);
    EXPECT_EQ(std::exchange(Calls().written, {}), written);
  };
  expect({'a', 'b', 'c', 'd'}, {2, 1}, 4, {"abcd", "cd", "d"});
  expect({'a', 'b', 'c'}, {-1, 3, -1}, 3, {"abc", std::string("\0abc", 4), "c", "bc"});
  expect({'a'}, std::vector<long>(10000, -1), -65, endless);
}

}  // namespace
