// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "MasterControllerClient.h"
#include "PacketParser.h"
#include "SerialClient.h"
#include "TcpClient.h"
#include "UdpClient.h"
#include "frames.h"
#include "link.h"
#include "server.h"

// Every fault, over every link, under every way to command: what the host's client comes to, in bounded time, with
// nothing delivered that the controller did not send and no descriptor left open.

namespace velta::sim {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Kind = EndpointConfig::Kind;

constexpr int kJoints = 2;
constexpr int kCommands = 5;  ///< a run's commands set Kp of joint 1 to 1, 2, ... 5 and stay there

/// Where a run ends. What "applied" means is seen in delivered status frames alone.
enum class End {
  Works,    ///< the last command is applied; a confirmed one is confirmed; still connected
  Unheard,  ///< status frames go on, newer commands do not show in them; a confirmed one was given up
  NoEcho,   ///< commands are applied, but none is confirmed; the confirmed one was given up
  Blind,    ///< the controller sends, nothing is delivered; a confirmed command was given up
  Quiet,    ///< frames come no more, and the client does not notice; a confirmed command was given up
  Lost,     ///< the client has noticed that the link is gone
};

/// The ends of a fault: without commands, with unconfirmed ones, with confirmed ones.
struct Ends {
  End idle;
  End unconfirmed;
  End confirmed;
};

constexpr Ends kWorks{End::Works, End::Works, End::Works};
constexpr Ends kUnheard{End::Works, End::Unheard, End::Unheard};
constexpr Ends kNoEcho{End::Works, End::Works, End::NoEcho};
constexpr Ends kBlind{End::Blind, End::Blind, End::Blind};
constexpr Ends kClosed{End::Quiet, End::Lost, End::Lost};
constexpr Ends kQuiet{End::Quiet, End::Quiet, End::Quiet};

struct Row {
  const char* name;
  const char* rule;  ///< a flag, or a script when it begins with '{'
  Ends tcp;
  Ends udp;
  Ends pty;
};

// A UDP host that never sends is never answered, so its idle run is Quiet in any case.
const Row kRows[] = {
    {"None", "", kWorks, kWorks, kWorks},
    {"DropFirstCommand", R"({"fault": "drop-command", "at_command": 1})", kWorks, kWorks, kWorks},
    {"DropEveryCommand", "drop-command", kUnheard, kUnheard, kUnheard},
    {"DelayCommands", "delay-command=0.5:5", kWorks, kWorks, kWorks},
    {"DropHalfTheStatus", "drop-status=0.5", kWorks, kWorks, kWorks},
    {"DropEveryStatus", "drop-status", kBlind, kBlind, kBlind},
    {"DelayStatus", "delay-status=0.5:5", kWorks, kWorks, kWorks},
    {"DuplicateStatus", "duplicate-status", kWorks, kWorks, kWorks},
    {"CorruptSome", "corrupt=0.3", kWorks, kWorks, kWorks},
    {"CorruptAll", "corrupt", kBlind, kBlind, kBlind},
    {"TruncateSome", R"({"fault": "truncate", "at_frame": 1, "rate": 0.5, "for_frames": 8})", kWorks, kWorks, kWorks},
    {"Garbage", "garbage=0.3:40", kWorks, kWorks, kWorks},
    {"ByteWrites", "byte-writes", kWorks, kWorks, kWorks},
    {"Coalesce", "coalesce=4", kWorks, kWorks, kWorks},
    {"NoEcho", "no-echo", kNoEcho, kNoEcho, kNoEcho},
    {"LateEcho", "late-echo=5", kWorks, kWorks, kWorks},
    {"TooLateEcho", "late-echo=60000", kNoEcho, kNoEcho, kNoEcho},
    {"StaleEcho", "stale-echo", kNoEcho, kNoEcho, kNoEcho},
    {"Freeze", "freeze", kUnheard, kUnheard, kUnheard},
    {"Close", "close=10", kClosed, kWorks, kQuiet},  // over UDP the next command brings the controller back
    {"Reset", "reset=10", kClosed, kWorks, kQuiet},
    {"RefuseAtFirst", "refuse=50", kWorks, kWorks, kWorks},
    {"StopReading", "stop-reading", kUnheard, kQuiet, kUnheard},
    {"StopReadingForAWhile", "stop-reading=20", kWorks, kWorks, kWorks},
    {"WrongJoints", "wrong-joints", kBlind, kBlind, kBlind},
};

enum class Work { Idle, Unconfirmed, Confirmed, Json };

using Case = std::tuple<Row, Kind, Work>;

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

End Expected(const Case& cell) {
  const auto& [row, kind, work] = cell;
  if (kind == Kind::Udp && work == Work::Idle) return End::Quiet;
  const Ends& ends = kind == Kind::Tcp ? row.tcp : kind == Kind::Udp ? row.udp : row.pty;
  return work == Work::Idle ? ends.idle : work == Work::Unconfirmed ? ends.unconfirmed : ends.confirmed;
}

std::string Name(const Case& cell) {
  const auto& [row, kind, work] = cell;
  const char* const links[] = {"Tcp", "Udp", "Pty"};
  const char* const works[] = {"Idle", "Unconfirmed", "Confirmed", "Json"};
  return std::string(row.name) + links[static_cast<int>(kind)] + works[static_cast<int>(work)];
}

std::size_t OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

/// A served controller on one endpoint, and what it has sent.
class ServedController {
 public:
  ServedController(Kind kind, const std::string& rule) : stop_fd_(eventfd(0, EFD_CLOEXEC)) {
    ServerConfig config;
    config.joints = kJoints;
    config.cycle_ms = 2;
    config.endpoints.push_back({kind, "127.0.0.1", 0, kind == Kind::Pty ? Path() : ""});
    if (!rule.empty() && rule[0] == '{') {
      std::istringstream script(rule);
      config.faults = ParseFaultScript(script, "rule");
    } else if (!rule.empty()) {
      config.faults = {ParseFaultFlag(rule)};
    }
    config.on_status = [this](const std::vector<char>& frame) {
      const std::lock_guard<std::mutex> lock(mutex_);
      sent_.insert(frame);
      ++sent_count_;
    };
    server_ = std::make_unique<Server>(std::move(config));
    link_ = tools::ParseLink(server_->Links().at(0));
    thread_ = std::thread([this] { server_->Run(stop_fd_); });
  }
  ServedController(const ServedController&) = delete;
  ServedController& operator=(const ServedController&) = delete;
  ~ServedController() {
    Stop();
    server_.reset();
    close(stop_fd_);
  }

