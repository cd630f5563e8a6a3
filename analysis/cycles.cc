#include "analysis/cycles.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <tuple>
#include <utility>

#include "analysis/heart_rate.h"
#include "analysis/numeric.h"
#include "analysis/peaks.h"

namespace cvn {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

constexpr double kFrequencyScale = 10000.0;  // expected frequency to 4 decimals
// Fewer intervals give no shape to the heart-rate signal worth a spectrum.
constexpr std::size_t kMinIntervals = 3;
// Hann smoothing of the stepped heart rate: 2 s, long enough to hide the steps between beats
// and short enough to keep the 0.18 Hz top row.
constexpr double kSmoothingSeconds = 2.0;
// Artefact removal is only trusted on a steady rate: beyond this standard deviation (bpm) a
// spike cannot be told from real variation, so the rate is left as it is.
constexpr double kMaxArtefactSd = 12.0;
constexpr double kArtefactWindowSeconds = 5.0;
constexpr double kArtefactMinProminence = 4.0;
// The log-power floor keeps empty power finite.
constexpr double kPowerFloor = 1e-30;
// Standard deviations above the mean where the heat-map colour scale tops out.
constexpr double kScaleSpread = 2.0;
// Rows are independent; two workers keep both cores of a small machine busy.
constexpr int kWorkerThreads = 2;

double samples_per_cycle(double cycle_seconds, double sample_rate) {
  return cycle_seconds * sample_rate;
}

}  // namespace

std::vector<std::int32_t> cycle_bounds(std::size_t sample_count, double cycle_seconds,
                                       double sample_rate) {
  const double per_cycle = samples_per_cycle(cycle_seconds, sample_rate);
  if (!(per_cycle >= 1.0) || !std::isfinite(per_cycle)) return {};
  const double cycles = std::max(std::floor(static_cast<double>(sample_count) / per_cycle), 1.0);
  if (cycles * per_cycle > static_cast<double>(std::numeric_limits<std::int32_t>::max())) return {};
  const auto count = static_cast<std::size_t>(cycles);
  std::vector<std::int32_t> bounds(count + 1);
  for (std::size_t k = 0; k <= count; ++k) {
    bounds[k] = static_cast<std::int32_t>(static_cast<double>(k) * per_cycle);
  }
  return bounds;
}

double expected_frequency(double cycle_seconds) {
  return std::round(1.0 / cycle_seconds * kFrequencyScale) / kFrequencyScale;
}

std::vector<TimedCycle> timed_cycles(const std::vector<double>& cvn, double cycle_seconds) {
  std::vector<TimedCycle> out(cvn.size());
  for (std::size_t i = 0; i < cvn.size(); ++i) {
    out[i].start_s = static_cast<double>(i) * cycle_seconds;
    out[i].end_s = static_cast<double>(i + 1) * cycle_seconds;
    out[i].cvn = cvn[i];
  }
  return out;
}

int nearest_row(const std::vector<double>& frequencies, double freq) {
  int best = -1;
  double best_distance = std::numeric_limits<double>::infinity();
  for (std::size_t i = 0; i < frequencies.size(); ++i) {
    const double d = std::abs(frequencies[i] - freq);
    if (d < best_distance || best < 0) {
      best = static_cast<int>(i);
      best_distance = d;
    }
  }
  return best;
}

std::vector<double> heart_rate_signal(const std::vector<double>& rr, std::size_t sample_count,
                                      double sample_rate) {
  if (rr.empty() || sample_count == 0) return {};
  const std::size_t n = sample_count;

  // Rate of each stretch: before the first beat, between beats, after the last beat.
  const std::vector<double> rate = beat_rates(rr);
  // Stretch s starts at sample start[s]; the beat positions are running sums in samples.
  std::vector<std::size_t> start(rate.size(), 0);
  double position = 0.0;
  for (std::size_t i = 0; i < rr.size(); ++i) {
    position += rr[i] * sample_rate;
    start[i + 1] = static_cast<std::size_t>(std::min(position, static_cast<double>(n)));
  }

  // Centred convolution with the Hann window w, as the 10 Hz series is smoothed: output i =
  // sum_j x[j] w[i + c - j] with c = (N - 1) / 2, i.e. samples i - (N - 1 - c) ... i + c
  // (i - 130 ... i + 129 at 130 Hz). Tap k of the window laid over the signal from
  // i - centre on carries w[N - 1 - k], which is w[k]: the window is symmetric. Its running
  // sums make a window over a constant stretch a difference of two sums, so each output
  // costs the few beats under it.
  const auto taps = static_cast<std::size_t>(kSmoothingSeconds * sample_rate);
  if (taps == 0) return {};
  std::vector<double> cumulative(taps + 1, 0.0);
  for (std::size_t k = 0; k < taps; ++k) {
    const double w = taps == 1
                         ? 1.0
                         : 0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(k) /
                                                static_cast<double>(taps - 1));
    cumulative[k + 1] = cumulative[k] + w;
  }
  const std::size_t centre = taps - 1 - (taps - 1) / 2;  // output i weights samples i - centre + k

  std::vector<double> smooth(n);
  std::size_t s = 0;  // first stretch that may reach the current window
  for (std::size_t i = 0; i < n; ++i) {
    // Window samples [lo, hi) inside the recording, as window taps [lo + centre - i, ...).
    const std::size_t lo = i >= centre ? i - centre : 0;
    const std::size_t hi = std::min(n, i + taps - centre);
    const std::size_t first_tap = lo + centre - i;
    while (s + 1 < start.size() && start[s + 1] <= lo) ++s;
    double sum = 0.0;
    for (std::size_t t = s; t < start.size() && start[t] < hi; ++t) {
      const std::size_t a = std::max(start[t], lo);
      const std::size_t b = t + 1 < start.size() ? std::min(start[t + 1], hi) : hi;
      if (a < b) sum += rate[t] * (cumulative[b + centre - i] - cumulative[a + centre - i]);
    }
    smooth[i] = sum / (cumulative[hi + centre - i] - cumulative[first_tap]);
  }

  if (population_std(smooth) <= kMaxArtefactSd) {
    smooth = remove_artefacts(smooth, static_cast<int>(kArtefactWindowSeconds * sample_rate),
                              kArtefactMinProminence);
  }
  return smooth;
}

