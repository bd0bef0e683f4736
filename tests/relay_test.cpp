// SPDX-License-Identifier: MIT
#include "relay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "command.h"
#include "support/peer.h"

using velta::test::Peer;
using velta::tools::Link;
using velta::tools::LinkEvent;
using velta::tools::ParseLink;
using velta::tools::Passage;
using velta::tools::Relay;

namespace {

using Bytes = std::vector<char>;

Link Somewhere(Link::Kind kind) {
  Link link;
  link.kind = kind;
  link.host = "127.0.0.1";
  return link;
}

/// A relay between a controller and the hosts of a test, all in one thread: the relay steps while a condition is
/// awaited.
struct Stand {
  Stand(Link::Kind host_kind, Link::Kind controller_kind)
      : controller(controller_kind),
        relay(Somewhere(host_kind), controller.link,
              {[this](const Passage& p) { Note(p); }, [this](const std::string& why) { failures.push_back(why); }}) {}

  void Note(const Passage& p) {
    EXPECT_GE(p.monotonic_ns, last_ns);
    last_ns = p.monotonic_ns;
    if (p.event == LinkEvent::kOpened || p.event == LinkEvent::kClosed) {
      EXPECT_EQ(p.size, 0u);
      events += p.event == LinkEvent::kOpened ? 'o' : 'c';
      return;
    }
    Bytes& seen = p.event == LinkEvent::kToController ? seen_up : seen_down;
    seen.insert(seen.end(), p.bytes, p.bytes + p.size);
    chunks.push_back(p.size);
  }

  bool Until(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      relay.Step(1);
    }
    return true;
  }

