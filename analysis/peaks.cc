#include "analysis/peaks.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

#include "analysis/numeric.h"

namespace cvn {

namespace {

// Prominence search window: a QRS complex with its Q and S troughs fits in
// 0.25 s; a wider window would measure against the neighbouring T wave.
constexpr double kProminenceWindowSeconds = 0.25;
// Below two samples a window has no sides; the whole signal is searched.
constexpr double kMinProminenceWindow = 2.0;
// An R wave stands out of the band-passed ECG by more than 4 SD of the
// whole signal.
constexpr double kAbsoluteThresholdSd = 4.0;
// The absolute threshold is trusted when it finds at least one beat per 3 s
// (20 bpm); otherwise the recording is too noisy or too weak for it.
constexpr double kMinSecondsPerBeat = 3.0;
// Robust outlier score (kMadToSd): R waves are outliers of the prominence
// distribution (above 3); beyond 7 a candidate is an artefact, not a beat.
constexpr double kMinRobustScore = 3.0;
constexpr double kMaxRobustScore = 7.0;
// Amplitude screen on the kept peaks, in SD of their heights. The lower
// bound is inclusive and the upper exclusive; the asymmetry is deliberate.
constexpr double kMinAmplitudeZ = -7.0;
constexpr double kMaxAmplitudeZ = 7.0;

// Keeps, tallest first, the maxima that no taller kept maximum is closer to
// than `distance` samples. Equal heights: the later index goes first.
std::vector<int32_t> select_by_distance(const std::vector<double>& signal,
                                        const std::vector<int32_t>& maxima, int64_t distance) {
  const std::size_t count = maxima.size();
  // Heights travel with their positions so the sort reads contiguous memory.
  struct Candidate {
    double height;
    int32_t position;  // in `maxima`
  };
  std::vector<Candidate> order(count);
  for (std::size_t k = 0; k < count; ++k) {
    order[k] = {signal[static_cast<std::size_t>(maxima[k])], static_cast<int32_t>(k)};
  }
  std::sort(order.begin(), order.end(), [](const Candidate& a, const Candidate& b) {
    return a.height > b.height || (a.height == b.height && a.position > b.position);
  });

  std::vector<unsigned char> keep(count, 1);
  for (const Candidate& candidate : order) {
    const int32_t j = candidate.position;
    if (!keep[j]) continue;
    const int64_t at = maxima[j];
    for (int32_t k = j - 1; k >= 0 && at - maxima[k] < distance; --k) keep[k] = 0;
    for (auto k = static_cast<std::size_t>(j) + 1; k < count && maxima[k] - at < distance; ++k) {
      keep[k] = 0;
    }
  }

  std::vector<int32_t> survivors;
  survivors.reserve(count);
  for (std::size_t k = 0; k < count; ++k) {
    if (keep[k]) survivors.push_back(maxima[k]);
  }
  return survivors;
}

}  // namespace

std::vector<int32_t> local_maxima(const std::vector<double>& signal) {
  std::vector<int32_t> maxima;
  const auto n = static_cast<int64_t>(signal.size());
  const int64_t last = n - 1;
  int64_t i = 1;
  while (i < last) {
    if (signal[i - 1] < signal[i]) {
      int64_t ahead = i + 1;
      while (ahead < last && signal[ahead] == signal[i]) ++ahead;
      if (signal[ahead] < signal[i]) {
        maxima.push_back(static_cast<int32_t>((i + ahead - 1) / 2));
        i = ahead;
      }
    }
    ++i;
  }
  return maxima;
}

std::vector<PeakProminence> peak_prominences(const std::vector<double>& signal,
                                             const std::vector<int32_t>& peaks, int window) {
  std::vector<PeakProminence> result;
  result.reserve(peaks.size());
  const auto n = static_cast<int64_t>(signal.size());
  const int64_t half = window >= 2 ? window / 2 : n;
  for (int32_t peak : peaks) {
    const double height = signal[peak];
    const int64_t lo = std::max<int64_t>(peak - half, 0);
    const int64_t hi = std::min<int64_t>(peak + half, n - 1);

    double left_min = height;
    int32_t left_base = peak;
    for (int64_t i = peak; i >= lo && signal[i] <= height; --i) {
      if (signal[i] < left_min) {
        left_min = signal[i];
        left_base = static_cast<int32_t>(i);
      }
    }
    double right_min = height;
    int32_t right_base = peak;
    for (int64_t i = peak; i <= hi && signal[i] <= height; ++i) {
      if (signal[i] < right_min) {
        right_min = signal[i];
        right_base = static_cast<int32_t>(i);
      }
    }
    result.push_back({height - std::max(left_min, right_min), left_base, right_base});
  }
  return result;
}

PeakCandidates peak_candidates(const std::vector<double>& signal, double sample_rate,
                               double min_distance) {
  PeakCandidates c;
  c.maxima = local_maxima(signal);
  if (c.maxima.empty()) return c;

  const double n = static_cast<double>(signal.size());
  // Distances count whole samples; below one (or NaN) means one, and beyond
  // the signal's length they all act alike.
  double distance = std::ceil(min_distance);
  if (!(distance >= 1.0)) distance = 1.0;
  distance = std::min(distance, n);
  c.positions = select_by_distance(signal, c.maxima, static_cast<int64_t>(distance));

  // A window too large for an int reaches past any signal: search it all.
  const double window_samples = kProminenceWindowSeconds * sample_rate;
  const int window = window_samples >= kMinProminenceWindow &&
                             window_samples <= static_cast<double>(std::numeric_limits<int>::max())
                         ? static_cast<int>(std::ceil(window_samples))
                         : 0;
  const std::vector<PeakProminence> prominences = peak_prominences(signal, c.positions, window);
  c.prominences.resize(prominences.size());
  for (std::size_t k = 0; k < prominences.size(); ++k) c.prominences[k] = prominences[k].prominence;
  return c;
}

double prominence_threshold(double signal_mean, double signal_sd) {
  return signal_mean + kAbsoluteThresholdSd * signal_sd;
}

double required_peaks(std::size_t signal_size, double sample_rate) {
  return std::ceil(static_cast<double>(signal_size) / (kMinSecondsPerBeat * sample_rate));
}

bool robust_prominence_passes(double prominence, double median, double mad) {
  const double score = std::abs(kMadToSd * (prominence - median) / mad);
  return score > kMinRobustScore && score < kMaxRobustScore;
}

bool amplitude_passes(double height, double height_mean, double height_sd) {
  const double z = (height - height_mean) / height_sd;
  return z >= kMinAmplitudeZ && z < kMaxAmplitudeZ;
}

namespace {

// The screens of detect_peaks over candidates from a signal of `signal_size`
// samples with the given mean and population SD; `heights` holds the signal's
// value at each candidate.
std::vector<int32_t> screen_peaks(const PeakCandidates& c, const std::vector<double>& heights,
                                  double signal_mean, double signal_sd, std::size_t signal_size,
                                  double sample_rate) {
  const std::vector<int32_t>& positions = c.positions;
  const std::vector<double>& prominences = c.prominences;
  if (positions.empty()) return {};
  const double threshold = prominence_threshold(signal_mean, signal_sd);
  std::vector<std::size_t> kept;
  kept.reserve(positions.size());
  for (std::size_t k = 0; k < positions.size(); ++k) {
    if (prominences[k] > threshold) kept.push_back(k);
  }

  if (!(static_cast<double>(kept.size()) >= required_peaks(signal_size, sample_rate))) {
    kept.clear();
    std::vector<double> values(prominences.begin(), prominences.end());
    const double m = median(values);
    for (double& v : values) v = std::abs(v - m);
    const double d = median(values);
    for (std::size_t k = 0; k < positions.size(); ++k) {
      if (robust_prominence_passes(prominences[k], m, d)) kept.push_back(k);
    }
  }

  std::vector<double> kept_heights(kept.size());
  for (std::size_t k = 0; k < kept.size(); ++k) kept_heights[k] = heights[kept[k]];
  const double height_mean = mean(kept_heights);
  const double height_sd = population_std(kept_heights);
  std::vector<int32_t> peaks;
  peaks.reserve(kept.size());
  for (std::size_t k = 0; k < kept.size(); ++k) {
    if (amplitude_passes(kept_heights[k], height_mean, height_sd))
      peaks.push_back(positions[kept[k]]);
  }
  return peaks;
}

}  // namespace

std::vector<int32_t> detect_peaks(const std::vector<double>& signal, double sample_rate,
                                  double min_distance) {
  const PeakCandidates c = peak_candidates(signal, sample_rate, min_distance);
  std::vector<double> heights(c.positions.size());
  for (std::size_t k = 0; k < c.positions.size(); ++k) heights[k] = signal[c.positions[k]];
  return screen_peaks(c, heights, mean(signal), population_std(signal), signal.size(), sample_rate);
}

std::vector<double> remove_artefacts(const std::vector<double>& series, int prominence_window,
                                     double min_prominence) {
  const double m = mean(series);
  const double sd = population_std(series);
  if (!(sd > 0.0) || !std::isfinite(sd)) return series;

  std::vector<double> score(series.size());
  for (std::size_t i = 0; i < series.size(); ++i) score[i] = std::abs(series[i] - m) / sd;
  const std::vector<int32_t> peaks = local_maxima(score);
  const std::vector<PeakProminence> prominences = peak_prominences(score, peaks, prominence_window);

  std::vector<double> cleaned(series);
  bool marked = false;
  for (const PeakProminence& p : prominences) {
    if (!(p.prominence >= min_prominence)) continue;
    std::fill(cleaned.begin() + p.left_base, cleaned.begin() + p.right_base,
              std::numeric_limits<double>::quiet_NaN());
    marked = true;
  }
  if (marked) fill_gaps(cleaned);
  return cleaned;
}

}  // namespace cvn
