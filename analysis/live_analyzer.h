// analyze_recording's beats, cleaned intervals, heart rate and live score
// for a recording that grows while it is analysed, as a running session's
// once-a-second pass needs them: each pass extends what the last one found
// instead of starting over. docs/analysis.md ("Live analysis") says how the
// results compare with analyze_recording's and what each pass costs.
#pragma once
#include <cstddef>
#include <cstdint>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "analysis/live_peaks.h"

namespace cvn {

class LiveAnalyzer {
 public:
  /// Appends ECG samples (kSampleRate, microvolts) and brings every result up
  /// to date; the live score is for `cycle_seconds` (a new cycle length, as
  /// in a resonance assessment's next step, rescores the whole series, as
  /// live_cvn_scores would).
  void feed(std::span<const double> samples, double cycle_seconds);
  /// Back to an empty recording, as for a new session.
  void reset() { *this = LiveAnalyzer(); }

  std::size_t sample_count() const { return detector_.sample_count(); }
  const LivePeaks& detector() const { return detector_; }
  /// find_r_peaks of everything fed.
  const std::vector<int32_t>& peaks() const { return detector_.peaks(); }
  /// clean_rr_marked of their intervals.
  const std::vector<double>& rr() const { return clean_; }
  const std::vector<unsigned char>& corrected() const { return marks_; }
  /// time_grid(sample_count(), kSampleRate, kHrGridStep) and regular_hr on it.
  const std::vector<double>& grid() const { return grid_; }
  const std::vector<double>& hr() const { return hr_; }
  /// live_cvn_scores(rr(), sample_count(), cycle_seconds).
  const std::vector<double>& scores() const { return scores_; }
  /// The first index of hr() and of scores() the last feed may have changed.
  std::size_t hr_changed_from() const { return hr_changed_; }
  std::size_t scores_changed_from() const { return scores_changed_; }

 private:
  std::size_t update_intervals();
  std::size_t clean(std::size_t changed);
  void update_hr(std::size_t changed);
  std::size_t remove_spikes(std::size_t from);
  void update_scores(std::size_t changed, double cycle_seconds);

  LivePeaks detector_;
  std::vector<int32_t> peaks_;     // as of the last feed
  std::vector<double> intervals_;  // peak_intervals(peaks_)

  // clean_rr: its statistics over the intervals before `settled_`, which
  // stay, and the rest taken afresh.
  SortedValues settled_values_;
  std::size_t settled_ = 0;
  double settled_sum_ = 0.0, settled_sum_sq_ = 0.0;
  std::size_t settled_plausible_ = 0;
  std::vector<unsigned char> outlier_;
  std::size_t outliers_ = 0;
  bool rules_valid_ = false;
  double median_ = 0.0, mad_ = 0.0, limit_ = 0.0;
  bool replacing_ = false;  // clean_rr replaces the outliers (else returns its input)
  std::vector<double> clean_;
  std::vector<unsigned char> marks_;

  // regular_hr
  std::vector<double> beat_time_, rate_;
  std::vector<double> grid_;
  double grid_clock_ = 0.0;     // time_grid's running time
  std::vector<double> interp_;  // the rate on the grid, before smoothing
  std::vector<double> smooth_;
  std::vector<double> prefix_sum_{0.0}, prefix_sq_{0.0};
  std::multiset<std::pair<double, std::size_t>> by_value_;   // of smooth_
  std::vector<std::pair<std::size_t, std::size_t>> blanks_;  // [from, to) of smooth_
  std::vector<double> hr_;
  std::size_t hr_changed_ = 0;

  // live_cvn_scores
  double cycle_ = 0.0;
  std::vector<double> score_ms_sum_, score_time_, score_ms_;
  std::vector<double> value_, sine_, cosine_;
  std::size_t first_valid_ = 0, end_valid_ = 0;
  std::vector<double> scores_;
  bool scored_ = false;  // the last pass had scores to compute
  std::size_t scores_changed_ = 0;
};

}  // namespace cvn
