// SPDX-License-Identifier: MIT
// The k-th system call of a whole session fails, for every k and in every way: what is promised is told, nothing
// crashes, waits or leaks, and once the fault is over a reconnection makes the link whole.
#include "support/system_calls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>

#include "MasterControllerClient.h"
#include "support/bytes.h"
#include "support/capture.h"

namespace {

using velta::test::Calls;
using velta::test::Printed;
using velta::test::PrintedError;
using velta::test::SystemCalls;

enum class Kind { Tcp, Udp, Serial };

/// The controller's end.
class Peer {
 public:
  explicit Peer(Kind kind) : kind_(kind) {
    if (kind == Kind::Serial) {
      fd_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
      EXPECT_EQ(grantpt(fd_) + unlockpt(fd_), 0);
      held_ = open(ptsname(fd_), O_RDWR | O_NOCTTY);  // so that the device lives while the client has it closed
      return;
    }
    fd_ = socket(AF_INET, (kind == Kind::Tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(kind == Kind::Tcp ? listen(fd_, 16) : 0, 0);
    EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size), 0);
    port_ = ntohs(address.sin_port);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() {
    close(fd_);
    if (held_ >= 0) close(held_);
  }

  bool Open(MasterControllerClient& client) const {
    if (kind_ == Kind::Serial) return client.InitAsSerialClient(ptsname(fd_), 250000);  // a rate that asks the driver
    return kind_ == Kind::Tcp ? client.InitAsTcpClient("127.0.0.1", port_) : client.InitAsUdpClient("127.0.0.1", port_);
  }

  /// Talks to the connection that came last.
  void Accept() {
    if (kind_ != Kind::Tcp) return;
    for (int fd = accept(fd_, nullptr, nullptr); fd >= 0; fd = accept(fd_, nullptr, nullptr)) {
      if (held_ >= 0) close(held_);
      held_ = fd;
    }
  }

  /// @return whether what arrives ends in the frame
  bool Receives(const std::vector<char>& frame, int timeout_ms) {
    std::vector<char> bytes(65536);
    ssize_t count = 0;
    if (!Readable(End(), timeout_ms)) return false;
    if (kind_ == Kind::Udp) {
      do {  // the last datagram
        count = recvfrom(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&host_), &host_size_);
      } while (Readable(fd_, 0));
    } else {
      count = read(End(), bytes.data(), bytes.size());
    }
    const auto size = static_cast<ssize_t>(frame.size());
    return count >= size && std::memcmp(bytes.data() + count - size, frame.data(), frame.size()) == 0;
  }
  void Send(const std::vector<char>& bytes) const {
    const auto* const to = reinterpret_cast<const sockaddr*>(&host_);
    const bool known = kind_ != Kind::Udp || host_.sin_port != 0;
    const ssize_t sent = kind_ == Kind::Udp && known ? sendto(fd_, bytes.data(), bytes.size(), 0, to, sizeof host_)
                         : kind_ == Kind::Udp        ? 0
                                                     : write(End(), bytes.data(), bytes.size());
    static_cast<void>(sent);
  }

  static bool Readable(int fd, int timeout_ms) {
    pollfd request{fd, POLLIN, 0};
    return poll(&request, 1, timeout_ms) == 1;
  }

 private:
  int End() const { return kind_ == Kind::Tcp ? held_ : fd_; }

  Kind kind_;
  int fd_ = -1;
  int held_ = -1;  ///< TCP: the connection; pty: its device
  int port_ = 0;
  sockaddr_in host_{};
  socklen_t host_size_ = sizeof host_;
};

struct Way {
  long result;
  int error;
};

/// One session in which call number k fails; k counts the library's calls only.
class Session {
 public:
  Session(Kind kind, int k, const Way& way) : kind_(kind), k_(k), way_(way) {}

