// From a single-lead ECG to its R-peaks and the intervals between them
// (analyze_recording cleans them).
#pragma once
#include <cstdint>
#include <vector>

#include "base/constants.h"

namespace cvn {

/// Highest heart rate the detector accepts, beats per minute; it sets the
/// minimum distance between two R-peaks (0.2 s).
inline constexpr int kMaxHeartRate = 300;

/// The least distance between two R-peaks find_r_peaks allows, in samples:
/// one beat at `max_heart_rate`, rounded down.
double min_peak_distance(double sample_rate, int max_heart_rate);

/// R-peak sample indices, ascending: the ECG is band-passed (see
/// ecg_bandpass for the handling of non-finite samples), peaks are detected
/// on it and on its negation, and the polarity with more beat-to-beat
/// intervals of 0.33 s to 1.5 s wins (a tie keeps the upright signal).
/// Empty when the rate or maximum heart rate is not positive.
std::vector<int32_t> find_r_peaks(const std::vector<double>& ecg, double sample_rate,
                                  int max_heart_rate);

/// Whether find_r_peaks' polarity vote counts the interval between peaks at
/// samples `from` and `to` (a plausible resting rhythm).
bool counts_for_polarity(int32_t from, int32_t to, double sample_rate);

/// Intervals between consecutive peaks in seconds, as found (not cleaned).
/// Empty for fewer than two peaks.
std::vector<double> peak_intervals(const std::vector<int32_t>& peaks, double sample_rate);

}  // namespace cvn
