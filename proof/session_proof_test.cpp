// SPDX-License-Identifier: MIT
// Sessions against the simulated controller: every fault over every link, peers that say nothing, callbacks that
// misbehave. VELTA_PROOF_COMMANDS is how many commands a fault gets (60), VELTA_PROOF_SECONDS how long at most (1). Cases run beside one
// another as shards of GoogleTest.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "server.h"
#include "velta_session.h"

namespace velta {
namespace {

using Clock = std::chrono::steady_clock;
using Kind = LinkAddress::Kind;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kSources = 2;  // the plain queue commands the joint behind theirs
constexpr int kJoints = kSources + 1;
constexpr milliseconds kSoon{2000};  // far more than it takes, far less than what must not be waited for

int Setting(const char* name, int otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr ? std::atoi(text) : otherwise;
}

SessionOptions Options(const std::string& link) {
  SessionOptions options;
  options.link = link;
  options.joints = kJoints;
  options.period = std::chrono::microseconds(500);
  options.silence = milliseconds(150);
  options.ask = milliseconds(30);
  options.back_off = milliseconds(10);
  options.back_off_limit = milliseconds(50);
  return options;
}

template <typename Condition>
bool Eventually(Condition condition, milliseconds patience = seconds(20)) {
  for (const auto end = Clock::now() + patience; !condition(); std::this_thread::sleep_for(milliseconds(1))) {
    if (Clock::now() > end) return false;
  }
  return true;
}

template <typename Act>
milliseconds Duration(Act act) {
  const auto start = Clock::now();
  act();
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

SendPacket SetKp(int joint, int value) {
  SendPacket packet(kJoints);
  packet.SetParamKp(std::to_string(joint), static_cast<float>(value));
  return packet;
}

/// What the controller has executed, as its statuses show it before a fault touches them: of each joint the newest of
/// the rising values that it was sent.
class Witness {
 public:
  void Note(const std::vector<char>& frame) {
    for (std::size_t joint = 0; joint < kJoints; ++joint) {
      float value = 0;
      const std::size_t at = sizeof(rxHeader_t) + joint * sizeof(rxJoint_t) + offsetof(rxJoint_t, general);
      if (at + sizeof value > frame.size()) return;
      std::memcpy(&value, &frame[at], sizeof value);
      const int now = static_cast<int>(value);
      if (now < newest_[joint]) ++went_back;
      newest_[joint] = now;
    }
  }
  int Newest(int joint) const { return newest_[static_cast<std::size_t>(joint)]; }
  std::atomic<int> went_back{0};

 private:
  std::array<std::atomic<int>, kJoints> newest_{};
};

/// Commands of a stream, one after the other, and what became of them.
struct Hosted {
  struct Sent {
    Ticket ticket;
    int value;
  };

  /// Gives the next command unless several wait; confirmed ones must have been executed.
  void Drive(Session& arm, Source* source, int joint, const Witness& witness) {
    while (!open.empty() && open.front().ticket.Outcome() != Outcome::kPending) {
      const Outcome outcome = open.front().ticket.Outcome();
      if (outcome == Outcome::kConfirmed && witness.Newest(joint) < open.front().value) ++lies;
      if (outcome == Outcome::kConfirmed) ++confirmed;
      if (open.front().ticket.Reason() != Reason::kNoLink) ++tried;
      open.pop_front();
    }
    if (open.size() >= window) return;
    const SendPacket packet = SetKp(joint, ++given);
    const Confirm confirm = given % 3 != 0 ? Confirm::kYes : Confirm::kNo;
    Ticket ticket = source != nullptr ? source->Send(packet, confirm) : arm.Send(packet, confirm);
    ticket.OnOutcome([this](Outcome, Reason) { ++answers; });
    open.push_back({std::move(ticket), given});
  }

  /// Whether as many commands were confirmed, or twice as many got an outcome while there was a link.
  bool HasHad(int commands) const { return confirmed >= commands || tried >= 2 * commands; }

  std::size_t window = 4;  ///< tickets without an outcome at a time
  std::deque<Sent> open;
  int given = 0, tried = 0, confirmed = 0, lies = 0;
  std::atomic<int> answers{0};
};

struct Row {
  const char* name;
  const char* rule;
  bool is_confirmed = true;  ///< some commands at least
};

const Row kRows[] = {{"None", ""},
                     {"DropCommand", "drop-command=0.2"},
                     {"DropEveryCommand", "drop-command", false},
                     {"DelayCommand", "delay-command=0.3:5"},
                     {"DropStatus", "drop-status=0.5"},
                     {"DelayStatus", "delay-status=0.3:5"},
                     {"DuplicateStatus", "duplicate-status=0.5"},
                     {"Corrupt", "corrupt=0.3"},
                     {"Truncate", "truncate=0.1"},
                     {"Garbage", "garbage=0.2:40"},
                     {"ByteWrites", "byte-writes"},
                     {"Coalesce", "coalesce=4"},
                     {"NoEcho", "no-echo", false},
                     {"LateEcho", "late-echo=5"},
                     {"StaleEcho", "stale-echo", false},
                     {"Freeze", R"({"fault": "freeze", "at_ms": 100, "for_ms": 100})"},
                     {"Close", "close=50"},
                     {"Reset", "reset=50"},
                     {"Refuse", "refuse=100"},
                     {"StopReading", "stop-reading=100"},
                     {"WrongJoints", R"({"fault": "wrong-joints", "at_ms": 100, "for_ms": 300})"},
                     {"Silence", R"({"fault": "drop-status", "at_ms": 100, "for_ms": 300})"},
                     {"SilenceWithoutReading", R"({"fault": "stop-reading", "at_ms": 100, "for_ms": 400}
                                                  {"fault": "drop-status", "at_ms": 100, "for_ms": 300})"}};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

/// A simulated controller, served by a thread of the test.
class ServedController {
 public:
  ServedController(Kind kind, const std::string& rule, Witness& witness)
      : server_(Config(kind, rule, witness)), link(server_.Links().at(0)), thread_([this] { server_.Run(stop_fd_); }) {}
  ServedController(const ServedController&) = delete;
  ServedController& operator=(const ServedController&) = delete;
  ~ServedController() {
    eventfd_write(stop_fd_, 1);
    thread_.join();
    close(stop_fd_);
  }

 private:
  static sim::ServerConfig Config(Kind kind, const std::string& rule, Witness& witness) {
    const auto path = std::filesystem::temp_directory_path() / ("velta-served-" + std::to_string(getpid()));
    sim::ServerConfig config;
    config.joints = kJoints;
    config.cycle_ms = 1;
    config.listen.push_back({kind, "127.0.0.1", 0, kind == Kind::kPty ? path.string() : "", 115200, 1});
    config.on_status = [&witness](const std::vector<char>& frame) { witness.Note(frame); };
    std::istringstream script(rule);
    if (!rule.empty()) {
      config.faults = rule[0] == '{' ? sim::ParseFaultScript(script, "rule") : std::vector{sim::ParseFaultFlag(rule)};
    }
    return config;
  }

  const int stop_fd_ = eventfd(0, EFD_CLOEXEC);
  sim::Server server_;

 public:
  const std::string link;  ///< read while the server is not at work

 private:
  std::thread thread_;
};

class SessionUnderFault : public testing::TestWithParam<std::tuple<Row, Kind>> {};

TEST_P(SessionUnderFault, AnswersEachCommandOnceAndTruly) {
  const auto& [row, kind] = GetParam();
  Witness witness;
  std::array<Hosted, kJoints> hosts;
  {
    const ServedController controller(kind, row.rule, witness);
    Session arm(Options(controller.link));
    std::vector<Source> sources;
    for (int i = 0; i < kSources; ++i) sources.push_back(arm.AddSource("source"));
    arm.Start();
    static_cast<void>(arm.WaitConnected(seconds(10)));
    const int commands = Setting("VELTA_PROOF_COMMANDS", 60) / kJoints;
    const auto end = Clock::now() + seconds(Setting("VELTA_PROOF_SECONDS", 1));
    for (Hosted& host : hosts) host.window = commands > 1000 ? 16 : 4;
    while (Clock::now() < end &&
           !std::all_of(hosts.begin(), hosts.end(), [&](const Hosted& host) { return host.HasHad(commands); })) {
      for (int i = 0; i < kJoints; ++i) {
        hosts[static_cast<std::size_t>(i)].Drive(arm, i < kSources ? &sources[static_cast<std::size_t>(i)] : nullptr, i,
                                                 witness);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  }
  int given = 0, confirmed = 0;
  for (Hosted& host : hosts) {
    EXPECT_EQ(host.lies, 0);
    EXPECT_EQ(host.answers, host.given);
    for (const Hosted::Sent& sent : host.open) EXPECT_NE(sent.ticket.Outcome(), Outcome::kPending);
    confirmed += host.confirmed;
    given += host.given;
  }
  RecordProperty("given", given);
  RecordProperty("confirmed", confirmed);
  EXPECT_EQ(confirmed > 0, row.is_confirmed);
  EXPECT_EQ(witness.went_back, 0);
}

std::string Name(const testing::TestParamInfo<std::tuple<Row, Kind>>& cell) {
  const Kind kind = std::get<1>(cell.param);
  return std::string(std::get<0>(cell.param).name) + (kind == Kind::kTcp ? "Tcp" : kind == Kind::kUdp ? "Udp" : "Pty");
}

INSTANTIATE_TEST_SUITE_P(, SessionUnderFault,
                         testing::Combine(testing::ValuesIn(kRows),
                                          testing::Values(Kind::kTcp, Kind::kUdp, Kind::kPty)),
                         Name);

/// A listener that nobody serves: it takes connections and says nothing, or lets them hang once its queue is full.
class DeafPeer {
 public:
  explicit DeafPeer(int backlog) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(fd_, backlog), 0);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    link = "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    for (int i = 0; backlog == 0 && i < 4; ++i) {
      fill_.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
      static_cast<void>(connect(fill_.back(), reinterpret_cast<sockaddr*>(&address), size));
    }
  }
  DeafPeer(const DeafPeer&) = delete;
  DeafPeer& operator=(const DeafPeer&) = delete;
  ~DeafPeer() {
    for (const int fd : fill_) close(fd);
    close(fd_);
  }
  /// Whether the host that came first took back what it had sent.
  bool FirstHostWasReset() const {
    const int host = accept(fd_, nullptr, nullptr);
    char bytes[4096];
    ssize_t count = 1;
    while (count > 0) count = recv(host, bytes, sizeof bytes, MSG_DONTWAIT);
    const bool is_reset = count < 0 && errno == ECONNRESET;
    close(host);
    return is_reset;
  }
  std::string link;

 private:
  const int fd_ = socket(AF_INET, SOCK_STREAM, 0);
  std::vector<int> fill_;
};

TEST(SessionProof, NothingWaitsForALinkThatIsNotThere) {
  const DeafPeer silent(16), hanging(0);
  const struct {
    std::string link;
    const char* why;
  } cases[] = {{silent.link, "no status for"},
               {hanging.link, "Connection timed out"},
               {"tcp://127.0.0.1:1", "Connection refused"},
               {"tcp://255.255.255.255:1", "Network is unreachable"},  // at once, by this machine
               {"udp://127.0.0.1:1", "no status"},
               {"serial:///dev/null", "/dev/null: "},
               {"serial:///dev/none", "/dev/none: No such file or directory"},
               {"tcp://no-such-host.invalid:5", ""}};
  for (const auto& [link, expected] : cases) {
    SCOPED_TRACE(link);
    SessionOptions options = Options(link);
    options.connect_timeout = milliseconds(100);
    auto arm = std::make_unique<Session>(options);
    EXPECT_LT(Duration([&] { arm->Start(); }), kSoon);
    std::string why;
    EXPECT_TRUE(Eventually([&, text = expected] {
      return !arm->WaitConnected(milliseconds(20), &why) && why.find(text) != std::string::npos;
    })) << why;
    EXPECT_LT(Duration([&] {
                EXPECT_EQ(arm->Send(SetKp(0, 1)).Reason(), Reason::kNoLink);
                EXPECT_FALSE(arm->Latest());
              }),
              kSoon);
    EXPECT_LT(Duration([&] { arm.reset(); }), kSoon);
  }
  EXPECT_TRUE(silent.FirstHostWasReset()) << "what the system still held must not arrive after a loss";
}

TEST(SessionProof, CallbacksMayThrowBlockAndStop) {
  std::atomic<int> statuses{0};
  std::atomic<bool> is_blocked{false}, go_on{false};
  Session arm(Options("sim:"));
  arm.OnStatus([&](const RecvPacket&) {
    ++statuses;
    throw std::runtime_error("a host's mistake");
  });
  arm.OnEvent([&](const Event& event) {
    if (event.kind != Event::Kind::kDeadMan) return;
    is_blocked = true;
    Eventually([&] { return go_on.load(); });
    arm.Stop();
    arm.Stop();
  });
  arm.Start();
  EXPECT_TRUE(Eventually([&] { return statuses > 3; }));
  arm.StopArm();
  ASSERT_TRUE(Eventually([&] { return is_blocked.load(); }));
  const std::uint64_t cycles = arm.GetStatistics().cycles;  // the loop goes on beside a callback that does not return
  EXPECT_TRUE(Eventually([&] { return arm.GetStatistics().cycles > cycles + 10; }));
  arm.Rearm();
  Ticket ticket = arm.Send(SetKp(0, 1), Confirm::kYes);
  EXPECT_LT(Duration([&] { EXPECT_EQ(ticket.Wait(seconds(60)), Outcome::kConfirmed); }), seconds(30));
  std::thread other([&] { arm.Stop(); });
  go_on = true;
  other.join();
  EXPECT_EQ(arm.Send(SetKp(0, 1)).Reason(), Reason::kStopped);
}

TEST(SessionProof, TheDeadManIsArmedByKeepAliveUntilItIsDisarmed) {
  SessionOptions options = Options("sim:");
  options.dead_man = milliseconds(10);
  Session arm(options);
  arm.Start();
  arm.KeepAlive();
  EXPECT_TRUE(Eventually([&] { return arm.IsDeadMan(); }));
  arm.Disarm();
  arm.Rearm();
  const std::uint64_t cycles = arm.GetStatistics().cycles;
  EXPECT_TRUE(Eventually([&] { return arm.GetStatistics().cycles > cycles + 100; }));
  EXPECT_FALSE(arm.IsDeadMan());
}

TEST(SessionProof, RunsInTheHostsOwnLoop) {
  Session idle(Options("sim:"));
  idle.Stop();
  Session arm(Options("sim:"));
  Ticket early = arm.Send(SetKp(0, 1));
  EXPECT_EQ(early.Reason(), Reason::kNoLink);
  int called = 0;
  arm.OnEvent([&](const Event&) { ++called, arm.Step(); });
  arm.Step();
  ASSERT_TRUE(arm.WaitConnected(seconds(5)));
  Ticket ticket = arm.Send(SetKp(0, 1), Confirm::kYes);
  EXPECT_TRUE(Eventually([&] { return arm.Step(), ticket.Outcome() == Outcome::kConfirmed; }));
  EXPECT_GE(called, 2);
  Ticket last = arm.Send(SetKp(0, 1));
  Outcome answer = Outcome::kPending;
  last.OnOutcome([&](Outcome outcome, Reason) { answer = outcome; });
  arm.Stop();
  EXPECT_EQ(answer, Outcome::kDiscarded);
}

/// Many threads at once, and a session that ends in the midst of it: nobody is left without an answer.
TEST(SessionProof, EachOfManyThreadsGetsItsAnswers) {
  auto arm = std::make_unique<Session>(Options("sim:"));
  arm->Start();
  std::atomic<int> given{0}, answered{0};
  std::vector<std::thread> threads;
  const int commands = Setting("VELTA_PROOF_COMMANDS", 60) * 5;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i, source = arm->AddSource("s")]() mutable {
      for (int k = 0; k < commands; ++k) {
        const SendPacket packet = SetKp(i % kJoints, k);
        Ticket ticket = i == 0   ? arm->Send(packet)
                        : i == 1 ? arm->SendNewest(std::to_string(k % 3), packet)
                                 : source.Send(packet);
        ++given;
        ticket.OnOutcome([&](Outcome, Reason) { ++answered; });
        if (k % 50 == 0) arm->Latest(), arm->Drain(), arm->GetStatistics();
        if (i == 3 && k == commands / 2) arm->Stop();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  arm.reset();
  EXPECT_EQ(answered, given);
}

TEST(SessionProof, RefusesOptionsThatNoArmCouldBeDrivenWith) {
  const struct {
    void (*change)(SessionOptions&);
    const char* why;
  } cases[] = {{[](SessionOptions& o) { o.link = "tcp://1.2.3.4"; }, "link: the port is missing"},
               {[](SessionOptions& o) { o.link = "pty:"; }, "link: a session does not listen on a pty"},
               {[](SessionOptions& o) { o.joints = 829; }, "joints: "},
               {[](SessionOptions& o) { o.period = milliseconds(0); }, "period: "},
               {[](SessionOptions& o) { o.silence = milliseconds(-1); }, "durations: "},
               {[](SessionOptions& o) { o.priority = 100; }, "priority: "},
               {[](SessionOptions& o) { o.stop = {SendPacket(1)}; }, "stop: "},
               {[](SessionOptions& o) { o.queue_size = 0; }, "queue_size: "}};
  for (const auto& [change, why] : cases) {
    SessionOptions options = Options("sim:");
    change(options);
    try {
      const Session arm(options);
      ADD_FAILURE() << why;
    } catch (const std::invalid_argument& error) {
      EXPECT_EQ(std::string(error.what()).rfind(why, 0), 0U) << error.what();
    }
  }
}

}  // namespace
}  // namespace velta
