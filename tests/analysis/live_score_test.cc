#include "analysis/live_score.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

// The one-pass window sums are checked against the plain definition (numpy)
// to 1e-12 by the golden recordings in ecg_test.cc.
namespace cvn {
namespace {

using Series = std::vector<double>;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kTwoPi = 2.0 * std::numbers::pi;

// Intervals of beats whose RR follows a sine of the breathing cycle, plus
// optional white jitter (deterministic).
Series breathing_rr(double seconds, double cycle, double phase, double jitter_ms) {
  Series rr;
  unsigned state = 12345;
  for (double t = 0.0; t < seconds;) {
    state = state * 1103515245u + 12345u;
    const double noise = jitter_ms * ((state >> 8) / 16777216.0 - 0.5);
    const double ms = 950.0 + 60.0 * std::sin(kTwoPi * t / cycle + phase) + noise;
    rr.push_back(ms / 1000.0);
    t += ms / 1000.0;
  }
  return rr;
}

TEST(LiveScore, ShapeWarmUpAndUnusableInput) {
  const Series rr = breathing_rr(100.0, 16.0, 0.0, 0.0);
  const Series scores = live_cvn_scores(rr, 130 * 90, 16.0);
  ASSERT_EQ(scores.size(), 901u);  // one per grid point, plus one
  for (int i = 0; i < 320; ++i) ASSERT_TRUE(std::isnan(scores[i])) << i;
  EXPECT_FALSE(std::isnan(scores[320]));

  EXPECT_EQ(live_cvn_scores(rr, 0, 16.0).size(), 1u);
  for (double bad_cycle : {0.0, -16.0, kNaN, 1e300}) {
    const Series none = live_cvn_scores(rr, 130 * 90, bad_cycle);
    ASSERT_EQ(none.size(), 901u);
    EXPECT_TRUE(std::all_of(none.begin(), none.end(), [](double x) { return std::isnan(x); }));
  }
  EXPECT_TRUE(live_cvn_scores(rr, 130 * 90, 16.0, 0.0).empty());
  const Series flat = live_cvn_scores(Series(100, 0.9), 130 * 80, 16.0);
  EXPECT_TRUE(std::all_of(flat.begin(), flat.end(), [](double x) { return std::isnan(x); }));
}

}  // namespace
}  // namespace cvn
