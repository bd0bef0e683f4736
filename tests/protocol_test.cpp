// SPDX-License-Identifier: MIT
#include "protocol.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "crc16.h"
#include "support/bytes.h"

namespace {

using velta::detail::Crc16CanFold;
using velta::detail::Crc16Folded;
using velta::detail::Crc16Sliced;

const unsigned char* Raw(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

TEST(CalcCrc16, HasThePublishedCheckValueAndIsZeroOfNothing) {
  EXPECT_EQ(CalcCrc16(Raw("123456789"), 9), 0xB4C8);
  EXPECT_EQ(CalcCrc16(nullptr, 0), 0);
}

TEST(CalcCrc16, AgreesWithTheBitwiseDefinitionAtEveryLengthAndAlignment) {
  std::mt19937 random(1);
  std::vector<char> bytes(65535 + 16);
  for (char& b : bytes) b = static_cast<char>(random());
  const auto check = [&](std::size_t length, std::size_t at) {
    const unsigned char* const data = Raw(bytes.data() + at);
    const unsigned expected = velta::test::BitwiseCrc16({bytes.begin() + static_cast<long>(at), bytes.end()}, length);
    ASSERT_EQ(Crc16Sliced(data, length), expected) << length;
    ASSERT_EQ(CalcCrc16(data, static_cast<unsigned short>(length)), expected) << length;
    const bool folds = length >= velta::detail::kCrc16FoldFrom && Crc16CanFold();
    ASSERT_EQ(folds ? Crc16Folded(data, length) : expected, expected) << length;
  };
  for (std::size_t length = 0; length <= 1500; ++length) check(length, length * 7 % 16);
  for (std::size_t length = 0; length <= 200; ++length) {
    for (std::size_t at = 0; at < 16; ++at) check(length, at);
  }
  check(65535, 3);
}

}  // namespace
