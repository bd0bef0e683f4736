// SPDX-License-Identifier: MIT
// Every fault, over every link, under every way to command: what the host's client comes to, in bounded time, with
// nothing delivered that the controller did not send and no descriptor left open.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>

#include "MasterControllerClient.h"
#include "PacketParser.h"
#include "SerialClient.h"
#include "TcpClient.h"
#include "UdpClient.h"
#include "frames.h"
#include "link.h"
#include "support/served_controller.h"

namespace velta::sim {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Kind = EndpointConfig::Kind;
using Frame = std::vector<char>;

constexpr int kJoints = 2;
constexpr int kCommands = 5;  ///< a run's commands set Kp of joint 1 to 1, 2, ... 5 and stay there
constexpr std::chrono::seconds kPatience{20};

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

/// A controller, and what it has sent.
class WatchedController {
 public:
  WatchedController(Kind kind, const std::string& rule)
      : served_(kind, kJoints, 2, rule, [this](const Frame& frame) { Note(frame); }),
        link(tools::ParseLink(served_.Link())) {}

  /// Ends the service. @return what happened
  Summary Stop() { return served_.Stop(); }

  bool HasSent(const Frame& frame) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return sent_.count(frame) != 0;
  }
  /// The same by the time stamps that a JSON document shows.
  bool HasSent(const nlohmann::json& document) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return stamps_.count(document["timestamp"].get<std::string>() + "/" +
                         document["hostTimestamp"].get<std::string>()) != 0;
  }

  std::atomic<std::size_t> sent_count{0};

 private:
  void Note(const Frame& frame) {
    rxHeader_t header;
    std::memcpy(&header, frame.data(), sizeof header);
    const std::lock_guard<std::mutex> lock(mutex_);
    sent_.insert(frame);
    stamps_.insert(std::to_string(header.timestamp) + "/" + std::to_string(header.hostTimestamp));
    ++sent_count;
  }

  std::mutex mutex_;
  std::set<Frame> sent_;
  std::set<std::string> stamps_;
  test::ServedController served_;  // behind what its thread writes to

 public:
  const tools::Link link;
};

/// The host: the real client in a control loop.
class Host : public MasterControllerClient {
 public:
  /// @param reads receive steps per step: a UDP link reads one datagram at a time
  Host(WatchedController& controller, Work work, int reads)
      : MasterControllerClient(kJoints),
        controller_(controller),
        work_(work),
        confirms_(work == Work::Confirmed || work == Work::Json),
        reads_(reads) {}

  void Step() {
    if (work_ != Work::Idle && steps_++ % 10 == 0 && send_queue_.empty() && !wait_confirm_) PushCommand();
    for (int i = 0; i < reads_; ++i) {
      if (ReceiveStatus() > 0) last_delivery_ = Clock::now();
    }
    SendPacketInBuffer();
    if (confirms_ && !wait_confirm_ && last_send_timestamp_ != 0) {
      (last_recv_host_timestamp_ == last_send_timestamp_ ? is_confirmed_ : is_given_up_) = true;
    }
    if (work_ == Work::Json) {
      for (const std::string& text : GetCurStateJson()) {
        const auto document = nlohmann::json::parse(text);
        Note(controller_.HasSent(document),
             std::stof(document.at("jointState").at(1).at("general_0").get<std::string>()));
      }
    } else {
      for (const RecvPacket& packet : GetCurStatePacket()) {
        Note(controller_.HasSent(StatusFrame(packet)), +packet.joints[1].general[0]);
      }
    }
  }

  /// Whether the run has come to this end.
  bool IsAt(End end) const {
    const bool is_idle = work_ == Work::Idle;
    const bool is_done = is_idle || (confirms_ ? is_given_up_ : pushed_ >= 3 * kCommands);
    const bool is_fed = IsConnected() && delivered_ >= 10;
    switch (end) {
      case End::Works:
        return is_fed && (is_idle || applied_ == kCommands) && (!confirms_ || is_confirmed_);
      case End::Unheard:
        return is_fed && is_done && applied_ < std::min(pushed_, kCommands);
      case End::NoEcho:
        return is_fed && is_done && applied_ > 0 && !is_confirmed_;
      case End::Blind:
        return IsConnected() && controller_.sent_count >= 20 && is_done && delivered_ == 0;
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
         << controller_.sent_count;
    return text.str();
  }

  std::size_t strangers = 0;  ///< delivered, but never sent

 private:
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
    PushSendQueue(packet, confirms_);
  }

