// SPDX-License-Identifier: MIT
// Each job next to its floor: the least that any implementation must do (memcpy and CRC, the JSON library alone).
// Run both in one process and compare them as ratios; single times say more about the machine.
#include <benchmark/benchmark.h>
#include <picojson.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "AbstractClient.h"
#include "MasterControllerClient.h"
#include "PacketParser.h"
#include "SendPacket.h"
#include "protocol.h"
#include "send_packet_merger.h"

namespace {

const unsigned char* Raw(const std::vector<char>& bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

std::vector<char> StatusFrame(int n) {
  std::vector<char> frame(static_cast<std::size_t>(velta::StatusFrameSizes(n).packet), 1);
  std::memcpy(frame.data(), velta::kStartMark, 2);
  const unsigned short crc = CalcCrc16(Raw(frame), static_cast<unsigned short>(frame.size() - 2));
  std::memcpy(frame.data() + frame.size() - 2, &crc, 2);
  return frame;
}

void JointCounts(benchmark::internal::Benchmark* b) { b->ArgName("n")->Arg(1)->Arg(7)->Arg(32); }

/// Floor of a frame in either direction: its bytes moved once and covered by the CRC once.
void Floor_MemcpyAndCrc(benchmark::State& state, std::vector<char> from) {
  std::vector<char> to(from.size());
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size());
    benchmark::DoNotOptimize(CalcCrc16(Raw(to), static_cast<unsigned short>(to.size() - 2)));
  }
}

void Encode_Floor(benchmark::State& state) {
  Floor_MemcpyAndCrc(state, SendPacket(static_cast<int>(state.range(0))).GetCharVector());
}
void Encode(benchmark::State& state) {
  const SendPacket packet(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(packet.GetCharVector());
}
void Encode_BuildAndSet(benchmark::State& state) {
  for (auto _ : state) {
    SendPacket packet(static_cast<int>(state.range(0)));
    packet.SetRefPosition("all", 1);
    benchmark::DoNotOptimize(packet.GetCharVector());
  }
}

void Decode_Floor(benchmark::State& state) { Floor_MemcpyAndCrc(state, StatusFrame(static_cast<int>(state.range(0)))); }

/// Cuts 64 frames, pushed in pieces of the given size, each with `garbage` bytes before it.
void Decode(benchmark::State& state, std::size_t piece, std::size_t garbage) {
  const int n = static_cast<int>(state.range(0));
  std::vector<char> stream;
  for (int i = 0; i < 64; ++i) {
    stream.insert(stream.end(), garbage, 'x');
    const std::vector<char> frame = StatusFrame(n);
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  if (piece == 0) piece = stream.size();
  PacketParser parser(n);
  for (auto _ : state) {
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(at);
      parser.Push({begin, begin + static_cast<std::ptrdiff_t>(std::min(piece, stream.size() - at))});
      benchmark::DoNotOptimize(parser.Parse());
    }
  }
  state.SetItemsProcessed(state.iterations() * 64);
}

/// 4 sources, each commanding its own joints of 7, 8 packets each.
void Merger(benchmark::State& state) {
  std::vector<std::shared_ptr<SendPacketBuffer>> buffers;
  std::vector<SendPacket> packets;
  for (int source = 0; source < 4; ++source) {
    buffers.push_back(std::make_shared<SendPacketBuffer>());
    packets.emplace_back(7);
    packets.back().SetServoOn(std::to_string(source));
  }
  for (auto _ : state) {
    for (std::size_t source = 0; source < 4; ++source) {
      for (int i = 0; i < 8; ++i) buffers[source]->pushBack(packets[source]);
    }
    benchmark::DoNotOptimize(SendPacketMerger::getMergedPacket(buffers, 7));
  }
}

/// A link in memory that always has one status frame.
struct MemoryLink : AbstractClient {
  explicit MemoryLink(int n) : frame(StatusFrame(n)) {}
  bool Init() override { return true; }
  bool Connect() override { return true; }
  int Disconnect() override { return 0; }
  int Read(std::vector<char>& data) override {
    data = frame;
    return static_cast<int>(data.size());
  }
  int Write(const std::vector<char>& data) override { return static_cast<int>(data.size()); }
  std::vector<char> frame;
};

struct MemoryClient : MasterControllerClient {
  explicit MemoryClient(int n) : MasterControllerClient(n) { client_ = new MemoryLink(n); }
};

void Steps_Floor(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::vector<char> in = StatusFrame(n), out = SendPacket(n).GetCharVector();
  std::vector<char> to(in.size());
  for (auto _ : state) {
    for (const auto* frame : {&in, &out}) {
      std::memcpy(to.data(), frame->data(), frame->size());
      benchmark::DoNotOptimize(CalcCrc16(Raw(to), static_cast<unsigned short>(frame->size() - 2)));
    }
  }
}
void Steps(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  MemoryClient client(n);
  SendPacket packet(n);
  for (auto _ : state) {
    client.PushSendQueue(packet, false);
    client.ReceiveStatus();
    client.SendPacketInBuffer();
    client.FlushRecvBuffer();
  }
}

/// The same document by the JSON library alone: one object per joint, filled and serialised.
void StateJson_Floor(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    picojson::array joints;
    for (std::size_t i = 0; i < n; ++i) {
      picojson::object joint;
      for (int key = 0; key < 25; ++key) joint["key" + std::to_string(key)] = picojson::value("0.000000");
      joints.emplace_back(std::move(joint));
    }
    benchmark::DoNotOptimize(picojson::value(std::move(joints)).serialize());
  }
}
void StateJson(benchmark::State& state) {
  MasterControllerClient client(static_cast<int>(state.range(0)));
  const RecvPacket packet(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    client.PushRecvBuffer(packet);
    benchmark::DoNotOptimize(client.GetCurStateJson());
  }
}

