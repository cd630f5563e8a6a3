#include "analysis/heart_rate.h"

#include <gtest/gtest.h>

#include <cmath>

namespace cvn {
namespace {

using Series = std::vector<double>;

TEST(TimeGrid, CoversTheRecordingInTenthsOfASecond) {
  const Series grid = time_grid(7800, 130.0, kHrGridStep);  // 60.0 s
  ASSERT_EQ(grid.size(), 600u);
  EXPECT_EQ(grid[3], 0.3);  // rounded, not 3 x 0.1
  EXPECT_EQ(grid.back(), 59.9);
  EXPECT_EQ(time_grid(7801, 130.0, kHrGridStep).size(), 601u);
  EXPECT_TRUE(time_grid(0, 130.0, kHrGridStep).empty());
}

TEST(RegularHr, ShortGridsAreNotSmoothed) {
  EXPECT_TRUE(regular_hr({}, 1000, 130.0).empty());
  // 1.0 s: 10 grid points, too few to mirror; plain interpolation of
  // 120 bpm, 60 bpm and the extrapolated 0 bpm at 0 s, 0.5 s and 1.5 s.
  const Series short_hr = regular_hr({0.5, 1.0}, 130, 130.0);
  ASSERT_EQ(short_hr.size(), 10u);
  EXPECT_DOUBLE_EQ(short_hr[0], 120.0);
  EXPECT_DOUBLE_EQ(short_hr[2], 96.0);
  EXPECT_DOUBLE_EQ(short_hr[9], 36.0);
}

// Smoothing and its alignment are checked against numpy's convolution by the golden
// recordings (ecg_test.cc).
TEST(RegularHr, IsolatedSpikeIsRemoved) {
  Series rr;
  for (int k = 0; k < 120; ++k) rr.push_back(1.0 + 0.05 * std::sin(2.0 * M_PI * k / 16.0));
  rr[60] = 0.45;  // a false beat the RR cleaning did not catch: 133 bpm
  rr[61] = 0.55;
  const Series hr = regular_hr(rr, 130 * 110, 130.0);
  for (double v : hr) EXPECT_LT(v, 70.0);
}

}  // namespace
}  // namespace cvn