  void Note(bool was_sent, float kp) {
    ++delivered_;
    if (!was_sent) ++strangers;
    applied_ = static_cast<int>(kp);
  }

  WatchedController& controller_;
  const Work work_;
  const bool confirms_;
  const int reads_;
  int steps_ = 0, pushed_ = 0, applied_ = 0;
  std::size_t delivered_ = 0;
  bool is_confirmed_ = false, is_given_up_ = false;
  Clock::time_point last_delivery_ = Clock::now();
};

/// Keeps the client's log lines to itself, and wants every descriptor closed in the end.
class FaultOnTheWire : public testing::Test {
 protected:
  FaultOnTheWire() : cout_(std::cout.rdbuf(nullptr)), descriptors_(OpenDescriptors()) {}
  ~FaultOnTheWire() override {
    std::cout.rdbuf(cout_);
    EXPECT_EQ(OpenDescriptors(), descriptors_);
  }

  static void Pace() { std::this_thread::sleep_for(std::chrono::microseconds(300)); }  // of the host's control loop

  const Clock::time_point deadline = Clock::now() + kPatience;

 private:
  static std::ptrdiff_t OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  }
  std::streambuf* cout_;
  std::ptrdiff_t descriptors_;
};

class FaultMatrix : public FaultOnTheWire, public testing::WithParamInterface<Case> {};

TEST_P(FaultMatrix, EndsAsExpected) {
  const auto& [row, kind, work] = GetParam();
  const End end = Expected(GetParam());
  const int reads = kind == Kind::Udp && row.rule == std::string("byte-writes") ? 200 : 1;
  // Where frames are cut at the wrong places, one cut in 65,536 has a right CRC by chance: such a run is repeated once.
  for (int attempt = 1; attempt <= 2; ++attempt) {
    WatchedController controller(kind, row.rule);
    auto host = std::make_unique<Host>(controller, work, reads);
    for (; !tools::OpenLink(*host, controller.link) && Clock::now() < deadline; Pace()) {
      host = std::make_unique<Host>(controller, work, reads);
    }
    for (; !host->IsAt(end) && host->strangers == 0 && Clock::now() < deadline; Pace()) host->Step();
    if (host->strangers != 0 && attempt == 1) continue;
    EXPECT_TRUE(host->IsAt(end)) << host->Describe();
    EXPECT_EQ(host->strangers, 0U);
    const bool strikes = work != Work::Idle;  // without a command some have nothing to strike
    for (const auto& [fault, count] : controller.Stop().faults) EXPECT_TRUE(count > 0 || !strikes) << fault;
    break;
  }
}

INSTANTIATE_TEST_SUITE_P(, FaultMatrix,
                         testing::Combine(testing::ValuesIn(kRows), testing::Values(Kind::Tcp, Kind::Udp, Kind::Pty),
                                          testing::Values(Work::Idle, Work::Unconfirmed, Work::Confirmed, Work::Json)),
                         [](const auto& cell) { return Name(cell.param); });

