// SPDX-License-Identifier: MIT
#ifndef VELTA_FUZZ_STREAM_H_
#define VELTA_FUZZ_STREAM_H_

#include "support/bytes.h"
#include "target.h"

/// Streams of frames and what is not a frame, and the framers' rule.
namespace velta::fuzz {

/// @param make  the whole frame with a stamp and a byte that fills its records
template <typename Make>
std::vector<char> ComposeStream(Input& in, Make make) {
  test::Bytes stream;
  const auto size = [&] { return static_cast<const std::vector<char>&>(stream).size(); };
  for (unsigned stamp = 1; !in.Empty() && size() < 60000; ++stamp) {
    std::vector<char> frame = make(stamp, in.Byte());
    switch (in.Below(6)) {
      case 0:
        stream.Add(frame);
        break;
      case 1:
        frame[in.Byte() % frame.size()] = static_cast<char>(in.Byte());
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
inline std::vector<std::vector<char>> FramesOf(const std::vector<char>& stream, std::size_t size) {
  std::vector<std::vector<char>> frames;
  for (std::size_t at = 0; at + size <= stream.size();) {
    if (stream[at] != '\xAB' || stream[at + 1] != '\xCD') {
      ++at;
      continue;
    }
    const std::vector<char> frame(&stream[at], &stream[at] + size);
    const std::vector<char> good = test::Bytes().Add({frame.begin(), frame.end() - 2}).Crc();
    if (frame == good) frames.push_back(frame);
    at += size;
  }
  return frames;
}

}  // namespace velta::fuzz

#endif  // VELTA_FUZZ_STREAM_H_
