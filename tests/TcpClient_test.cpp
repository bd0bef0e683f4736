// SPDX-License-Identifier: MIT
// Both socket links: whatever holds for one kind is a row's matter, not a copy's.
#include "TcpClient.h"

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

#include "UdpClient.h"
#include "support/capture.h"
#include "support/system_calls.h"

namespace {

using velta::test::Calls;
using velta::test::Printed;
using velta::test::PrintedError;

template <typename Link>
struct Kind;
template <>
struct Kind<TcpClient> {
  static constexpr const char *kTag = "TcpClient", *kLink = "TCP";
  static constexpr int kType = SOCK_STREAM, kTimeoutMs = 5000;
};
template <>
struct Kind<UdpClient> {
  static constexpr const char *kTag = "UdpClient", *kLink = "UDP";
  static constexpr int kType = SOCK_DGRAM, kTimeoutMs = 3000;
};

template <typename Link>
class SocketLink : public testing::Test {
 protected:
  using K = Kind<Link>;
  struct Exposed : Link {
    using Link::Link;
    using Link::recv_buf_;
    using Link::sockfd_;
  };

  void SetUp() override {
    Calls() = {};
    peer_ = socket(AF_INET, K::kType, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(peer_, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(K::kType == SOCK_STREAM ? listen(peer_, 16) : 0, 0);
    ASSERT_EQ(getsockname(peer_, reinterpret_cast<sockaddr*>(&address), &size), 0);
    port_ = ntohs(address.sin_port);
  }
  void TearDown() override {
    Calls() = {};
    ClosePeer();
  }
  void ClosePeer() {
    if (peer_ >= 0) close(peer_);
    peer_ = -1;
  }

  /// Opens the link and makes peer_ the socket at its other end.
  std::unique_ptr<Exposed> Open() {
    auto link = std::make_unique<Exposed>("127.0.0.1", port_);
    EXPECT_EQ(Printed([&] { EXPECT_TRUE(link->Init()); }),
              std::string("Success to open ") + K::kLink + " Connection to 127.0.0.1\n");
    if (K::kType == SOCK_STREAM) {
      const int accepted = accept(peer_, nullptr, nullptr);
      close(peer_);
      peer_ = accepted;
    } else {
      sockaddr_in address{};
      socklen_t size = sizeof address;
      EXPECT_EQ(getsockname(link->sockfd_, reinterpret_cast<sockaddr*>(&address), &size), 0);
      EXPECT_EQ(connect(peer_, reinterpret_cast<sockaddr*>(&address), size), 0);
    }
    return link;
  }
  static bool Readable(int fd) {
    pollfd request{fd, POLLIN, 0};
    return poll(&request, 1, 5000) == 1;
  }
  static std::string Tag(const std::string& operation, const std::string& text) {
    return std::string("[") + K::kTag + "::" + operation + "] " + text;
  }
  static std::string Failure(const std::string& operation, const std::string& text, int error) {
    return Tag(operation, text) + ": " + std::strerror(error) + "\n";
  }

  int peer_ = -1;
  int port_ = 0;
};

using Links = testing::Types<TcpClient, UdpClient>;
struct LinkName {
  template <typename Link>
  static std::string GetName(int) {
    return Kind<Link>::kLink;
  }
};
TYPED_TEST_SUITE(SocketLink, Links, LinkName);

TYPED_TEST(SocketLink, CarriesBytesBothWaysWithoutWaiting) {
  auto link = this->Open();
  EXPECT_EQ(Calls().poll_timeout_ms, TestFixture::K::kTimeoutMs);
  EXPECT_NE(fcntl(link->sockfd_, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(link->recv_buf_[65535], 0);
  std::vector<char> data = {'k', 'e', 'p', 't'};
  EXPECT_EQ(link->Read(data), 0);
  EXPECT_EQ(data.size(), 4u);
  EXPECT_EQ(Calls().poll_timeout_ms, 0);

  EXPECT_EQ(link->Write({'a', '\0', 'b'}), 3);
  EXPECT_EQ(Calls().poll_timeout_ms, 0);
  char bytes[8];
  ASSERT_EQ(recv(this->peer_, bytes, sizeof bytes, 0), 3);
  EXPECT_EQ(std::memcmp(bytes, "a\0b", 3), 0);
  ASSERT_EQ(send(this->peer_, "xyz", 3, 0), 3);
  ASSERT_TRUE(this->Readable(link->sockfd_));
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
  const std::locale before = std::cout.imbue(std::locale(std::locale::classic(), new GroupedThousands));
  for (const auto& [count, printed] : std::vector<std::pair<long, std::string>>{
           {1, ""}, {65534, ""}, {65535, this->Tag("Read", "Buffer Overflow:65535\n")}, {0, ""}, {-1, ""}}) {
    ASSERT_EQ(send(this->peer_, "x", 1, 0), 1);
    ASSERT_TRUE(this->Readable(link->sockfd_));
    Calls().answers["recv"] = {{{count, EAGAIN}}};
    std::vector<char> data = {'o', 'l', 'd'};
    const int expected = count > 0 && count < 65535 ? static_cast<int>(count) : 0;
    EXPECT_EQ(Printed([&] { EXPECT_EQ(link->Read(data), expected); }), printed);
    EXPECT_EQ(data.size(), static_cast<std::size_t>(expected));
  }
  std::cout.imbue(before);
}

TYPED_TEST(SocketLink, BeforeInitItOnlyComplains) {
  typename TestFixture::Exposed link("127.0.0.1", this->port_);
  std::vector<char> data = {'x'};
  EXPECT_EQ(Printed([&] {
              EXPECT_EQ(link.Read(data), -1);
              EXPECT_EQ(link.Write(data), -1);
            }),
            this->Tag("Read", "This object doesn't init\n") + this->Tag("Write", "This object doesn't init\n"));
  EXPECT_EQ(data.size(), 1u);
  EXPECT_EQ(link.sockfd_, -1);  // the destructor closes nothing of the host's
}

TYPED_TEST(SocketLink, ReportsEveryFailedCallOfConnect) {
  const std::string open = std::string("Failed to open ") + TestFixture::K::kLink + " Connection to 127.0.0.1";
  struct Row {
    const char* call;
    std::optional<velta::test::SystemCalls::Answer> answer;
    std::string printed;
    bool tcp_only = false;
    bool second_call = false;
  };
  for (const Row& row :
       {Row{"poll", {{0}}, this->Failure("Connect", open, ETIMEDOUT)},
        Row{"poll", {{-1, EINTR}}, this->Failure("Connect", open, EINTR)},
        Row{"socket",
            {{-1, EMFILE}},
            this->Failure("CreateSocket", "socket failed", EMFILE) + this->Failure("Connect", open, EBADF)},
        Row{"getsockopt", {{-1, EPERM}}, this->Failure("Connect", "Failed to get SO_ERROR option", EPERM)},
        Row{"getsockopt",
            {{-1, EPERM}},
            this->Failure("Connect", "Failed to get TCP_NODELAY option", EPERM),
            true,
            true},
        Row{"setsockopt", {{-1, EPERM}}, this->Failure("Connect", "Failed to set TCP_NODELAY option", EPERM), true}}) {
    if (row.tcp_only && TestFixture::K::kType != SOCK_STREAM) continue;
    SCOPED_TRACE(row.printed);
    Calls() = {};
    if (row.second_call) Calls().answers[row.call].push_back(std::nullopt);
    Calls().answers[row.call].push_back(row.answer);
    typename TestFixture::Exposed link("127.0.0.1", this->port_);
    std::string error;
    const std::string output = Printed([&] { error = PrintedError([&] { EXPECT_FALSE(link.Init()); }); });
    EXPECT_EQ(error, row.printed);
    EXPECT_EQ(output.empty(), !row.tcp_only);  // "Success" before an option fails
    std::vector<char> data;
    Printed([&] { EXPECT_EQ(link.Read(data), -1); });  // not initialised
  }
}

TYPED_TEST(SocketLink, ReportsFailedPollsAndSendsAndNothingElse) {
  auto link = this->Open();
  std::vector<char> data = {'x'};
  Calls().answers["poll"] = {{{-1, EINTR}}, {{-1, EINTR}}, {{0}}, {{0}}};
  EXPECT_EQ(PrintedError([&] {
              EXPECT_EQ(link->Read(data), -1);
              EXPECT_EQ(link->Write(data), -1);
              EXPECT_EQ(link->Read(data), 0);
              EXPECT_EQ(link->Write(data), 0);  // not writable now: nothing is sent
            }),
            this->Failure("Read", "Read select Failed", EINTR) + this->Failure("Write", "Write select Failed", EINTR));
  Calls().answers["send"] = {{{-1, EPIPE}}, {{0}}};
  EXPECT_EQ(PrintedError([&] { EXPECT_EQ(link->Write(data), -1); }), this->Failure("Write", "Write Failed", EPIPE));
  EXPECT_EQ(link->Write(data), 0);
  EXPECT_EQ(data.size(), 1u);

  EXPECT_EQ(link->Disconnect(), 0);  // the link still counts as initialised
  EXPECT_EQ(PrintedError([&] {
              EXPECT_EQ(link->Read(data), -1);
              EXPECT_EQ(link->Write(data), -1);
            }),
            this->Failure("Read", "Read select Failed", EBADF) + this->Failure("Write", "Write select Failed", EBADF));
  errno = ENOENT;
  EXPECT_EQ(PrintedError([&] { link->PrintError("why"); }), "why: No such file or directory\n");
}

TYPED_TEST(SocketLink, ConnectOpensAFreshSocketAndKeepsTheOldOne) {
  auto link = this->Open();
  const int old = link->sockfd_;
  Calls().answers["poll"] = {{{0}}};
  PrintedError([&] { EXPECT_FALSE(link->Connect()); });
  EXPECT_NE(link->sockfd_, old);
  EXPECT_EQ(fcntl(old, F_GETFD), 0);
  close(old);
}

TYPED_TEST(SocketLink, WorksAboveDescriptor1023) {
  std::vector<int> taken;
  for (int fd = dup(0); fd >= 0 && fd < 1030; fd = dup(0)) taken.push_back(fd);
  if (!taken.empty() && taken.back() >= 1029) {
    auto link = this->Open();
    EXPECT_GE(link->sockfd_, 1024);
    std::vector<char> data;
    EXPECT_EQ(link->Read(data), 0);
    EXPECT_EQ(link->Write({'x'}), 1);
  }
  for (const int fd : taken) close(fd);
}

using Tcp = SocketLink<TcpClient>;
using Udp = SocketLink<UdpClient>;

TEST_F(Tcp, SwitchesDelayingOff) {
  auto link = Open();
  int value = 0;
  socklen_t size = sizeof value;
  ASSERT_EQ(getsockopt(link->sockfd_, IPPROTO_TCP, TCP_NODELAY, &value, &size), 0);
  EXPECT_EQ(value, 1);
}

TEST_F(Tcp, ARefusedConnectionTellsTheSystemsReason) {
  ClosePeer();
  TcpClient link("127.0.0.1", port_);
  EXPECT_EQ(PrintedError([&] { EXPECT_FALSE(link.Init()); }),
            Failure("Connect", "Failed to open TCP Connection to 127.0.0.1", ECONNREFUSED));
}

TEST_F(Tcp, AClosedPeerShowsOnWriteAlone) {
  auto link = Open();
  ClosePeer();
  ASSERT_TRUE(Readable(link->sockfd_));
  std::vector<char> data = {'x'};
  EXPECT_EQ(link->Read(data), 0);
  EXPECT_TRUE(data.empty());
  int result = 0;
  PrintedError([&] {
    for (int i = 0; i < 500 && result != -1; ++i) {
      result = link->Write({'x'});
      usleep(1000);
    }
  });
  EXPECT_EQ(result, -1);
}

TEST_F(Udp, ABadAddressTextIsNotNoticed) {
  UdpClient link("nonsense", port_);
  EXPECT_EQ(Printed([&] { EXPECT_TRUE(link.Init()); }), "Success to open UDP Connection to nonsense\n");
}

TEST_F(Udp, AMissingPeerIsNoLostConnection) {
  ClosePeer();
  UdpClient link("127.0.0.1", port_);
  EXPECT_EQ(Printed([&] { EXPECT_TRUE(link.Init()); }), "Success to open UDP Connection to 127.0.0.1\n");
  EXPECT_EQ(link.Write({'x'}), 1);
  std::vector<char> data = {'x'};
  for (int i = 0; i < 500 && !data.empty(); ++i) {
    EXPECT_EQ(link.Read(data), 0);
    usleep(1000);
  }
  EXPECT_TRUE(data.empty());  // the refused port emptied it
}

}  // namespace
