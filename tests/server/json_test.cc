// The JSON value writers every answer is built from.
#include "server/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <random>

namespace cvn {
namespace {

TEST(JsonNumber, SixSignificantDigitsInTheDefaultStreamFormat) {
  EXPECT_EQ(json_number(72.25), "72.25");
  EXPECT_EQ(json_number(0.0625), "0.0625");
  EXPECT_EQ(json_number(1234567), "1.23457e+06");
  EXPECT_EQ(json_number(0.0001), "0.0001");
  EXPECT_EQ(json_number(0.00001), "1e-05");
  EXPECT_EQ(json_number(-0.0), "-0");
  EXPECT_EQ(json_number(std::nan("")), "null");
  EXPECT_EQ(json_number(std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(json_number(-std::numeric_limits<double>::infinity()), "null");
  // The fast path must agree with printf everywhere, not just on examples.
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> mantissa(-10, 10);
  std::uniform_int_distribution<int> exponent(-12, 12);
  for (int i = 0; i < 20000; ++i) {
    double v = mantissa(rng) * std::pow(10.0, exponent(rng));
    if (i % 3 == 0) v = std::round(v * 10) / 10;  // the rounded values the snapshot writes
    char expect[32];
    std::snprintf(expect, sizeof expect, "%.6g", v);
    ASSERT_EQ(json_number(v), expect) << v;
  }
}

TEST(JsonText, EscapesOnlyQuoteBackslashAndLineFeed) {
  EXPECT_EQ(json_text("a\"b\\c\nd\te\r\x01\xC3\xA9"), "\"a\\\"b\\\\c\\nd\te\r\x01\xC3\xA9\"");
  EXPECT_EQ(json_text(""), "\"\"");
}

TEST(RoundTo, HalvesAwayFromZero) {
  EXPECT_EQ(round_to(71.96, 1), 72.0);
  EXPECT_EQ(round_to(0.12345, 3), 0.123);
  EXPECT_EQ(round_to(-2.25, 1), -2.3);  // halves away from zero
}

}  // namespace
}  // namespace cvn
