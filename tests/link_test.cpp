// SPDX-License-Identifier: MIT
// All links, over real sockets and pseudo terminals, with system calls that fail or move few bytes where a test asks
// so.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <locale>
#include <sstream>
#include <string>

#include "SerialClient.h"
#include "TcpClient.h"
#include "UdpClient.h"
#include "support/capture.h"
#include "support/system_calls.h"

namespace {

using velta::test::Calls;
using velta::test::Printed;
using velta::test::PrintedError;
using Data = std::vector<char>;

class LinkTest : public testing::Test {
 protected:
  LinkTest() { Calls() = {}; }
  ~LinkTest() override {
    Calls() = {};
    close(peer_);
  }

  /// Plays a story of one link, in statements separated by ';':
  ///   poll=0 send=-1       answers the next system call of that name, with EIO for -1; poll=pass lets it pass
  ///   Init=1 Write=-1      calls an operation, which gives this number; Write has one byte
  ///   Read=2 Read=0 kept   the same; the data are as many bytes then, or those of before
  ///   | Success            what is printed, a line each, and nothing else
  static void Play(AbstractClient& link, const std::string& story) {
    std::istringstream statements(story);
    std::string printed, told;
    for (std::string text; statements >> std::ws && std::getline(statements, text, ';');) {
      SCOPED_TRACE(text);
      if (text[0] == '|') {
        told += text.substr(2) + "\n";
        continue;
      }
      const std::string what = text.substr(0, text.find('='));
      const std::string value = text.substr(what.size() + 1);
      if (std::islower(text[0]) != 0) {
        auto& answer = Calls().answers[what].emplace_back();
        if (value != "pass") answer = {std::stol(value), value == "-1" ? EIO : 0};
        continue;
      }
      Data data = {'o', 'l', 'd'};
      int result = 0;
      std::string error;
      printed += Printed([&] {
        error = PrintedError([&] {
          result = what == "Init"    ? link.Init()
                   : what == "Read"  ? link.Read(data)
                   : what == "Write" ? link.Write({'x'})
                                     : link.Disconnect();
        });
      });
      printed += error;
      EXPECT_EQ(result, std::stoi(value));
      const bool kept = what != "Read" || value.find("kept") != std::string::npos;
      EXPECT_EQ(static_cast<int>(data.size()), kept ? 3 : result);
    }
    EXPECT_EQ(printed, told);
  }

  int peer_ = -1;
};

template <typename Link>
class SocketLink : public LinkTest {
 protected:
  static constexpr bool kTcp = std::is_same_v<Link, TcpClient>;
  struct Exposed : Link {
    using Link::Link;
    using Link::recv_buf_;
    using Link::sockfd_;
  };

