// SPDX-License-Identifier: MIT
// Each job next to its floor: the least that any implementation must do, written here without the library. All run in
// one process, their repetitions mixed at random, and the tables show medians and their ratios; single times say more
// about the machine.
#include <benchmark/benchmark.h>
#include <picojson.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "AbstractClient.h"
#include "MasterControllerClient.h"
#include "MasterControllerClientMock.h"
#include "PacketParser.h"
#include "RecvPacket.h"
#include "SendPacket.h"
#include "protocol.h"
#include "send_packet_merger.h"
#include "support.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;
using velta::bench::Allocations;
using velta::bench::BareSocket;
using velta::bench::CloseFrame;
using velta::bench::CommandFrame;
using velta::bench::FloorCrc;
using velta::bench::Peer;
using velta::bench::Require;
using velta::bench::StatusFrame;

const unsigned char* Raw(const char* bytes) { return reinterpret_cast<const unsigned char*>(bytes); }

/// Counts allocations from its construction (after the set-up) to its end (before the tear-down).
class Counted {
 public:
  explicit Counted(State& state) : state_(state), before_(Allocations()) {}
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  ~Counted() {
    state_.counters["allocations"] =
        benchmark::Counter(static_cast<double>(Allocations() - before_), benchmark::Counter::kAvgIterations);
  }

 private:
  State& state_;
  std::uint64_t before_;
};

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// Nanoseconds that this thread has run, which cost a system call to read.
double ThreadTime() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

/// Times a part of every iteration; the result is the median, which the scheduler disturbs least.
class Samples {
 public:
  explicit Samples(State& state) : state_(state) { times_.reserve(static_cast<std::size_t>(state.max_iterations)); }
  Samples(const Samples&) = delete;
  Samples& operator=(const Samples&) = delete;
  ~Samples() {
    if (!times_.empty()) state_.counters["ns"] = Median(times_);
  }

  /// @param shares  jobs in the part; many make it so long that it is interrupted, and only its own time counts
  template <typename Part>
  void Time(Part part, double shares = 1) {
    if (shares >= 256) {
      const double begin = ThreadTime();
      part();
      times_.push_back((ThreadTime() - begin) / shares);
      return;
    }
    const auto begin = std::chrono::steady_clock::now();
    part();
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - begin;
    times_.push_back(time.count() / shares);
  }

 private:
  State& state_;
  std::vector<double> times_;
};

/// A frame taken from a buffer of at least its size, and checked: moved once, covered by the CRC once.
void TakeFrame(std::vector<char>& to, const std::vector<char>& from) {
  std::memcpy(to.data(), from.data(), to.size());
  DoNotOptimize(FloorCrc(Raw(to.data()), to.size() - 2));
  benchmark::ClobberMemory();
}

// --- packets and parser

namespace crc {
void Floor(State& state, int n) {
  const std::vector<char> frame = StatusFrame(n);
  for (auto _ : state) DoNotOptimize(FloorCrc(Raw(frame.data()), frame.size() - 2));
}
void Library(State& state, int n) {
  const std::vector<char> frame = StatusFrame(n);
  const auto length = static_cast<unsigned short>(frame.size() - 2);
  Require(CalcCrc16(Raw(frame.data()), length) == FloorCrc(Raw(frame.data()), length), "the floor's CRC is wrong");
  for (auto _ : state) DoNotOptimize(CalcCrc16(Raw(frame.data()), length));
}
}  // namespace crc

namespace parse {
void Floor(State& state, int n) {
  const std::vector<char> frame = StatusFrame(n);
  std::vector<char> to(frame.size());
  for (auto _ : state) TakeFrame(to, frame);
}
void Library(State& state, int n) {
  const std::vector<char> frame = StatusFrame(n);
  RecvPacket packet(n);
  const Counted counted(state);
  for (auto _ : state) {
    std::vector<char> bytes = frame;
    DoNotOptimize(packet.Parse(std::move(bytes)));
  }
}
}  // namespace parse

