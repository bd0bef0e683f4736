// SPDX-License-Identifier: MIT
// What a control cycle may allocate once it runs: exact counts, so that a stray copy fails here and not in the field.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <new>

#include "MasterControllerClientMock.h"
#include "PacketParser.h"
#include "send_packet_merger.h"
#include "support/bytes.h"
#include "support/scripted_link.h"

namespace {
thread_local std::size_t allocations = 0;  // the simulator's thread does not count
}

// Not inlined: the compiler would take malloc and delete for a mismatch.
__attribute__((noinline)) void* operator new(std::size_t size) {
  ++allocations;
  if (void* const memory = std::malloc(size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

namespace {

constexpr int kJoints = 7;
constexpr int kCycles = 200;  // a multiple of the packets in a node of the plain queue

/// A link that is always ready and keeps nothing.
struct ReadyLink : velta::test::ScriptedLink {
  explicit ReadyLink(bool hears) {
    if (hears) frame = velta::test::StatusFrame(kJoints, 1);
  }
  int Read(std::vector<char>& data) override {
    data.assign(frame.begin(), frame.end());
    return static_cast<int>(data.size());
  }
  int Write(const std::vector<char>& data) override { return static_cast<int>(data.size()); }
  std::vector<char> frame;
};

struct ReadyClient : velta::test::ScriptedClient {
  explicit ReadyClient(bool hears = true) : ScriptedClient(kJoints, new ReadyLink(hears)) {}
};

/// Allocations per hundred calls, after two that fill what is kept.
std::size_t PerHundred(const std::function<void()>& call) {
  std::size_t before = 0;
  for (int i = -2; i < kCycles; ++i, call()) {
    if (i == 0) before = allocations;
  }
  return (allocations - before) * 100 / kCycles;
}

TEST(Allocations, AreTheseAndNoMore) {
  ReadyClient client, silent(false), keyed, named;
  MasterControllerClientMock simulator(kJoints, 10);
  SendPacket packet(kJoints), unique(kJoints);
  packet.SetServoOn("all");
  unique.SetUniqueKey("a key");
  for (int i = 0; i < 9; ++i) named.CreateIndependentSendPacketBuffer(std::to_string(i));
  std::vector sources = {std::make_shared<SendPacketBuffer>(), std::make_shared<SendPacketBuffer>()};
  std::vector<SendPacket> of_joint(2, SendPacket(kJoints));
  of_joint[0].SetServoOn("0");
  of_joint[1].SetServoOn("1");
  RecvPacket status(kJoints);
  PacketParser parser(kJoints);
  const std::vector<char> frame = velta::test::StatusFrame(kJoints, 1);

  // clang-format off
  const std::vector<std::tuple<const char*, std::size_t, std::function<void()>>> rows = {
      {"a receive step that hears nothing", 0, [&] { silent.ReceiveStatus(); }},
      {"a send step without a command", 0, [&] { silent.SendPacketInBuffer(); }},
      {"the same with idle named buffers", 0, [&] { named.SendPacketInBuffer(); }},
      {"a status: its records in the receive buffer", 100, [&] { client.ReceiveStatus(), client.FlushRecvBuffer(); }},
      {"a command: its records and a quarter of a node in the queue", 125,
       [&] { client.PushSendQueue(packet, false), client.SendPacketInBuffer(); }},
      {"a keyed command: filed and handed out", 200,
       [&] { keyed.InsertUniqueSendMap(unique), keyed.SendPacketInBuffer(); }},
      {"the simulator's cycle", 225, [&] {
         simulator.PushSendQueue(packet, false), simulator.SendPacketInBuffer();
         simulator.ReceiveStatus(), simulator.FlushRecvBuffer();
       }},
      {"two sources' packets merged: one packet's records, a deque of two blocks, three short lists", 600,
       [&] {
         for (std::size_t i = 0; i < 2; ++i) sources[i]->pushBack(of_joint[i]);
         SendPacketMerger::getMergedPacket(sources, kJoints);
       }},
      {"collecting: as much room again", 200, [&] { client.PushRecvBuffer(status), client.GetCurStatePacket(); }},
      {"building and serialising", 200, [&] {
         SendPacket built(kJoints);
         built.SetRefPosition("all", 1), built.SetServoOn("0/2/5");
         built.GetCharVector();
       }},
      {"reading an ID string", 100, [&] { packet.ParseIDString("0/1/2/3/4/5/6"); }},
      {"a frame through the parser: the caller's copy, its nodes, the result and its records", 412,
       [&] { parser.Push(frame), parser.Parse(); }},
      {"bytes that are no frame yet, but for the caller's own copy", 100,
       [&] { parser.Push(std::vector<char>(1, 'x')), parser.Parse(), parser.buffer.pop_back(); }}};
  // clang-format on
  for (const auto& [name, expected, call] : rows) EXPECT_EQ(PerHundred(call), expected) << name;
}

}  // namespace