  /// Ends the service. @return what happened
  Summary Stop() {
    eventfd_write(stop_fd_, 1);
    if (thread_.joinable()) thread_.join();
    return server_->GetSummary();
  }

  const tools::Link& Link() const { return link_; }
  std::size_t SentCount() const { return sent_count_; }
  bool HasSent(const std::vector<char>& frame) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return sent_.count(frame) != 0;
  }
  /// The same by the time stamps that a JSON document shows.
  bool HasSent(const std::string& timestamp, const std::string& host_timestamp) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::any_of(sent_.begin(), sent_.end(), [&](const std::vector<char>& frame) {
      rxHeader_t header;
      std::memcpy(&header, frame.data(), sizeof header);
      return std::to_string(header.timestamp) == timestamp && std::to_string(header.hostTimestamp) == host_timestamp;
    });
  }

 private:
  static std::string Path() {
    return (std::filesystem::temp_directory_path() / ("velta-matrix-" + std::to_string(getpid()))).string();
  }

  int stop_fd_;
  std::mutex mutex_;
  std::set<std::vector<char>> sent_;
  std::atomic<std::size_t> sent_count_{0};
  std::unique_ptr<Server> server_;
  tools::Link link_;
  std::thread thread_;
};

/// The host: the real client in a control loop.
class Host : public MasterControllerClient {
 public:
  /// @param reads receive steps per step: a UDP link reads one datagram at a time
  Host(ServedController& controller, Work work, int reads)
      : MasterControllerClient(kJoints), controller_(controller), work_(work), reads_(reads) {}