  /// Sends bytes from one side until they are taken, and collects `expected` of them at the other.
  bool Send(Peer& from, const Bytes& bytes) {
    std::size_t sent = 0;
    return Until([&] { return (sent += from.Send(bytes.data() + sent, bytes.size() - sent)) == bytes.size(); });
  }
  Bytes Collect(Peer& at, std::size_t expected) {
    Bytes all;
    Until([&] {
      if (const auto piece = at.Receive()) all.insert(all.end(), piece->begin(), piece->end());
      return all.size() >= expected;
    });
    return all;
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
  Link::Kind host, controller;
};

class Streams : public testing::TestWithParam<Pair> {};

// Both directions at once, more than the kernel's buffers hold, every byte value: control characters pass a tty too.
TEST_P(Streams, PassEveryByteInBothDirections) {
  Stand stand(GetParam().host, GetParam().controller);
  Peer host(stand.relay.Address());
  ASSERT_TRUE(stand.Until([&] { return stand.relay.Connected(); }));
  const Bytes up = Noise(400'000, 1);
  const Bytes down = Noise(300'000, 2);
  Bytes at_controller, at_host;
  std::size_t sent_up = 0, sent_down = 0;
  std::mt19937 random(3);
  const auto send = [&](Peer& from, const Bytes& bytes, std::size_t& sent) {
    const std::size_t piece = std::min<std::size_t>(1 + random() % 5000, bytes.size() - sent);
    if (piece != 0) sent += from.Send(bytes.data() + sent, piece);
  };
  const auto receive = [](Peer& at, Bytes& all) {
    if (const auto piece = at.Receive()) all.insert(all.end(), piece->begin(), piece->end());
  };
  ASSERT_TRUE(stand.Until([&] {
    send(host, up, sent_up);
    send(stand.controller, down, sent_down);
    if (random() % 8 == 0) receive(stand.controller, at_controller);  // slow readers, so that pieces are left over
    if (random() % 8 == 0) receive(host, at_host);
    return at_controller.size() >= up.size() && at_host.size() >= down.size();
  })) << at_controller.size()
      << " of " << up.size() << ", " << at_host.size() << " of " << down.size();
  EXPECT_TRUE(at_controller == up);
  EXPECT_TRUE(at_host == down);
  EXPECT_TRUE(stand.seen_up == up);
  EXPECT_TRUE(stand.seen_down == down);
  EXPECT_EQ(stand.events, "o");
}

TEST_P(Streams, LetAHostGoAndTakeTheNext) {
  Stand stand(GetParam().host, GetParam().controller);
  for (int visit = 0; visit < 3; ++visit) {
    Peer host(stand.relay.Address());
    ASSERT_TRUE(stand.Until([&] { return stand.relay.Connected(); }));
    const Bytes bytes = Noise(1000, static_cast<unsigned>(visit));
    ASSERT_TRUE(stand.Send(host, bytes));
    EXPECT_TRUE(stand.Collect(stand.controller, bytes.size()) == bytes);
    ASSERT_TRUE(stand.Send(stand.controller, bytes));
    EXPECT_TRUE(stand.Collect(host, bytes.size()) == bytes);
    if (GetParam().host == Link::Kind::Pty) {  // what this host leaves unread is not for the next one
      ASSERT_TRUE(stand.Send(stand.controller, Bytes(100, 's')));
      ASSERT_TRUE(stand.Until([&] { return stand.seen_down.size() % 1100 == 0; }));
    }
    host.Close();
    if (GetParam().controller == Link::Kind::Tcp) {
      ASSERT_TRUE(stand.Until([&] { return !stand.controller.Receive() && stand.controller.ended; }));
      stand.controller.Close();
      stand.controller.ended = false;
    }
    ASSERT_TRUE(stand.Until([&] { return !stand.relay.Connected(); }));
  }
  EXPECT_EQ(stand.events, "ocococ");
}

INSTANTIATE_TEST_SUITE_P(Relay, Streams,
                         testing::Values(Pair{"TcpTcp", Link::Kind::Tcp, Link::Kind::Tcp},
                                         Pair{"PtySerial", Link::Kind::Pty, Link::Kind::Serial},
                                         Pair{"TcpSerial", Link::Kind::Tcp, Link::Kind::Serial},
                                         Pair{"PtyTcp", Link::Kind::Pty, Link::Kind::Tcp}),
                         [](const auto& row) { return row.param.name; });

TEST(Relay, PassesDatagramsWhole) {
  Stand stand(Link::Kind::Udp, Link::Kind::Udp);
  Peer host(stand.relay.Address());
  unsigned seed = 0;
  std::vector<std::size_t> sizes;
  for (const std::size_t size :
       {std::size_t{121}, std::size_t{1}, std::size_t{0}, std::size_t{498}, std::size_t{65507}}) {
    const Bytes command = Noise(size, ++seed);
    const Bytes status = Noise(size, ++seed);
    std::optional<Bytes> got;
    host.Send(command);
    ASSERT_TRUE(stand.Until([&] { return (got = stand.controller.Receive()).has_value(); })) << size;
    EXPECT_TRUE(*got == command) << size;
    stand.controller.Send(status);
    ASSERT_TRUE(stand.Until([&] { return (got = host.Receive()).has_value(); })) << size;
    EXPECT_TRUE(*got == status) << size;
    sizes.insert(sizes.end(), 2, size);
  }
  EXPECT_EQ(stand.chunks, sizes);

  // A host that comes back from another port gets the answers from then on.
  Peer second(stand.relay.Address());
  std::optional<Bytes> got;
  second.Send(Bytes{'x'});
  ASSERT_TRUE(stand.Until([&] { return (got = stand.controller.Receive()).has_value(); }));
  stand.controller.Send(Bytes{'y'});
  ASSERT_TRUE(stand.Until([&] { return (got = second.Receive()).has_value(); }));
  EXPECT_FALSE(host.Receive());
  EXPECT_EQ(stand.events, "o");
}

TEST(Relay, AbsentUdpControllerIsNoEnd) {
  Stand stand(Link::Kind::Udp, Link::Kind::Udp);
  Peer host(stand.relay.Address());
  stand.controller.Close();
  for (int i = 0; i < 20; ++i) {
    host.Send(Bytes{'x'});
    stand.relay.Step(5);
  }
  ASSERT_TRUE(stand.Until([&] { return stand.seen_up.size() == 20; }));
  EXPECT_EQ(stand.events, "o");

  // What became of one datagram does not cost the next one: the controller is back between them.
  host.Send(Bytes{'y'});
  host.Send(Bytes{'z'});
  stand.relay.Step(1000);
  ASSERT_EQ(stand.seen_up.back(), 'y');
  Peer back(Link::Kind::Udp, stand.controller.link.port);
  std::optional<Bytes> got;
  ASSERT_TRUE(stand.Until([&] { return (got = back.Receive()).has_value(); }));
  EXPECT_EQ(*got, Bytes{'z'});
}

TEST(Relay, PassesOneSidedCloseOn) {
  Stand stand(Link::Kind::Tcp, Link::Kind::Tcp);
  Peer host(stand.relay.Address());
  ASSERT_TRUE(stand.Until([&] { return stand.relay.Connected(); }));
  host.EndWriting();
  ASSERT_TRUE(stand.Until([&] { return !stand.controller.Receive() && stand.controller.ended; }));
  ASSERT_TRUE(stand.Send(stand.controller, Bytes(50'000, 'z')));  // the way back is still open
  EXPECT_EQ(stand.Collect(host, 50'000).size(), 50'000u);
  stand.controller.Close();
  ASSERT_TRUE(stand.Until([&] { return !host.Receive() && host.ended; }));
  EXPECT_EQ(stand.events, "oc");
}

TEST(Relay, PassesResetOn) {
  for (const bool by_host : {true, false}) {
    Stand stand(Link::Kind::Tcp, Link::Kind::Tcp);
    Peer host(stand.relay.Address());
    ASSERT_TRUE(stand.Until([&] { return stand.relay.Connected() && stand.controller.Accept(); }));
    Peer& from = by_host ? host : stand.controller;
    Peer& to = by_host ? stand.controller : host;
    from.Reset();
    ASSERT_TRUE(stand.Until([&] { return !to.Receive() && to.error == ECONNRESET; })) << by_host;
    EXPECT_EQ(stand.events, "oc");
  }
}

// A host that has gone does not read what the controller still sends, and the controller learns it as it would alone.
TEST(Relay, SendingToAHostThatHasGoneIsAReset) {
  Stand stand(Link::Kind::Tcp, Link::Kind::Tcp);
  Peer host(stand.relay.Address());
  ASSERT_TRUE(stand.Until([&] { return stand.relay.Connected(); }));
  host.Close();
  ASSERT_TRUE(stand.Until([&] { return !stand.controller.Receive() && stand.controller.ended; }));
  ASSERT_TRUE(stand.Until([&] {
    if (stand.events == "oc") return true;
    stand.controller.Send(Bytes(10, 'x'));
    return false;
  }));
  EXPECT_EQ(stand.controller.Send(Bytes(10, 'x')), 0u);  // refused at once, as only a reset does
}

// A controller that never closes its side must not keep a host out that has closed and is back.
TEST(Relay, ReturningHostReplacesItsClosedConnection) {
  Stand stand(Link::Kind::Tcp, Link::Kind::Tcp);
  Peer first(stand.relay.Address());
  ASSERT_TRUE(stand.Until([&] { return stand.relay.Connected() && stand.controller.Accept(); }));
  first.Close();
  Peer second(stand.relay.Address());
  ASSERT_TRUE(stand.Until([&] { return stand.events == "oco"; })) << stand.events;
}

TEST(Relay, UnreachableControllerTurnsTheHostAway) {
  for (const Link::Kind host_kind : {Link::Kind::Tcp, Link::Kind::Pty}) {
    Stand stand(host_kind, Link::Kind::Tcp);
    stand.controller.StopListening();
    Peer host(stand.relay.Address());
    ASSERT_TRUE(stand.Until([&] { return stand.failures.size() == 1; }));
    EXPECT_EQ(stand.failures[0], ToString(stand.controller.link) + ": Connection refused");
    host.error = 0;
    ASSERT_TRUE(
        stand.Until([&] { return !host.Receive() && (host.ended || host.error == ECONNRESET || host.error == EIO); }));
    EXPECT_EQ(stand.events, "");
  }
}

TEST(Relay, PtyIsTakenAwayWhenTheControllerEnds) {
  Stand stand(Link::Kind::Pty, Link::Kind::Tcp);
  Peer host(stand.relay.Address());
  ASSERT_TRUE(stand.Until([&] { return stand.relay.Connected() && stand.controller.Accept(); }));
  stand.controller.Close();
  ASSERT_TRUE(stand.Until([&] { return !host.Receive() && (host.ended || host.error == EIO); }));
  EXPECT_EQ(stand.events, "oc");
  Peer again(stand.relay.Address());
  EXPECT_TRUE(stand.Until([&] { return stand.events == "oco"; }));
}

TEST(Relay, PtySymlinkLastsAsLongAsTheRelay) {
  const std::string path = testing::TempDir() + "velta_relay_tty";
  const Peer controller(Link::Kind::Tcp);
  for (int run = 0; run < 2; ++run) {
    const Relay relay(ParseLink("pty:" + path), controller.link, {});
    EXPECT_EQ(relay.Address().device, path);
    EXPECT_EQ(access(path.c_str(), R_OK | W_OK), 0);
  }
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(Relay, RefusesLinksThatDoNotGoTogether) {
  using velta::tools::Failure;
  using velta::tools::UsageError;
  const auto relay = [](const char* endpoint, const char* controller) {
    const Relay refused(ParseLink(endpoint), ParseLink(controller), {});
  };
  EXPECT_THROW(relay("tcp://127.0.0.1:0", "udp://127.0.0.1:1"), UsageError);
  EXPECT_THROW(relay("udp://127.0.0.1:0", "serial:///dev/ttyS0"), UsageError);
  EXPECT_THROW(relay("tcp://127.0.0.1:0", "pty:"), UsageError);
  EXPECT_THROW(relay("tcp://127.0.0.1:0", "tcp://127.0.0.1:0"), UsageError);
  EXPECT_THROW(relay("tcp://192.0.2.1:5", "tcp://127.0.0.1:1"), Failure);
  EXPECT_THROW(relay("pty:/dev/null", "tcp://127.0.0.1:1"), Failure);
  EXPECT_THROW(relay("pty:/nowhere/arm", "tcp://127.0.0.1:1"), Failure);
}

}  // namespace
