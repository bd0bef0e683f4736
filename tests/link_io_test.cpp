// SPDX-License-Identifier: MIT
// The socket links, over real sockets, with system calls that fail where a test asks so.
#include "link_io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <locale>

#include "TcpClient.h"
#include "UdpClient.h"
#include "support/system_calls.h"

namespace {

using namespace velta::test;

template <typename Link>
class SocketLink : public testing::Test {
 protected:
  static constexpr bool kTcp = std::is_same_v<Link, TcpClient>;
  struct Exposed : Link {
    using Link::Link;
    using Link::recv_buf_;
    using Link::sockfd_;
  };

  void SetUp() override {
    Calls() = {};
    peer_ = socket(AF_INET, kTcp ? SOCK_STREAM : SOCK_DGRAM, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(bind(peer_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(kTcp ? listen(peer_, 16) : 0, 0);
    port_ = ntohs(Name(peer_).sin_port);
  }
  void TearDown() override {
    Calls() = {};
    close(peer_);
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
    EXPECT_EQ(Init(*link), (Did{1, Of("Success to open TCP Connection to 127.0.0.1\n")}));
    const sockaddr_in name = Name(link->sockfd_);
    if (kTcp) close(std::exchange(peer_, accept(peer_, nullptr, nullptr)));
    if (!kTcp) connect(peer_, reinterpret_cast<const sockaddr*>(&name), sizeof name);
    return link;
  }
  void ClosePeer() { close(std::exchange(peer_, -1)); }
  /// Bytes reach the link, or the end of its connection.
  void Arrive(const Exposed& link, const char* bytes) {
    send(peer_, bytes, std::strlen(bytes), MSG_NOSIGNAL);
    pollfd request{link.sockfd_, POLLIN, 0};
    ASSERT_EQ(poll(&request, 1, 5000), 1);
  }
  /// A text of the TCP link, or the same of the UDP link.
  static std::string Of(std::string text) {
    for (std::size_t at = 0; !kTcp && (at = text.find("TCP")) != std::string::npos;) text.replace(at, 3, "UDP");
    for (std::size_t at = 0; !kTcp && (at = text.find("Tcp")) != std::string::npos;) text.replace(at, 3, "Udp");
    return text;
  }

  int peer_ = -1;
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
  EXPECT_EQ(Read(*link), (Did{0, "", kKept}));
  EXPECT_EQ(std::exchange(Calls().poll_timeout_ms, -1), 0);
  EXPECT_EQ(link->Write({'a', '\0', 'b'}), 3);
  EXPECT_EQ(Calls().poll_timeout_ms, 0);
  char bytes[8];
  ASSERT_EQ(recv(this->peer_, bytes, sizeof bytes, 0), 3);
  EXPECT_EQ(std::memcmp(bytes, "a\0b", 3), 0);
  this->Arrive(*link, "xyz");
  std::vector<char> data;
  EXPECT_EQ(link->Read(data), 3);
  EXPECT_EQ(data, (std::vector<char>{'x', 'y', 'z'}));
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
  for (const int count : {1, 65534}) {
    NextGives("recv", count);
    EXPECT_EQ(Read(*link), (Did{count, "", count}));
  }
  NextGives("recv", 65535);
  EXPECT_EQ(Read(*link), (Did{0, this->Of("[TcpClient::Read] Buffer Overflow:65535\n"), 0}));
  for (const int count : {0, -1}) {
    NextGives("recv", count);
    EXPECT_EQ(Read(*link), (Did{0, "", 0}));
  }
  std::cout.imbue(before);
}

TYPED_TEST(SocketLink, ReportsEveryFailedCallOfConnectAndThenComplains) {
  const std::string failed = "[TcpClient::Connect] Failed to ", open = failed + "open TCP Connection to 127.0.0.1: ";
  const std::string connected = "Success to open TCP Connection to 127.0.0.1\n" + failed;
  struct Row {
    std::vector<std::pair<const char*, long>> calls;
    std::string printed;
  };
  std::vector<Row> rows = {
      {{{"poll", 0}}, open + "Connection timed out\n"},
      {{{"poll", -1}}, open + "Input/output error\n"},
      {{{"socket", -1}},
       "[TcpClient::CreateSocket] socket failed: Input/output error\n" + open + "Bad file descriptor\n"},
      {{{"getsockopt", -1}}, failed + "get SO_ERROR option: Input/output error\n"},
      {{{"getsockopt", kPass}, {"getsockopt", -1}}, connected + "get TCP_NODELAY option: Input/output error\n"},
      {{{"setsockopt", -1}}, connected + "set TCP_NODELAY option: Input/output error\n"}};
  rows.resize(this->kTcp ? 6 : 4);
  rows.push_back({});  // never initialised
  for (const Row& row : rows) {
    auto link = this->Make();
    EXPECT_EQ(link->sockfd_, -1);  // the destructor closes nothing of the host's
    for (const auto& [name, result] : row.calls) NextGives(name, result);
    if (!row.calls.empty()) {
      EXPECT_EQ(Init(*link), (Did{0, this->Of(row.printed)}));
    }
    EXPECT_EQ(Read(*link), (Did{-1, this->Of("[TcpClient::Read] This object doesn't init\n"), kKept}));
    EXPECT_EQ(Write(*link), (Did{-1, this->Of("[TcpClient::Write] This object doesn't init\n")}));
  }
}

TYPED_TEST(SocketLink, ReportsFailedPollsAndSendsAndNothingElse) {
  auto link = this->Open();
  const auto read_fails = [&](const char* why) {
    EXPECT_EQ(Read(*link),
              (Did{-1, this->Of(std::string("[TcpClient::Read] Read select Failed: ") + why + "\n"), kKept}));
  };
  const auto write_fails = [&](const std::string& why) {
    EXPECT_EQ(Write(*link), (Did{-1, this->Of("[TcpClient::Write] Write " + why + "\n")}));
  };
  NextGives("poll", -1);
  read_fails("Input/output error");
  NextGives("poll", -1);
  write_fails("select Failed: Input/output error");
  NextGives("poll", 0);
  EXPECT_EQ(Read(*link), (Did{0, "", kKept}));
  NextGives("poll", 0);
  NextGives("send", -1);
  EXPECT_EQ(Write(*link), (Did{0, ""}));  // not writable now: nothing is sent
  write_fails("Failed: Input/output error");
  NextGives("send", 0);
  EXPECT_EQ(Write(*link), (Did{0, ""}));
  EXPECT_EQ(link->Disconnect(), 0);  // the link still counts as initialised
  read_fails("Bad file descriptor");
  write_fails("select Failed: Bad file descriptor");
}

TYPED_TEST(SocketLink, ConnectOpensAFreshSocketAndKeepsTheOldOne) {
  auto link = this->Open();
  const int old = link->sockfd_;
  Printed([&] { PrintedError([&] { link->Connect(); }); });
  EXPECT_NE(link->sockfd_, old);
  EXPECT_EQ(close(old), 0);
}

using Tcp = SocketLink<TcpClient>;
using Udp = SocketLink<UdpClient>;

TEST_F(Tcp, AClosedPeerShowsOnlyOnWrite) {
  auto link = Open();
  ClosePeer();
  Arrive(*link, "");
  EXPECT_EQ(Read(*link), (Did{0, "", 0}));
  PrintedError([&] {
    int result = 0;
    for (int i = 0; i < 500 && result != -1; ++i, usleep(1000)) result = link->Write({'x'});
    EXPECT_EQ(result, -1);
  });
}

TEST_F(Udp, ABadAddressTextIsNotNoticed) {
  UdpClient link("nonsense", port_);
  EXPECT_EQ(Init(link), (Did{1, "Success to open UDP Connection to nonsense\n"}));
}

TEST_F(Udp, AMissingPeerIsNoLostConnection) {
  ClosePeer();
  auto link = Make();
  EXPECT_EQ(Init(*link), (Did{1, "Success to open UDP Connection to 127.0.0.1\n"}));
  EXPECT_EQ(Write(*link), (Did{1, ""}));
  std::vector<char> data = {'x'};
  for (int i = 0; i < 500 && !data.empty(); ++i, usleep(1000)) EXPECT_EQ(link->Read(data), 0);
  EXPECT_TRUE(data.empty());  // the refused port emptied it
}

}  // namespace
