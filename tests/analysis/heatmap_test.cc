#include "analysis/heatmap.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <vector>

namespace cvn {
namespace {

using Rgb = std::array<int, 3>;
constexpr Rgb kStop0 = {59, 76, 192}, kStop4 = {221, 221, 221}, kStop8 = {180, 4, 38};
constexpr Rgb kGreen = {20, 150, 20}, kDark = {30, 30, 30};
// Powers far above every reference level, on a scale where kLo + 200 k gives t = k / 8.
constexpr float kLo = 1e6f;

Rgb pixel(const RgbImage& img, int x, int y) {
  const std::size_t i = (static_cast<std::size_t>(y) * img.width + x) * 3;
  return {img.rgb[i], img.rgb[i + 1], img.rgb[i + 2]};
}

// No green line, and a cycle so long that only pixel column 0 is dark.
HeatmapParams plain(const std::vector<float>& power, std::size_t rows, std::size_t cols) {
  HeatmapParams p;
  p.power = power;
  p.rows = rows;
  p.cols = cols;
  p.centre = kLo + 800;
  p.half_range = 800;
  p.expected_row = -100;
  p.cycle_seconds = 1e7;
  return p;
}

TEST(Heatmap, ReferenceLevel) {
  EXPECT_NEAR(reference_level('F', 45), 8.1906, 1e-9);
  // 3.458 + 17.5635 - 16.2486 + 4.10518125, published rounded to 8.8781.
  EXPECT_NEAR(reference_level('M', 45), 8.87808125, 1e-9);
}

TEST(Heatmap, ColourScaleAndRowOrder) {
  // Row 0 (drawn at the bottom) and row 1; column 0 carries the cycle line.
  const std::vector<float> v = {0,          kLo,       kLo + 800, kLo + 1600, kLo + 100,
                                kLo + 1500, kLo - 5e3, 0,         kLo + 1e5,  kLo,
                                kLo,        kLo,       kLo,       kLo};
  const RgbImage img = render_heatmap(plain(v, 2, 7));
  ASSERT_EQ(img.width, 7);
  ASSERT_EQ(img.height, 2);
  EXPECT_EQ(pixel(img, 1, 1), kStop0);
  EXPECT_EQ(pixel(img, 2, 1), kStop4);
  EXPECT_EQ(pixel(img, 3, 1), kStop8);
  // Halfway between stops 0 and 1 and between 7 and 8: 78.5 and 57.5 are truncated.
  EXPECT_EQ(pixel(img, 4, 1), (Rgb{78, 103, 213}));
  EXPECT_EQ(pixel(img, 5, 1), (Rgb{201, 50, 57}));
  EXPECT_EQ(pixel(img, 6, 1), kStop0);  // clamped below
  EXPECT_EQ(pixel(img, 1, 0), kStop8);  // clamped above, top row
  EXPECT_EQ(pixel(img, 2, 0), kStop0);
}

TEST(Heatmap, EmptyRangeStillScalesAndTooFewValuesDrawNothing) {
  const std::vector<float> v = {0, kLo, kLo + 1, kLo + 5, kLo + 6};
  HeatmapParams p = plain(v, 1, v.size());
  p.centre = kLo;
  p.half_range = 0;  // lo = hi: the scale is 1e-9 wide
  EXPECT_EQ(pixel(render_heatmap(p), 1, 0), kStop0);
  EXPECT_EQ(pixel(render_heatmap(p), 2, 0), kStop8);
  EXPECT_EQ(render_heatmap(plain(v, 2, 3)).width, 0);  // fewer values than pixels: nothing read
}

TEST(Heatmap, GreyAtOrBelowTheReferenceLevel) {
  // Scale 0..1. Level 3.458 (male, age 0): `below` is the largest float whose log is not
  // above it, `above` the next float.
  const double level = reference_level('M', 0);
  float below = static_cast<float>(std::exp(level));
  if (std::log(double{below}) > level) below = std::nextafter(below, 0.0f);
  const float above = std::nextafter(below, 1e9f);
  const std::vector<float> v = {0,     0.25f, 0, -3, std::numeric_limits<float>::quiet_NaN(),
                                below, above};
  HeatmapParams p = plain(v, 1, v.size());
  p.centre = p.half_range = 0.5;
  // Plain grey is round((1 - t) 255); t = 0.25 gives 191.25.
  const Rgb plain_grey[] = {{191, 191, 191}, {255, 255, 255}, {255, 255, 255},
                            {255, 255, 255}, {0, 0, 0},       kStop8};
  // Blended: 45 % of the colour (stop 2 at t = 0.25) and 55 % grey, truncated.
  const Rgb blended[] = {{168, 184, 219}, {166, 174, 226}, {166, 174, 226},
                         {166, 174, 226}, {81, 1, 17},     kStop8};
  for (bool blend : {false, true}) {
    p.blend = blend;
    const RgbImage img = render_heatmap(p);
    for (int x = 1; x < 7; ++x) {
      EXPECT_EQ(pixel(img, x, 0), (blend ? blended : plain_grey)[x - 1])
          << "x " << x << " blend " << blend;
    }
  }
}

// An assessment's rhythm changes: each breath has its cycle line at its start and its
// frequency line (two pixel rows) at its own row, only across its own span.
TEST(Heatmap, BreathsOfChangingLengthDrawTheirOwnLines) {
  const std::vector<float> v(4 * 10, kLo);
  HeatmapParams p = plain(v, 4, 10);
  p.sampling_rate = 1;  // one column per second
  const HeatmapCycle breaths[] = {{0, 4, 1}, {4, 10, 2}};
  p.cycles = breaths;
  const RgbImage img = render_heatmap(p);
  ASSERT_EQ(img.width, 10);
  for (int y = 0; y < 4; ++y) {
    EXPECT_EQ(pixel(img, 0, y), kDark);
    EXPECT_EQ(pixel(img, 4, y), kDark);
  }
  // Matrix row r is pixel row 3 - r, and the line also takes the pixel row above.
  for (int x : {1, 3}) {
    EXPECT_EQ(pixel(img, x, 2), kGreen) << x;
    EXPECT_EQ(pixel(img, x, 1), kGreen) << x;
    EXPECT_NE(pixel(img, x, 0), kGreen) << x;
  }
  for (int x : {5, 9}) {
    EXPECT_EQ(pixel(img, x, 1), kGreen) << x;
    EXPECT_EQ(pixel(img, x, 0), kGreen) << x;
    EXPECT_NE(pixel(img, x, 2), kGreen) << x;
  }
  EXPECT_NE(pixel(img, 7, 3), kDark);  // no cycle line of the single rhythm
}

// The cycle and frequency lines, and which matrix column each pixel column
// shows, are checked pixel by pixel on the real TFR job (tfr_images_test) and
// byte for byte against the full-resolution picture over ten lengths and
// cycles, some on pixel edges (tfr_test).

}  // namespace
}  // namespace cvn
