// SPDX-License-Identifier: MIT
// The controller's side frames commands by the rule by which the host's side frames statuses, in any pieces.
#include <random>

#include "frame_stream.h"
#include "stream.h"

namespace velta::fuzz {
namespace {

void Run(Input& in) {
  const int n = 1 + static_cast<int>(in.Below(6));
  std::minstd_rand random(in.Byte());
  const unsigned largest = in.Flag() ? 9 : 3000;
  const auto stream = ComposeStream(in, [n](unsigned stamp, unsigned fill) -> std::vector<char> {
    return test::Bytes().U8(0xAB).U8(0xCD).U64(stamp).U8(fill).Fill(18 * static_cast<std::size_t>(n), fill).Crc();
  });
  const auto size = 18 * static_cast<std::size_t>(n) + 13;
  const auto expected = FramesOf(stream, size);

  wire::CommandStream framer(n);
  std::size_t found = 0;
  for (std::size_t at = 0; at < stream.size();) {
    const std::size_t piece = std::min<std::size_t>(1 + random() % largest, stream.size() - at);
    for (const SendPacket& command : framer.Push(&stream[at], piece)) {
      Check(found < expected.size(), "no more commands than the stream has");
      Check(command.GetCharVector() == expected[found++], "a command is the frame's bytes");
    }
    at += piece;
    Check(framer.Lost() - framer.Discarded() < size, "less than a frame waits");
  }
  Check(found == expected.size(), "every command is found");
  framer.Restart();
  Check(found * size + framer.BadCrc() * size + framer.Garbage() == stream.size(), "every byte is accounted for");
}

const Registered kTarget("command_framer", Run);

}  // namespace
}  // namespace velta::fuzz
