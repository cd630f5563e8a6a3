#include "analysis/live_peaks.h"

#include <algorithm>
#include <cmath>

#include "analysis/ecg.h"
#include "analysis/numeric.h"
#include "analysis/order_statistics.h"
#include "analysis/peaks.h"
#include "base/constants.h"

namespace cvn {

namespace {

// find_r_peaks' minimum distance between two R-peaks, in samples.
const double kMinDistance = min_peak_distance(kSampleRate, kMaxHeartRate);
const auto kDistance = static_cast<int64_t>(kMinDistance);

}  // namespace

void LivePeaks::feed(std::span<const double> samples) {
  if (samples.empty()) return;
  const std::size_t from = raw_.size();
  raw_.insert(raw_.end(), samples.begin(), samples.end());
  repair(from);
  filter();
  find_candidates(0);
  find_candidates(1);

  const std::size_t n = filtered_.size();
  double sum = final_sum_, sum_sq = final_sum_sq_;
  for (std::size_t i = filtered_final_; i < n; ++i) {
    sum += filtered_[i];
    sum_sq += filtered_[i] * filtered_[i];
  }
  const double count = static_cast<double>(n);
  const double mean = sum / count;
  const double sd = std::sqrt(std::max(sum_sq / count - mean * mean, 0.0));
  std::size_t plausible[2] = {0, 0};
  std::vector<int32_t> upright = screen(0, mean, sd, &plausible[0]);
  std::vector<int32_t> inverted = screen(1, -mean, sd, &plausible[1]);
  const int winner = plausible[1] > plausible[0] ? 1 : 0;
  peaks_ = winner == 1 ? std::move(inverted) : std::move(upright);
  settled_peaks_ = screens_[winner].peaks.size();
}

// ecg_bandpass' repair, done as samples arrive: a gap between finite samples
// is filled once its right end is known; until then the trailing non-finite
// samples carry the last finite value (zero before the first).
void LivePeaks::repair(std::size_t from) {
  for (std::size_t i = from; i < raw_.size(); ++i) {
    if (!std::isfinite(raw_[i])) {
      raw_[i] = raw_final_ > 0 ? raw_[raw_final_ - 1] : 0.0;
      continue;
    }
    if (raw_final_ == 0) {
      std::fill(raw_.begin(), raw_.begin() + static_cast<std::ptrdiff_t>(i), raw_[i]);
    } else if (i > raw_final_) {
      const std::size_t prev = raw_final_ - 1;
      const double slope = (raw_[i] - raw_[prev]) / static_cast<double>(i - prev);
      for (std::size_t k = prev + 1; k < i; ++k) {
        raw_[k] = slope * static_cast<double>(k - prev) + raw_[prev];
      }
    }
    raw_final_ = i + 1;
  }
}

// sos_filtfilt's two passes: the forward one is carried on over final
// samples and never repeated; the backward one starts at the end each time
// and runs back to the first sample not yet final.
void LivePeaks::filter() {
  const std::size_t n = raw_.size();
  const auto pad = static_cast<std::size_t>(kEcgPadLength);
  if (n <= pad || raw_final_ <= pad) {
    // The start padding reflects samples not all known yet.
    filtered_ = sos_filtfilt(raw_, kEcgBandPass, kEcgPadLength);
    return;
  }
  if (!forward_started_) {
    std::vector<double> head(pad);
    for (std::size_t k = 1; k <= pad; ++k) head[pad - k] = 2.0 * raw_[0] - raw_[k];
    forward_state_ = sos_pass_start(kEcgBandPass, head[0]);
    sos_pass_run(kEcgBandPass, forward_state_, head.data(), static_cast<std::ptrdiff_t>(pad), 1);
    forward_started_ = true;
  }
  const std::size_t done = forward_.size();
  forward_.insert(forward_.end(), raw_.begin() + static_cast<std::ptrdiff_t>(done),
                  raw_.begin() + static_cast<std::ptrdiff_t>(raw_final_));
  sos_pass_run(kEcgBandPass, forward_state_, forward_.data() + done,
               static_cast<std::ptrdiff_t>(raw_final_ - done), 1);

  // The tail: final forward output, then the provisional samples and the
  // end padding through a copy of the forward state.
  const std::size_t start = filtered_final_;
  const std::size_t provisional = forward_.size();
  scratch_.assign(forward_.begin() + static_cast<std::ptrdiff_t>(start), forward_.end());
  scratch_.insert(scratch_.end(), raw_.begin() + static_cast<std::ptrdiff_t>(provisional),
                  raw_.end());
  const double last = raw_[n - 1];
  for (std::size_t k = 1; k <= pad; ++k) scratch_.push_back(2.0 * last - raw_[n - 1 - k]);
  SosState state = forward_state_;
  const std::size_t own = provisional - start;
  sos_pass_run(kEcgBandPass, state, scratch_.data() + own,
               static_cast<std::ptrdiff_t>(scratch_.size() - own), 1);
  SosState backward = sos_pass_start(kEcgBandPass, scratch_.back());
  sos_pass_run(kEcgBandPass, backward, scratch_.data() + scratch_.size() - 1,
               static_cast<std::ptrdiff_t>(scratch_.size()), -1);
  filtered_.resize(n);
  std::copy(scratch_.begin(), scratch_.begin() + static_cast<std::ptrdiff_t>(n - start),
            filtered_.begin() + static_cast<std::ptrdiff_t>(start));

  const std::size_t settled = std::min(n, raw_final_);
  if (settled <= kFilterSettleSamples) return;
  const std::size_t final_end = settled - kFilterSettleSamples;
  for (std::size_t i = filtered_final_; i < final_end; ++i) {
    final_sum_ += filtered_[i];
    final_sum_sq_ += filtered_[i] * filtered_[i];
  }
  filtered_final_ = std::max(filtered_final_, final_end);
}

// peak_candidates on the band-passed ECG from the last anchor on. An anchor
// is a candidate that no maximum within the minimum distance outranks
// (select_by_distance's order: taller, or as tall and later): it survives
// whatever lies before it, and the maxima it silences cannot reach past it,
// so what follows it is found alike in a piece that starts at it and in the
// whole signal.
void LivePeaks::find_candidates(int polarity) {
  PolarityCandidates& c = candidates_[polarity];
  const int64_t begin = c.anchor < 0 ? 0 : c.anchor - static_cast<int64_t>(kAnchorLeadSamples);
  const double sign = polarity == 0 ? 1.0 : -1.0;
  std::vector<double> piece(filtered_.begin() + begin, filtered_.end());
  for (double& v : piece) v *= sign;
  const PeakCandidates found = peak_candidates(piece, kSampleRate, kMinDistance);

  c.positions.resize(c.final_count);
  c.prominences.resize(c.final_count);
  c.heights.resize(c.final_count);
  for (std::size_t k = 0; k < found.positions.size(); ++k) {
    const int64_t at = begin + found.positions[k];
    if (at <= c.anchor) continue;
    c.positions.push_back(static_cast<int32_t>(at));
    c.prominences.push_back(found.prominences[k]);
    c.heights.push_back(piece[static_cast<std::size_t>(found.positions[k])]);
  }

  // The newest anchor whose neighbourhood is final and seen in full.
  const auto final_end = static_cast<int64_t>(filtered_final_);
  for (std::size_t k = c.positions.size(); k-- > c.final_count;) {
    const int64_t at = c.positions[k];
    if (at + kDistance >= final_end) continue;
    if (begin > 0 && at < begin + kDistance) break;
    const auto rel = static_cast<int32_t>(at - begin);
    const double height = piece[static_cast<std::size_t>(rel)];
    auto q = std::lower_bound(found.maxima.begin(), found.maxima.end(),
                              rel - static_cast<int32_t>(kDistance) + 1);
    bool outranked = false;
    for (; q != found.maxima.end() && *q < rel + kDistance; ++q) {
      const double other = piece[static_cast<std::size_t>(*q)];
      if (other > height || (other == height && *q > rel)) outranked = true;
    }
    if (outranked) continue;
    c.anchor = at;
    c.final_count = k + 1;
    break;
  }
}

// The screens need statistics of all candidates (the threshold moves with
// the signal's SD, the robust branch with the median prominence, the second
// screen with the kept heights). The final candidates' decisions are kept
// and redone only when a bound has moved over one of their values; the
// provisional ones are decided afresh each time.
std::vector<int32_t> LivePeaks::screen(int polarity, double mean, double sd,
                                       std::size_t* plausible) {
  const PolarityCandidates& c = candidates_[polarity];
  PolarityScreen& s = screens_[polarity];
  const std::size_t fresh = s.decided;
  for (std::size_t k = fresh; k < c.final_count; ++k) s.prominences.add(c.prominences[k]);
  // The recent final prominences and the provisional ones: a short list.
  std::vector<double> pending(s.prominences.recent);
  pending.insert(pending.end(), c.prominences.begin() + static_cast<std::ptrdiff_t>(c.final_count),
                 c.prominences.end());
  std::sort(pending.begin(), pending.end());
  auto moved_over = [&](double lo, double hi) { return s.prominences.any_within(lo, hi); };

  const double threshold = prominence_threshold(mean, sd);
  const auto above = static_cast<double>(
      (s.prominences.sorted.end() -
       std::upper_bound(s.prominences.sorted.begin(), s.prominences.sorted.end(), threshold)) +
      (pending.end() - std::upper_bound(pending.begin(), pending.end(), threshold)));
  const bool robust = !(above >= required_peaks(raw_.size(), kSampleRate));
  double m = 0.0, d = 0.0;
  if (robust) median_and_deviation(s.prominences.sorted, pending, &m, &d);

  bool rescan = !s.valid || robust != s.robust;
  if (!rescan && !robust) {
    rescan = moved_over(std::min(threshold, s.threshold), std::max(threshold, s.threshold));
  } else if (!rescan) {
    rescan = !(d > 0.0) || !(s.mad > 0.0);
    // The score's bounds 3 and 7 on either side, widened by a little more
    // than the rounding of the score.
    for (double score : {3.0, 7.0}) {
      for (double side : {-1.0, 1.0}) {
        const double was = s.median + side * score * s.mad / kMadToSd;
        const double now = m + side * score * d / kMadToSd;
        const double margin = 1e-9 * (std::abs(was) + std::abs(now) + s.mad + d);
        rescan = rescan || moved_over(std::min(was, now) - margin, std::max(was, now) + margin);
      }
    }
  }
  s.valid = true;
  s.robust = robust;
  s.threshold = threshold;
  s.median = m;
  s.mad = d;

  auto passes = [&](std::size_t k) {
    return robust ? robust_prominence_passes(c.prominences[k], m, d) : c.prominences[k] > threshold;
  };
  auto keep = [&](std::size_t k) {
    const double h = c.heights[k];
    s.kept_min = s.kept_count == 0 ? h : std::min(s.kept_min, h);
    s.kept_max = s.kept_count == 0 ? h : std::max(s.kept_max, h);
    s.kept_sum += h;
    s.kept_sum_sq += h * h;
    ++s.kept_count;
  };
  const std::size_t first_decision = rescan ? 0 : fresh;
  if (rescan) {
    s.kept.clear();
    s.kept_sum = s.kept_sum_sq = 0.0;
    s.kept_count = 0;
  }
  for (std::size_t k = first_decision; k < c.final_count; ++k) {
    s.kept.push_back(passes(k) ? 1 : 0);
    if (s.kept.back()) keep(k);
  }
  s.decided = c.final_count;

  std::vector<std::size_t> pending_kept;
  double sum = s.kept_sum, sum_sq = s.kept_sum_sq;
  for (std::size_t k = c.final_count; k < c.positions.size(); ++k) {
    if (!passes(k)) continue;
    pending_kept.push_back(k);
    sum += c.heights[k];
    sum_sq += c.heights[k] * c.heights[k];
  }
  const auto count = static_cast<double>(s.kept_count + pending_kept.size());
  const double height_mean = sum / count;
  const double height_sd = std::sqrt(std::max(sum_sq / count - height_mean * height_mean, 0.0));

  auto add_peak = [](std::vector<int32_t>& peaks, std::size_t& votes, int32_t at) {
    if (!peaks.empty() && counts_for_polarity(peaks.back(), at, kSampleRate)) ++votes;
    peaks.push_back(at);
  };
  const bool all_pass =
      s.kept_count == 0 || (amplitude_passes(s.kept_min, height_mean, height_sd) &&
                            amplitude_passes(s.kept_max, height_mean, height_sd));
  if (rescan || !s.peaks_all_kept || !all_pass) {
    s.peaks.clear();
    s.peaks_plausible = 0;
    for (std::size_t k = 0; k < c.final_count; ++k) {
      if (s.kept[k] && amplitude_passes(c.heights[k], height_mean, height_sd))
        add_peak(s.peaks, s.peaks_plausible, c.positions[k]);
    }
    s.peaks_all_kept = all_pass;
  } else {
    for (std::size_t k = fresh; k < c.final_count; ++k) {
      if (s.kept[k]) add_peak(s.peaks, s.peaks_plausible, c.positions[k]);
    }
  }

  std::vector<int32_t> peaks = s.peaks;
  *plausible = s.peaks_plausible;
  for (std::size_t k : pending_kept) {
    if (amplitude_passes(c.heights[k], height_mean, height_sd))
      add_peak(peaks, *plausible, c.positions[k]);
  }
  return peaks;
}

}  // namespace cvn