ExtendedSignal extend_by_cycles(const std::vector<double>& signal,
                                const std::vector<std::int32_t>& bounds, double cycle_seconds,
                                double sample_rate) {
  const std::size_t n = signal.size();
  if (bounds.size() < 2 || bounds.front() < 0 || static_cast<std::size_t>(bounds[1]) > n ||
      bounds[1] <= bounds[0] || static_cast<std::size_t>(bounds.back()) > n) {
    return {};
  }
  const auto per_cycle = static_cast<std::size_t>(samples_per_cycle(cycle_seconds, sample_rate));
  const std::size_t front_lo = static_cast<std::size_t>(bounds[0]);
  const std::size_t front_len = static_cast<std::size_t>(bounds[1]) - front_lo;
  std::size_t back_lo = static_cast<std::size_t>(bounds.back());
  if (back_lo >= n) {
    if (per_cycle == 0 || per_cycle > n) return {};
    back_lo = n - per_cycle;
  }
  const std::size_t back_len = n - back_lo;

  ExtendedSignal ext;
  ext.offset = kExtensionRounds * front_len;
  ext.samples.resize(ext.offset + n + kExtensionRounds * back_len);
  double* out = ext.samples.data();
  for (int r = 0; r < kExtensionRounds; ++r) {
    // Copy r of the front segment ends where copy r - 1 (or the signal) begins.
    double* front = out + ext.offset - (static_cast<std::size_t>(r) + 1) * front_len;
    double* back = out + ext.offset + n + static_cast<std::size_t>(r) * back_len;
    const double* f = signal.data() + front_lo;
    const double* b = signal.data() + back_lo;
    if (r % 2 == 0) {
      std::reverse_copy(f, f + front_len, front);
      std::reverse_copy(b, b + back_len, back);
    } else {
      std::copy(f, f + front_len, front);
      std::copy(b, b + back_len, back);
    }
  }
  std::copy(signal.begin(), signal.end(), out + ext.offset);
  return ext;
}

namespace {

// Mean and population standard deviation of the finite values.
std::pair<double, double> finite_mean_sd(const float* values, std::size_t count) {
  double sum = 0.0;
  std::size_t used = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (std::isfinite(values[i])) {
      sum += values[i];
      ++used;
    }
  }
  if (used == 0) return {kNaN, kNaN};
  const double mean = sum / static_cast<double>(used);
  double squares = 0.0;
  for (std::size_t i = 0; i < count; ++i) {
    if (std::isfinite(values[i])) squares += (values[i] - mean) * (values[i] - mean);
  }
  return {mean, std::sqrt(squares / static_cast<double>(used))};
}

// Colour scale from 0 up to the breathing band's typical high (mean + 2 SD of the expected
// row), so the band reads as orange to red with its cycle-to-cycle changes visible, and weak
// activity as blue (or grey below the reference level). When the band is weaker than the
// map's own spread (no coupling to the pacer), the map's mean + 2 SD sets the top instead, so
// that stronger rhythms do not flood the picture with saturated red.
HeatmapScale heatmap_scale(double band_mean, double band_sd, double map_mean, double map_sd) {
  const double band_top = band_mean + kScaleSpread * band_sd;
  const double map_top = map_mean + kScaleSpread * map_sd;
  const double top = std::isfinite(band_top) ? std::max(band_top, map_top) : map_top;
  return {top / 2, top / 2};
}

}  // namespace

