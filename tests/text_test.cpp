// SPDX-License-Identifier: MIT
#include "text.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>

namespace {

using velta::detail::AssignFixed;
using velta::detail::ParseFloat;
using velta::detail::ParseInt32;

void ExpectAsPrintf(float value) {
  char expected[64];
  std::snprintf(expected, sizeof expected, "%f", static_cast<double>(value));
  std::string text = "leftover";
  AssignFixed(text, value);
  ASSERT_EQ(text, expected);
}

TEST(AssignFixed, IsPrintfsTextForEveryKindOfFloat) {
  for (const float v : {0.0f,
                        -0.0f,
                        1.0f,
                        -12.5f,
                        4e-7f,
                        5e-7f,
                        1e10f,
                        1e-45f,
                        FLT_MAX,
                        -FLT_MAX,
                        FLT_MIN,
                        INFINITY,
                        -INFINITY,
                        NAN,
                        -NAN,
                        0.0000005f,
                        1.0f / 3,
                        1099511627776.0f,
                        1099511500000.0f,
                        0.00000095367431640625f,
                        0.000001430511474609375f,
                        999999.96f}) {
    ExpectAsPrintf(v);
  }
  for (int k = 1; k < 30; ++k) ExpectAsPrintf(std::ldexp(3.0f, -k));  // ties among them
  for (int k = 1; k < 4096; k += 2) ExpectAsPrintf(static_cast<float>(k) / 128.0f / 1e0f / 16384.0f);
  std::mt19937 random(3);
  for (int i = 0; i < 200000; ++i) {
    const auto bits = static_cast<std::uint32_t>(random());
    float value = 0;
    std::memcpy(&value, &bits, sizeof value);
    ExpectAsPrintf(value);
  }
}

TEST(ParseInt32, StopsAtTheRangeOf32Bits) {
  EXPECT_EQ(ParseInt32("2147483647"), 2147483647);
  EXPECT_EQ(ParseInt32("-2147483648x"), -2147483647 - 1);
  EXPECT_EQ(ParseInt32("0000000000000000000012"), 12);
  for (const char* text : {"2147483648", "-2147483649", "99999999999999999999999", "", " ", "+", "x1"}) {
    EXPECT_EQ(ParseInt32(text), std::nullopt) << text;
  }
}

TEST(ParseFloat, ReadsWhatStrtofReadsAndRefusesWhatAFloatCannotHold) {
  EXPECT_EQ(ParseFloat(" \t-1.5abc"), -1.5f);
  EXPECT_EQ(ParseFloat("0x1p-1"), 0.5f);
  EXPECT_EQ(ParseFloat("1,5"), 1.0f);
  EXPECT_EQ(ParseFloat("-inf"), -INFINITY);
  EXPECT_TRUE(std::isnan(ParseFloat("nan").value()));
  EXPECT_EQ(ParseFloat("3.4028235e38"), FLT_MAX);
  EXPECT_EQ(ParseFloat(std::string("1\0e5", 4)), 1.0f);
  for (const char* text : {"", " ", "abc", "-", ".", "3.5e38", "-1e999", "1e-50", "1e-40"}) {
    EXPECT_EQ(ParseFloat(text), std::nullopt) << text;
  }
}

}  // namespace
