// SPDX-License-Identifier: MIT
#include "text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace {

using namespace std::string_literals;
using velta::detail::ParseFloat;

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

TEST(ParseFloat, ReadsWhatStrtofReadsAndRefusesWhatAFloatCannotHold) {
  errno = ERANGE;  // as an earlier call of the host may leave it
  const std::vector<std::pair<std::string, float>> rows = {
      {" \t-1.5abc", -1.5f}, {"0x1p-1", 0.5f},          {"1,5", 1},
      {"-inf", -INFINITY},   {"3.4028235e38", FLT_MAX}, {"1\0e5"s, 1}};
  for (const auto& [text, value] : rows) EXPECT_EQ(ParseFloat(text), value) << text;
  EXPECT_TRUE(std::isnan(ParseFloat("nan").value()));
  for (const char* text : {"", " ", "abc", "-", ".", "3.5e38", "-1e999", "1e-50", "1e-40"}) {
    EXPECT_EQ(ParseFloat(text), std::nullopt) << text;
  }
  EXPECT_EQ(errno, ERANGE) << "and leaves errno alone";
}

}  // namespace