namespace parser {
/// 64 KiB of frames, with `garbage` bytes before each.
std::vector<char> Burst(int n, std::size_t garbage) {
  const std::vector<char> frame = StatusFrame(n);
  std::vector<char> stream;
  while (stream.size() + garbage + frame.size() < 65535) {
    stream.insert(stream.end(), garbage, 'x');
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  return stream;
}

void FloorSingle(State& state, int n) {
  const std::vector<char> frame = StatusFrame(n);
  std::vector<char> to(frame.size());
  for (auto _ : state) TakeFrame(to, frame);
}
void FloorBurst(State& state, int n) {
  const std::vector<char> frame = StatusFrame(n), burst = Burst(n, 0);
  const std::size_t frames = burst.size() / frame.size();
  std::vector<char> to(burst.size());
  Samples samples(state);
  for (auto _ : state) {
    samples.Time(
        [&] {
          for (std::size_t at = 0; at < burst.size(); at += frame.size()) {
            std::memcpy(&to[at], &burst[at], frame.size());
            DoNotOptimize(FloorCrc(Raw(&to[at]), frame.size() - 2));
          }
        },
        static_cast<double>(frames));
  }
}
void LibraryBurst(State& state, int n, bool with_garbage) {
  const std::size_t size = StatusFrame(n).size();
  const std::size_t garbage = with_garbage ? size / 10 : 0;
  const std::vector<char> burst = Burst(n, garbage);
  const std::size_t count = burst.size() / (size + garbage);
  const auto frames = static_cast<double>(count);
  PacketParser parser(n);
  std::vector<RecvPacket> packets;
  Samples samples(state);
  const std::uint64_t before = Allocations();
  for (auto _ : state) {
    std::vector<char> bytes = burst;
    samples.Time(
        [&] {
          parser.Push(std::move(bytes));
          packets = parser.Parse();
        },
        frames);
  }
  Require(packets.size() == count, "frames were lost");
  const double own = 1 / frames;  // the copy of the burst
  state.counters["allocations"] =
      benchmark::Counter(static_cast<double>(Allocations() - before) / frames, benchmark::Counter::kAvgIterations);
  state.counters["allocations"].value -= own * static_cast<double>(state.iterations());
}
void Whole(State& state, int n) { LibraryBurst(state, n, false); }
void Garbage(State& state, int n) { LibraryBurst(state, n, true); }

void Single(State& state, int n) {
  const std::vector<char> frame = StatusFrame(n);
  PacketParser parser(n);
  const Counted counted(state);
  for (auto _ : state) {
    parser.Push(frame);
    DoNotOptimize(parser.Parse());
  }
}

/// Per byte: a vector of one byte, its byte moved, and the frame's work shared among its bytes.
void FloorByte(State& state, int n) {
  const std::vector<char> frame = StatusFrame(n);
  std::vector<char> buffer(frame.size()), to(frame.size());
  std::size_t at = 0;
  for (auto _ : state) {
    std::vector<char> bytes(1, frame[at]);
    DoNotOptimize(bytes.data());
    buffer[at] = bytes[0];
    if (++at < frame.size()) continue;
    TakeFrame(to, buffer);
    at = 0;
  }
}
void LibraryByte(State& state, int n) {
  const std::vector<char> frame = StatusFrame(n);
  PacketParser parser(n);
  std::size_t at = 0;
  const Counted counted(state);
  for (auto _ : state) {
    parser.Push(std::vector<char>(1, frame[at]));
    DoNotOptimize(parser.Parse());
    if (++at == frame.size()) at = 0;
  }
}
}  // namespace parser

namespace build {
void Floor(State& state, int n) {
  std::vector<char> frame = CommandFrame(n);
  for (auto _ : state) {
    const std::int64_t stamp = std::chrono::system_clock::now().time_since_epoch().count();
    std::memcpy(&frame[2], &stamp, sizeof stamp);
    txJoint_t joint{0, 0x11, 1, 0, 0, 0};
    for (char* to = &frame[11]; joint.id < n; ++joint.id, to += sizeof joint) std::memcpy(to, &joint, sizeof joint);
    CloseFrame(frame.data(), frame.size());
    benchmark::ClobberMemory();
  }
}
void Library(State& state, int n) {
  const Counted counted(state);
  for (auto _ : state) {
    SendPacket packet(n);
    packet.SetRefPosition("all", 1);
    DoNotOptimize(packet.GetCharVector());
  }
}
}  // namespace build

namespace ids {
std::string List(int n) {
  std::string list = "0";
  for (int i = 1; i < n; ++i) list += '/' + std::to_string(i);
  return list;
}
void Floor(State& state, int n) {
  const std::string list = List(n);
  for (auto _ : state) {
    std::vector<int> joints(static_cast<std::size_t>(n));
    std::size_t count = 0;
    for (const char* p = list.c_str(); *p != 0; ++p) {
      int id = 0;
      for (; *p >= '0' && *p <= '9'; ++p) id = id * 10 + (*p - '0');
      if (id < n) joints[count++] = id;
      if (*p == 0) break;
    }
    DoNotOptimize(joints.data());
    benchmark::ClobberMemory();
  }
}
void Library(State& state, int n) {
  const std::string list = List(n);
  const SendPacket packet(n);
  const Counted counted(state);
  for (auto _ : state) DoNotOptimize(packet.ParseIDString(list));
}
}  // namespace ids

// --- coalescing

namespace merger {
constexpr std::size_t kSources = 4, kEach = 8;

/// Packets copied in, merged by joint into one fresh record set per pass, and copied out; one time stamp per pass.
void Floor(State& state, int n) {
  const auto count = static_cast<std::size_t>(n);
  std::vector<txJoint_t> packet(count), buffered(count * kSources * kEach), fresh(count), out(count * kEach);
  for (auto _ : state) {
    for (std::size_t i = 0; i < kSources * kEach; ++i) {
      std::memcpy(&buffered[i * count], packet.data(), count * sizeof(txJoint_t));
      benchmark::ClobberMemory();
    }
    for (std::size_t pass = 0; pass < kEach; ++pass) {
      DoNotOptimize(std::chrono::system_clock::now());
      std::memset(fresh.data(), 0, count * sizeof(txJoint_t));
      for (std::size_t source = 0; source < kSources; ++source) {
        const txJoint_t* const from = &buffered[(source * kEach + pass) * count];
        for (std::size_t i = 0; i < count; ++i) {
          if (from[i].order != 0) fresh[i] = from[i];
        }
      }
      std::memcpy(&out[pass * count], fresh.data(), count * sizeof(txJoint_t));
      benchmark::ClobberMemory();
    }
  }
}

void Library(State& state, int n) {
  std::vector<std::shared_ptr<SendPacketBuffer>> buffers;
  std::vector<SendPacket> packets;
  for (std::size_t source = 0; source < kSources; ++source) {
    buffers.push_back(std::make_shared<SendPacketBuffer>());
    packets.emplace_back(n);
    packets.back().SetServoOn(std::to_string(source));
  }
  const Counted counted(state);
  for (auto _ : state) {
    for (std::size_t source = 0; source < kSources; ++source) {
      for (std::size_t i = 0; i < kEach; ++i) buffers[source]->pushBack(packets[source]);
    }
    DoNotOptimize(SendPacketMerger::getMergedPacket(buffers, n));
  }
}
}  // namespace merger

// --- steps

/// A link in memory that always has one status frame.
struct MemoryLink : AbstractClient {
  explicit MemoryLink(int n) : frame(StatusFrame(n)), sent(CommandFrame(n)) {}
  bool Init() override { return true; }
  bool Connect() override { return true; }
  int Disconnect() override { return 0; }
  int Read(std::vector<char>& data) override {
    data.assign(frame.begin(), frame.end());
    return static_cast<int>(data.size());
  }
  int Write(const std::vector<char>& data) override {
    std::memcpy(sent.data(), data.data(), std::min(data.size(), sent.size()));
    return static_cast<int>(data.size());
  }
  std::vector<char> frame, sent;
};

struct MemoryClient : MasterControllerClient {
  explicit MemoryClient(int n) : MasterControllerClient(n) { client_ = new MemoryLink(n); }
};

namespace memory_steps {
/// The status: from the link, checked, into the buffer and into the last packet. The command: into the queue, from it
/// into a frame, its CRC, onto the link.
void Floor(State& state, int n) {
  const std::vector<char> in = StatusFrame(n), command = CommandFrame(n);
  std::vector<char> to(in.size()), buffered(in.size()), last(in.size());
  std::vector<char> queued(command.size()), frame(command.size()), sent(command.size());
  for (auto _ : state) {
    std::memcpy(queued.data(), command.data(), command.size());
    TakeFrame(to, in);
    std::memcpy(buffered.data(), to.data(), to.size());
    std::memcpy(last.data(), to.data(), to.size());
    std::memcpy(frame.data(), queued.data(), queued.size());
    CloseFrame(frame.data(), frame.size());
    std::memcpy(sent.data(), frame.data(), frame.size());
    benchmark::ClobberMemory();
  }
}
void Library(State& state, int n) {
  MemoryClient client(n);
  SendPacket packet(n);
  const Counted counted(state);
  for (auto _ : state) {
    client.PushSendQueue(packet, false);
    client.ReceiveStatus();
    client.SendPacketInBuffer();
    client.FlushRecvBuffer();
  }
}
}  // namespace memory_steps

namespace tcp_steps {
/// Per iteration the peer sends a status frame and afterwards drops what it was sent; neither is timed.
template <typename Steps>
void OnSocket(State& state, int n, Steps steps) {
  Peer peer;
  const BareSocket socket(peer);
  const std::vector<char> in = StatusFrame(n);
  std::vector<char> buffer(65535), out = CommandFrame(n);
  Samples samples(state);
  for (auto _ : state) {
    peer.Send(in);
    samples.Time([&] { steps(socket, buffer, out); });
    peer.Drain();
  }
}

/// How a host waits: BareSocket's members.
struct Waiting {
  int (BareSocket::*receive)(char*, std::size_t) const;
  void (BareSocket::*send)(const std::vector<char>&) const;
};
constexpr Waiting kPoll = {&BareSocket::Receive, &BareSocket::Send};
constexpr Waiting kSelect = {&BareSocket::SelectReceive, &BareSocket::SelectSend};

template <const Waiting& waiting>
void Floor(State& state, int n) {
  OnSocket(state, n, [](const BareSocket& socket, std::vector<char>& buffer, const std::vector<char>& out) {
    Require((socket.*waiting.receive)(buffer.data(), buffer.size()) > 0, "no frame on loopback");
    (socket.*waiting.send)(out);
  });
}
template <const Waiting& waiting>
void FloorWithHost(State& state, int n) {
  std::vector<char> status(StatusFrame(n).size());
  OnSocket(state, n, [&](const BareSocket& socket, std::vector<char>& buffer, std::vector<char>& out) {
    const std::int64_t stamp = std::chrono::system_clock::now().time_since_epoch().count();
    std::memcpy(&out[2], &stamp, sizeof stamp);
    Require((socket.*waiting.receive)(buffer.data(), buffer.size()) > 0, "no frame on loopback");
    CloseFrame(out.data(), out.size());
    (socket.*waiting.send)(out);
    TakeFrame(status, buffer);
  });
}
/// @param before  untimed, after the peer's sending
/// @param steps   timed
/// @param after   untimed
template <typename Before, typename Steps, typename After>
void OnClient(State& state, int n, Before before, Steps steps, After after) {
  Peer peer;
  MasterControllerClient client(n);
  Require(client.InitAsTcpClient("127.0.0.1", peer.Port()), "cannot connect");
  peer.Accept();
  const std::vector<char> in = StatusFrame(n);
  Samples samples(state);
  const Counted counted(state);
  for (auto _ : state) {
    peer.Send(in);
    before(client);
    samples.Time([&] { steps(client); });
    after(client);
    peer.Drain();
  }
}
void BothSteps(MasterControllerClient& client) {
  Require(client.ReceiveStatus() == 1, "no frame on loopback");
  client.SendPacketInBuffer();
}
void Library(State& state, int n) {
  SendPacket packet(n);
  OnClient(
      state, n, [&](MasterControllerClient& client) { client.PushSendQueue(packet, false); }, BothSteps,
      [](MasterControllerClient& client) { client.FlushRecvBuffer(); });
}
void LibraryWithHost(State& state, int n) {
  const auto nothing = [](MasterControllerClient&) {};
  OnClient(
      state, n, nothing,
      [n](MasterControllerClient& client) {
        SendPacket packet(n);
        packet.SetRefPosition("all", 1);
        client.PushSendQueue(packet, false);
        BothSteps(client);
        DoNotOptimize(client.GetCurStatePacket());
      },
      nothing);
}
}  // namespace tcp_steps

namespace simulator {
/// The command: into the queue, from it, one assignment per joint. The status: into the buffer and the last packet.
void Floor(State& state, int n) {
  const std::vector<char> status = StatusFrame(n), command = CommandFrame(n);
  std::vector<char> buffered(status.size()), last(status.size()), queued(command.size()), current(command.size());
  std::vector<rxJoint_t> joints(static_cast<std::size_t>(n));
  for (auto _ : state) {
    std::memcpy(queued.data(), command.data(), command.size());
    std::memcpy(current.data(), queued.data(), queued.size());
    for (std::size_t i = 0; i < joints.size(); ++i) {
      joints[i].systemMode = static_cast<std::uint8_t>(current[11 + 18 * i + 1]);
    }
    std::memcpy(buffered.data(), status.data(), status.size());
    std::memcpy(last.data(), buffered.data(), buffered.size());
    benchmark::ClobberMemory();
  }
}
void Library(State& state, int n) {
  MasterControllerClientMock client(n, 1000);
  SendPacket packet(n);
  packet.SetServoOn("all");
  {
    const Counted counted(state);
    for (auto _ : state) {
      client.PushSendQueue(packet, false);
      client.SendPacketInBuffer();
      client.ReceiveStatus();
      client.FlushRecvBuffer();
    }
  }
}
}  // namespace simulator

namespace collect {
constexpr std::size_t kPackets = 16, kClients = 64;

/// Filling the buffers is not timed, so 64 of them are emptied between two readings of the clock.
void Floor(State& state, int /*n*/) {
  Samples samples(state);
  for (auto _ : state) {
    std::vector<std::unique_ptr<char[]>> taken(kClients);
    samples.Time(
        [&] {
          for (auto& memory : taken) memory.reset(new char[kPackets * sizeof(RecvPacket)]);
        },
        kClients);
  }
}
void Library(State& state, int n) {
  std::vector<std::unique_ptr<MasterControllerClient>> clients;
  for (std::size_t i = 0; i < kClients; ++i) clients.push_back(std::make_unique<MasterControllerClient>(n));
  const RecvPacket packet(n);
  std::uint64_t allocations = 0;
  Samples samples(state);
  for (auto _ : state) {
    for (const auto& client : clients) {
      for (std::size_t i = 0; i < kPackets; ++i) client->PushRecvBuffer(packet);
    }
    std::vector<std::vector<RecvPacket>> taken(kClients);
    const std::uint64_t before = Allocations();
    samples.Time(
        [&] {
          for (std::size_t i = 0; i < kClients; ++i) taken[i] = clients[i]->GetCurStatePacket();
        },
        kClients);
    allocations += Allocations() - before;
  }
  state.counters["allocations"] =
      benchmark::Counter(static_cast<double>(allocations) / kClients, benchmark::Counter::kAvgIterations);
}
}  // namespace collect

// --- JSON

/// "%f" by integers, for values far below 2^40.
std::string Fixed(float value) {
  const auto millionths = static_cast<long long>(std::llrint(static_cast<double>(std::fabs(value)) * 1e6));
  char text[32];
  char* p = text + sizeof text;
  long long rest = millionths;
  for (int i = 0; i < 6; ++i, rest /= 10) *--p = static_cast<char>('0' + rest % 10);
  *--p = '.';
  do *--p = static_cast<char>('0' + rest % 10);
  while ((rest /= 10) != 0);
  if (std::signbit(value)) *--p = '-';
  return {p, text + sizeof text};
}

namespace state_json {
constexpr const char* kWhole[] = {"type",     "comStatus", "systemMode",  "ctrlMode",
                                  "ewStatus", "trjStatus", "trjViaRemain"};
constexpr const char* kReal[] = {
    "refCurrent", "refPosition",       "refVelocity",  "refAcceleration",       "refEffort", "current",     "position",
    "velocity",   "outConvInVelocity", "acceleration", "outConvInAcceleration", "effort",    "temperature", "general_0",
    "general_1",  "general_2",         "general_3"};
constexpr float kValue = -12.345678f;

/// One tree, built by moves.
void Picojson(State& state, int n) {
  for (auto _ : state) {
    picojson::array joints;
    joints.reserve(static_cast<std::size_t>(n));
    for (int i = 1; i <= n; ++i) {
      picojson::object joint;
      joint.emplace("joint_id", picojson::value(std::to_string(i)));
      for (const char* key : kWhole) joint.emplace(key, picojson::value(std::to_string(i)));
      for (const char* key : kReal) joint.emplace(key, picojson::value(Fixed(kValue)));
      joints.emplace_back(std::move(joint));
    }
    picojson::object root;
    root.emplace("duration", picojson::value(Fixed(kValue)));
    root.emplace("hostTimestamp", picojson::value(std::to_string(1234567890123456789)));
    root.emplace("jointState", picojson::value(std::move(joints)));
    root.emplace("timestamp", picojson::value(std::to_string(1234567890123456789)));
    DoNotOptimize(picojson::value(std::move(root)).serialize());
  }
}
/// As its users write it: std::to_string gives the same texts.
void Nlohmann(State& state, int n) {
  for (auto _ : state) {
    auto joints = nlohmann::json::array();
    for (int i = 1; i <= n; ++i) {
      nlohmann::json joint;
      joint["joint_id"] = std::to_string(i);
      for (const char* key : kWhole) joint[key] = std::to_string(i);
      for (const char* key : kReal) joint[key] = std::to_string(kValue);
      joints.push_back(std::move(joint));
    }
    nlohmann::json root;
    root["duration"] = std::to_string(kValue);
    root["hostTimestamp"] = std::to_string(1234567890123456789);
    root["jointState"] = std::move(joints);
    root["timestamp"] = std::to_string(1234567890123456789);
    DoNotOptimize(root.dump());
  }
}
void Library(State& state, int n) {
  MasterControllerClient client(n);
  RecvPacket packet(n);
  packet.header.timestamp = packet.header.hostTimestamp = 1234567890123456789;
  packet.header.duration = kValue;
  for (rxJoint_t& joint : packet.joints) {
    joint = {1,      1,      1,      1,      1,      1,      1,
             kValue, kValue, kValue, kValue, kValue, kValue, kValue,
             kValue, kValue, kValue, kValue, kValue, kValue, {kValue, kValue, kValue, kValue}};
  }
  const std::uint64_t before = Allocations();
  for (auto _ : state) {
    client.PushRecvBuffer(packet);
    DoNotOptimize(client.GetCurStateJson());
  }
  state.counters["allocations"] =
      benchmark::Counter(static_cast<double>(Allocations() - before), benchmark::Counter::kAvgIterations);
}
}  // namespace state_json

namespace command_json {
std::string Document(int n) {
  std::string joints;
  for (int i = 1; i <= n; ++i) {
    joints += std::string(i > 1 ? "," : "") + R"({"jointName":")" + std::to_string(i) +
              R"(","jointOrder":"17","value1":"0.5","value2":"0","value3":"0","value4":"0"})";
  }
  return R"({"armOrder":"0","jointCommand":[)" + joints + "]}";
}
void Floor(State& state, int n) {
  const std::string text = Document(n);
  for (auto _ : state) {
    picojson::value root;
    std::string error;
    picojson::parse(root, text.begin(), text.end(), &error);
    for (const picojson::value& joint : root.get("jointCommand").get<picojson::array>()) {
      for (const char* key : {"jointName", "jointOrder"}) {
        DoNotOptimize(std::strtol(joint.get(key).get<std::string>().c_str(), nullptr, 10));
      }
      for (const char* key : {"value1", "value2", "value3", "value4"}) {
        DoNotOptimize(std::strtof(joint.get(key).get<std::string>().c_str(), nullptr));
      }
    }
  }
}
void Library(State& state, int n) {
  MasterControllerClient client(n);
  const std::string text = Document(n);
  const Counted counted(state);
  for (auto _ : state) {
    client.PushSendQueueJson(text, false);
    client.FlushSendBuffer();
  }
}
}  // namespace command_json

