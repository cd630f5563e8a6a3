#include "analysis/filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "tests/support/golden_file.h"

namespace cvn {
namespace {

double max_abs(const std::vector<double>& v) {
  double m = 0.0;
  for (double x : v) m = std::max(m, std::abs(x));
  return m;
}

// Lengths 1, 2 and 5 exercise the pad clamp (length - 1), 28 the full pad.
TEST(Filter, MatchesScipyZeroPhaseFilter) {
  const test::GoldenFile golden =
      test::read_golden(test::source_path("tests/analysis/golden/filter.golden"));
  ASSERT_TRUE(golden.ok);
  for (const char* name : {"one", "two", "five", "pad_plus_one", "ecg_head"}) {
    SCOPED_TRACE(name);
    const std::vector<double>& input = golden.series.at(std::string(name) + ".input");
    const std::vector<double>& expected = golden.series.at(std::string(name) + ".output");
    const std::vector<double> output = ecg_bandpass(input);
    ASSERT_EQ(output.size(), expected.size());
    const double tolerance = 1e-12 * std::max(1.0, max_abs(input));
    for (std::size_t i = 0; i < output.size(); ++i) {
      EXPECT_NEAR(output[i], expected[i], tolerance) << "sample " << i;
    }
  }
}

}  // namespace
}  // namespace cvn
