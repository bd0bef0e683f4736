// SPDX-License-Identifier: MIT
#include "damage.h"

namespace velta::sim {

std::size_t Draw(Generator& random, std::size_t bound) { return static_cast<std::size_t>(random() % bound); }

std::vector<char> FlipBit(std::vector<char> frame, double /*value*/, Generator& random) {
  const std::size_t bit = Draw(random, 8 * frame.size());
  frame[bit / 8] = static_cast<char>(frame[bit / 8] ^ (1 << bit % 8));
  return frame;
}

std::vector<char> CutShort(std::vector<char> frame, double /*value*/, Generator& random) {
  frame.resize(1 + Draw(random, frame.size() - 1));
  return frame;
}

std::vector<char> PrependGarbage(std::vector<char> frame, double value, Generator& random) {
  std::vector<char> bytes(1 + Draw(random, static_cast<std::size_t>(value)));
  for (char& byte : bytes) byte = static_cast<char>(Draw(random, 256));
  bytes.insert(bytes.end(), frame.begin(), frame.end());
  return bytes;
}

}  // namespace velta::sim