// --- scaling

namespace scaling {
void Joints(State& state, int n) { memory_steps::Library(state, n); }

/// `sources` named buffers with one packet each, all merged by the next send step.
void BusySources(State& state, int sources) {
  constexpr int kJoints = 64;
  MemoryClient client(kJoints);
  std::vector<std::string> names;
  std::vector<SendPacket> packets;
  for (int i = 0; i < sources; ++i) {
    names.push_back("source" + std::to_string(i));
    packets.emplace_back(kJoints);
    packets.back().SetServoOn(std::to_string(i));
    client.CreateIndependentSendPacketBuffer(names.back());
  }
  const Counted counted(state);
  for (auto _ : state) {
    for (std::size_t i = 0; i < names.size(); ++i) {
      client.PushBackIndependentSendBuffer(packets[i], names[i], false, false, "");
    }
    client.SendPacketInBuffer();
  }
}
void IdleSources(State& state, int sources) {
  MemoryClient client(7);
  for (int i = 0; i < sources; ++i) client.CreateIndependentSendPacketBuffer("source" + std::to_string(i));
  const Counted counted(state);
  for (auto _ : state) client.SendPacketInBuffer();
}

/// All keys known; every cycle files one and sends it.
void Keys(State& state, int keys) {
  MemoryClient client(7);
  std::vector<SendPacket> packets;
  for (int i = 0; i < keys; ++i) {
    packets.emplace_back(7);
    packets.back().SetUniqueKey("key" + std::to_string(i));
    client.InsertUniqueSendMap(packets.back());
    client.SendPacketInBuffer();
  }
  std::size_t next = 0;
  const Counted counted(state);
  for (auto _ : state) {
    client.InsertUniqueSendMap(packets[next]);
    client.SendPacketInBuffer();
    next = (next + 7919) % packets.size();
  }
}
/// All keys filed at once, then sent one per cycle; the time is a cycle's.
void WaitingKeys(State& state, int keys) {
  MemoryClient client(7);
  std::vector<SendPacket> packets;
  for (int i = 0; i < keys; ++i) {
    packets.emplace_back(7);
    packets.back().SetUniqueKey("key" + std::to_string(i));
  }
  Samples samples(state);
  for (auto _ : state) {
    for (SendPacket& packet : packets) client.InsertUniqueSendMap(packet);
    samples.Time(
        [&] {
          for (int i = 0; i < keys; ++i) client.SendPacketInBuffer();
        },
        keys);
  }
}

/// As many receive steps as packets, then one collection; the time is a packet's.
void Buffered(State& state, int packets) {
  MemoryClient client(7);
  Samples samples(state);
  for (auto _ : state) {
    samples.Time(
        [&] {
          for (int i = 0; i < packets; ++i) client.ReceiveStatus();
          DoNotOptimize(client.GetCurStatePacket());
        },
        packets);
  }
}

/// One loop over as many arms of 7 joints, each on its own TCP connection with a status frame ready.
void ArmsFloor(State& state, int arms) {
  std::vector<std::unique_ptr<Peer>> peers;
  std::vector<std::unique_ptr<BareSocket>> sockets;
  for (int i = 0; i < arms; ++i) {
    peers.push_back(std::make_unique<Peer>());
    sockets.push_back(std::make_unique<BareSocket>(*peers.back()));
  }
  const std::vector<char> in = StatusFrame(7), out = CommandFrame(7);
  std::vector<char> buffer(65535);
  Samples samples(state);
  for (auto _ : state) {
    for (const auto& peer : peers) peer->Send(in);
    samples.Time([&] {
      for (const auto& socket : sockets) {
        Require(socket->Receive(buffer.data(), buffer.size()) > 0, "no frame on loopback");
        socket->Send(out);
      }
    });
    for (const auto& peer : peers) peer->Drain();
  }
}
void Arms(State& state, int arms) {
  std::vector<std::unique_ptr<Peer>> peers;
  std::vector<std::unique_ptr<MasterControllerClient>> clients;
  for (int i = 0; i < arms; ++i) {
    peers.push_back(std::make_unique<Peer>());
    clients.push_back(std::make_unique<MasterControllerClient>(7));
    Require(clients.back()->InitAsTcpClient("127.0.0.1", peers.back()->Port()), "cannot connect");
    peers.back()->Accept();
  }
  const std::vector<char> in = StatusFrame(7);
  SendPacket packet(7);
  Samples samples(state);
  for (auto _ : state) {
    for (const auto& peer : peers) peer->Send(in);
    for (const auto& client : clients) client->PushSendQueue(packet, false);
    samples.Time([&] {
      for (const auto& client : clients) {
        Require(client->ReceiveStatus() == 1, "no frame on loopback");
        client->SendPacketInBuffer();
      }
    });
    for (const auto& client : clients) client->FlushRecvBuffer();
    for (const auto& peer : peers) peer->Drain();
  }
}
}  // namespace scaling

