// SPDX-License-Identifier: MIT
#include "host_end.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <optional>

#include "controller_end.h"

namespace velta::wire {
namespace {

// The system reports what became of a datagram with the next call, which then sends nothing.
TEST(HostEnd, SendsTheDatagramAfterARefusedOne) {
  std::optional<ControllerEnd> controller(ParseLink("udp://127.0.0.1:0"));
  const LinkAddress link = controller->Address();
  controller.reset();
  HostEnd host(link, 0);
  host.Write({'y'});
  controller.emplace(link);
  host.Write({'z'});
  char byte = 0;
  EXPECT_EQ(controller->Take().Read(&byte, 1).size, 1U);
  EXPECT_EQ(byte, 'z');
}

TEST(ControllerEnd, SendsEachFrameAtOnce) {
  ControllerEnd controller(ParseLink("tcp://127.0.0.1:0"));
  const HostEnd host(controller.Address(), 0);
  const Channel channel = controller.Take();
  int is_set = 0;
  socklen_t size = sizeof is_set;
  EXPECT_EQ(getsockopt(channel.Descriptor(), IPPROTO_TCP, TCP_NODELAY, &is_set, &size), 0);
  EXPECT_NE(is_set, 0);
}

}  // namespace
}  // namespace velta::wire
