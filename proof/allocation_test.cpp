// SPDX-License-Identifier: MIT
// The k-th allocation of every facade operation fails, for every k: no lock stays held, no packet is half queued, nothing
// of the stream is lost, and the client works on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <set>

#include "TcpClient.h"
#include "support/bytes.h"
#include "support/capture.h"
#include "support/scripted_link.h"
#include "velta_session.h"

namespace {
thread_local long allocations_left = -1;  // below 0 none fails
thread_local std::size_t allocations = 0;
}  // namespace

// Not inlined: seen at once, malloc and delete look mismatched to the compiler.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (allocations_left >= 0 && allocations_left-- == 0) throw std::bad_alloc();
  void* const memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  errno = ENOSPC;  // an allocator may
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using velta::test::StatusFrame;

/// A command of one joint with a number that is read back from the wire.
SendPacket Numbered(int joint, int number) {
  SendPacket packet(2);
  packet.SetRefPosition(std::to_string(joint), static_cast<float>(number));
  return packet;
}

constexpr int kNew = 8;  // the number of the command that the operation brings
constexpr const char* kLongKey = "a key that is too long for the string object itself";
constexpr const char* kOtherKey = "another key that is too long for the string object";

/// A client with something waiting everywhere: numbers 1 to 7, two statuses collected, two and a half on the link.
struct Client : velta::test::ScriptedClient {
  Client() : ScriptedClient(2) {
    Push(Numbered(0, 1), false);
    for (const char* name : {"a", "b"}) CreateIndependentSendPacketBuffer(name);
    Buffer(Numbered(0, 2), "a", false, "");
    Buffer(Numbered(0, 3), "a", true, kLongKey);
    Buffer(Numbered(1, 4), "a", true, kOtherKey);
    Buffer(Numbered(1, 5), "b", false, "");
    Buffer(Numbered(1, 6), "b", true, kLongKey);
    SendPacket filed = Numbered(0, 7);
    filed.SetUniqueKey("m");
    InsertUniqueSendMap(filed);
    for (unsigned i = 1; i <= 2; ++i) PushRecvBuffer(RecvPacket(2));
    const std::vector<char> third = StatusFrame(2, 3);
    link->reads = {
        velta::test::Bytes().Add(StatusFrame(2, 1)).Add(StatusFrame(2, 2)).Add({third.begin(), third.begin() + 90}),
        {third.begin() + 90, third.end()}};
  }
  void Push(SendPacket packet, bool confirm) { PushSendQueue(packet, confirm); }
  void Buffer(SendPacket packet, const char* name, bool unique, const char* key) {
    PushBackIndependentSendBuffer(packet, name, false, unique, key);
  }

  /// Sends everything. @return the numbers on the wire, each once
  std::set<int> Drain() {
    std::set<int> numbers;
    for (int quiet = 0; quiet < 3;) {
      last_recv_host_timestamp_ = last_send_timestamp_;
      SendPacketInBuffer();
      quiet = link->writes.empty() ? quiet + 1 : 0;
      for (const auto& frame : link->writes) {
        EXPECT_EQ(frame.size(), 49u) << "only whole packets";
        for (std::size_t at = 11; at + 18 <= frame.size(); at += 18) {
          float value = 0;
          std::memcpy(&value, &frame[at + 2], sizeof value);
          if (frame[at + 1] != 0) {
            EXPECT_TRUE(numbers.insert(static_cast<int>(value)).second) << value;
          }
        }
      }
      link->writes.clear();
    }
    return numbers;
  }
};

struct Operation {
  const char* name;
  enum Kind {
    Adds,     ///< queues the new command, or nothing
    Reads,    ///< changes no queue; statuses stay
    Removes,  ///< changes no queue; takes statuses out
    Passes,   ///< changes no queue; may lose what it carries
    Steps,    ///< may lose commands that it had taken out
  } kind;
  void (*act)(Client& client, SendPacket& command);
};

class Allocation : public testing::TestWithParam<Operation> {};