  void Step() {
    if (work_ != Work::Idle && steps_++ % 10 == 0 && send_queue_.empty() && !wait_confirm_) PushCommand();
    for (int i = 0; i < reads_; ++i) {
      if (ReceiveStatus() > 0) last_delivery_ = Clock::now();
    }
    SendPacketInBuffer();
    if (Confirms() && !wait_confirm_ && last_send_timestamp_ != 0) {
      (last_recv_host_timestamp_ == last_send_timestamp_ ? is_confirmed_ : is_given_up_) = true;
    }
    Collect();
  }

  /// Whether the run has come to this end.
  bool IsAt(End end) const {
    const bool is_idle = work_ == Work::Idle;
    const bool is_done = is_idle || (Confirms() ? is_given_up_ : pushed_ >= 3 * kCommands);
    switch (end) {
      case End::Works:
        return IsConnected() && delivered_ >= 10 && (is_idle || applied_ == kCommands) &&
               (!Confirms() || is_confirmed_);
      case End::Unheard:
        return IsConnected() && delivered_ >= 10 && is_done && applied_ < std::min(pushed_, kCommands);
      case End::NoEcho:
        return IsConnected() && delivered_ >= 10 && is_done && applied_ > 0 && !is_confirmed_;
      case End::Blind:
        return IsConnected() && controller_.SentCount() >= 20 && is_done && delivered_ == 0;
      case End::Quiet:
        return IsConnected() && Clock::now() - last_delivery_ > milliseconds(60) && is_done && delivered_ <= 10;
      case End::Lost:
        return !IsConnected();
    }
    return false;
  }

  std::string Describe() const {
    std::ostringstream text;
    text << "connected " << IsConnected() << ", delivered " << delivered_ << ", pushed " << pushed_ << ", applied "
         << applied_ << ", confirmed " << is_confirmed_ << ", given up " << is_given_up_ << ", sent "
         << controller_.SentCount();
    return text.str();
  }

  std::size_t Strangers() const { return strangers_; }  ///< delivered, but never sent

 private:
  bool Confirms() const { return work_ == Work::Confirmed || work_ == Work::Json; }

  void PushCommand() {
    const std::string kp = std::to_string(std::min(++pushed_, kCommands));
    if (work_ == Work::Json) {
      EXPECT_TRUE(
          PushSendQueueJson(R"({"armOrder":"0","jointCommand":[{"jointName":"2","jointOrder":"176","value1":")" + kp +
                                R"(","value2":"0","value3":"0","value4":"0"}]})",
                            true));
      return;
    }
    SendPacket packet(kJoints);
    packet.SetParamKp("1", std::stof(kp));
    PushSendQueue(packet, work_ == Work::Confirmed);
  }

  void Collect() {
    if (work_ != Work::Json) {
      for (const RecvPacket& packet : GetCurStatePacket()) {
        Note(controller_.HasSent(StatusFrame(packet)), +packet.joints[1].general[0]);
      }
      return;
    }
    for (const std::string& text : GetCurStateJson()) {
      const auto document = nlohmann::json::parse(text);
      const std::string kp = document.at("jointState").at(1).at("general_0");
      Note(controller_.HasSent(document.at("timestamp"), document.at("hostTimestamp")), std::stof(kp));
    }
  }

  void Note(bool was_sent, float kp) {
    ++delivered_;
    if (!was_sent) ++strangers_;
    applied_ = static_cast<int>(kp);
  }

  ServedController& controller_;
  Work work_;
  int reads_;
  int steps_ = 0;
  int pushed_ = 0;
  std::size_t delivered_ = 0;
  std::size_t strangers_ = 0;
  int applied_ = 0;
  bool is_confirmed_ = false;
  bool is_given_up_ = false;
  Clock::time_point last_delivery_ = Clock::now();
};

