#include "analysis/live_score.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

#include "analysis/heart_rate.h"

namespace cvn {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
// R at which the score changes sign: a fit explaining 36 % of the interval
// variance is taken as the border between following and not following.
constexpr double kNeutralFit = 0.6;
constexpr double kMsPerSecond = 1000.0;
// Running window sums are recomputed from scratch after this many moves, so
// their rounding error stays that of a few dozen additions.
constexpr int kResyncMoves = 64;

// Sums of the regressors over a window [begin, end) whose ends only move
// forward: the data-independent part of every window's fit, kept in O(1)
// per window instead of O(window).
class RegressorSums {
 public:
  RegressorSums(const std::vector<double>& sine, const std::vector<double>& cosine)
      : sine_(sine), cosine_(cosine) {}

  void move_to(std::size_t begin, std::size_t end) {
    if (++moves_ >= kResyncMoves || begin >= end_) {
      moves_ = 0;
      s = c = ss = cc = 0.0;
      begin_ = end_ = begin;
    }
    for (; end_ < end; ++end_) add(end_, 1.0);
    for (; begin_ < begin; ++begin_) add(begin_, -1.0);
  }

  double s = 0.0, c = 0.0, ss = 0.0, cc = 0.0;

 private:
  void add(std::size_t j, double sign) {
    s += sign * sine_[j];
    c += sign * cosine_[j];
    ss += sign * (sine_[j] * sine_[j]);
    cc += sign * (cosine_[j] * cosine_[j]);
  }

  const std::vector<double>& sine_;
  const std::vector<double>& cosine_;
  std::size_t begin_ = 0, end_ = 0;
  int moves_ = 0;
};

double score_of_fit(double r) {
  if (std::isnan(r)) return kNaN;
  return r > kNeutralFit ? (r - kNeutralFit) / (1.0 - kNeutralFit) : r / kNeutralFit - 1.0;
}

// Beat times (s) and their intervals (ms), up to the first interval that is
// not a positive finite number or that makes the time overflow.
void beats_from_rr(const std::vector<double>& rr, std::vector<double>& time,
                   std::vector<double>& interval_ms) {
  time.reserve(rr.size());
  interval_ms.reserve(rr.size());
  double sum_ms = 0.0;
  for (double r : rr) {
    const double ms = r * kMsPerSecond;
    if (!(ms > 0.0) || !std::isfinite(sum_ms + ms)) break;
    sum_ms += ms;
    time.push_back(sum_ms / kMsPerSecond);
    interval_ms.push_back(ms);
  }
}

}  // namespace

std::vector<double> live_cvn_scores(const std::vector<double>& rr, std::size_t sample_count,
                                    double cycle_seconds, double sample_rate, int cycles_per_window,
                                    double grid_step) {
  if (!(sample_rate > 0.0) || !std::isfinite(sample_rate) || !(grid_step > 0.0) ||
      !std::isfinite(grid_step)) {
    return {};
  }
  const std::vector<double> grid = time_grid(sample_count, sample_rate, grid_step);
  const std::size_t g = grid.size();
  std::vector<double> scores(g + 1, kNaN);

  const double window_points = cycle_seconds / grid_step * cycles_per_window;
  if (!(cycle_seconds > 0.0) || !std::isfinite(cycle_seconds) || !(window_points >= 0.0)) {
    return scores;
  }
  // A window longer than the grid leaves every score NaN.
  if (window_points > static_cast<double>(g)) return scores;
  const auto window = static_cast<std::size_t>(window_points);

  std::vector<double> beat_time;
  std::vector<double> beat_ms;
  beats_from_rr(rr, beat_time, beat_ms);
  if (beat_time.empty()) return scores;

  // Intervals on the grid; valid exactly on [first, last_valid] since the
  // beat times increase.
  std::vector<double> value(g, kNaN);
  std::size_t first = g;
  std::size_t end_valid = 0;  // one past the last valid point
  for (std::size_t j = 0; j < g; ++j) {
    const double t = grid[j];
    if (t < beat_time.front() || t > beat_time.back()) continue;
    if (t == beat_time.back()) {
      value[j] = beat_ms.back();
    } else {
      // beat_time[k] <= t < beat_time[k + 1]
      const auto k = static_cast<std::size_t>(
          std::upper_bound(beat_time.begin(), beat_time.end(), t) - beat_time.begin() - 1);
      const double slope = (beat_ms[k + 1] - beat_ms[k]) / (beat_time[k + 1] - beat_time[k]);
      value[j] = slope * (t - beat_time[k]) + beat_ms[k];
    }
    first = std::min(first, j);
    end_valid = j + 1;
  }
  if (first == g) return scores;

  const double omega = 2.0 * std::numbers::pi / cycle_seconds;
  std::vector<double> sine(g);
  std::vector<double> cosine(g);
  for (std::size_t j = 0; j < g; ++j) {
    sine[j] = std::sin(omega * grid[j]);
    cosine[j] = std::cos(omega * grid[j]);
  }

  RegressorSums window_sums(sine, cosine);
  for (std::size_t i = std::max(window, first + 1); i <= g; ++i) {
    const std::size_t begin = std::max(first, i - window);
    const std::size_t valid_end = std::min(i, end_valid);
    if (begin >= valid_end) continue;  // no interval in the window
    window_sums.move_to(begin, i);

    // Intervals are taken relative to the window's first one: an exactly
    // constant window then sums to exact zeros (and scores NaN), and the
    // one-pass sums keep their precision.
    const double ref = value[begin];
    double sum_d = 0.0, sum_dd = 0.0, sum_sd = 0.0, sum_cd = 0.0;
    for (std::size_t j = begin; j < valid_end; ++j) {
      const double d = value[j] - ref;
      sum_d += d;
      sum_dd += d * d;
      sum_sd += sine[j] * d;
      sum_cd += cosine[j] * d;
    }
    // Past the last beat the intervals are missing; only the last windows.
    double sum_s_valid = window_sums.s;
    double sum_c_valid = window_sums.c;
    if (valid_end < i) {
      sum_s_valid = sum_c_valid = 0.0;
      for (std::size_t j = begin; j < valid_end; ++j) {
        sum_s_valid += sine[j];
        sum_c_valid += cosine[j];
      }
    }

    // With h = d - mean(d) on valid points and 0 elsewhere, sum(h) = 0, so
    // the centring of the regressors drops out of the cross sums.
    const double count = static_cast<double>(valid_end - begin);
    const double points = static_cast<double>(i - begin);
    const double mean_d = sum_d / count;
    const double hh = sum_dd - mean_d * sum_d;
    const double sh = sum_sd - mean_d * sum_s_valid;
    const double ch = sum_cd - mean_d * sum_c_valid;
    const double ss = window_sums.ss - window_sums.s * window_sums.s / points;
    const double cc = window_sums.cc - window_sums.c * window_sums.c / points;
    const double r_s = sh / std::sqrt(ss * hh);
    const double r_c = ch / std::sqrt(cc * hh);
    scores[i] = score_of_fit(std::sqrt(r_s * r_s + r_c * r_c));
  }
  return scores;
}

}  // namespace cvn
