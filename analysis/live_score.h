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

/// live_cvn_scores when its scores before `from` are known: `known[i]` for
/// i < from, the others computed as live_cvn_scores computes them, bit for
/// bit. A session whose intervals only change after beat time T passes the
/// last scores and `from` = the number of grid points before T: the scores
/// before it read no interval after T, and computing only the rest costs a
/// window per new score instead of per score.
std::vector<double> live_cvn_scores_after(const std::vector<double>& rr, std::size_t sample_count,
                                          double cycle_seconds, const std::vector<double>& known,
                                          std::size_t from, double sample_rate = kSampleRate,
                                          int cycles_per_window = kLiveScoreCycles,
                                          double grid_step = kLiveScoreStep);

/// The beats live_cvn_scores places: time (s) of beat k as the running sum
/// of rr[0..k] in ms over 1000, and its interval in ms, up to the first
/// interval that is not positive and finite.
void live_score_beats(const std::vector<double>& rr, std::vector<double>& time,
                      std::vector<double>& interval_ms);

/// The interval (ms) at grid time `t` between those beats; NaN outside them.
double live_score_interval_at(const std::vector<double>& time,
                              const std::vector<double>& interval_ms, double t);

/// Sums of the sine and cosine regressors and their squares over a window.
struct RegressorTotals {
  double s = 0.0, c = 0.0, ss = 0.0, cc = 0.0;
};

/// Score i of live_cvn_scores: the window [begin, i) of the grid's intervals
/// `value`, valid on [begin, valid_end), against `sine` and `cosine` of the
/// grid times, whose sums over [begin, i) are `totals`.
/// REQUIRES: begin < valid_end <= i <= value.size().
double live_score_of_window(const std::vector<double>& value, const std::vector<double>& sine,
                            const std::vector<double>& cosine, std::size_t begin,
                            std::size_t valid_end, std::size_t i, const RegressorTotals& totals);

}  // namespace cvn
