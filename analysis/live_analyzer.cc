#include "analysis/live_analyzer.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "analysis/heart_rate.h"
#include "analysis/live_score.h"
#include "analysis/numeric.h"
#include "analysis/order_statistics.h"
#include "analysis/peaks.h"
#include "analysis/rr.h"
#include "base/constants.h"

namespace cvn {

namespace {

// The Hann window of hann_smooth reaches 5 points back and 4 ahead.
constexpr std::size_t kSmoothReach = 5;
// A spike's score must reach kHrArtefactMinProminence SD; points a little
// closer to the mean are looked at too, for the rounding of the bound.
constexpr double kSpikeSearchSd = kHrArtefactMinProminence * (1.0 - 1e-9);

// The values of an ascending sequence inside (kMinPlausibleRr, kMaxPlausibleRr).
std::span<const double> plausible_part(const std::vector<double>& sorted) {
  auto lo = std::upper_bound(sorted.begin(), sorted.end(), kMinPlausibleRr);
  auto hi = std::lower_bound(lo, sorted.end(), kMaxPlausibleRr);
  return {lo, hi};
}

std::size_t first_difference(const std::vector<int32_t>& a, const std::vector<int32_t>& b) {
  const std::size_t n = std::min(a.size(), b.size());
  return static_cast<std::size_t>(std::mismatch(a.begin(), a.begin() + n, b.begin()).first -
                                  a.begin());
}

// The first point of `grid` a change from beat `beat` on can reach: the one
// at or after beat `beat` - 2 in `times` (where the changed interval's
// neighbour starts), but not past `bound`.
std::size_t first_reached(const std::vector<double>& grid, const std::vector<double>& times,
                          std::size_t beat, std::size_t bound) {
  const double t = times[beat - 2];
  return std::min(bound, static_cast<std::size_t>(std::lower_bound(grid.begin(), grid.end(), t) -
                                                  grid.begin()));
}

}  // namespace

void LiveAnalyzer::feed(std::span<const double> samples, double cycle_seconds) {
  detector_.feed(samples);
  const std::size_t changed = clean(update_intervals());
  update_hr(changed);
  update_scores(changed, cycle_seconds);
}

// The intervals between the peaks, from the first peak that moved on; returns
// the first interval that changed.
std::size_t LiveAnalyzer::update_intervals() {
  const std::vector<int32_t>& peaks = detector_.peaks();
  const std::size_t moved = first_difference(peaks_, peaks);
  peaks_.resize(moved);
  peaks_.insert(peaks_.end(), peaks.begin() + static_cast<std::ptrdiff_t>(moved), peaks.end());
  const std::size_t from = moved == 0 ? 0 : moved - 1;
  const std::size_t count = peaks_.size() < 2 ? 0 : peaks_.size() - 1;
  intervals_.resize(std::min(from, count));
  for (std::size_t k = intervals_.size(); k < count; ++k)
    intervals_.push_back(static_cast<double>(peaks_[k + 1] - peaks_[k]) / kSampleRate);
  return std::min(from, count);
}

// clean_rr_marked of the intervals, redone only where it can have changed:
// the median, the MAD and the variance come from order statistics and sums
// kept over the intervals that stayed, and an interval's verdict is
// reconsidered only when a bound has moved over it. Returns the first
// cleaned interval that may differ from the last pass.
std::size_t LiveAnalyzer::clean(std::size_t changed) {
  const std::size_t n = intervals_.size();
  if (changed < settled_) {
    // A beat far back moved (a screen bound crossed a candidate): start over.
    settled_values_ = SortedValues();
    settled_ = 0;
    settled_sum_ = settled_sum_sq_ = 0.0;
    settled_plausible_ = 0;
  }
  // Intervals between final peaks stay; the others are taken afresh.
  const std::size_t final_peaks = detector_.settled_peaks();
  const std::size_t settle = std::min(changed, final_peaks > 0 ? final_peaks - 1 : 0);
  for (; settled_ < settle; ++settled_) {
    const double r = intervals_[settled_];
    settled_values_.add(r);
    if (!plausible_rr(r)) continue;
    settled_sum_ += r;
    settled_sum_sq_ += r * r;
    ++settled_plausible_;
  }
  std::vector<double> pending(intervals_.begin() + static_cast<std::ptrdiff_t>(settled_),
                              intervals_.end());
  double sum = settled_sum_, sum_sq = settled_sum_sq_;
  std::size_t count = settled_plausible_;
  for (double r : pending) {
    if (!plausible_rr(r)) continue;
    sum += r;
    sum_sq += r * r;
    ++count;
  }
  std::sort(pending.begin(), pending.end());
  std::vector<double> small(plausible_part(settled_values_.recent).begin(),
                            plausible_part(settled_values_.recent).end());
  const std::span<const double> pending_plausible = plausible_part(pending);
  small.insert(small.end(), pending_plausible.begin(), pending_plausible.end());
  std::sort(small.begin(), small.end());
  double m = 0.0, d = 0.0;
  median_and_deviation(plausible_part(settled_values_.sorted), small, &m, &d);
  const double mean = sum / static_cast<double>(count);
  const double variance = sum_sq / static_cast<double>(count) - mean * mean;
  const double limit = rr_outlier_limit(variance);
  auto is_outlier = [&](double r) { return rr_outlier(r, m, d, limit); };
  // An outlier lies beyond median ± limit · MAD / kMadToSd; a verdict can
  // change only for an interval between an old and a new bound.
  bool rescan = !rules_valid_ || limit != limit_ || !(d > 0.0) || !(mad_ > 0.0);
  for (double side : {-1.0, 1.0}) {
    if (rescan) break;
    const double was = median_ + side * limit_ * mad_ / kMadToSd;
    const double now = m + side * limit * d / kMadToSd;
    const double margin = 1e-9 * (std::abs(was) + std::abs(now));
    rescan = settled_values_.any_within(std::min(was, now) - margin, std::max(was, now) + margin);
  }
  rules_valid_ = true;
  median_ = m;
  mad_ = d;
  limit_ = limit;

  // Verdicts are redone for every interval not settled (their values are
  // not among settled_values_), and for all after a rescan; the cleaned
  // series changes from the first interval or verdict that differs.
  const std::size_t from = rescan ? 0 : std::min({changed, outlier_.size(), settled_});
  std::size_t first_change = std::min(changed, outlier_.size());
  for (std::size_t i = n; i < outlier_.size(); ++i) outliers_ -= outlier_[i];
  outlier_.resize(std::min(outlier_.size(), n));
  for (std::size_t i = from; i < n; ++i) {
    const unsigned char verdict = d == 0.0 ? 0 : is_outlier(intervals_[i]);
    if (i == outlier_.size()) {
      outlier_.push_back(0);
    } else if (outlier_[i] != verdict) {
      first_change = std::min(first_change, i);
    }
    outliers_ += verdict;
    outliers_ -= outlier_[i];
    outlier_[i] = verdict;
  }

  // clean_rr returns its input when nothing (or everything) is an outlier.
  const bool replacing = outliers_ > 0 && outliers_ < n;
  if (replacing != replacing_) first_change = 0;
  replacing_ = replacing;
  // Gaps are filled from the nearest good interval on either side: begin
  // at the last good one before the first change.
  std::size_t begin = first_change;
  if (replacing) {
    while (begin > 0 && outlier_[begin - 1]) --begin;
    if (begin > 0) --begin;
  }
  std::vector<double> part(intervals_.begin() + static_cast<std::ptrdiff_t>(begin),
                           intervals_.end());
  if (replacing) {
    for (std::size_t i = begin; i < n; ++i) {
      if (outlier_[i]) part[i - begin] = std::nan("");
    }
    fill_gaps(part);
  }
  clean_.resize(begin);
  clean_.insert(clean_.end(), part.begin(), part.end());
  marks_.resize(begin);
  for (std::size_t i = begin; i < n; ++i) marks_.push_back(replacing ? outlier_[i] : 0);
  return begin;
}

// regular_hr from the first changed interval on: the beat times and rates,
// the grid, the rate on it, the smoothing (which reaches a few points either
// way), then the spikes.
void LiveAnalyzer::update_hr(std::size_t changed) {
  const std::size_t n_rr = clean_.size();
  const std::size_t old_grid = grid_.size();
  // time_grid, carried on.
  const double end = static_cast<double>(sample_count()) / kSampleRate - 1e-12;
  const double per_second = 1.0 / kHrGridStep;
  while (grid_clock_ < end) {
    grid_.push_back(std::round(grid_clock_ * per_second) / per_second);
    grid_clock_ += kHrGridStep;
  }
  const std::size_t g = grid_.size();
  if (n_rr == 0) {
    hr_.clear();
    interp_.clear();
    smooth_.clear();
    beat_time_.clear();
    rate_.clear();
    prefix_sum_.assign(1, 0.0);
    prefix_sq_.assign(1, 0.0);
    by_value_.clear();
    blanks_.clear();
    hr_changed_ = 0;
    return;
  }
  // Rates: 60 / RR, and the last one a linear step beyond (beat_rates).
  const std::size_t old_rates = rate_.size();
  const std::size_t from_rate = std::min(changed, old_rates == 0 ? 0 : old_rates - 1);
  rate_.resize(n_rr + 1);
  beat_time_.resize(n_rr + 1);
  beat_time_[0] = 0.0;
  for (std::size_t k = from_rate; k < n_rr; ++k) {
    rate_[k] = 60.0 / clean_[k];
    beat_time_[k + 1] = beat_time_[k] + clean_[k];
  }
  rate_[n_rr] = n_rr >= 2 ? rate_[n_rr - 1] + (rate_[n_rr - 1] - rate_[n_rr - 2]) : rate_[n_rr - 1];

  // Grid points from the last beat before the first changed rate on.
  const std::size_t from = from_rate >= 2 ? first_reached(grid_, beat_time_, from_rate,
                                                          std::min(old_grid, interp_.size()))
                                          : 0;
  interp_.resize(g);
  for (std::size_t j = from; j < g; ++j) interp_[j] = rate_at(beat_time_, rate_, grid_[j]);

  if (g < kMinSmoothedGrid) {
    hr_ = interp_;
    smooth_.clear();
    hr_changed_ = 0;
    return;
  }
  // Outputs from `from` - 5 on read a changed point (or the moved mirror at
  // the end); a slice starting 5 earlier gives them exactly.
  std::size_t out_from = smooth_.size() < kMinSmoothedGrid ? 0 : from;
  out_from = out_from > kSmoothReach ? out_from - kSmoothReach : 0;
  std::size_t slice = out_from > kSmoothReach ? out_from - kSmoothReach : 0;
  slice = std::min(slice, g - kMinSmoothedGrid);
  const std::vector<double> smoothed = hann_smooth(
      std::vector<double>(interp_.begin() + static_cast<std::ptrdiff_t>(slice), interp_.end()));
  const std::size_t old_smooth = smooth_.size();
  for (std::size_t p = out_from; p < std::min(old_smooth, g); ++p)
    by_value_.erase(by_value_.find({smooth_[p], p}));
  smooth_.resize(g);
  prefix_sum_.resize(g + 1);
  prefix_sq_.resize(g + 1);
  for (std::size_t p = out_from; p < g; ++p) {
    smooth_[p] = smoothed[p - slice];
    by_value_.insert({smooth_[p], p});
    prefix_sum_[p + 1] = prefix_sum_[p] + smooth_[p];
    prefix_sq_[p + 1] = prefix_sq_[p] + smooth_[p] * smooth_[p];
  }
  hr_.resize(g);
  std::copy(smooth_.begin() + static_cast<std::ptrdiff_t>(out_from), smooth_.end(),
            hr_.begin() + static_cast<std::ptrdiff_t>(out_from));
  hr_changed_ = std::min(out_from, remove_spikes(out_from));
}

// remove_artefacts(smooth_, kHrArtefactWindow, kHrArtefactMinProminence) into
// hr_, where hr_ holds smooth_ from `from` on and the last pass's result
// before. A spike's score |x - mean| / SD must rise kHrArtefactMinProminence
// above its bases, so it is at least that: only the few points that far from
// the mean are looked at, found from both ends of by_value_. Returns the
// first point of hr_ the blanks changed.
std::size_t LiveAnalyzer::remove_spikes(std::size_t from) {
  const std::size_t g = smooth_.size();
  const double count = static_cast<double>(g);
  const double m = prefix_sum_[g] / count;
  const double sd = std::sqrt(std::max(prefix_sq_[g] / count - m * m, 0.0));
  std::vector<std::pair<std::size_t, std::size_t>> blanks;
  if (sd > 0.0 && std::isfinite(sd)) {
    std::vector<std::size_t> far;
    for (auto it = by_value_.begin(); it != by_value_.end() && it->first <= m - kSpikeSearchSd * sd;
         ++it)
      far.push_back(it->second);
    for (auto it = by_value_.rbegin();
         it != by_value_.rend() && it->first >= m + kSpikeSearchSd * sd; ++it)
      far.push_back(it->second);
    std::sort(far.begin(), far.end());
    const auto half = static_cast<std::size_t>(kHrArtefactWindow / 2);
    for (std::size_t q : far) {
      // remove_artefacts' maxima and prominences, on a stretch that holds
      // everything they read around q.
      const std::size_t a = q > half + 1 ? q - half - 1 : 0;
      const std::size_t b = std::min(q + half + 2, g);
      std::vector<double> score(b - a);
      for (std::size_t i = a; i < b; ++i) score[i - a] = std::abs(smooth_[i] - m) / sd;
      const std::vector<int32_t> maxima = local_maxima(score);
      const auto at = static_cast<int32_t>(q - a);
      if (!std::binary_search(maxima.begin(), maxima.end(), at)) continue;
      const PeakProminence p = peak_prominences(score, {at}, kHrArtefactWindow)[0];
      if (!(p.prominence >= kHrArtefactMinProminence)) continue;
      blanks.push_back(
          {a + static_cast<std::size_t>(p.left_base), a + static_cast<std::size_t>(p.right_base)});
    }
  }
  std::size_t changed = g;
  if (blanks != blanks_) {
    for (const auto& [lo, hi] : blanks_) {
      if (hi > g) continue;
      std::copy(smooth_.begin() + static_cast<std::ptrdiff_t>(lo),
                smooth_.begin() + static_cast<std::ptrdiff_t>(hi),
                hr_.begin() + static_cast<std::ptrdiff_t>(lo));
      changed = std::min(changed, lo);
    }
  }
  // Blanked points are filled from their nearest unblanked neighbours, as
  // fill_gaps does: run by run of the blanks' union.
  std::vector<std::pair<std::size_t, std::size_t>> runs(blanks);
  std::sort(runs.begin(), runs.end());
  std::size_t kept = 0;
  for (const auto& run : runs) {
    if (run.first >= run.second) continue;
    if (kept > 0 && run.first <= runs[kept - 1].second) {
      runs[kept - 1].second = std::max(runs[kept - 1].second, run.second);
    } else {
      runs[kept++] = run;
    }
  }
  runs.resize(kept);
  for (const auto& [lo, hi] : runs) {
    if (blanks == blanks_ && hi + 1 < from) continue;
    const std::size_t begin = lo > 0 ? lo - 1 : 0;
    const std::size_t stop = std::min(hi + 1, g);
    std::vector<double> part(smooth_.begin() + static_cast<std::ptrdiff_t>(begin),
                             smooth_.begin() + static_cast<std::ptrdiff_t>(stop));
    for (std::size_t i = lo; i < hi; ++i) part[i - begin] = std::nan("");
    fill_gaps(part);
    std::copy(part.begin(), part.end(), hr_.begin() + static_cast<std::ptrdiff_t>(begin));
    changed = std::min(changed, begin);
  }
  blanks_ = std::move(blanks);
  return changed;
}

// live_cvn_scores from the first changed interval on; everything when the
// cycle length changes.
void LiveAnalyzer::update_scores(std::size_t changed, double cycle_seconds) {
  const std::size_t g = grid_.size();
  const bool rescore = cycle_seconds != cycle_;
  if (rescore) {
    cycle_ = cycle_seconds;
    sine_.clear();
    cosine_.clear();
  }
  const double omega = 2.0 * std::numbers::pi / cycle_seconds;
  for (std::size_t j = sine_.size(); j < g; ++j) {
    sine_.push_back(std::sin(omega * grid_[j]));
    cosine_.push_back(std::cos(omega * grid_[j]));
  }
  // The beats the score places: running sums in ms (live_score_beats).
  const std::size_t n_rr = clean_.size();
  const std::size_t from_beat = std::min(changed, score_ms_sum_.size());
  score_ms_sum_.resize(from_beat);
  score_time_.resize(from_beat);
  score_ms_.resize(from_beat);
  double sum_ms = from_beat == 0 ? 0.0 : score_ms_sum_.back();
  for (std::size_t k = from_beat; k < n_rr; ++k) {
    const double ms = clean_[k] * 1000.0;
    if (!(ms > 0.0) || !std::isfinite(sum_ms + ms)) break;
    sum_ms += ms;
    score_ms_sum_.push_back(sum_ms);
    score_time_.push_back(sum_ms / 1000.0);
    score_ms_.push_back(ms);
  }

  // Grid values from the beat before the first change on.
  const std::size_t from =
      from_beat >= 2 && !rescore
          ? first_reached(grid_, score_time_, from_beat, std::min(value_.size(), end_valid_))
          : 0;
  value_.resize(g);
  first_valid_ = g;
  end_valid_ = 0;
  if (!score_time_.empty()) {
    first_valid_ = static_cast<std::size_t>(
        std::lower_bound(grid_.begin(), grid_.end(), score_time_.front()) - grid_.begin());
    end_valid_ = static_cast<std::size_t>(
        std::upper_bound(grid_.begin(), grid_.end(), score_time_.back()) - grid_.begin());
  }
  for (std::size_t j = from; j < g; ++j)
    value_[j] = live_score_interval_at(score_time_, score_ms_, grid_[j]);

  const std::size_t old_scores = scores_.size();
  scores_.resize(g + 1, std::nan(""));
  const double window_points = cycle_seconds / kLiveScoreStep * kLiveScoreCycles;
  const bool none = !(cycle_seconds > 0.0) || !std::isfinite(cycle_seconds) ||
                    !(window_points >= 0.0) || window_points > static_cast<double>(g) ||
                    first_valid_ == g;
  std::size_t first = rescore || !scored_ ? 0 : std::min(from, old_scores);
  scored_ = !none;
  if (none) {
    std::fill(scores_.begin() + static_cast<std::ptrdiff_t>(first), scores_.end(), std::nan(""));
    scores_changed_ = first;
    return;
  }
  const auto window = static_cast<std::size_t>(window_points);
  // A score reads the points before it: score i changes when point i - 1 does.
  for (std::size_t i = first; i <= g; ++i) {
    scores_[i] = std::nan("");
    if (i < std::max(window, first_valid_ + 1)) continue;
    const std::size_t begin = std::max(first_valid_, i - window);
    const std::size_t valid_end = std::min(i, end_valid_);
    if (begin >= valid_end) continue;
    RegressorTotals totals;
    for (std::size_t j = begin; j < i; ++j) {
      totals.s += sine_[j];
      totals.c += cosine_[j];
      totals.ss += sine_[j] * sine_[j];
      totals.cc += cosine_[j] * cosine_[j];
    }
    scores_[i] = live_score_of_window(value_, sine_, cosine_, begin, valid_end, i, totals);
  }
  scores_changed_ = first;
}

}  // namespace cvn
