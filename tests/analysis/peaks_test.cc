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

TEST(PeakProminences, WindowLimitsTheSearchAndBasesAreNearestLowest) {
  //                              0  1  2  3  4  5  6  7  8
  const std::vector<double> x = {-5, 0, 1, 0, 9, 0, 1, 0, -5};
  const auto whole = peak_prominences(x, {4}, 0);
  EXPECT_DOUBLE_EQ(whole[0].prominence, 14.0);
  EXPECT_EQ(whole[0].left_base, 0);
  EXPECT_EQ(whole[0].right_base, 8);
  // Window 5 reaches two samples each way; ties at 0 keep the nearer base.
  const auto windowed = peak_prominences(x, {4}, 5);
  EXPECT_DOUBLE_EQ(windowed[0].prominence, 9.0);
  EXPECT_EQ(windowed[0].left_base, 3);
  EXPECT_EQ(windowed[0].right_base, 5);
  // The search stops at the first higher sample.
  const auto small = peak_prominences(x, {2}, 0);
  EXPECT_DOUBLE_EQ(small[0].prominence, 1.0);
  EXPECT_EQ(small[0].left_base, 0);
  EXPECT_EQ(small[0].right_base, 3);
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

// The spike removal itself is covered through regular_hr.
TEST(RemoveArtefacts, FlatOrNonFiniteSeriesAreReturnedAsTheyAre) {
  const std::vector<double> flat(40, 70.0);
  EXPECT_EQ(remove_artefacts(flat, 50, 4.0), flat);
  std::vector<double> spiky(100, 70.0);
  spiky[50] = 200.0;
  spiky[3] = std::numeric_limits<double>::quiet_NaN();
  const std::vector<double> kept = remove_artefacts(spiky, 50, 4.0);
  EXPECT_TRUE(std::isnan(kept[3]));
  EXPECT_EQ(kept[50], 200.0);
  spiky[3] = std::numeric_limits<double>::infinity();
  EXPECT_EQ(remove_artefacts(spiky, 50, 4.0)[50], 200.0);
}

}  // namespace
}  // namespace cvn
