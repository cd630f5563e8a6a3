#include "analysis/peaks.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace cvn {
namespace {

using Indices = std::vector<int32_t>;

TEST(LocalMaxima, FlatTopsEdgesAndShortSignals) {
  EXPECT_EQ(local_maxima({}), Indices{});
  EXPECT_EQ(local_maxima({1, 2}), Indices{});
  EXPECT_EQ(local_maxima({3, 1, 3}), Indices{});              // ends never count
  EXPECT_EQ(local_maxima({0, 2, 2, 2, 2, 0}), (Indices{2}));  // even width: lower middle
  EXPECT_EQ(local_maxima({0, 2, 2, 2, 0}), (Indices{2}));
  EXPECT_EQ(local_maxima({0, 2, 2, 3, 1}), (Indices{3}));  // a shoulder is no peak
  EXPECT_EQ(local_maxima({0, 2, 2, 2}), Indices{});        // plateau running into the end
  EXPECT_EQ(local_maxima({0, 1, 0, 5, 4, 4, 6, 0}), (Indices{1, 3, 6}));
}

// Twelve R-like spikes of slightly different heights one second apart at
// 130 Hz over a low ripple, with a smaller spike `gap` samples after the third.
std::vector<double> spikes_with_neighbour(int gap) {
  std::vector<double> x(130 * 13);
  for (std::size_t i = 0; i < x.size(); ++i) x[i] = 0.05 * std::sin(0.9 * static_cast<double>(i));
  for (int k = 1; k <= 12; ++k) x[130 * k] = 10.0 + 0.1 * k;
  x[130 * 3 + gap] = 9.0;
  return x;
}

TEST(DetectPeaks, MinimumDistanceIsExclusiveOfTheDistanceItself) {
  const Indices close = detect_peaks(spikes_with_neighbour(25), 130.0, 26.0);
  EXPECT_EQ(close.size(), 12u);
  EXPECT_EQ(std::count(close.begin(), close.end(), 130 * 3 + 25), 0);
  const Indices apart = detect_peaks(spikes_with_neighbour(26), 130.0, 26.0);
  EXPECT_EQ(std::count(apart.begin(), apart.end(), 130 * 3 + 26), 1);
  EXPECT_EQ(std::count(apart.begin(), apart.end(), 130 * 3), 1);
}

}  // namespace
}  // namespace cvn