// --- tables

using Body = void (*)(State&, int);
using Sizes = std::vector<int>;

struct Job {
  const char* name;
  const char* size_name;
  Sizes sizes;
  Body floor;  ///< null in the scaling table
  Body library;
  int iterations;  ///< of jobs with parts that are not timed, which time themselves; 0 for all others
};

const Sizes kJoints = {1, 7, 32};

const std::vector<Job> kJobs = {
    {"receive + send step, TCP loopback", "n", kJoints, tcp_steps::Floor<tcp_steps::kPoll>, tcp_steps::Library, 2000},
    {"the same, floor with select", "n", kJoints, tcp_steps::Floor<tcp_steps::kSelect>, tcp_steps::Library, 2000},
    {"with the host's part", "n", kJoints, tcp_steps::FloorWithHost<tcp_steps::kPoll>, tcp_steps::LibraryWithHost,
     2000},
    {"with the host's part, floor with select", "n", kJoints, tcp_steps::FloorWithHost<tcp_steps::kSelect>,
     tcp_steps::LibraryWithHost, 2000},
    {"40 arms in one loop, TCP loopback", "arms", {1, 40}, scaling::ArmsFloor, scaling::Arms, 200},
    {"CRC of a status frame", "n", kJoints, crc::Floor, crc::Library, 0},
    {"RecvPacket::Parse", "n", kJoints, parse::Floor, parse::Library, 0},
    {"parser, a frame per push", "n", kJoints, parser::FloorSingle, parser::Single, 0},
    {"parser, bursts of 64 KiB: per frame", "n", kJoints, parser::FloorBurst, parser::Whole, 100},
    {"the same with 10 % garbage", "n", kJoints, parser::FloorBurst, parser::Garbage, 100},
    {"parser, one byte per push: per byte", "n", kJoints, parser::FloorByte, parser::LibraryByte, 0},
    {"build, set all joints, serialise", "n", kJoints, build::Floor, build::Library, 0},
    {"ID string with a list of joints", "n", kJoints, ids::Floor, ids::Library, 0},
    {"merger: 32 packets of 4 sources", "n", {7, 32}, merger::Floor, merger::Library, 0},
    {"receive + send step in memory", "n", kJoints, memory_steps::Floor, memory_steps::Library, 0},
    {"simulator: send + receive step", "n", kJoints, simulator::Floor, simulator::Library, 0},
    {"collecting 16 buffered packets", "n", kJoints, collect::Floor, collect::Library, 30},
    {"state JSON (floor: picojson)", "n", kJoints, state_json::Picojson, state_json::Library, 0},
    {"state JSON (floor: nlohmann/json)", "n", kJoints, state_json::Nlohmann, state_json::Library, 0},
    {"command JSON (floor: picojson)", "n", kJoints, command_json::Floor, command_json::Library, 0},
    {"cycle against joints", "joints", {1, 2, 4, 8, 16, 32, 64, 128, 256}, nullptr, scaling::Joints, 0},
    {"send step, busy named sources", "sources", {1, 2, 4, 8, 16, 32, 64}, nullptr, scaling::BusySources, 0},
    {"send step, idle named sources", "sources", {1, 4, 16, 64}, nullptr, scaling::IdleSources, 0},
    {"cycle against known unique keys", "keys", {1, 10, 100, 1000, 10000}, nullptr, scaling::Keys, 0},
    {"cycle while all keys wait", "keys", {1, 10, 100, 1000, 10000}, nullptr, scaling::WaitingKeys, 20},
    {"receive step per buffered packet", "packets", {1, 16, 256, 4096}, nullptr, scaling::Buffered, 50},
};

