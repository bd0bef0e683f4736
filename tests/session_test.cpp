// SPDX-License-Identifier: MIT
// The session's cycle against a link in memory: every frame, outcome and event, cycle by cycle, in a time of its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "session_loop.h"
#include "support/bytes.h"
#include "support/capture.h"

namespace velta::detail {
namespace {

constexpr int kJoints = 3;
constexpr Nanos kMs = 1'000'000;
constexpr Confirm kConfirm = Confirm::kYes;
using Texts = std::vector<std::string>;
using Refusal = std::pair<velta::Outcome, velta::Reason>;

/// The controller's end of a link that is opened, read and written in memory.
class MemoryLink : public SessionLink {
 public:
  using SessionLink::SessionLink;
  void Begin() override { ++begun; }
  Progress Look(std::string& why) override {
    if (progress == Progress::kOpen) Opened();
    why = "refused";
    return progress;
  }
  void Abort() override { Closed(), to_host.clear(), to_controller.clear(); }
  int Disconnect() override {
    Closed();
    return 0;
  }
  bool MustBeAsked() const override { return must_be_asked; }

  Progress progress = Progress::kOpen;
  bool must_be_asked = false;
  int begun = 0;
  std::size_t room = 100000;  ///< bytes that a write takes
  bool is_broken = false;
  std::deque<std::vector<char>> to_host;
  std::vector<char> to_controller;

 protected:
  bool IsStream() const override { return false; }
  long ReadSome(char* buffer, std::size_t /*size*/) override {
    why_ = "broken";
    if (is_broken) return -1;
    if (to_host.empty()) return 0;
    const std::vector<char> bytes = std::move(to_host.front());
    to_host.pop_front();
    std::memcpy(buffer, bytes.data(), bytes.size());
    return static_cast<long>(bytes.size());
  }
  long WriteSome(const char* bytes, std::size_t size) override {
    why_ = "broken";
    if (is_broken) return -1;
    const std::size_t taken = std::min(room, size);
    to_controller.insert(to_controller.end(), bytes, bytes + taken);
    return static_cast<long>(taken);
  }
};

class SessionTest : public testing::Test {
 protected:
  SessionTest() {
    options.link = "tcp://127.0.0.1:1";
    options.joints = kJoints;
    options.ask = std::chrono::nanoseconds(0);
    options.silence = std::chrono::nanoseconds(0);
  }

  ~SessionTest() override {
    shared->admission->Stop();
    loop->Close();
  }

  /// Builds the session; the first cycle opens the link, the second hears a status.
  void Connect() {
    if (loop == nullptr) Build();
    Hear(0);
    Cycles(2);
  }
  void Build() {
    LinkAddress address;
    std::string why;
    ASSERT_TRUE(ParseLinkAddress(options.link, address, why));
    shared = std::make_unique<SessionShared>(options, address);
    shared->notifier.OnEvent([this](const Event& event) { events.emplace_back(ToString(event.kind)); });
    auto owned =
        std::make_unique<MemoryLink>(SessionLink::Witnesses{shared->recorder.get(), &shared->options.on_traffic});
    link = owned.get();
    loop = std::make_unique<SessionLoop>(*shared, std::move(owned));
  }
  void Cycles(int count) {
    for (int i = 0; i < count; ++i) loop->Cycle(now += kMs);
    shared->notifier.Deliver();
  }
  /// A status with that echo, and with the control mode of joint 1.
  void Hear(std::uint64_t echo, std::uint8_t mode = 0) {
    test::Bytes frame;
    frame.U8(0xAB).U8(0xCD).U64(0).U64(echo).F32(0).Fill(79 + 3, 0).U8(mode).Fill(75 + 79, 0);
    link->to_host.push_back(frame.Crc());
  }
  /// What has left since the last call, as the orders of the joints, e.g. "A2 00 00"; an arm order comes first.
  Texts Sent() {
    const std::size_t size = static_cast<std::size_t>(CommandFrameSizes(kJoints).packet);
    Texts frames;
    for (std::size_t at = 0; at + size <= link->to_controller.size(); at += size) {
      SendPacket packet(kJoints);
      std::memcpy(&packet.header, &link->to_controller[at], sizeof packet.header);
      std::memcpy(static_cast<void*>(packet.joints.data()), &link->to_controller[at + sizeof packet.header],
                  kJoints * sizeof(txJoint_t));
      EXPECT_GT(packet.GetTimeStamp(), stamp);  // rises over all connections
      stamp = packet.GetTimeStamp();
      std::string text;
      char order[8];
      if (packet.header.armOrder != 0)
        std::snprintf(order, sizeof order, "%02X:", packet.header.armOrder), text = order;
      for (const txJoint_t& joint : packet.joints) {
        std::snprintf(order, sizeof order, text.empty() ? "%02X" : " %02X", joint.order);
        text += order;
      }
      frames.push_back(text);
    }
    link->to_controller.clear();
    return frames;
  }
  void Echo() { Hear(stamp); }

