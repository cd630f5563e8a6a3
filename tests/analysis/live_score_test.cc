#include "analysis/live_score.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

// Values, the warm-up and the grid are compared with the plain per-window definition (numpy)
// to 1e-12 by the golden recordings in ecg_test.cc; here, input that must give no score
// rather than a wrong one.
namespace cvn {
namespace {

using Series = std::vector<double>;

bool all_nan(const Series& s) {
  return std::all_of(s.begin(), s.end(), [](double x) { return std::isnan(x); });
}

TEST(LiveScore, NoScoreFromUnusableInput) {
  Series rr;
  for (int i = 0; i < 110; ++i) rr.push_back(0.95 + 0.06 * std::sin(i * 0.37));
  ASSERT_FALSE(all_nan(live_cvn_scores(rr, 130 * 90, 16.0)));
  for (double bad_cycle : {0.0, -16.0, std::nan(""), 1e300}) {
    const Series none = live_cvn_scores(rr, 130 * 90, bad_cycle);
    EXPECT_EQ(none.size(), 901u);  // still one per grid point, plus one
    EXPECT_TRUE(all_nan(none)) << bad_cycle;
  }
  EXPECT_TRUE(all_nan(live_cvn_scores(Series(100, 0.9), 130 * 80, 16.0)));  // no variation
}

}  // namespace
}  // namespace cvn
