// SPDX-License-Identifier: MIT
#include "text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>

namespace {

TEST(AssignFixed, IsPrintfsTextForEveryKindOfFloat) {
  const auto check = [](float value) {
    char expected[64];
    std::snprintf(expected, sizeof expected, "%f", static_cast<double>(value));
    std::string text = "leftover";
    velta::detail::AssignFixed(text, value);
    ASSERT_EQ(text, expected);
  };
  for (const float v : {0.0f, -0.0f, FLT_MAX, -FLT_MAX, INFINITY, -INFINITY, NAN, -NAN, 5e-7f, 1e-45f, 1099511627776.0f,
                        1099511500000.0f, 0.00000095367431640625f, 0.000001430511474609375f, 999999.96f}) {
    check(v);
  }
  for (int k = 1; k < 4096; k += 2) check(std::ldexp(static_cast<float>(k), -21));  // ties among them
  std::mt19937 random(3);
  for (int i = 0; i < 100000; ++i) {
    const auto bits = static_cast<std::uint32_t>(random());
    float value = 0;
    std::memcpy(&value, &bits, sizeof value);
    check(value);
  }
}

TEST(ParseFloat, LeavesErrnoAlone) {
  errno = EDOM;
  EXPECT_EQ(velta::detail::ParseFloat("1e39"), std::nullopt);
  EXPECT_EQ(errno, EDOM);
}

}  // namespace
