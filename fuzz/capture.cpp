// SPDX-License-Identifier: MIT
// Whatever packets a capture holds, what is read of them is in order, and connections are opened and closed in turn.
#include "capture.h"

#include "support/bytes.h"
#include "target.h"

namespace velta::fuzz {
namespace {

void Run(Input& in) {
  test::Bytes file;
  file.U32(0xA1B23C4D).U16(2).U16(4).U64(0).U32(1 << 18).U32(101);  // of packets that begin with the IP header
  while (!in.Empty()) {  // good ones of TCP and UDP port 5000 but for up to three bytes
    const unsigned protocol = in.Flag() ? 6 : 17;
    test::Bytes good;
    in.Flag() ? good.U32(0x45).U32(0).U8(64).U8(protocol).U16(0).U64(1)
              : good.U32(0x60).U16(0).U16(protocol).Fill(32, 1);
    std::vector<char> packet = good.U16(0x8813).U16(0x8813 * in.Below(2)).Fill(20 + in.Below(8), 0x50);
    for (unsigned i = in.Below(4); i > 0; --i)
      packet[in.Below(static_cast<unsigned>(packet.size()))] = static_cast<char>(in.Byte());
    file.U32(in.Byte()).U32(0).U32(packet.size()).U32(packet.size()).Add(packet);
  }
  recording::CaptureReader reader(FileOf(file), 5000);
  bool open = false;
  std::uint64_t last = 0;
  for (recording::Captured captured; reader.Next(captured); last = captured.wall_ns) {
    const bool carries = captured.event < recording::Event::kOpened;
    Check(captured.wall_ns >= last, "times are in order");
    Check(open == (captured.event != recording::Event::kOpened), "connections are opened and closed in turn");
    Check(captured.bytes.empty() != carries, "what passes has bytes");
    open = captured.event != recording::Event::kClosed;
  }
}

const Registered kTarget("capture", Run);

}  // namespace
}  // namespace velta::fuzz
