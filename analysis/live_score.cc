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

}  // namespace

void live_score_beats(const std::vector<double>& rr, std::vector<double>& time,
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

double live_score_interval_at(const std::vector<double>& time,
                              const std::vector<double>& interval_ms, double t) {
  if (time.empty() || t < time.front() || t > time.back()) return kNaN;
  if (t == time.back()) return interval_ms.back();
  // time[k] <= t < time[k + 1]
  const auto k =
      static_cast<std::size_t>(std::upper_bound(time.begin(), time.end(), t) - time.begin() - 1);
  const double slope = (interval_ms[k + 1] - interval_ms[k]) / (time[k + 1] - time[k]);
  return slope * (t - time[k]) + interval_ms[k];
}

double live_score_of_window(const std::vector<double>& value, const std::vector<double>& sine,
                            const std::vector<double>& cosine, std::size_t begin,
                            std::size_t valid_end, std::size_t i, const RegressorTotals& totals) {
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
  double sum_s_valid = totals.s;
  double sum_c_valid = totals.c;
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
  const double ss = totals.ss - totals.s * totals.s / points;
  const double cc = totals.cc - totals.c * totals.c / points;
  const double r_s = sh / std::sqrt(ss * hh);
  const double r_c = ch / std::sqrt(cc * hh);
  return score_of_fit(std::sqrt(r_s * r_s + r_c * r_c));
}

std::vector<double> live_cvn_scores(const std::vector<double>& rr, std::size_t sample_count,
                                    double cycle_seconds, double sample_rate, int cycles_per_window,
                                    double grid_step) {
  return live_cvn_scores_after(rr, sample_count, cycle_seconds, {}, 0, sample_rate,
                               cycles_per_window, grid_step);
}

std::vector<double> live_cvn_scores_after(const std::vector<double>& rr, std::size_t sample_count,
                                          double cycle_seconds, const std::vector<double>& known,
                                          std::size_t from, double sample_rate,
                                          int cycles_per_window, double grid_step) {
  if (!(sample_rate > 0.0) || !std::isfinite(sample_rate) || !(grid_step > 0.0) ||
      !std::isfinite(grid_step)) {
    return {};
  }
  const std::vector<double> grid = time_grid(sample_count, sample_rate, grid_step);
  const std::size_t g = grid.size();
  std::vector<double> scores(g + 1, kNaN);
  from = std::min({from, known.size(), scores.size()});

  const double window_points = cycle_seconds / grid_step * cycles_per_window;
  if (!(cycle_seconds > 0.0) || !std::isfinite(cycle_seconds) || !(window_points >= 0.0)) {
    return scores;
  }
  // A window longer than the grid leaves every score NaN.
  if (window_points > static_cast<double>(g)) return scores;
  const auto window = static_cast<std::size_t>(window_points);

  std::vector<double> beat_time;
  std::vector<double> beat_ms;
  live_score_beats(rr, beat_time, beat_ms);
  if (beat_time.empty()) return scores;

  // Intervals on the grid; valid exactly on [first, last_valid] since the
  // beat times increase.
  std::vector<double> value(g, kNaN);
  std::size_t first = g;
  std::size_t end_valid = 0;  // one past the last valid point
  for (std::size_t j = 0; j < g; ++j) {
    const double t = grid[j];
    if (t < beat_time.front() || t > beat_time.back()) continue;
    // Only the windows of the scores computed read the values.
    if (j + window >= from) value[j] = live_score_interval_at(beat_time, beat_ms, t);
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
    // Moved for every score all the same: the sums of a later window are
    // then those live_cvn_scores reaches, bit for bit.
    window_sums.move_to(begin, i);
    if (i < from) {
      scores[i] = known[i];
      continue;
    }
    scores[i] =
        live_score_of_window(value, sine, cosine, begin, valid_end, i,
                             {window_sums.s, window_sums.c, window_sums.ss, window_sums.cc});
  }
  return scores;
}

}  // namespace cvn