/// What a fault makes of status frames, datagram by datagram.
TEST_F(FaultOnTheWire, IsWhatItsNameTells) {
  constexpr std::size_t kFrame = 79 * kJoints + 24;
  using Check = std::function<bool(const Frame& datagram, WatchedController& controller)>;
  const auto has_size = [](std::size_t size) {
    return [size](const auto& bytes, auto&) { return bytes.size() == size; };
  };
  const auto echoes = [](std::uint64_t stamp) {  // its place in a frame is byte 10
    return [stamp](const auto& bytes, auto&) { return std::memcmp(bytes.data() + 10, &stamp, sizeof stamp) == 0; };
  };
  const auto one_bit_is_wrong = [](const auto& bytes, auto& controller) {
    Frame repaired = bytes;
    for (std::size_t bit = 0; bit < 8 * kFrame && bytes.size() == kFrame; ++bit) {
      const auto flip = [&] { repaired[bit / 8] = static_cast<char>(repaired[bit / 8] ^ (1 << bit % 8)); };
      flip();
      if (controller.HasSent(repaired)) return true;
      flip();
    }
    return false;
  };
  const auto has_garbage_in_front = [](const auto& bytes, auto& controller) {
    return bytes.size() > kFrame && bytes.size() <= kFrame + 40 &&
           controller.HasSent(Frame(bytes.end() - kFrame, bytes.end()));
  };
  SendPacket command(kJoints);
  const std::pair<const char*, Check> cases[] = {
      {"drop-status=0", [](const auto& bytes, auto& controller) { return controller.HasSent(bytes); }},
      {"drop-command=0", echoes(command.GetTimeStamp())},
      {"no-echo", echoes(0)},
      {"stale-echo", echoes(0)},  // before the first command
      {"byte-writes", has_size(1)},
      {"coalesce=3", has_size(3 * kFrame)},
      {"wrong-joints", has_size(kFrame + 79)},
      {"wrong-joints=1", has_size(kFrame - 79)},
      {"truncate", [](const auto& bytes, auto&) { return !bytes.empty() && bytes.size() < kFrame; }},
      {"corrupt", one_bit_is_wrong},
      {"garbage=1:40", has_garbage_in_front},
  };
  for (const auto& [rule, is_right] : cases) {
    WatchedController controller(Kind::Udp, rule);
    UdpClient link(controller.link.host, controller.link.port);
    ASSERT_TRUE(link.Init());
    link.Write(command.GetCharVector());
    int datagrams = 0;
    for (Frame bytes; datagrams < 6 && Clock::now() < deadline;) {
      if (link.Read(bytes) <= 0) continue;
      ++datagrams;
      EXPECT_TRUE(is_right(bytes, controller)) << rule << ", a datagram of " << bytes.size();
    }
    EXPECT_EQ(datagrams, 6) << rule;
  }
}

TEST_F(FaultOnTheWire, DelaysTheEcho) {
  for (const char* rule : {"delay-command=1:60", "delay-status=1:60", "late-echo=60"}) {
    for (const Kind kind : {Kind::Tcp, Kind::Udp}) {
      WatchedController controller(kind, rule);
      MasterControllerClient host(kJoints);
      ASSERT_TRUE(tools::OpenLink(host, controller.link));
      SendPacket command(kJoints);
      const auto start = Clock::now();
      host.SendOnce(command, true);
      while (host.GetLastRecvPacket().header.hostTimestamp != command.GetTimeStamp() && Clock::now() < deadline) {
        host.ReceiveStatus();
      }
      EXPECT_GE(Clock::now() - start, milliseconds(60)) << rule;
      EXPECT_LT(Clock::now(), deadline) << rule;
    }
  }
}

// Commands by the thousand at a controller that does not read for a while. The link's writes come back, at once from a
// full TCP window and when the device has taken all from a pty, and afterwards the controller executes commands again.
TEST_F(FaultOnTheWire, FullWindowEndsWhenTheControllerReadsAgain) {
  for (const Kind kind : {Kind::Tcp, Kind::Pty}) {
    WatchedController controller(kind, "stop-reading=300");
    TcpClient tcp(controller.link.host, controller.link.port);
    SerialClient pty(controller.link.device, controller.link.baud);
    AbstractClient& link = kind == Kind::Tcp ? static_cast<AbstractClient&>(tcp) : pty;
    ASSERT_TRUE(link.Init());
    const auto set_kp = [](float kp) {
      SendPacket command(kJoints);
      command.SetParamKp("1", kp);
      return command.GetCharVector();
    };
    Frame flood;
    while (flood.size() < 65000) {
      const Frame frame = set_kp(3);
      flood.insert(flood.end(), frame.begin(), frame.end());
    }
    bool was_full = kind == Kind::Pty;
    for (int i = 0; i < 2 || (!was_full && Clock::now() < deadline); ++i) was_full |= link.Write(flood) == 0;
    EXPECT_TRUE(was_full);

    PacketParser parser(kJoints);
    float kp = 0;
    for (Frame bytes; kp != 5 && Clock::now() < deadline; Pace()) {
      link.Write(set_kp(5));
      link.Read(bytes);
      parser.Push(bytes);
      for (const RecvPacket& packet : parser.Parse()) kp = packet.joints[1].general[0];
    }
    EXPECT_EQ(kp, 5);
  }
}

}  // namespace
}  // namespace velta::sim
