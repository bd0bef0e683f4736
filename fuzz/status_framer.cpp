// SPDX-License-Identifier: MIT
// Any stream, in any pieces, gives the frames that a simple framer over the whole stream finds.
#include <cstring>
#include <random>

#include "PacketParser.h"
#include "stream.h"

namespace velta::fuzz {
namespace {

void Run(Input& in) {
  const int n = static_cast<int>(in.Below(6));
  std::minstd_rand random(in.Byte());
  const unsigned largest = in.Flag() ? 9 : 3000;
  const auto stream =
      ComposeStream(in, [n](unsigned stamp, unsigned fill) { return test::StatusFrame(n, stamp, 0, fill); });
  const auto size = 79 * static_cast<std::size_t>(n) + 24;
  const auto expected = FramesOf(stream, size);

  PacketParser parser(n);
  std::size_t found = 0;
  for (std::size_t at = 0; at < stream.size();) {
    const std::size_t piece = std::min<std::size_t>(1 + random() % largest, stream.size() - at);
    parser.Push({&stream[at], &stream[at] + piece});
    at += piece;
    if (at < stream.size() && random() % 4 == 0) continue;
    for (const RecvPacket& packet : parser.Parse()) {
      Check(found < expected.size(), "no more frames than the stream has");
      const char* frame = expected[found++].data();
      Check(std::memcmp(&packet.header, frame, 22) == 0, "a header is the frame's");
      Check(n == 0 || std::memcmp(packet.joints.data(), frame + 22, size - 24) == 0, "joints are the frame's");
      Check(packet.packetSize == static_cast<int>(size), "a packet has the frame's size");
    }
    Check(parser.buffer.size() < size, "less than a frame waits");
  }
  Check(found == expected.size(), "every frame is found");
}

const Registered kTarget("status_framer", Run);

}  // namespace
}  // namespace velta::fuzz