  static SendPacket Command(int joint, ePacketOrder order = ePacketOrder::ServoOn) {
    SendPacket packet(kJoints);
    packet.SetJointOrder(joint, order);
    return packet;
  }
  class Held {  // a ticket
   public:
    explicit Held(detail::Command* command) : command_(command) {}
    Held(Held&& other) noexcept : command_(std::exchange(other.command_, nullptr)) {}
    ~Held() {
      if (command_ != nullptr) command_->Release();
    }
    detail::Command* operator->() const { return command_; }
    Refusal Became() const { return {command_->Outcome(), command_->Reason()}; }

   private:
    detail::Command* command_;
  };
  Held Send(int joint, Confirm confirm = Confirm::kNo) { return Held(shared->plain->Send(Command(joint), confirm)); }
  Held Send(Stream& stream, const SendPacket& packet, Confirm confirm = Confirm::kNo) {
    return Held(stream.Send(packet, confirm));
  }
  Held SendKey(const std::string& key, int joint) {
    detail::Command* replaced = nullptr;
    Held held(shared->keys.Send(key, Command(joint), Confirm::kNo, replaced));
    if (replaced != nullptr) {
      replaced->Finish(velta::Outcome::kDiscarded, velta::Reason::kReplaced);
      replaced->Release();
    }
    return held;
  }
  std::shared_ptr<Stream> AddSource() {
    auto stream = std::make_shared<Stream>("", kJoints, options.queue_size, shared->admission);
    shared->new_sources.push_back(stream);
    shared->has_new_sources = true;
    return stream;
  }
  int Count(const std::string& event) const {
    return static_cast<int>(std::count(events.begin(), events.end(), event));
  }

  static constexpr Refusal kPending{velta::Outcome::kPending, velta::Reason::kNone};
  static constexpr Refusal kSent{velta::Outcome::kSent, velta::Reason::kNone};
  static constexpr Refusal kConfirmed{velta::Outcome::kConfirmed, velta::Reason::kNone};
  static constexpr Refusal kGaveUp{velta::Outcome::kGaveUp, velta::Reason::kNone};
  static constexpr Refusal Discarded(velta::Reason reason) { return {velta::Outcome::kDiscarded, reason}; }

