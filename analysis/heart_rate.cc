#include "analysis/heart_rate.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "analysis/peaks.h"

namespace cvn {

namespace {

// Absorbs the rounding of sample_count / sample_rate so that a recording of
// exactly k steps gets k grid points.
constexpr double kGridEndTolerance = 1e-12;
// Hann window length: the end weights are 0, so 8 points (0.8 s) act.
constexpr int kHannTaps = 10;
// Points mirrored onto each end before smoothing, without the end point.
constexpr int kMirrorPoints = 10;

std::array<double, kHannTaps> normalised_hann() {
  std::array<double, kHannTaps> w{};
  double sum = 0.0;
  for (int k = 0; k < kHannTaps; ++k) {
    w[k] = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * k / (kHannTaps - 1));
    sum += w[k];
  }
  for (double& v : w) v /= sum;
  return w;
}

}  // namespace

// Centred convolution of the mirror-extended series with the Hann window;
// output i is sum_j extended[j] * w[i + 4 - j], ends of the extension dropped.
std::vector<double> hann_smooth(const std::vector<double>& grid) {
  const std::size_t n = grid.size();
  std::vector<double> ext(n + 2 * kMirrorPoints);
  for (int k = 0; k < kMirrorPoints; ++k) {
    ext[k] = grid[kMirrorPoints - k];
    ext[n + kMirrorPoints + k] = grid[n - 2 - k];
  }
  std::copy(grid.begin(), grid.end(), ext.begin() + kMirrorPoints);

  const std::array<double, kHannTaps> w = normalised_hann();
  constexpr int kCentre = kHannTaps / 2 - 1;  // 4: w[i + 4 - j] aligns the window
  std::vector<double> out(n);
  for (std::size_t p = 0; p < n; ++p) {
    const std::size_t i = p + kMirrorPoints;
    double sum = 0.0;
    for (std::size_t j = i - (kHannTaps - 1 - kCentre); j <= i + kCentre; ++j) {
      sum += ext[j] * w[i + kCentre - j];
    }
    out[p] = sum;
  }
  return out;
}

double rate_at(const std::vector<double>& beat_time, const std::vector<double>& rate, double t) {
  if (!(t > beat_time.front())) return rate.front();
  if (!(t < beat_time.back())) return rate.back();
  // beat_time[j] <= t < beat_time[j + 1]. As t lies strictly between the
  // first and last beat times, j and j + 1 stay in range even if bad
  // intervals left the times unsorted.
  const std::size_t j = static_cast<std::size_t>(
      std::upper_bound(beat_time.begin(), beat_time.end(), t) - beat_time.begin() - 1);
  const double slope = (rate[j + 1] - rate[j]) / (beat_time[j + 1] - beat_time[j]);
  return slope * (t - beat_time[j]) + rate[j];
}

std::vector<double> time_grid(std::size_t sample_count, double sample_rate, double step) {
  if (!(sample_rate > 0.0) || !std::isfinite(sample_rate) || !(step > 0.0) ||
      !std::isfinite(step)) {
    return {};
  }
  const double end = static_cast<double>(sample_count) / sample_rate - kGridEndTolerance;
  const double per_second = 1.0 / step;
  std::vector<double> grid;
  if (end > 0.0) grid.reserve(static_cast<std::size_t>(end * per_second) + 2);
  for (double t = 0.0; t < end;) {
    grid.push_back(std::round(t * per_second) / per_second);
    const double next = t + step;
    if (next == t) return {};  // a step below the resolution of t never ends
    t = next;
  }
  return grid;
}

std::vector<double> beat_rates(const std::vector<double>& rr) {
  if (rr.empty()) return {};
  std::vector<double> rate(rr.size() + 1);
  for (std::size_t k = 0; k < rr.size(); ++k) rate[k] = 60.0 / rr[k];
  const std::size_t last = rr.size() - 1;
  rate[rr.size()] = rr.size() >= 2 ? rate[last] + (rate[last] - rate[last - 1]) : rate[last];
  return rate;
}

std::vector<double> regular_hr(const std::vector<double>& rr, std::size_t sample_count,
                               double sample_rate) {
  if (rr.empty()) return {};
  const std::size_t beats = rr.size() + 1;

  const std::vector<double> rate = beat_rates(rr);
  std::vector<double> beat_time(beats);
  beat_time[0] = 0.0;
  for (std::size_t k = 0; k < rr.size(); ++k) beat_time[k + 1] = beat_time[k] + rr[k];

  std::vector<double> hr = time_grid(sample_count, sample_rate, kHrGridStep);
  for (double& t : hr) t = rate_at(beat_time, rate, t);
  if (hr.size() < kMinSmoothedGrid) return hr;
  return remove_artefacts(hann_smooth(hr), kHrArtefactWindow, kHrArtefactMinProminence);
}

}  // namespace cvn