  void SetUp() override {
    peer_ = socket(AF_INET, kTcp ? SOCK_STREAM : SOCK_DGRAM, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(bind(peer_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(kTcp ? listen(peer_, 16) : 0, 0);
    port_ = ntohs(Name(peer_).sin_port);
  }
  static sockaddr_in Name(int fd) {
    sockaddr_in name{};
    socklen_t size = sizeof name;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size), 0);
    return name;
  }

  std::unique_ptr<Exposed> Make() const { return std::make_unique<Exposed>("127.0.0.1", port_); }
  /// Opens a link and makes peer_ the socket at its other end.
  std::unique_ptr<Exposed> Open() {
    auto link = Make();
    PlayBoth(*link, "Init=1; | Success to open TCP Connection to 127.0.0.1");
    const sockaddr_in name = Name(link->sockfd_);
    if (kTcp) close(std::exchange(peer_, accept(peer_, nullptr, nullptr)));
    if (!kTcp) connect(peer_, reinterpret_cast<const sockaddr*>(&name), sizeof name);
    return link;
  }
  /// Bytes reach the link, or the end of its connection.
  void Arrive(const Exposed& link, const char* bytes) {
    send(peer_, bytes, std::strlen(bytes), MSG_NOSIGNAL);
    pollfd request{link.sockfd_, POLLIN, 0};
    ASSERT_EQ(poll(&request, 1, 5000), 1);
  }
  /// Plays a story of TCP, or the same of UDP.
  static void PlayBoth(AbstractClient& link, std::string story) {
    for (std::size_t at = 0; !kTcp && (at = story.find("TCP")) != std::string::npos;) story.replace(at, 3, "UDP");
    for (std::size_t at = 0; !kTcp && (at = story.find("Tcp")) != std::string::npos;) story.replace(at, 3, "Udp");
    Play(link, story);
  }

  int port_ = 0;
};

struct LinkName {
  template <typename Link>
  static std::string GetName(int) {
    return std::is_same_v<Link, TcpClient> ? "TCP" : "UDP";
  }
};
using Links = testing::Types<TcpClient, UdpClient>;
TYPED_TEST_SUITE(SocketLink, Links, LinkName);

TYPED_TEST(SocketLink, CarriesBytesBothWaysWithoutWaiting) {
  auto link = this->Open();
  EXPECT_EQ(Calls().poll_timeout_ms, this->kTcp ? 5000 : 3000);
  EXPECT_NE(fcntl(link->sockfd_, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(link->recv_buf_[65535], 0);
  if (this->kTcp) {
    int no_delay = 0;
    socklen_t size = sizeof no_delay;
    EXPECT_EQ(getsockopt(link->sockfd_, IPPROTO_TCP, TCP_NODELAY, &no_delay, &size), 0);
    EXPECT_EQ(no_delay, 1);
  }
  this->Play(*link, "Read=0 kept");
  EXPECT_EQ(std::exchange(Calls().poll_timeout_ms, -1), 0);
  EXPECT_EQ(link->Write({'a', '\0', 'b'}), 3);
  EXPECT_EQ(Calls().poll_timeout_ms, 0);
  char bytes[8];
  ASSERT_EQ(recv(this->peer_, bytes, sizeof bytes, 0), 3);
  EXPECT_EQ(std::memcmp(bytes, "a\0b", 3), 0);
  this->Arrive(*link, "xyz");
  Data data;
  EXPECT_EQ(link->Read(data), 3);
  EXPECT_EQ(data, (Data{'x', 'y', 'z'}));
}

/// A host's locale that writes 65,535.
struct GroupedThousands : std::numpunct<char> {
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

TYPED_TEST(SocketLink, DeliversUpTo65534BytesAndDropsAnOverflow) {
  auto link = this->Open();
  this->Arrive(*link, "x");
  const std::locale before = std::cout.imbue(std::locale(std::locale::classic(), new GroupedThousands));
  this->PlayBoth(*link,
                 "recv=1; Read=1; recv=65534; Read=65534; recv=65535; Read=0; "
                 "| [TcpClient::Read] Buffer Overflow:65535; recv=0; Read=0; recv=-1; Read=0");
  std::cout.imbue(before);
}

TYPED_TEST(SocketLink, ReportsEveryFailedCallOfConnectAndThenComplains) {
  const std::string failed = "Init=0; | [TcpClient::Connect] Failed to open TCP Connection to 127.0.0.1: ";
  const std::string connected =
      "Init=0; | Success to open TCP Connection to 127.0.0.1; | [TcpClient::Connect] Failed to ";
  std::vector<std::string> stories = {
      "",  // before Init()
      "poll=0; " + failed + "Connection timed out; ",
      "poll=-1; " + failed + "Input/output error; ",
      "socket=-1; | [TcpClient::CreateSocket] socket failed: Input/output error; " + failed + "Bad file descriptor; ",
      "getsockopt=-1; Init=0; | [TcpClient::Connect] Failed to get SO_ERROR option: Input/output error; ",
      "getsockopt=pass; getsockopt=-1; " + connected + "get TCP_NODELAY option: Input/output error; ",
      "setsockopt=-1; " + connected + "set TCP_NODELAY option: Input/output error; "};
  stories.resize(this->kTcp ? 7 : 5);
  for (const std::string& story : stories) {
    auto link = this->Make();
    EXPECT_EQ(link->sockfd_, -1);  // the destructor closes nothing of the host's
    this->PlayBoth(*link, story +
                              "Read=-1 kept; | [TcpClient::Read] This object doesn't init; "
                              "Write=-1; | [TcpClient::Write] This object doesn't init");
  }
}

TYPED_TEST(SocketLink, ReportsFailedPollsAndSendsAndNothingElse) {
  auto link = this->Open();
  this->PlayBoth(*link,
                 "poll=-1; Read=-1 kept; | [TcpClient::Read] Read select Failed: Input/output error; "
                 "poll=-1; Write=-1; | [TcpClient::Write] Write select Failed: Input/output error; "
                 "poll=0; Read=0 kept; poll=0; send=-1; Write=0;"  // not writable now: nothing is sent
                 "Write=-1; | [TcpClient::Write] Write Failed: Input/output error; send=0; Write=0; "
                 "Disconnect=0; "  // the link still counts as initialised
                 "Read=-1 kept; | [TcpClient::Read] Read select Failed: Bad file descriptor; "
                 "Write=-1; | [TcpClient::Write] Write select Failed: Bad file descriptor");
  errno = ENOENT;
  EXPECT_EQ(PrintedError([&] { link->PrintError("why"); }), "why: No such file or directory\n");
}

TYPED_TEST(SocketLink, ConnectOpensAFreshSocketAndKeepsTheOldOne) {
  auto link = this->Open();
  const int old = link->sockfd_;
  Printed([&] { PrintedError([&] { link->Connect(); }); });
  EXPECT_NE(link->sockfd_, old);
  EXPECT_EQ(close(old), 0);
}

TYPED_TEST(SocketLink, WorksAboveDescriptor1023) {
  std::vector<int> taken;
  for (int fd = dup(0); fd >= 0 && fd < 1030; fd = dup(0)) taken.push_back(fd);
  if (!taken.empty() && taken.back() >= 1029) {
    auto link = this->Open();
    EXPECT_GE(link->sockfd_, 1024);
    this->Play(*link, "Read=0 kept; Write=1");
  }
  for (const int fd : taken) close(fd);
}

using Tcp = SocketLink<TcpClient>;
using Udp = SocketLink<UdpClient>;

TEST_F(Tcp, ARefusedConnectionTellsTheSystemsReason) {
  close(std::exchange(peer_, -1));
  Play(*Make(), "Init=0; | [TcpClient::Connect] Failed to open TCP Connection to 127.0.0.1: Connection refused");
}

TEST_F(Tcp, AClosedPeerShowsOnWriteAlone) {
  auto link = Open();
  close(std::exchange(peer_, -1));
  Arrive(*link, "");
  Play(*link, "Read=0");
  PrintedError([&] {
    int result = 0;
    for (int i = 0; i < 500 && result != -1; ++i, usleep(1000)) result = link->Write({'x'});
    EXPECT_EQ(result, -1);
  });
}

TEST_F(Udp, ABadAddressTextIsNotNoticed) {
  UdpClient link("nonsense", port_);
  Play(link, "Init=1; | Success to open UDP Connection to nonsense");
}

TEST_F(Udp, AMissingPeerIsNoLostConnection) {
  close(std::exchange(peer_, -1));
  auto link = Make();
  Play(*link, "Init=1; | Success to open UDP Connection to 127.0.0.1; Write=1");
  Data data = {'x'};
  for (int i = 0; i < 500 && !data.empty(); ++i, usleep(1000)) EXPECT_EQ(link->Read(data), 0);
  EXPECT_TRUE(data.empty());  // the refused port emptied it
}

struct Exposed : SerialClient {
  using SerialClient::fd_;
  using SerialClient::SerialClient;
};

/// A pseudo terminal: the link opens its other end by name.
class Serial : public LinkTest {
 protected:
  Serial() {
    peer_ = posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_EQ(grantpt(peer_) + unlockpt(peer_), 0);
    device_ = ptsname(peer_);
  }
  std::string device_;
};

TEST_F(Serial, CarriesRawBytesBothWays) {
  Exposed link(device_, 115200);
  EXPECT_EQ(link.Disconnect(), 0);
  EXPECT_TRUE(Calls().applied.empty());  // descriptor 0 is left alone
  EXPECT_EQ(Printed([&] { ASSERT_TRUE(link.Init()); }), "");
  Data all, got(256), data;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
  EXPECT_EQ(link.Write(all), 256);
  ASSERT_EQ(read(peer_, got.data(), got.size()), 256);
  EXPECT_EQ(got, all);
  ASSERT_EQ(write(peer_, all.data(), all.size()), 256);
  for (int i = 0; i < 500 && link.Read(data) == 0; ++i) usleep(1000);
  EXPECT_EQ(data, all);
  EXPECT_EQ(link.Read(data), 0);
  EXPECT_TRUE(data.empty());
  EXPECT_EQ(link.Write({}), 0);
}

TEST_F(Serial, SetsExactlyTheseFlagsAndRestoresTheOldOnes) {
  {
    Exposed link(device_, 115200);
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
  Calls().answers["ioctl"] = {{{-1, ENOTTY}}};  // would fail if asked
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
  Exposed missing("/no/such/device", 9600), zero(device_, 0), odd(device_, 250000), link(device_, 9600);
  Play(missing, "Init=0");
  Play(zero, "Init=0");
  Play(odd, "Init=0");  // a pseudo terminal has no serial driver
  for (const char* story :
       {"ioctl=-1; Init=0", "ioctl=pass; ioctl=-1; Init=0", "ioctl=pass; ioctl=pass; ioctl=-1; Init=0"}) {
    Calls().serial.emplace();
    Play(odd, story);
  }
  Play(link, "tcsetattr=-1; Init=0");
  EXPECT_EQ(link.fd_, 0);
}

TEST_F(Serial, OverflowingAndFailedReadsGiveNothing) {
  SerialClient link(device_, 9600);
  Play(link,
       "Read=0 kept; | [Read] This object doesn't init; Write=0; | [Write] This object doesn't init; Init=1; "
       "read=65534; Read=65534; read=65535; Read=0; | [Read] Buffer Overflow:65535; read=0; Read=0; read=-1; Read=0");
}

TEST_F(Serial, WritesInALoopThatCountsFailuresAsMinusOne) {
  SerialClient link(device_, 9600);
  ASSERT_TRUE(link.Init());
  Calls().capture_writes = true;
  std::vector<std::string> endless;
  for (std::size_t i = 0; i < 65; ++i) endless.push_back(std::string(i, '\0') + "a");  // nothing from before the buffer
  const auto expect = [&](const Data& data, const std::vector<long>& results, int sum,
                          const std::vector<std::string>& written) {
    for (const long result : results) Calls().answers["write"].push_back({{result, EINTR}});
    EXPECT_EQ(link.Write(data), sum);
    EXPECT_EQ(std::exchange(Calls().written, {}), written);
  };
  expect({'a', 'b', 'c', 'd'}, {2, 1}, 4, {"abcd", "cd", "d"});
  expect({'a', 'b', 'c'}, {-1, 3, -1}, 3, {"abc", std::string("\0abc", 4), "c", "bc"});
  expect({'a'}, std::vector<long>(10000, -1), -65, endless);
}

}  // namespace