  /// @return whether the fault struck
  bool Run() {
    const auto begin = std::chrono::steady_clock::now();
    const auto before = Descriptors();
    {
      Peer peer(kind_);
      auto client = std::make_unique<MasterControllerClient>(1);
      bool opened = false;
      Library("Connect", [&] { opened = peer.Open(*client); });
      EXPECT_EQ(opened, client->IsInit());
      EXPECT_EQ(opened, client->IsConnected());
      EXPECT_TRUE(opened || struck_);
      peer.Accept();
      Exchange(*client, peer, opened);
      bool again = false;
      Library("Connect", [&] { again = client->ReConnect(3); });
      EXPECT_EQ(again, opened) << "a client that was opened once can be opened again";
      peer.Accept();
      for (int i = 0; i < 2; ++i) Exchange(*client, peer, opened);
      Library("Close", [&] { client.reset(); });
      // A serial device that cannot be configured stays open, deliberately.
      const bool stays_open = kind_ == Kind::Serial && !opened && struck_ && name_ != "open";
      EXPECT_EQ(stays_open ? close(LastDescriptor()) : 0, 0);
    }
    EXPECT_EQ(Descriptors(), before) << "no descriptor leaks";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4)) << "no wait";
    return struck_;
  }

 private:
  static std::ptrdiff_t Descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  }
  static int LastDescriptor() {
    int last = -1;
    for (int fd = 0; fd < 100; ++fd) {
      if (fcntl(fd, F_GETFD) != -1) last = fd;
    }
    return last;
  }

  /// Runs the library's part, in which the fault may strike, and holds what it prints against what is promised.
  template <typename Act>
  void Library(const char* phase, Act act) {
    const bool struck_before = struck_;
    Calls() = {};
    if (kind_ == Kind::Serial) {
      Calls().serial.emplace();
      Calls().serial->baud_base = 24000000;
    }
    Calls().decide = [this](const char* name) -> std::optional<SystemCalls::Answer> {
      const int nth = of_name_[name]++;
      if (calls_++ != k_) return std::nullopt;
      struck_ = true;
      name_ = name;
      nth_ = nth;
      if (way_.result == SystemCalls::kOneByte && !Moves()) return SystemCalls::Answer{-1, EIO};
      return SystemCalls::Answer{way_.result, way_.error};
    };
    std::string error;
    const std::string output = Printed([&] { error = PrintedError(act); });
    Calls() = {};
    if (struck_ == struck_before) {
      EXPECT_EQ(error, "");
      return;
    }
    const std::string promised = Promised(phase);
    EXPECT_EQ(error, promised);
    const bool lost = std::string(phase) != "Connect" && !promised.empty();
    EXPECT_EQ(output.find("[VELTA] lost connection\n") != std::string::npos, lost);
  }

  bool Moves() const { return name_ == "send" || name_ == "recv" || name_ == "read" || name_ == "write"; }

  /// What goes to standard error when the call fails in this phase.
  std::string Promised(const std::string& phase) const {
    if (kind_ == Kind::Serial) return "";
    const std::string link = kind_ == Kind::Tcp ? "TCP" : "UDP",
                      tag = kind_ == Kind::Tcp ? "[TcpClient::" : "[UdpClient::";
    const auto line = [&](const char* operation, const std::string& text, int error) {
      return tag + operation + "] " + text + ": " + std::strerror(error) + "\n";
    };
    const std::string open = "Failed to open " + link + " Connection to 127.0.0.1";
    const int error = way_.result == SystemCalls::kOneByte ? EIO : way_.error;
    if (name_ == "socket") return line("CreateSocket", "socket failed", error) + line("Connect", open, EBADF);
    if (name_ == "poll" && phase == "Connect") return line("Connect", open, error);
    if (name_ == "poll") return line(phase.c_str(), phase + " select Failed", error);
    if (name_ == "send" && way_.result == -1) return line("Write", "Write Failed", error);
    if (name_ == "setsockopt") return line("Connect", "Failed to set TCP_NODELAY option", error);
    if (name_ != "getsockopt") return "";
    const bool first = kind_ == Kind::Udp || nth_ % 2 == 0;
    return line("Connect", first ? "Failed to get SO_ERROR option" : "Failed to get TCP_NODELAY option", error);
  }

  /// A command out and a status in; whole unless the fault struck on the way.
  void Exchange(MasterControllerClient& client, Peer& peer, bool opened) {
    const bool struck_before = struck_;
    SendPacket command(1);
    command.SetRefPosition("0", static_cast<float>(++exchanges_));
    client.PushSendQueue(command, false);
    Library("Write", [&] { client.SendPacketInBuffer(); });
    const bool arrived = opened && peer.Receives(command.GetCharVector(), struck_ == struck_before ? 2000 : 0);
    peer.Send(velta::test::StatusFrame(1, static_cast<std::uint64_t>(exchanges_)));
    int statuses = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    do {
      Library("Read", [&] { statuses += client.ReceiveStatus(); });
    } while (opened && statuses == 0 && struck_ == struck_before && std::chrono::steady_clock::now() < deadline);
    if (struck_ != struck_before || !opened) return;
    EXPECT_TRUE(arrived);
    EXPECT_GE(statuses, 1);
  }
  Kind kind_;
  int k_;
  Way way_;
  int calls_ = 0, exchanges_ = 0, nth_ = 0;
  bool struck_ = false;
  std::string name_;
  std::map<std::string, int> of_name_;
};

class Countdown : public testing::TestWithParam<Kind> {};

TEST_P(Countdown, EverySystemCallFailsInEveryWay) {
  const Way ways[] = {{-1, EINTR}, {-1, EAGAIN}, {-1, EPIPE}, {-1, EIO}, {-1, ECONNRESET}, {SystemCalls::kOneByte, 0}};
  for (const Way& way : ways) {
    int k = 0;
    for (bool struck = true; struck; ++k) {
      SCOPED_TRACE("call " + std::to_string(k) + ", " + std::strerror(way.error));
      struck = Session(GetParam(), k, way).Run();
      if (HasFailure()) return;
    }
    EXPECT_GT(k, 15);
    RecordProperty("calls", k - 1);
  }
}

INSTANTIATE_TEST_SUITE_P(All, Countdown, testing::Values(Kind::Tcp, Kind::Udp, Kind::Serial), [](const auto& row) {
  return std::string(row.param == Kind::Tcp ? "Tcp" : row.param == Kind::Udp ? "Udp" : "Serial");
});

}  // namespace