TEST_P(Allocation, EveryFailureLeavesNoTrace) {
  const Operation& operation = GetParam();
  std::cout.setstate(std::ios::badbit);  // log lines
  const std::set<int> before = {1, 2, 3, 4, 5, 6, 7};
  std::set<int> with_new = before;
  with_new.insert(kNew);
  long k = 0;
  for (bool failed = true; failed; ++k) {
    SCOPED_TRACE("allocation " + std::to_string(k));
    Client client;
    SendPacket command = Numbered(0, kNew);
    command.SetUniqueKey("a new key, too long for the string object as well");
    const std::size_t queued = client.GetSendBufferSize();
    allocations_left = k;
    bool threw = false;
    try {
      operation.act(client, command);
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    failed = allocations_left < 0;
    allocations_left = -1;

    ASSERT_TRUE(client.mutex_->try_lock()) << "no lock is held";
    client.mutex_->unlock();
    const std::size_t statuses = client.GetRecvBufferSize();
    if (failed && operation.kind < Operation::Passes) {
      EXPECT_EQ(client.GetSendBufferSize(), queued);
      EXPECT_TRUE(statuses == 2 || operation.kind == Operation::Removes) << "statuses are collected whole, or stay";
    }
    if (operation.kind >= Operation::Passes) {
      for (const RecvPacket& packet : client.GetCurStatePacket()) EXPECT_EQ(packet.joints.size(), 2u);
      const std::set<int> sent = client.Drain();
      EXPECT_TRUE(std::includes(with_new.begin(), with_new.end(), sent.begin(), sent.end()));
      EXPECT_TRUE(std::includes(sent.begin(), sent.end(), before.begin(), before.end()) ||
                  operation.kind == Operation::Steps);
    } else {
      EXPECT_EQ(client.Drain(), operation.kind == Operation::Adds && !threw ? with_new : before);
    }
    operation.act(client, command);  // and works on
    client.ReceiveStatus();
    client.ReceiveStatus();
    EXPECT_EQ(+client.GetLastRecvPacket().header.timestamp, 3u) << "the stream is whole";
  }
  EXPECT_GT(k, 1) << "the operation allocates";
  std::cout.clear();
}

INSTANTIATE_TEST_SUITE_P(
    All, Allocation,
    testing::Values(
        Operation{"PushSendQueue", Operation::Adds, [](Client& c, SendPacket& p) { c.PushSendQueue(p, true); }},
        Operation{"PushFrontSendQueue", Operation::Adds,
                  [](Client& c, SendPacket& p) { c.PushFrontSendQueue(p, true); }},
        Operation{"PushSendQueueJson", Operation::Adds,
                  [](Client& c, SendPacket&) {
                    if (!c.PushSendQueueJson(velta::test::kDocument, false)) throw std::bad_alloc();
                  }},
        Operation{"InsertUniqueSendMap", Operation::Adds, [](Client& c, SendPacket& p) { c.InsertUniqueSendMap(p); }},
        Operation{"PushBackOrdinary", Operation::Adds,
                  [](Client& c, SendPacket& p) { c.PushBackIndependentSendBuffer(p, "a", true, false, ""); }},
        Operation{"PushBackUnique", Operation::Adds,
                  [](Client& c, SendPacket& p) { c.PushBackIndependentSendBuffer(p, "b", true, true, p.uniqueKey); }},
        Operation{"CreateBuffer", Operation::Reads,
                  [](Client& c, SendPacket&) { c.CreateIndependentSendPacketBuffer(kLongKey); }},
        Operation{"GetCurStatePacket", Operation::Reads, [](Client& c, SendPacket&) { c.GetCurStatePacket(); }},
        Operation{"GetCurStateJson", Operation::Removes, [](Client& c, SendPacket&) { c.GetCurStateJson(); }},
        Operation{"PushRecvBuffer", Operation::Reads, [](Client& c, SendPacket&) { c.PushRecvBuffer(RecvPacket(2)); }},
        Operation{"ReceiveStatus", Operation::Passes, [](Client& c, SendPacket&) { c.ReceiveStatus(); }},
        Operation{"SendOnce", Operation::Passes, [](Client& c, SendPacket& p) { c.SendOnce(p, false); }},
        Operation{"Merge", Operation::Steps, [](Client& c, SendPacket&) { c.MergeIndependentSendPacketBuffer(); }},
        Operation{"SendPacketInBuffer", Operation::Steps, [](Client& c, SendPacket&) { c.SendPacketInBuffer(); }}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(Allocation, ErrorsKeepTheirReasonWhileTheirTextIsBuilt) {
  TcpClient link("127.0.0.1", 1);
  EXPECT_EQ(velta::test::PrintedError([&] { EXPECT_FALSE(link.Init()); }),
            "[TcpClient::Connect] Failed to open TCP Connection to 127.0.0.1: Connection refused\n");
}

TEST(Allocation, QuietStepsNeedNone) {
  velta::test::ScriptedClient client(7);
  for (const char* name : {"a", "b"}) client.CreateIndependentSendPacketBuffer(name);
  std::size_t before = 0;
  for (int pass = 0; pass < 2; ++pass) {  // the first may
    before = allocations;
    client.ReceiveStatus();
    client.SendPacketInBuffer();
    client.PopSendQueue();
    client.GetStatistics();
  }
  EXPECT_EQ(allocations, before);
}

TEST(Allocation, ASessionsCommandsAndCyclesNeedNone) {
  velta::SessionOptions options;
  options.link = "sim:";
  options.joints = 7;
  velta::Session session(options);
  const SendPacket packet(7);
  for (const velta::Confirm confirm : {velta::Confirm::kNo, velta::Confirm::kYes}) {
    std::size_t before = 0;
    for (int i = 0; i < 120; ++i) {  // a status comes with each, in answer to the command
      if (i == 20) before = allocations;
      session.Send(packet, confirm);
      session.Step();
    }
    EXPECT_EQ(allocations, before);
  }
  EXPECT_GE(session.GetStatistics().client.commands_confirmed, 100U);
}

}  // namespace
