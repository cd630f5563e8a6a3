#include "analysis/rr.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace cvn {
namespace {

using Series = std::vector<double>;

TEST(CleanRr, MadZeroOrNothingToRepairReturnsInputUnchanged) {
  EXPECT_EQ(clean_rr({}), Series{});
  // All plausible intervals equal: the wild ones outside 0.2..2 s stay.
  const Series steady = {0.8, 0.8, 5.0, 0.8, 0.05, 0.8};
  EXPECT_EQ(clean_rr(steady), steady);
  EXPECT_EQ(clean_rr_marked(steady).replaced, std::vector<unsigned char>(6, 0))
      << "returned unchanged: nothing counts as replaced";
  const Series ordinary = {0.80, 0.82, 0.84, 0.83, 0.81, 0.79, 0.80};
  EXPECT_EQ(clean_rr(ordinary), ordinary);
}

TEST(CleanRr, OutliersAreInterpolatedOverTheBeatIndex) {
  const Series base = {0.80, 0.82, 0.84, 0.83, 0.81, 0.79, 0.80, 0.82};
  Series middle = base;
  middle[3] = 1.60;  // missed beat
  Series expected = base;
  expected[3] = (0.84 + 0.81) / 2.0;
  Series cleaned = clean_rr(middle);
  ASSERT_EQ(cleaned.size(), base.size());
  for (std::size_t i = 0; i < base.size(); ++i) EXPECT_NEAR(cleaned[i], expected[i], 1e-15) << i;

  Series ends = base;  // outliers before the first and after the last good interval
  ends.front() = 0.1;
  ends.back() = std::numeric_limits<double>::quiet_NaN();
  const CleanedRr marked = clean_rr_marked(ends);
  EXPECT_DOUBLE_EQ(marked.rr.front(), base[1]);
  EXPECT_DOUBLE_EQ(marked.rr.back(), base[base.size() - 2]);
  EXPECT_EQ(marked.replaced, (std::vector<unsigned char>{1, 0, 0, 0, 0, 0, 0, 1}));
}

// The outlier limit widens from 3 to 5 robust SD for a steady rhythm, so the
// same interval is kept in a steady series and repaired in a variable one.
TEST(CleanRr, SteadySeriesToleratesWiderDeviation) {
  Series steady;
  for (int k = 0; k < 20; ++k) steady.push_back(1.0 + 0.01 * (k % 3 - 1));
  const double four_robust_sd = 1.0 + 4.0 * 0.01 / 0.6745;
  steady[10] = four_robust_sd;
  EXPECT_EQ(clean_rr(steady)[10], four_robust_sd);

  Series variable = steady;  // two far but plausible intervals lift the variance above 0.01 s^2
  variable[3] = 1.9;
  variable[15] = 0.25;
  const Series cleaned = clean_rr(variable);
  EXPECT_NEAR(cleaned[10], (variable[9] + variable[11]) / 2.0, 1e-15);
  EXPECT_NEAR(cleaned[3], (variable[2] + variable[4]) / 2.0, 1e-15);
}

}  // namespace
}  // namespace cvn
