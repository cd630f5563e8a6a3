// Live coupling score: how closely the beat-to-beat intervals follow the
// paced breathing, updated during acquisition.
#pragma once
#include <cstddef>
#include <vector>

#include "base/constants.h"

namespace cvn {

/// Breathing cycles in one live-score window.
inline constexpr int kLiveScoreCycles = 2;
/// Step of the live-score grid, seconds.
inline constexpr double kLiveScoreStep = 0.1;

/// Live CVN scores, one per grid point 0 .. G inclusive, where G is the
/// length of time_grid(sample_count, sample_rate, grid_step); element G is
/// the score of the window ending at the last grid point.
///
/// Beat k sits at the running sum of rr[0..k] (the first beat at rr[0]) and
/// carries its interval in ms. The interval series on the grid is linearly
/// interpolated between beats and NaN before the first and after the last
/// beat. Score i fits a sine and a cosine of period `cycle_seconds` to the
/// intervals on grid points [max(first valid point, i - W), i), W =
/// trunc(cycle_seconds / grid_step * cycles_per_window): with R the length of
/// the two correlations, the score is (R - 0.6) / 0.4 above R = 0.6 and
/// R / 0.6 - 1 below. NaN for i < W, for a window without variation, and for
/// every point when the cycle length is not positive and finite. Scores lie
/// in -1..1 when the window spans whole cycles; a window cut short at the
/// first beat leaves sine and cosine correlated, and R (so the score) can then
/// exceed 1.
///
/// Intervals are used up to the first one that is not positive and finite.
/// Empty when the rate or step is not positive and finite.
std::vector<double> live_cvn_scores(const std::vector<double>& rr, std::size_t sample_count,
                                    double cycle_seconds, double sample_rate = kSampleRate,
                                    int cycles_per_window = kLiveScoreCycles,
                                    double grid_step = kLiveScoreStep);

}  // namespace cvn
