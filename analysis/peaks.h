// Peak finding on sampled series: local maxima, prominences, the R-peak
// candidate selection of one polarity, and prominence-based artefact removal.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace cvn {

/// Indices of strict local maxima, ascending. A flat top counts when both of
/// its neighbours are lower; it is reported at its middle (the lower middle
/// index for an even width). The first and last samples are never maxima.
std::vector<int32_t> local_maxima(const std::vector<double>& signal);

/// Topographic prominence of one peak and the bases it was measured from.
struct PeakProminence {
  double prominence;
  int32_t left_base;
  int32_t right_base;
};

/// Prominence of each peak, searching at most window / 2 samples to each side
/// (window < 2: the whole signal). Each base is the lowest sample before the
/// signal first rises above the peak, the one nearest the peak on ties.
/// REQUIRES: every index lies in [0, signal.size()).
std::vector<PeakProminence> peak_prominences(const std::vector<double>& signal,
                                             const std::vector<int32_t>& peaks, int window);

/// The local stages of detect_peaks: what each R-peak candidate depends on
/// lies within a few samples of it, unlike the screens that follow.
struct PeakCandidates {
  /// local_maxima of the signal, ascending.
  std::vector<int32_t> maxima;
  /// The maxima thinned to at least `min_distance` samples apart (tallest
  /// first, the later one first among equals), ascending ...
  std::vector<int32_t> positions;
  /// ... and the prominence of each, searched a quarter second each way.
  std::vector<double> prominences;
};

/// detect_peaks' first screen: the absolute prominence threshold of a signal
/// with this mean and population SD ...
double prominence_threshold(double signal_mean, double signal_sd);
/// ... which decides unless fewer than this many candidates pass it, one per
/// 3 s of a signal of `signal_size` samples ...
double required_peaks(std::size_t signal_size, double sample_rate);
/// ... and otherwise the robust outlier score against the median and the
/// median absolute deviation of all candidates' prominences.
bool robust_prominence_passes(double prominence, double median, double mad);
/// The second screen: a kept candidate's height against the mean and the
/// population SD of all kept heights.
bool amplitude_passes(double height, double height_mean, double height_sd);

/// detect_peaks up to its screens; see there.
PeakCandidates peak_candidates(const std::vector<double>& signal, double sample_rate,
                               double min_distance);

/// R-peak candidates of one polarity in a band-passed ECG, ascending: local
/// maxima thinned to at least `min_distance` samples apart (tallest first),
/// kept by prominence (an absolute threshold of mean + 4 SD of the signal,
/// or a robust outlier score when that finds fewer than one beat per 3 s),
/// then stripped of amplitude outliers.
std::vector<int32_t> detect_peaks(const std::vector<double>& signal, double sample_rate,
                                  double min_distance);

/// Copy of `series` with spikes removed: the series is turned into
/// |x - mean| / SD, every local maximum of that score whose prominence (within
/// `prominence_window` points) is at least `min_prominence` blanks the points
/// from its left base up to its right base, and the blanks are filled by
/// linear interpolation. Returned unchanged when the SD is 0 or not finite.
std::vector<double> remove_artefacts(const std::vector<double>& series, int prominence_window,
                                     double min_prominence);

}  // namespace cvn