std::string CommandDocument(int n) {
  std::string joints;
  for (int i = 1; i <= n; ++i) {
    joints += std::string(i > 1 ? "," : "") + R"({"jointName":")" + std::to_string(i) +
              R"(","jointOrder":"17","value1":"0.5","value2":"0","value3":"0","value4":"0"})";
  }
  return R"({"armOrder":"0","jointCommand":[)" + joints + "]}";
}
void CommandJson_Floor(benchmark::State& state) {
  const std::string text = CommandDocument(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    picojson::value root;
    std::string error;
    picojson::parse(root, text.begin(), text.end(), &error);
    benchmark::DoNotOptimize(root);
  }
}
void CommandJson(benchmark::State& state) {
  MasterControllerClient client(static_cast<int>(state.range(0)));
  const std::string text = CommandDocument(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    client.PushSendQueueJson(text, false);
    benchmark::DoNotOptimize(client.PopSendQueue());
  }
}

BENCHMARK(Encode_Floor)->Apply(JointCounts);
BENCHMARK(Encode)->Apply(JointCounts);
BENCHMARK(Encode_BuildAndSet)->Apply(JointCounts);
BENCHMARK(Decode_Floor)->Apply(JointCounts);
BENCHMARK_CAPTURE(Decode, Whole, 0, 0)->Apply(JointCounts);
BENCHMARK_CAPTURE(Decode, Split, 100, 0)->Apply(JointCounts);
BENCHMARK_CAPTURE(Decode, Garbage, 0, 60)->Apply(JointCounts);
BENCHMARK(Merger);
BENCHMARK(Steps_Floor)->Apply(JointCounts);
BENCHMARK(Steps)->Apply(JointCounts);
BENCHMARK(StateJson_Floor)->Apply(JointCounts);
BENCHMARK(StateJson)->Apply(JointCounts);
BENCHMARK(CommandJson_Floor)->Apply(JointCounts);
BENCHMARK(CommandJson)->Apply(JointCounts);

}  // namespace
