// SPDX-License-Identifier: MIT
#ifndef VELTA_SIM_DAMAGE_H_
#define VELTA_SIM_DAMAGE_H_

#include <cstddef>
#include <random>
#include <vector>

/// What faults do to the bytes of a status frame. Each function depends on its arguments only; when it is applied is
/// the server's matter.
namespace velta::sim {

using Generator = std::mt19937_64;

/// @return a number below bound
std::size_t Draw(Generator& random, std::size_t bound);

/// What a fault does to a frame.
/// @param frame  1 byte or more
/// @param value  as the fault's usage says
using Damage = std::vector<char> (*)(std::vector<char> frame, double value, Generator& random);

/// One bit is flipped.
std::vector<char> FlipBit(std::vector<char> frame, double value, Generator& random);

/// Some bytes at the end are missing, not all of them.
std::vector<char> CutShort(std::vector<char> frame, double value, Generator& random);

/// 1 to value random bytes come before the frame.
std::vector<char> PrependGarbage(std::vector<char> frame, double value, Generator& random);

}  // namespace velta::sim

#endif  // VELTA_SIM_DAMAGE_H_
