// SPDX-License-Identifier: MIT
#include "relay.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <random>

#include "support/peer.h"

using namespace velta::wire;
using velta::LinkAddress;
using velta::test::Peer;

namespace {

using Bytes = std::vector<char>;
using Kind = LinkAddress::Kind;

/// A relay between a controller and the hosts of a test, all in one thread: the relay steps while a condition is
/// awaited.
struct Stand : RelayObserver {
  Stand(Kind host_kind, Kind controller_kind)
      : controller(controller_kind), relay({host_kind, "127.0.0.1", 0, "", 0, 1}, controller.link, *this) {}

  void Opened(Stamp at) override { Note('o', at); }
  void Closed(Stamp at) override { Note('c', at); }
  void Failed(const std::string& why) override { failures.push_back(why); }
  void Passed(Direction direction, const char* bytes, std::size_t size, Stamp at) override {
    Bytes& seen = direction == Direction::kToController ? seen_up : seen_down;
    seen.insert(seen.end(), bytes, bytes + size);
    chunks.push_back(size);
    Check(at);
  }
  void Note(char event, Stamp at) {
    events += event;
    Check(at);
  }
  /// By the clocks that they claim to be.
  void Check(Stamp at) {
    EXPECT_GE(at.monotonic_ns, last_ns);
    last_ns = at.monotonic_ns;
    EXPECT_LT(StampNow().monotonic_ns - at.monotonic_ns, 60'000'000'000U);
    EXPECT_LT(GetNowTimeStamp() - at.wall_ns, 60'000'000'000U);
  }

  bool Until(const std::function<bool()>& done) {
    return velta::test::Until([&] {
      relay.Step(1);
      return done();
    });
  }
  bool Connected() {
    return Until([&] { return relay.Connected() && (controller.Accept() || controller.link.kind != Kind::kTcp); });
  }
  /// Whether an end learns that the other has closed; or, with an error, that it is gone.
  bool Ends(Peer& at, int error = 0) {
    return Until([&] { return !at.Receive() && (error != 0 ? at.error == error : at.ended); });
  }

  /// Whether bytes that one side sends come out whole at the other, in pieces as large as they are taken.
  bool Pass(Peer& from, const Bytes& bytes, Peer& to) {
    std::size_t sent = 0;
    Bytes all;
    Until([&] {
      sent += sent < bytes.size() ? from.Send(bytes.data() + sent, bytes.size() - sent) : 0;
      if (const auto piece = to.Receive()) all.insert(all.end(), piece->begin(), piece->end());
      return all.size() >= bytes.size();
    });
    return all == bytes;
  }
  /// What arrives next, a datagram whole.
  Bytes Next(Peer& at) {
    std::optional<Bytes> bytes;
    Until([&] { return (bytes = at.Receive()).has_value(); });
    return bytes.value_or(Bytes{});
  }

  Bytes seen_up, seen_down;
  std::vector<std::size_t> chunks;
  std::string events;
  std::vector<std::string> failures;
  std::uint64_t last_ns = 0;
  Peer controller;
  Relay relay;
};

Bytes Noise(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  Bytes bytes(size);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
  return bytes;
}

struct Pair {
  const char* name;
  Kind host, controller;
};

class Streams : public testing::TestWithParam<Pair> {};

// Both directions at once, more than the kernel's buffers hold, every byte value: control characters pass a tty too.
TEST_P(Streams, PassEveryByteInBothDirections) {
  Stand stand(GetParam().host, GetParam().controller);
  Peer host(stand.relay.Address());
  ASSERT_TRUE(stand.Connected());
  struct Way {
    Peer &from, &to;
    Bytes bytes, arrived;
    std::size_t sent = 0;
  } ways[] = {{host, stand.controller, Noise(400'000, 1), {}}, {stand.controller, host, Noise(300'000, 2), {}}};
  std::mt19937 random(3);
  stand.Until([&] {
    for (Way& way : ways) {
      const std::size_t piece = std::min<std::size_t>(1 + random() % 5000, way.bytes.size() - way.sent);
      if (piece != 0) way.sent += way.from.Send(way.bytes.data() + way.sent, piece);
      if (random() % 8 != 0) continue;  // slow readers, so that pieces are left over
      if (const auto got = way.to.Receive()) way.arrived.insert(way.arrived.end(), got->begin(), got->end());
    }
    return ways[0].arrived.size() >= ways[0].bytes.size() && ways[1].arrived.size() >= ways[1].bytes.size();
  });
  EXPECT_TRUE(ways[0].arrived == ways[0].bytes && stand.seen_up == ways[0].bytes) << ways[0].arrived.size();
  EXPECT_TRUE(ways[1].arrived == ways[1].bytes && stand.seen_down == ways[1].bytes) << ways[1].arrived.size();
  EXPECT_EQ(stand.events, "o");
}

INSTANTIATE_TEST_SUITE_P(Relay, Streams,
                         testing::Values(Pair{"TcpTcp", Kind::kTcp, Kind::kTcp},
                                         Pair{"PtySerial", Kind::kPty, Kind::kSerial},
                                         Pair{"TcpSerial", Kind::kTcp, Kind::kSerial},
                                         Pair{"PtyTcp", Kind::kPty, Kind::kTcp}),
                         [](const auto& row) { return row.param.name; });

TEST(Relay, PassesDatagramsWhole) {
  Stand stand(Kind::kUdp, Kind::kUdp);
  Peer host(stand.relay.Address());
  std::vector<std::size_t> sizes;
  for (const std::size_t size : {std::size_t{121}, std::size_t{1}, std::size_t{0}, std::size_t{65507}}) {
    for (const auto& [from, to] : {std::pair{&host, &stand.controller}, std::pair{&stand.controller, &host}}) {
      const Bytes datagram = Noise(size, static_cast<unsigned>(sizes.size()));
      from->Send(datagram);
      EXPECT_TRUE(stand.Next(*to) == datagram) << size;
      sizes.push_back(size);
    }
  }
  EXPECT_EQ(stand.chunks, sizes);

  Peer second(stand.relay.Address());  // a host that comes back from another port gets the answers from then on
  second.Send(Bytes{'x'});
  EXPECT_EQ(stand.Next(stand.controller), Bytes{'x'});
  stand.controller.Send(Bytes{'y'});
  EXPECT_EQ(stand.Next(second), Bytes{'y'});
  EXPECT_FALSE(host.Receive());

  // An absent controller is no end, and what became of one datagram does not cost the next one.
  stand.controller.Close();
  for (int i = 0; i < 20; ++i) {
    const std::size_t before = stand.seen_up.size();
    second.Send(Bytes{'x'});
    ASSERT_TRUE(stand.Until([&] { return stand.seen_up.size() > before; }));
  }
  second.Send(Bytes{'y'});
  second.Send(Bytes{'z'});
  ASSERT_TRUE(stand.Until([&] { return stand.seen_up.back() == 'y'; }));
  Peer back(Kind::kUdp, stand.controller.link.port);
  EXPECT_EQ(stand.Next(back), Bytes{'z'});
  EXPECT_EQ(stand.events, "o");
}

class TcpRelay : public testing::Test, protected Stand {
 protected:
  TcpRelay() : Stand(Kind::kTcp, Kind::kTcp), host(relay.Address()) { EXPECT_TRUE(Connected()); }
  Peer host;
};

TEST_F(TcpRelay, PassesOneSidedCloseOn) {
  host.EndWriting();
  ASSERT_TRUE(Ends(controller));
  EXPECT_TRUE(Pass(controller, Bytes(50'000, 'z'), host));  // the way back is still open
  controller.Close();
  ASSERT_TRUE(Ends(host));
  EXPECT_EQ(events, "oc");
}

TEST(Relay, PassesResetsOn) {
  for (const bool by_host : {true, false}) {
    Stand stand(Kind::kTcp, Kind::kTcp);
    Peer host(stand.relay.Address());
    ASSERT_TRUE(stand.Connected());
    (by_host ? host : stand.controller).Reset();
    ASSERT_TRUE(stand.Ends(by_host ? stand.controller : host, ECONNRESET));
    EXPECT_EQ(stand.events, "oc");
  }
}

// A host that has gone does not read what the controller still sends, and the controller learns it as it would alone:
// by a reset, which needs no further byte of it.
TEST_F(TcpRelay, SendingToAHostThatHasGoneIsAReset) {
  host.Close();
  ASSERT_TRUE(Ends(controller));
  while (events != "oc" && seen_down.size() < 10'000) {  // until the host's side has refused a byte
    controller.Send(Bytes{'x'});
    const std::size_t before = seen_down.size();
    ASSERT_TRUE(Until([&] { return seen_down.size() > before || events == "oc"; }));
  }
  EXPECT_TRUE(Until([&] { return controller.Send(Bytes{}) == 0 && controller.error == EPIPE; }));
}

// A controller that never closes its side must not keep a host out that has closed and is back.
TEST_F(TcpRelay, ReturningHostReplacesItsClosedConnection) {
  host.Close();
  const Peer second(relay.Address());
  ASSERT_TRUE(Until([&] { return events == "oco"; })) << events;
}

TEST(Relay, TurnsAHostAwayWhenTheControllerIsAwayOrLeaves) {
  for (const Kind host_kind : {Kind::kTcp, Kind::kPty}) {
    Stand stand(host_kind, Kind::kTcp);
    const auto is_left = [](Peer& host) {
      return !host.Receive() && (host.ended || host.error == ECONNRESET || host.error == EIO);
    };
    auto host = std::make_unique<Peer>(stand.relay.Address());
    ASSERT_TRUE(stand.Connected());
    stand.controller.Close();
    ASSERT_TRUE(stand.Until([&] { return is_left(*host); }));
    host.reset();
    ASSERT_TRUE(stand.Until([&] { return stand.events == "oc"; }));
    stand.controller.StopListening();
    host = std::make_unique<Peer>(stand.relay.Address());
    ASSERT_TRUE(stand.Until([&] { return stand.failures.size() == 1 && is_left(*host); }));
    EXPECT_EQ(stand.failures[0], velta::ToString(stand.controller.link) + ": Connection refused");
    EXPECT_EQ(stand.events, "oc");
  }
}

// A controller whose queue of connections is full answers nobody.
TEST(Relay, GivesAControllerItsTimeToAnswer) {
  Stand stand(Kind::kTcp, Kind::kTcp);
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(
      bind(listener, Generic(address), size) + listen(listener, 0) + getsockname(listener, Generic(address), &size), 0);
  LinkAddress full = stand.controller.link;
  full.port = ntohs(address.sin_port);
  const HostEnd first(full);
  const HostEnd second(full);
  Relay relay({Kind::kTcp, "127.0.0.1", 0, "", 0, 1}, full, stand, 200);
  Peer host(relay.Address());
  const std::int64_t start = MonotonicNs();
  EXPECT_TRUE(velta::test::Until([&] {
    relay.Step(1);
    return !stand.failures.empty();
  }));
  EXPECT_GE(MonotonicNs() - start, 200'000'000);
  EXPECT_EQ(stand.failures.at(0), velta::ToString(full) + ": no answer within 200 ms");
  EXPECT_TRUE(velta::test::Until([&] { return !host.Receive() && host.error == ECONNRESET; }));
  close(listener);
}

}  // namespace