CycleAnalysis analyze_cycles(std::size_t sample_count, const std::vector<double>& rr,
                             double cycle_seconds, double sample_rate) {
  if (!(sample_rate > 0) || !std::isfinite(sample_rate)) return {};
  if (!(cycle_seconds > 0) || !std::isfinite(cycle_seconds)) return {};
  if (rr.size() < kMinIntervals) return {};
  for (double r : rr) {
    if (!(r > 0) || !std::isfinite(r)) return {};
  }
  const std::size_t n = sample_count;
  const double per_cycle = samples_per_cycle(cycle_seconds, sample_rate);
  if (!(per_cycle >= 1.0) || static_cast<double>(n) < std::trunc(per_cycle)) return {};
  if (n > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) return {};

  CycleAnalysis a;
  a.bounds = cycle_bounds(n, cycle_seconds, sample_rate);
  if (a.bounds.empty()) return {};
  a.sample_count = n;
  a.cycle_seconds = cycle_seconds;
  const std::vector<double> hr = heart_rate_signal(rr, n, sample_rate);
  const ExtendedSignal ext = extend_by_cycles(hr, a.bounds, cycle_seconds, sample_rate);
  if (ext.samples.empty()) return {};

  a.frequencies = tfr_frequencies();
  a.expected_freq = expected_frequency(cycle_seconds);
  a.expected_row = nearest_row(a.frequencies, a.expected_freq);

  const std::size_t cols = std::min<std::size_t>(n, kHeatmapMaxWidth);
  a.column_samples.resize(cols);
  for (std::size_t j = 0; j < cols; ++j)
    a.column_samples[j] = static_cast<std::int32_t>(j * n / cols);
  a.sample_rate = sample_rate;

  TfrRequest request;
  request.sample_rate = sample_rate;
  request.frequencies = a.frequencies;
  request.widths = {kNarrowWaveletCycles, kWideWaveletCycles};
  request.columns = a.column_samples;
  request.dense_width = 1;
  request.dense_row = a.expected_row;
  request.threads = kWorkerThreads;
  WaveletPower power = wavelet_power(ext.samples, ext.offset, n, request);
  if (power.matrices.size() != 2) return {};
  a.tfr3 = std::move(power.matrices[0]);
  a.tfr10 = std::move(power.matrices[1]);

  const std::vector<float>& band = power.dense;
  const std::size_t cycles = a.bounds.size() - 1;
  a.cvn.assign(cycles, kNaN);
  for (std::size_t k = 0; k < cycles; ++k) {
    double sum = 0.0;
    std::size_t used = 0;
    for (auto i = static_cast<std::size_t>(a.bounds[k]);
         i < static_cast<std::size_t>(a.bounds[k + 1]); ++i) {
      const double p = band[i];
      if (std::isnan(p)) continue;
      sum += std::log(std::max(kPowerFloor, p));
      ++used;
    }
    if (used > 0) a.cvn[k] = sum / static_cast<double>(used);
  }

  CycleStats& st = a.stats;
  std::vector<double> values;
  for (double v : a.cvn) {
    if (!std::isnan(v)) values.push_back(v);
  }
  st.cvn_count = values.size();
  st.cvn_mean = mean(values);
  st.cvn_sd = population_std(values);
  st.hr_mean = mean(hr);
  st.hr_sd = population_std(hr);
  const auto row_of = [&](const TfrMatrix& m) {
    return m.power.data() + static_cast<std::size_t>(a.expected_row) * m.cols;
  };
  std::tie(st.band_mean3, st.band_sd3) = finite_mean_sd(row_of(a.tfr3), a.tfr3.cols);
  std::tie(st.band_mean10, st.band_sd10) = finite_mean_sd(row_of(a.tfr10), a.tfr10.cols);
  std::tie(st.map_mean3, st.map_sd3) = finite_mean_sd(a.tfr3.power.data(), a.tfr3.power.size());
  std::tie(st.map_mean10, st.map_sd10) = finite_mean_sd(a.tfr10.power.data(), a.tfr10.power.size());
  st.scale3 = heatmap_scale(st.band_mean3, st.band_sd3, st.map_mean3, st.map_sd3);
  st.scale10 = heatmap_scale(st.band_mean10, st.band_sd10, st.map_mean10, st.map_sd10);
  return a;
}

RgbImage render_tfr(const CycleAnalysis& analysis, TfrWidth which, char sex, int age, bool blend,
                    std::span<const TimedCycle> breaths) {
  if (analysis.empty()) return {};
  const bool wide = which == TfrWidth::kWide;
  const TfrMatrix& m = wide ? analysis.tfr10 : analysis.tfr3;
  const HeatmapScale& scale = wide ? analysis.stats.scale10 : analysis.stats.scale3;
  HeatmapParams p;
  p.power = m.power;
  p.rows = m.rows;
  p.cols = m.cols;
  p.centre = scale.centre;
  p.half_range = scale.half_range;
  p.expected_row = analysis.expected_row;
  p.sex = sex;
  p.age = age;
  // The matrices keep one column per pixel; the cycle lines sit where they would on
  // the full one-column-per-sample axis.
  p.cycle_seconds = analysis.cycle_seconds;
  p.sampling_rate = analysis.sample_rate;
  p.time_columns = analysis.sample_count;
  p.blend = blend;
  std::vector<HeatmapCycle> cycles;
  for (const TimedCycle& b : breaths)
    cycles.push_back({b.start_s, b.end_s,
                      nearest_row(analysis.frequencies, expected_frequency(b.end_s - b.start_s))});
  p.cycles = cycles;
  return render_heatmap(p);
}

}  // namespace cvn
