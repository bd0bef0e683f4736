// SPDX-License-Identifier: MIT
#include "protocol.h"

#include <gtest/gtest.h>

#include <ctime>
#include <random>
#include <string>

#include "support/bytes.h"

namespace {

const unsigned char* Raw(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

TEST(CalcCrc16, HasThePublishedCheckValue) { EXPECT_EQ(CalcCrc16(Raw("123456789"), 9), 0xB4C8); }

TEST(CalcCrc16, OfNothingIsZero) { EXPECT_EQ(CalcCrc16(nullptr, 0), 0); }

TEST(CalcCrc16, AgreesWithTheBitwiseDefinitionAtEveryLengthAndAlignment) {
  std::mt19937 random(1);
  std::vector<char> bytes(65535 + 16);
  for (char& b : bytes) b = static_cast<char>(random());
  for (std::size_t length = 1; length <= 700; ++length) {
    const std::size_t at = length % 16;
    const std::vector<char> part(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.end());
    ASSERT_EQ(CalcCrc16(Raw(bytes.data() + at), static_cast<unsigned short>(length)),
              velta::test::BitwiseCrc16(part, length))
        << "length " << length;
  }
  EXPECT_EQ(CalcCrc16(Raw(bytes.data()), 65535), velta::test::BitwiseCrc16(bytes, 65535));
}

TEST(GetNowTimeStamp, CountsNanosecondsSinceTheEpoch) {
  timespec before{};
  clock_gettime(CLOCK_REALTIME, &before);
  const unsigned long stamp = GetNowTimeStamp();
  const auto ns = static_cast<unsigned long>(before.tv_sec) * 1000000000UL + static_cast<unsigned long>(before.tv_nsec);
  EXPECT_GE(stamp, ns);
  EXPECT_LT(stamp - ns, 10000000000UL);
}

}  // namespace
