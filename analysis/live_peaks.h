// find_r_peaks for an ECG that grows while it is analysed: each new piece
// costs what arrived since the last one plus a bounded tail, not the whole
// recording. docs/analysis.md ("Live analysis") says where and why the
// result can differ from find_r_peaks on the whole ECG.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "analysis/filter.h"
#include "analysis/order_statistics.h"

namespace cvn {

/// The band-passed ECG is final this many samples before the newest sample
/// that is final itself (finite). The backward pass of the zero-phase filter
/// starts at the recording's end; its slowest pole has radius 0.918 (the last
/// section of kEcgBandPass), so a different start has shrunk to 0.918^650 ≈
/// 1e-24 of its size here: below the rounding of a double, with room for the
/// cascade's four sections feeding each other. Five seconds of ECG.
inline constexpr std::size_t kFilterSettleSamples = 650;

/// Samples of final band-passed ECG the detector re-reads before each anchor
/// (see LivePeaks): the anchor itself must be a local maximum of the piece
/// read, so that it silences the maxima within the minimum distance after it;
/// for that its left neighbour is needed. Candidates after an anchor lie at
/// least the minimum distance (26 samples) beyond it, and their prominence
/// search (16 samples to the left) stays right of the anchor.
inline constexpr std::size_t kAnchorLeadSamples = 1;

/// Everything LivePeaks keeps of one polarity.
struct PolarityCandidates {
  std::vector<int32_t> positions;  // peak_candidates' positions, ascending
  std::vector<double> prominences;
  std::vector<double> heights;
  /// The first `final_count` never change again; the rest are provisional.
  std::size_t final_count = 0;
  /// The last final candidate that no maximum within the minimum distance
  /// outranks (-1: none yet): where the next piece is read from.
  int64_t anchor = -1;
};

/// detect_peaks' screens over one polarity's candidates, kept up to date:
/// the decisions on final candidates are redone only when the screens'
/// bounds have moved across one of them.
struct PolarityScreen {
  SortedValues prominences;                  // of the final candidates
  std::vector<unsigned char> kept;           // per final candidate: passed the first screen
  std::size_t decided = 0;                   // final candidates with a decision
  double kept_sum = 0.0, kept_sum_sq = 0.0;  // their heights, in order
  std::size_t kept_count = 0;
  double kept_min = 0.0, kept_max = 0.0;
  std::vector<int32_t> peaks;       // final candidates that passed both screens
  std::size_t peaks_plausible = 0;  // intervals among `peaks` the vote counts
  bool peaks_all_kept = false;      // no kept final candidate failed the second
  bool valid = false;               // the bounds below are in force
  bool robust = false;
  double threshold = 0.0, median = 0.0, mad = 0.0;
};

/// R-peaks of an ECG at kSampleRate fed in pieces. find_r_peaks on the whole
/// ECG has local stages (band-pass, maxima, thinning, prominence) and global
/// screens (thresholds from the whole signal, the polarity vote). The local
/// stages run on the new samples and a bounded tail; the screens run on the
/// kept candidates, a few numbers a second of ECG, every time.
class LivePeaks {
 public:
  /// Appends samples (microvolts; non-finite ones as ecg_bandpass treats
  /// them) and brings peaks() up to date.
  void feed(std::span<const double> samples);
  /// Back to an empty ECG.
  void reset() { *this = LivePeaks(); }

  std::size_t sample_count() const { return raw_.size(); }
  /// find_r_peaks of everything fed so far.
  const std::vector<int32_t>& peaks() const { return peaks_; }
  /// How many of peaks() come from final candidates: they change only when
  /// a screen's bound moves over one of them.
  std::size_t settled_peaks() const { return settled_peaks_; }
  /// The band-passed ECG so far (ecg_bandpass of everything fed).
  const std::vector<double>& filtered() const { return filtered_; }
  /// Samples of filtered() that are final.
  std::size_t filtered_final() const { return filtered_final_; }
  /// The candidates of the upright (0) or negated (1) band-passed ECG.
  const PolarityCandidates& candidates(int polarity) const { return candidates_[polarity]; }

 private:
  void repair(std::size_t from);
  void filter();
  void find_candidates(int polarity);
  /// The screened peaks of one polarity and the intervals the vote counts.
  std::vector<int32_t> screen(int polarity, double mean, double sd, std::size_t* plausible);

  std::vector<double> raw_;       // as ecg_bandpass repairs it
  std::size_t raw_final_ = 0;     // one past the last finite sample
  std::vector<double> forward_;   // forward pass output, final part
  SosState forward_state_;        // after forward_
  bool forward_started_ = false;  // the start padding has gone through
  std::vector<double> filtered_;  // [0, filtered_final_) final
  std::size_t filtered_final_ = 0;
  double final_sum_ = 0.0;  // of filtered_[0, filtered_final_), in order
  double final_sum_sq_ = 0.0;
  PolarityCandidates candidates_[2];
  PolarityScreen screens_[2];
  std::vector<int32_t> peaks_;
  std::size_t settled_peaks_ = 0;
  std::vector<double> scratch_;
};

}  // namespace cvn
