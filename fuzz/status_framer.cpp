// SPDX-License-Identifier: MIT
// Any stream, in any pieces, gives the frames that a simple framer over the whole stream finds.
#include <cstring>
#include <random>

#include "PacketParser.h"
#include "support/bytes.h"
#include "target.h"

namespace velta::fuzz {
namespace {

std::vector<char> Compose(Input& in, int n) {
  test::Bytes stream;
  const auto size = [&] { return static_cast<const std::vector<char>&>(stream).size(); };
  for (unsigned stamp = 1; !in.Empty() && size() < 60000; ++stamp) {
    std::vector<char> frame = test::StatusFrame(n, stamp, 0, in.Byte());
    switch (in.Below(6)) {
      case 0:
        stream.Add(frame);
        break;
      case 1:
        frame[in.Byte() % frame.size()] ^= static_cast<char>(1 << in.Below(8));
        stream.Add(frame);
        break;
      case 2:
        frame.resize(in.Byte() % frame.size());
        stream.Add(frame);
        break;
      case 3:
        stream.Fill(17 * in.Byte(), in.Byte());
        break;
      case 4:
        for (unsigned i = in.Byte(); i > 0; --i) stream.U8(0xAB).U8(0xCD);
        break;
      default:
        stream.Add(in.Take(in.Byte()));
    }
  }
  return stream;
}

/// The rule in its simplest form: the next mark begins a frame, and a frame's length is used up whatever its CRC says.
std::vector<std::vector<char>> Frames(const std::vector<char>& stream, std::size_t size) {
  std::vector<std::vector<char>> frames;
  for (std::size_t at = 0; at + size <= stream.size();) {
    if (stream[at] != '\xAB' || stream[at + 1] != '\xCD') {
      ++at;
      continue;
    }
    const std::vector<char> frame(&stream[at], &stream[at] + size);
    const unsigned crc = test::BitwiseCrc16(frame, size - 2);
    if (frame[size - 2] == static_cast<char>(crc & 0xFF) && frame[size - 1] == static_cast<char>(crc >> 8)) {
      frames.push_back(frame);
    }
    at += size;
  }
  return frames;
}

void Run(Input& in) {
  const int n = static_cast<int>(in.Below(6));
  std::minstd_rand random(in.Byte());
  const unsigned largest = in.Flag() ? 9 : 3000;
  const std::vector<char> stream = Compose(in, n);
  const auto size = static_cast<std::size_t>(79 * n + 24);
  const auto expected = Frames(stream, size);

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