/// Keeps the client's log lines to itself.
class Quiet {
 public:
  Quiet() : cout_(std::cout.rdbuf(nullptr)) {}
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;
  ~Quiet() { std::cout.rdbuf(cout_); }

 private:
  std::streambuf* cout_;
};

void Pace() { std::this_thread::sleep_for(std::chrono::microseconds(300)); }  // of the host's control loop

class FaultMatrix : public testing::TestWithParam<Case> {
  Quiet quiet_;
};

TEST_P(FaultMatrix, EndsAsExpected) {
  const auto& [row, kind, work] = GetParam();
  const End end = Expected(GetParam());
  const int reads = kind == Kind::Udp && row.rule == std::string("byte-writes") ? 200 : 1;
  const std::size_t descriptors = OpenDescriptors();
  // Where frames are cut at the wrong places, one cut in 65,536 has a right CRC by chance: such a run is repeated once.
  for (int attempt = 1; attempt <= 2; ++attempt) {
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    ServedController controller(kind, row.rule);
    auto host = std::make_unique<Host>(controller, work, reads);
    while (!tools::OpenLink(*host, controller.Link()) && Clock::now() < deadline) {
      Pace();
      host = std::make_unique<Host>(controller, work, reads);
    }
    while (!host->IsAt(end) && host->Strangers() == 0 && Clock::now() < deadline) {
      host->Step();
      Pace();
    }
    if (host->Strangers() != 0 && attempt == 1) continue;
    EXPECT_TRUE(host->IsAt(end)) << host->Describe();
    EXPECT_EQ(host->Strangers(), 0u);
    const bool strikes = work != Work::Idle;  // without a command some have nothing to strike
    for (const auto& [fault, count] : controller.Stop().faults) EXPECT_TRUE(count > 0 || !strikes) << fault;
    break;
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(, FaultMatrix,
                         testing::Combine(testing::ValuesIn(kRows), testing::Values(Kind::Tcp, Kind::Udp, Kind::Pty),
                                          testing::Values(Work::Idle, Work::Unconfirmed, Work::Confirmed, Work::Json)),
                         [](const auto& cell) { return Name(cell.param); });

/// What a fault makes of status frames, datagram by datagram.
struct WireCase {
  const char* rule;
  std::function<bool(const std::vector<char>& datagram, ServedController& controller)> is_right;
};

class FaultOnTheWire : public testing::Test {
  Quiet quiet_;
};

TEST_F(FaultOnTheWire, IsWhatItsNameTells) {
  constexpr std::size_t kFrame = 79 * kJoints + 24;
  constexpr std::size_t kEcho = 10;  // the echoed stamp's place in a frame
  const auto has_size = [](std::size_t size) {
    return [size](const auto& bytes, auto&) { return bytes.size() == size; };
  };
  const auto echoes = [](std::uint64_t stamp) {
    return [stamp](const auto& bytes, auto&) { return std::memcmp(bytes.data() + kEcho, &stamp, sizeof stamp) == 0; };
  };
  SendPacket command(kJoints);
  const WireCase cases[] = {
      {"drop-status=0", [](const auto& bytes, auto& controller) { return controller.HasSent(bytes); }},
      {"drop-command=0", echoes(command.GetTimeStamp())},
      {"no-echo", echoes(0)},
      {"stale-echo", echoes(0)},  // before the first command
      {"byte-writes", has_size(1)},
      {"coalesce=3", has_size(3 * kFrame)},
      {"wrong-joints", has_size(kFrame + 79)},
      {"wrong-joints=1", has_size(kFrame - 79)},
      {"truncate", [](const auto& bytes, auto&) { return !bytes.empty() && bytes.size() < kFrame; }},
      {"corrupt",
       [](const auto& bytes, auto& controller) {
         for (std::size_t bit = 0; bit < 8 * kFrame && bytes.size() == kFrame; ++bit) {
           std::vector<char> repaired = bytes;
           repaired[bit / 8] = static_cast<char>(repaired[bit / 8] ^ (1 << bit % 8));
           if (controller.HasSent(repaired)) return true;
         }
         return false;
       }},
      {"garbage=1:40",
       [](const auto& bytes, auto& controller) {
         return bytes.size() > kFrame && bytes.size() <= kFrame + 40 &&
                controller.HasSent(std::vector<char>(bytes.end() - kFrame, bytes.end()));
       }},
  };
  for (const WireCase& wire : cases) {
    ServedController controller(Kind::Udp, wire.rule);
    UdpClient link(controller.Link().host, controller.Link().port);
    ASSERT_TRUE(link.Init());
    link.Write(command.GetCharVector());
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    int datagrams = 0;
    for (std::vector<char> bytes; datagrams < 6 && Clock::now() < deadline;) {
      if (link.Read(bytes) <= 0) continue;
      ++datagrams;
      EXPECT_TRUE(wire.is_right(bytes, controller)) << wire.rule << ", a datagram of " << bytes.size();
    }
    EXPECT_EQ(datagrams, 6) << wire.rule;
  }
}

TEST_F(FaultOnTheWire, DelaysTheEcho) {
  for (const char* rule : {"delay-command=1:60", "delay-status=1:60", "late-echo=60"}) {
    for (const Kind kind : {Kind::Tcp, Kind::Udp}) {
      ServedController controller(kind, rule);
      MasterControllerClient host(kJoints);
      ASSERT_TRUE(tools::OpenLink(host, controller.Link()));
      SendPacket command(kJoints);
      const auto start = Clock::now();
      host.SendOnce(command, true);
      while (host.GetLastRecvPacket().header.hostTimestamp != command.GetTimeStamp() &&
             Clock::now() - start < std::chrono::seconds(20)) {
        host.ReceiveStatus();
      }
      EXPECT_GE(Clock::now() - start, milliseconds(60)) << rule;
      EXPECT_LT(Clock::now() - start, std::chrono::seconds(20)) << rule;
    }
  }
}

/// Commands by the thousand at a controller that does not read for a while. The link's writes come back, at once from a
/// full TCP window and when the device has taken all from a pty, and afterwards the controller executes commands again.
class FullWindow : public testing::TestWithParam<Kind> {
  Quiet quiet_;
};

TEST_P(FullWindow, EndsWhenTheControllerReadsAgain) {
  const std::size_t descriptors = OpenDescriptors();
  {
    ServedController controller(GetParam(), "stop-reading=300");
    const tools::Link& where = controller.Link();
    std::unique_ptr<AbstractClient> link;
    if (GetParam() == Kind::Tcp) link = std::make_unique<TcpClient>(where.host, where.port);
    if (GetParam() == Kind::Pty) link = std::make_unique<SerialClient>(where.device, where.baud);
    ASSERT_TRUE(link->Init());

    SendPacket command(kJoints);
    command.SetParamKp("1", 3);
    const std::vector<char> frame = command.GetCharVector();
    std::vector<char> flood;
    while (flood.size() < 65000) flood.insert(flood.end(), frame.begin(), frame.end());
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    bool was_full = GetParam() == Kind::Pty;
    for (int i = 0; i < 2 || (!was_full && Clock::now() < deadline); ++i) was_full |= link->Write(flood) == 0;
    EXPECT_TRUE(was_full);

    PacketParser parser(kJoints);
    float kp = 0;
    for (std::vector<char> bytes; kp != 5 && Clock::now() < deadline;) {
      command.SetParamKp("1", 5);
      link->Write(command.GetCharVector());
      link->Read(bytes);
      parser.Push(bytes);
      for (const RecvPacket& packet : parser.Parse()) kp = packet.joints[1].general[0];
      std::this_thread::sleep_for(milliseconds(1));
    }
    EXPECT_EQ(kp, 5);
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(, FullWindow, testing::Values(Kind::Tcp, Kind::Pty),
                         [](const auto& kind) { return kind.param == Kind::Tcp ? "Tcp" : "Pty"; });

}  // namespace
}  // namespace velta::sim