/// Keeps every repetition and prints the medians at the end.
class TableReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      Series& series = series_[run.run_name.function_name + '/' + run.run_name.args];
      const auto sampled = run.counters.find("ns");
      series.times.push_back(sampled != run.counters.end() ? sampled->second.value : run.GetAdjustedCPUTime());
      const auto counter = run.counters.find("allocations");
      if (counter != run.counters.end()) series.allocations.push_back(counter->second.value);
    }
  }

  void Finalize() override {
    std::printf("| job | size | floor ns | library ns | ratio | allocations |\n|---|---|---|---|---|---|\n");
    for (const Job& job : kJobs) {
      for (const int size : job.sizes) {
        if (job.floor != nullptr) PrintRatio(job, size);
      }
    }
    std::printf("\n| scaling | size | ns | allocations |\n|---|---|---|---|\n");
    const char* const plot_data = std::getenv("VELTA_BENCH_PLOT_DATA");
    std::FILE* const plot = plot_data != nullptr ? std::fopen(plot_data, "w") : nullptr;
    for (const Job& job : kJobs) {
      if (job.floor != nullptr) continue;
      if (plot != nullptr) std::fprintf(plot, "\"%s\"\n", job.name);
      for (const int size : job.sizes) {
        const Series* const library = Find(job, "library", size);
        if (library == nullptr) continue;
        std::printf("| %s | %s %d | %.0f | %s |\n", job.name, job.size_name, size, Median(library->times),
                    Count(library->allocations).c_str());
        if (plot != nullptr) std::fprintf(plot, "%d %.1f\n", size, Median(library->times));
      }
      if (plot != nullptr) std::fprintf(plot, "\n\n");
    }
    if (plot != nullptr) std::fclose(plot);
  }

 private:
  struct Series {
    std::vector<double> times, allocations;
  };

  static std::string Count(const std::vector<double>& allocations) {
    if (allocations.empty()) return "";
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", Median(allocations));
    return text;
  }

  const Series* Find(const Job& job, const char* variant, int size) const {
    const auto found =
        series_.find(std::string(job.name) + '|' + variant + '/' + job.size_name + ':' + std::to_string(size));
    return found != series_.end() ? &found->second : nullptr;
  }

  void PrintRatio(const Job& job, int size) const {
    const Series* const floor = Find(job, "floor", size);
    const Series* const library = Find(job, "library", size);
    if (floor == nullptr || library == nullptr) return;
    const double least = Median(floor->times), ours = Median(library->times);
    std::printf("| %s | %s %d | %.1f | %.1f | %.2f | %s |\n", job.name, job.size_name, size, least, ours, ours / least,
                Count(library->allocations).c_str());
  }

  std::map<std::string, Series> series_;
};

void Register(const Job& job, const char* variant, Body body) {
  auto* const benchmark =
      benchmark::RegisterBenchmark((std::string(job.name) + '|' + variant).c_str(),
                                   [body](State& state) { body(state, static_cast<int>(state.range(0))); });
  benchmark->ArgName(job.size_name);
  for (const int size : job.sizes) benchmark->Arg(size);
  if (job.iterations != 0) benchmark->Iterations(job.iterations);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  for (const Job& job : kJobs) {
    if (job.floor != nullptr) Register(job, "floor", job.floor);
    Register(job, "library", job.library);
  }
  std::cout.setstate(std::ios::badbit);  // the library's own lines have no place among the tables
  TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
}
