// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "velta_link.h"

using velta::LinkAddress;
using velta::ParseLinkAddress;
using Kind = velta::LinkAddress::Kind;

namespace {

TEST(LinkAddressTest, IsReadAndWrittenBack) {
  const struct {
    const char* text;
    LinkAddress link;
    const char* written;
  } cases[] = {
      {"tcp://192.168.0.10:5000", {Kind::kTcp, "192.168.0.10", 5000, "", 115200, 1}, nullptr},
      {"udp://arm-2.cell_7.local.:0", {Kind::kUdp, "arm-2.cell_7.local.", 0, "", 115200, 1}, nullptr},
      {"tcp://localhost:065535", {Kind::kTcp, "localhost", 65535, "", 115200, 1}, "tcp://localhost:65535"},
      {"serial:///dev/ttyS0", {Kind::kSerial, "", 0, "/dev/ttyS0", 115200, 1}, "serial:///dev/ttyS0?baud=115200"},
      {"serial:///dev/ttyS0?baud=100000000", {Kind::kSerial, "", 0, "/dev/ttyS0", 100000000, 1}, nullptr},
      {"sim:", {Kind::kSimulator, "", 0, "", 115200, 1}, nullptr},
      {"sim:?cycle=10", {Kind::kSimulator, "", 0, "", 115200, 10}, nullptr},
      {"pty:/tmp/a link", {Kind::kPty, "", 0, "/tmp/a link", 115200, 1}, nullptr}};
  for (const auto& [text, link, written] : cases) {
    SCOPED_TRACE(text);
    LinkAddress read;
    std::string why = "untouched";
    ASSERT_TRUE(ParseLinkAddress(text, read, why));
    EXPECT_EQ(why, "untouched");
    EXPECT_EQ(read.kind, link.kind);
    EXPECT_EQ(read.host + "|" + read.device, link.host + "|" + link.device);
    EXPECT_EQ(read.port, link.port);
    EXPECT_EQ(read.baud, link.baud);
    EXPECT_EQ(read.cycle_ms, link.cycle_ms);
    EXPECT_EQ(ToString(read), written != nullptr ? written : text);
  }
}

TEST(LinkAddressTest, IsRefusedWithOneLine) {
  const std::string forms =
      "expected tcp://HOST:PORT, udp://HOST:PORT, serial:///dev/ttyX?baud=115200, sim: or pty:PATH";
  const std::string host = "' is neither an IPv4 address such as 192.168.0.10 nor a host name";
  const struct {
    std::string_view text;
    std::string why;
  } cases[] = {{"", forms},
               {"tcp://1.2.3.4", "the port is missing"},
               {"udp://:5000", "the host is missing"},
               {"tcp://1.2.3.4:65536", "the port must be 0 to 65535"},
               {"tcp://1.2.3.256:5", "'1.2.3.256" + host},
               {"tcp://ar m:5", "'ar m" + host},
               {"tcp://-arm:5", "'-arm" + host},
               {"tcp://arm..local:5", "'arm..local" + host},
               {"serial://dev/ttyS0", "a serial link names a device: serial:///dev/ttyX"},
               {"serial:///dev/ttyS0?", "only ?baud=N may follow the device"},
               {"serial:///dev/ttyS0?baud=0", "the baud rate must be 1 to 100000000"},
               {"sim:fast", "only ?cycle=N may follow sim:"},
               {"sim:?cycle=0", "the cycle must be 1 to 10000 ms"},
               {std::string_view("pty:/tmp/a\0b", 11), "it has a control character"}};
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(std::string(text));
    LinkAddress untouched;
    untouched.host = "kept";
    std::string why;
    EXPECT_FALSE(ParseLinkAddress(text, untouched, why));
    EXPECT_EQ(why, expected);
    EXPECT_EQ(untouched.host, "kept");
  }
}

}  // namespace
