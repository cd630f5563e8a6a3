#include "analysis/ecg.h"

#include <cmath>
#include <cstddef>

#include "analysis/filter.h"
#include "analysis/peaks.h"

namespace cvn {

namespace {

// Intervals of a plausible resting rhythm (40 to 180 bpm) used to tell the
// R-wave polarity from T waves or noise.
constexpr double kVoteMinInterval = 0.33;
constexpr double kVoteMaxInterval = 1.5;

std::size_t plausible_intervals(const std::vector<int32_t>& peaks, double sample_rate) {
  std::size_t count = 0;
  for (std::size_t k = 1; k < peaks.size(); ++k) {
    if (counts_for_polarity(peaks[k - 1], peaks[k], sample_rate)) ++count;
  }
  return count;
}

}  // namespace

std::vector<int32_t> find_r_peaks(const std::vector<double>& ecg, double sample_rate,
                                  int max_heart_rate) {
  if (!(sample_rate > 0.0) || !std::isfinite(sample_rate) || max_heart_rate <= 0) return {};
  std::vector<double> filtered = ecg_bandpass(ecg);
  const double min_distance = min_peak_distance(sample_rate, max_heart_rate);

  std::vector<int32_t> upright = detect_peaks(filtered, sample_rate, min_distance);
  for (double& v : filtered) v = -v;
  std::vector<int32_t> inverted = detect_peaks(filtered, sample_rate, min_distance);

  if (plausible_intervals(inverted, sample_rate) > plausible_intervals(upright, sample_rate)) {
    return inverted;
  }
  return upright;
}

double min_peak_distance(double sample_rate, int max_heart_rate) {
  return std::floor(60.0 * sample_rate / max_heart_rate);
}

bool counts_for_polarity(int32_t from, int32_t to, double sample_rate) {
  const double interval = static_cast<double>(to - from) / sample_rate;
  return interval >= kVoteMinInterval && interval <= kVoteMaxInterval;
}

std::vector<double> peak_intervals(const std::vector<int32_t>& peaks, double sample_rate) {
  if (peaks.size() < 2) return {};
  std::vector<double> rr(peaks.size() - 1);
  for (std::size_t k = 1; k < peaks.size(); ++k) {
    rr[k - 1] = static_cast<double>(peaks[k] - peaks[k - 1]) / sample_rate;
  }
  return rr;
}

}  // namespace cvn