  SessionOptions options;
  std::unique_ptr<SessionShared> shared;
  std::unique_ptr<SessionLoop> loop;
  MemoryLink* link = nullptr;
  Nanos now = 1'000'000 * kMs;
  std::uint64_t stamp = 0;  ///< of the frame that left last
  Texts events;
};

TEST_F(SessionTest, AnswersEachCommandOnce) {
  Connect();
  const Held first = Send(0, kConfirm), second = Send(1), third = Send(2, kConfirm), waiting = Send(0);
  Cycles(1);
  EXPECT_EQ(Sent(), Texts{"A2 00 00"});
  EXPECT_EQ(first.Became(), kPending);
  Cycles(3);
  Hear(5), Echo(), Hear(stamp + 7);  // of several echoes in one step the awaited one counts
  Cycles(1);
  EXPECT_EQ(first.Became(), kConfirmed);
  EXPECT_EQ(second.Became(), kSent);
  EXPECT_EQ(Sent(), Texts{"00 A2 00"});
  Hear(stamp - 1);
  Cycles(1);
  const Held other = SendKey("k", 1);
  const std::shared_ptr<Stream> source = AddSource();
  const Held kept = Send(*source, Command(1));
  Cycles(505);
  EXPECT_EQ(Sent(), (Texts{"00 00 A2", "00 00 A2", "00 00 A2", "00 00 A2", "00 00 A2"}));
  EXPECT_EQ(third.Became(), kGaveUp);
  EXPECT_EQ(waiting.Became(), Discarded(velta::Reason::kOtherGaveUp));
  Cycles(2);
  EXPECT_EQ(other.Became(), kSent);
  EXPECT_EQ(kept.Became(), kSent);
  EXPECT_EQ(Count("gave up"), 1);
}

TEST_F(SessionTest, MergesSourcesAndKeepsTheOrderOfEach) {
  Connect();
  const auto a = AddSource(), b = AddSource(), c = AddSource();
  SendPacket payload(kJoints);
  payload.SetPayload(1, 2, 3, 4);
  const Held a1 = Send(*a, Command(0)), a2 = Send(*a, Command(1)), b1 = Send(*b, Command(1), kConfirm),
             b2 = Send(*b, payload), c1 = Send(*c, Command(0)), c2 = Send(*c, SendPacket(kJoints));
  Cycles(1);
  EXPECT_EQ(Sent(), Texts{"A2 A2 00"});
  Cycles(1);
  EXPECT_EQ(a1.Became(), kPending);  // shares b's confirmation
  Echo();
  Cycles(1);
  EXPECT_EQ(a1.Became(), kConfirmed);
  EXPECT_EQ(b1.Became(), kConfirmed);
  EXPECT_EQ(Sent(), Texts{"A0: 00 00 00"});
  Cycles(3);
  EXPECT_EQ(Sent(), (Texts{"A2 A2 00", "00 00 00"}));
  for (const Held* held : {&a2, &b2, &c1, &c2}) EXPECT_EQ(held->Became(), kSent);
  const Held idle = Send(*b, SendPacket(kJoints), kConfirm), beside = Send(*a, Command(0));
  Cycles(1);
  EXPECT_EQ(Sent(), Texts{"A2 00 00"});
  EXPECT_EQ(beside.Became(), kPending);
  const Held next = Send(*b, Command(1));
  Cycles(510);
  EXPECT_EQ(next.Became(), Discarded(velta::Reason::kOtherGaveUp));
  Sent();
  Stream* const sources[] = {a.get(), b.get(), c.get(), a.get(), b.get()};
  for (int i = 0; i < 3; ++i) {  // whichever begins, a source that collides does not hold up the others
    const Held one = Send(*sources[i], Command(0)), two = Send(*sources[i + 1], Command(0)),
               third = Send(*sources[i + 2], Command(1));
    Cycles(2);
    EXPECT_EQ(Sent(), (Texts{"A2 A2 00", "A2 00 00"}));
  }
}

TEST_F(SessionTest, NeitherQueueNorSourcesNorKeysStarve) {
  Connect();
  const auto source = AddSource();
  std::vector<Held> held;
  for (int i = 0; i < 4; ++i) held.push_back(Send(0)), held.push_back(Send(*source, Command(1)));
  held.push_back(SendKey("x", 2)), held.push_back(SendKey("y", 2)), held.push_back(SendKey("x", 2));
  Cycles(6);
  Texts sent = Sent();
  std::sort(sent.begin(), sent.end());
  EXPECT_EQ(sent, (Texts{"00 00 A2", "00 00 A2", "00 A2 00", "00 A2 00", "A2 00 00", "A2 00 00"}));
  EXPECT_EQ(held[8].Became(), Discarded(velta::Reason::kReplaced));
  EXPECT_EQ(held[10].Became(), kSent);
  const Held again = SendKey("x", 2);
  Cycles(3);
  EXPECT_EQ(again.Became(), kSent);
}

TEST_F(SessionTest, ALossDiscardsAllAndNothingOldIsSentOrConfirmed) {
  Connect();
  const auto source = AddSource();
  const Held awaited = Send(0, kConfirm);
  Cycles(1);
  Sent();
  const Held queued = Send(1), from_source = Send(*source, Command(1)), keyed = SendKey("k", 1);
  link->to_host.push_back({'\xAB', '\xCD', 0});  // half a status
  Cycles(1);
  link->is_broken = true;
  EXPECT_EQ(test::Printed([&] { Cycles(1); }), "");  // events say it
  for (const Held* held : {&awaited, &queued, &from_source, &keyed}) {
    EXPECT_EQ(held->Became(), Discarded(velta::Reason::kLinkLost));
  }
  EXPECT_FALSE(shared->latest.Get());
  EXPECT_EQ(Send(0).Became(), Discarded(velta::Reason::kNoLink));
  link->is_broken = false;
  Cycles(150);
  EXPECT_EQ(Send(0).Became(), Discarded(velta::Reason::kNoLink));  // open, but no status has come
  Echo();
  Cycles(1);
  const Held fresh = Send(2, kConfirm);
  Hear(stamp);
  Cycles(3);
  EXPECT_EQ(fresh.Became(), kPending);
  EXPECT_EQ(Sent(), Texts{"00 00 A2"});
  EXPECT_EQ(events, (Texts{"trying", "connected", "lost", "trying", "back"}));
  EXPECT_EQ(shared->reconnections.Get(), 1U);
}

TEST_F(SessionTest, KeepsWhatWaitsOverALossWhereThatIsAsked) {
  options.on_loss = SessionOptions::OnLoss::kKeep;
  Connect();
  const Held awaited = Send(0, kConfirm), queued = Send(1);
  Cycles(1);
  Sent();
  link->is_broken = true;
  Cycles(1);
  link->is_broken = false;
  EXPECT_EQ(awaited.Became(), Discarded(velta::Reason::kLinkLost));  // nobody knows whether it was executed
  Cycles(150);
  Connect();
  EXPECT_EQ(queued.Became(), kSent);
  EXPECT_EQ(Sent(), Texts{"00 A2 00"});
}

TEST_F(SessionTest, AStampIsNeverOneThatWasEchoedBefore) {
  Connect();
  const std::uint64_t later = GetNowTimeStamp() + 1'000'000'000;  // the clock was set back since
  Hear(later);
  Cycles(1);
  const Held command = Send(0, kConfirm);
  Cycles(1);
  Sent();
  EXPECT_EQ(stamp, later + 1);
  EXPECT_EQ(command.Became(), kPending);
}

TEST_F(SessionTest, AFrameThatIsTakenInPartsStaysWhole) {
  Connect();
  const Held first = Send(0), second = Send(1);
  link->room = 20;
  Cycles(2);
  EXPECT_EQ(link->to_controller.size(), 40U);
  EXPECT_EQ(first.Became(), kPending);
  Cycles(5);
  link->room = 1000;
  Cycles(3);
  EXPECT_EQ(Sent(), (Texts{"A2 00 00", "00 A2 00"}));
  EXPECT_EQ(second.Became(), kSent);
  const Held awaited = Send(2, kConfirm);
  link->room = 20;
  Cycles(1);
  link->room = 0;
  Cycles(110);  // no room for sending it again
  link->room = 1000;
  Cycles(1);
  EXPECT_EQ(Sent(), Texts{"00 00 A2"});
}

class DeadManTest : public SessionTest {
 protected:
  DeadManTest() { options.dead_man = std::chrono::milliseconds(10); }
  void KeepAlive() {
    shared->admission->kept_alive = now;
    shared->admission->armed = true;
  }
};

TEST_F(DeadManTest, StopsTheArmPastTheGate) {
  Connect();
  Cycles(20);
  EXPECT_FALSE(shared->admission->IsTripped());  // not armed
  Hear(0, 1);
  Cycles(1);
  const Held awaited = Send(0, kConfirm), queued = Send(1);
  Cycles(1);
  Sent();
  KeepAlive();
  Cycles(10);
  EXPECT_EQ(Sent(), Texts{});
  Cycles(1);
  EXPECT_EQ(Sent(), Texts{"36 36 36"});
  EXPECT_EQ(awaited.Became(), Discarded(velta::Reason::kDeadMan));
  EXPECT_EQ(queued.Became(), Discarded(velta::Reason::kDeadMan));
  EXPECT_EQ(Send(0).Became(), Discarded(velta::Reason::kDeadMan));
  Cycles(101);
  EXPECT_EQ(Sent(), Texts{"36 36 36"});  // again: no echo has come
  Hear(stamp, 1);
  Cycles(1);
  EXPECT_EQ(Sent(), Texts{"00 12 00"});  // the joint that reports velocity mode
  Hear(stamp, 1);
  KeepAlive();
  Cycles(5);
  EXPECT_EQ(Send(0).Became(), Discarded(velta::Reason::kDeadMan));  // refused until it is rearmed
  const Nanos before = shared->admission->kept_alive;
  shared->admission->Rearm();
  EXPECT_NE(shared->admission->kept_alive, before);  // the host's time begins anew
  KeepAlive();
  const Held after = Send(0);
  Cycles(2);
  EXPECT_EQ(after.Became(), kSent);
  EXPECT_EQ(Count("dead-man"), 1);
  Cycles(10);
  EXPECT_EQ(Count("dead-man"), 2);
}

TEST_F(DeadManTest, StopsTheArmFirstThingOnTheNextLink) {
  options.stop = {Command(0, ePacketOrder::ServoOff), Command(1, ePacketOrder::BrakeOn)};
  Connect();
  KeepAlive();
  link->is_broken = true;
  Cycles(20);
  EXPECT_TRUE(shared->admission->IsTripped());
  shared->admission->Rearm();
  shared->admission->armed = false;
  link->is_broken = false;
  Cycles(150);
  EXPECT_EQ(Sent(), Texts{"A1 00 00"});  // before any status
  Echo();
  Cycles(1);
  const std::string brake = Sent().at(0);
  link->is_broken = true;
  Cycles(1);
  link->is_broken = false;
  Cycles(300);
  EXPECT_EQ(Sent().at(0), "A1 00 00");  // was not through: all of it again
  Hear(0);
  Cycles(1);
  Sent();                      // it may have been due again
  const Held after = Send(2);  // waits until the stop is through
  Echo();
  Cycles(1);
  EXPECT_EQ(Sent(), Texts{brake});
  Echo();
  Cycles(1);
  const Held next = Send(2);
  Cycles(2);
  EXPECT_EQ(next.Became(), kSent);
}

TEST_F(DeadManTest, StopsTheArmOnDemandAndAlsoWhenTheSessionEnds) {
  Connect();
  shared->admission->Trip();
  EXPECT_EQ(Send(0).Became(), Discarded(velta::Reason::kDeadMan));
  Cycles(1);
  EXPECT_EQ(Sent(), Texts{"36 36 36"});
  Hear(stamp, 1);
  Cycles(1);
  Sent();
  shared->admission->Trip();
  loop->Close();
  EXPECT_EQ(Sent(), (Texts{"36 36 36", "00 12 00"}));
}

TEST_F(SessionTest, AsksASilentControllerAndLosesOneThatStaysSilent) {
  options.ask = std::chrono::milliseconds(40);
  options.silence = std::chrono::milliseconds(350);
  Build();
  link->must_be_asked = true;
  Cycles(1);
  EXPECT_EQ(Sent(), Texts{"00 00 00"});  // at once: nothing comes before
  EXPECT_FALSE(shared->situation.IsConnected());
  Hear(0);
  Cycles(40);
  EXPECT_EQ(Sent(), Texts{});
  Cycles(1);
  EXPECT_EQ(Sent(), Texts{"00 00 00"});
  const Held awaited = Send(0, kConfirm);
  Cycles(100);
  EXPECT_EQ(Sent(), Texts{"A2 00 00"});  // an idle command would replace the echo that is waited for
  Echo();
  Cycles(1);
  EXPECT_EQ(awaited.Became(), kConfirmed);
  Cycles(349);
  EXPECT_EQ(Sent().size(), 8U);
  EXPECT_EQ(Count("lost"), 0);
  link->to_host.push_back(std::vector<char>(500, 'x'));
  Cycles(2);
  EXPECT_EQ(Count("lost"), 1);
  link->to_host.push_back(std::vector<char>(500, 'x'));
  Cycles(500);
  EXPECT_EQ(shared->situation.Why(), "no status for 0.35 s: 500 bytes came, but no status of 3 joints");
}

TEST_F(SessionTest, TriesAgainLaterEachTime) {
  Build();
  std::vector<double> pauses;
  shared->notifier.OnEvent([&](const Event& event) { pauses.push_back(event.value); });
  link->progress = SessionLink::Progress::kConnecting;
  Cycles(1);
  EXPECT_FALSE(shared->situation.IsConnected());
  link->progress = SessionLink::Progress::kFailed;
  Cycles(30000);
  ASSERT_GE(pauses.size(), 8U);
  const double expected[] = {0, 0.1, 0.2, 0.4, 0.8, 1.6, 3.2, 5, 5};
  for (std::size_t i = 0; i < 9; ++i) EXPECT_NEAR(pauses[i], expected[i], 0.1 * expected[i] + 1e-9);
  EXPECT_NE(pauses[1] * 2, pauses[2]);  // no two hosts keep time with each other
  EXPECT_EQ(link->begun, static_cast<int>(pauses.size()) - 1);
  EXPECT_EQ(shared->situation.Why(), "refused");
  link->progress = SessionLink::Progress::kOpen;
  Hear(0);
  Cycles(6000);
  link->is_broken = true;
  Cycles(1);
  EXPECT_NEAR(pauses.back(), 0.1, 0.0101);  // after a good connection as at first
  options.reconnect = false;
  loop.reset();
  Build();
  link->progress = SessionLink::Progress::kFailed;
  Cycles(300);
  EXPECT_EQ(link->begun, 1);
  EXPECT_TRUE(shared->situation.IsFinal());
}

TEST_F(SessionTest, ATicketCallsBackOnce) {
  Connect();
  std::map<std::string, int> calls;
  const auto note = [&](const std::string& name) {
    return [&calls, name](velta::Outcome outcome, velta::Reason) { ++calls[name + " " + ToString(outcome)]; };
  };
  const Held held = Send(0, kConfirm), thrower = Send(1);
  thrower->OnOutcome([](velta::Outcome, velta::Reason) { throw 1; });
  held->OnOutcome(note("replaced"));
  held->OnOutcome(note("second"));
  EXPECT_EQ(held->Wait(std::chrono::milliseconds(1)), velta::Outcome::kPending);
  Cycles(1);
  Sent(), Echo();
  Cycles(2);
  held->OnOutcome(note("late"));
  EXPECT_EQ(calls, (std::map<std::string, int>{{"second confirmed", 1}, {"late confirmed", 1}}));
}

TEST_F(SessionTest, RefusesWhatItCannotTake) {
  options.queue_size = 2;
  Connect();
  EXPECT_EQ(Send(*shared->plain, SendPacket(kJoints + 1)).Became(), Discarded(velta::Reason::kBadCommand));
  const Held first = Send(0), second = Send(0), third = Send(0);
  EXPECT_EQ(third.Became(), Discarded(velta::Reason::kQueueFull));
  shared->plain->Discard();
  const Held fourth = Send(0);
  Cycles(1);
  EXPECT_EQ(first.Became(), Discarded(velta::Reason::kStopped));
  const Held fifth = Send(0);
  Cycles(2);
  EXPECT_EQ(fifth.Became(), kSent);
  const Held last = Send(0);
  shared->admission->Stop();
  EXPECT_EQ(Send(0).Became(), Discarded(velta::Reason::kStopped));
  loop->Close();
  EXPECT_EQ(last.Became(), Discarded(velta::Reason::kStopped));
}

TEST_F(SessionTest, CommandsNeedNoStatusWhereNoneIsAwaited) {
  options.await_status = false;
  Build();
  Cycles(1);
  EXPECT_EQ(events, (Texts{"trying", "connected"}));
  const Held held = Send(0, kConfirm);
  Cycles(1);
  EXPECT_EQ(Sent(), Texts{"A2 00 00"});
}

TEST_F(SessionTest, ShowsWhatPassesAsItPasses) {
  std::vector<std::size_t> opened, to_controller, to_host, closed;
  options.on_traffic = [&](const Traffic& traffic) {
    std::vector<std::size_t>* const sizes[] = {&opened, &to_controller, &to_host, &closed};
    sizes[static_cast<int>(traffic.kind)]->push_back(traffic.bytes.size());
    throw std::runtime_error("dropped");
  };
  Connect();
  link->room = 40;  // of 67
  const Held held = Send(0);
  Cycles(2);
  link->to_host.push_back({'?'});
  Cycles(1);
  link->is_broken = true;
  Cycles(2);
  using Sizes = std::vector<std::size_t>;
  EXPECT_EQ(to_controller, (Sizes{40, 27}));
  EXPECT_EQ(to_host, (Sizes{261, 1}));
  EXPECT_EQ(opened, Sizes{0});
  EXPECT_EQ(closed, Sizes{0});
}

TEST_F(SessionTest, KeepsTheNewestStatuses) {
  options.status_buffer = 3;
  Connect();
  for (std::uint64_t echo = 1; echo <= 5; ++echo) Hear(echo);
  Cycles(1);
  EXPECT_EQ(+shared->latest.Get()->header.hostTimestamp, 5U);
  for (const std::uint64_t kept : {3U, 0U}) {
    std::uint64_t left_out = 99;
    const std::vector<RecvPacket> statuses = shared->statuses.TakeAll(left_out);
    ASSERT_EQ(statuses.size(), kept);
    EXPECT_EQ(left_out, kept);
    for (std::size_t i = 0; i < kept; ++i) EXPECT_EQ(+statuses[i].header.hostTimestamp, i + 3);
  }
}

TEST_F(SessionTest, KeepsTheNewestEventsAndCountsTheRest) {
  Connect();
  std::vector<double> values;
  shared->notifier.OnEvent([&](const Event& event) { values.push_back(event.value); });
  for (int i = 0; i < 300; ++i) shared->notifier.Post(Event::Kind::kNotice, "", i);
  shared->notifier.Deliver();
  ASSERT_EQ(values.size(), 257U);
  EXPECT_EQ(shared->notifier.EventsLeftOut(), 44U);
  EXPECT_EQ(values[0], 44);
  EXPECT_EQ(values[1], 44);
  EXPECT_EQ(values[256], 299);
  shared->notifier.Post(Event::Kind::kNotice, "");
  shared->notifier.OnEvent(nullptr);
  shared->notifier.OnEvent([&](const Event&) { values.clear(); });
  shared->notifier.Deliver();
  EXPECT_EQ(values.size(), 257U) << "the callback before was gone";
}

TEST_F(SessionTest, WritesFlightRecordsByItselfAndNumbersThem) {
  const std::string stem = testing::TempDir() + "velta-" + std::to_string(getpid());
  options.flight_recorder = std::chrono::seconds(1);
  options.flight_record_path = stem + ".vrec";
  Connect();
  const Held unconfirmed = Send(0, kConfirm);
  Cycles(510);
  shared->admission->Trip();
  Cycles(1);
  link->is_broken = true;
  Cycles(1);
  for (const char* number : {"", "-2", "-3"}) EXPECT_EQ(std::remove((stem + number + ".vrec").c_str()), 0) << number;
  for (int i = 0; i < 100; ++i) {
    shared->notifier.RequestRecord();
    shared->notifier.Deliver();
  }
  int number = 4;
  while (std::remove((stem + "-" + std::to_string(number) + ".vrec").c_str()) == 0) ++number;
  EXPECT_EQ(number - 1, 100) << "no more than that, whatever happens";
}

TEST(SessionRecorderTest, LeavesOutWhatIsOlderThanItsLength) {
  const std::string path = testing::TempDir() + "velta-" + std::to_string(getpid()) + ".vrec";
  for (const Nanos length : {Nanos{0}, 3'600'000 * kMs}) {
    FlightRecorder recorder(1, "link", length, 1000);
    recorder.Add(FlightRecorder::Event::kToHost, "some bytes", 10);
    std::string why;
    ASSERT_TRUE(recorder.Write(path, why)) << why;
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_EQ(bytes.find("some bytes") != std::string::npos, length != 0);
  }
  std::remove(path.c_str());
}

TEST(SessionLatenessTest, IsCountedInClassesOfThreePercent) {
  Histogram histogram;
  for (Nanos us = 1; us <= 1000; ++us) histogram.Add(us * 1000);
  const Lateness lateness = histogram.Get();
  EXPECT_EQ(lateness.count, 1000U);
  EXPECT_NEAR(lateness.p50_us, 500, 17);
  EXPECT_NEAR(lateness.p99_us, 990, 31);
  EXPECT_NEAR(lateness.p999_us, 1000, 1);
  EXPECT_EQ(lateness.max_us, 1000);
}

}  // namespace
}  // namespace velta::detail
