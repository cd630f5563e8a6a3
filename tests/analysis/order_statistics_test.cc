// The medians of two sorted lists read without merging them, against
// median() of the merged values: bit for bit, for every split.
#include "analysis/order_statistics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "analysis/numeric.h"

namespace cvn {
namespace {

TEST(MedianAndDeviation, EqualsMedianOfTheMergedValues) {
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> coarse(0, 9);  // ties, as interval lists have
  std::normal_distribution<double> fine(0.9, 0.1);
  for (int count = 1; count <= 40; ++count) {
    for (bool ties : {false, true}) {
      std::vector<double> values(static_cast<std::size_t>(count));
      for (double& v : values) v = ties ? coarse(rng) * 0.1 : fine(rng);
      std::vector<double> deviations(values);
      const double m = median(values);
      for (double& v : deviations) v = std::abs(v - m);
      const double d = median(deviations);
      for (int split = 0; split <= count; ++split) {
        std::vector<double> a(values.begin(), values.begin() + split);
        std::vector<double> b(values.begin() + split, values.end());
        std::sort(a.begin(), a.end());
        std::sort(b.begin(), b.end());
        double got_m = 0, got_d = 0;
        median_and_deviation(a, b, &got_m, &got_d);
        ASSERT_EQ(got_m, m) << count << " values, " << split << " in the first list";
        ASSERT_EQ(got_d, d) << count << " values, " << split << " in the first list";
      }
    }
  }
  double m = 0, d = 0;
  median_and_deviation({}, {}, &m, &d);
  EXPECT_TRUE(std::isnan(m) && std::isnan(d));
}

// Values added one by one stay findable across the batches that join the
// long list.
TEST(SortedValues, FindsEveryValueAddedAcrossBatches) {
  SortedValues s;
  for (int k = 0; k < 1500; ++k) s.add((k * 7919) % 1500);
  EXPECT_TRUE(std::is_sorted(s.sorted.begin(), s.sorted.end()));
  EXPECT_EQ(s.sorted.size() + s.recent.size(), 1500u);
  for (double v : {0.0, 511.0, 512.0, 1499.0}) EXPECT_TRUE(s.any_within(v, v)) << v;
  EXPECT_FALSE(s.any_within(1499.5, 1e9));
  EXPECT_FALSE(s.any_within(10.2, 10.8));
}

}  // namespace
}  // namespace cvn
