#include "analysis/hrv.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstddef>
#include <limits>
#include <numbers>

#include "analysis/fft.h"
#include "base/constants.h"

namespace cvn {

namespace detail {

// Fewest intervals for the indices: a sample SD of successive differences needs two of them.
constexpr std::size_t kMinIntervals = 3;

// Successive differences above this count towards NN50 (Task Force 1996).
constexpr double kNn50Ms = 50.0;

// The RR series is resampled at 4 Hz, well above the HF band's 0.4 Hz (Task Force 1996).
constexpr double kResampleRate = 4.0;

// Smoothness-priors detrending at 4 Hz with lambda 500 removes trends below about 0.035 Hz,
// under the LF band (Tarvainen et al. 2002).
constexpr double kLambda = 500.0;

// Welch segments of 256 s at 4 Hz (bins 0.0039 Hz apart, 28 across the LF band), overlapping
// by half as Welch (1967) proposes: a 10-minute recording averages three.
constexpr std::size_t kSegment = 1024;
constexpr std::size_t kHop = 512;

// The shortest recording the Task Force (1996) accepts for the LF component: about five
// periods of its lowest frequency, 0.04 Hz.
constexpr double kMinSpectrumSeconds = 120.0;
// A day, the longest Holter recording; it also bounds the resampled series' memory (346 k
// samples) whatever the intervals claim.
constexpr double kMaxSpectrumSeconds = 24 * 3600.0;

constexpr double kInf = std::numeric_limits<double>::infinity();

struct Band {
  double lo, hi;  // Hz, lo <= f < hi
};
constexpr Band kVlf{0.0, 0.04};
constexpr Band kLf{0.04, 0.15};
constexpr Band kHf{0.15, 0.40};

double mean_of(const std::vector<double>& x) {
  double sum = 0.0;
  for (double v : x) sum += v;
  return sum / static_cast<double>(x.size());
}

// Sample variance (divisor count - 1). REQUIRES: x.size() >= 2.
double sample_variance(const std::vector<double>& x) {
  const double m = mean_of(x);
  double sum = 0.0;
  for (double v : x) sum += (v - m) * (v - m);
  return sum / static_cast<double>(x.size() - 1);
}

// Natural cubic spline through (t[i], y[i]) at t0, t0 + step, ... while <= t.back().
// REQUIRES: t strictly increasing, t.size() == y.size() >= 3.
std::vector<double> spline_resample(const std::vector<double>& t, const std::vector<double>& y,
                                    double step) {
  const std::size_t n = t.size();
  // Second derivatives m[i], natural ends m[0] = m[n-1] = 0; the tridiagonal system for the
  // inner ones by elimination (diagonally dominant, so no pivoting).
  std::vector<double> h(n - 1), m(n, 0.0), diag(n, 0.0), rhs(n, 0.0);
  for (std::size_t i = 0; i + 1 < n; ++i) h[i] = t[i + 1] - t[i];
  for (std::size_t i = 1; i + 1 < n; ++i) {
    diag[i] = 2 * (h[i - 1] + h[i]);
    rhs[i] = 6 * ((y[i + 1] - y[i]) / h[i] - (y[i] - y[i - 1]) / h[i - 1]);
  }
  for (std::size_t i = 2; i + 1 < n; ++i) {
    const double factor = h[i - 1] / diag[i - 1];
    diag[i] -= factor * h[i - 1];
    rhs[i] -= factor * rhs[i - 1];
  }
  for (std::size_t i = n - 2; i >= 1; --i) {
    const double above = (i + 2 < n) ? h[i] * m[i + 1] : 0.0;
    m[i] = (rhs[i] - above) / diag[i];
  }

  std::vector<double> out;
  std::size_t seg = 0;
  for (std::size_t j = 0;; ++j) {
    const double x = t[0] + static_cast<double>(j) * step;
    if (!(x <= t[n - 1])) break;
    while (seg + 2 < n && x >= t[seg + 1]) ++seg;
    const double d = x - t[seg], hs = h[seg];
    // y + b d + c d^2 + e d^3: a constant series stays exactly constant (b = c = e = 0).
    const double b = (y[seg + 1] - y[seg]) / hs - hs * (2 * m[seg] + m[seg + 1]) / 6;
    const double c = m[seg] / 2, e = (m[seg + 1] - m[seg]) / (6 * hs);
    out.push_back(y[seg] + d * (b + d * (c + d * e)));
  }
  return out;
}

// Computed as the equal A^-1 (lambda^2 D2' D2 z), A = I + lambda^2 D2' D2, rather than
// z - A^-1 z: a trend the second difference annihilates (a line) then leaves nothing but
// rounding, not the difference of two large numbers. A is symmetric positive definite with
// two bands either side: banded LDL' in O(M).
std::vector<double> detrend(const std::vector<double>& z, double lambda) {
  const std::size_t n = z.size();
  if (n < 3) return std::vector<double>(n, 0.0);  // no second difference: all of z is trend
  const double weight = lambda * lambda;
  // A's diagonal, first and second super-diagonals, summed row by row of D2 = (1, -2, 1).
  std::vector<double> d(n, 1.0), e(n, 0.0), f(n, 0.0);
  constexpr std::array<double, 3> kStencil{1.0, -2.0, 1.0};
  for (std::size_t r = 0; r + 2 < n; ++r) {
    for (std::size_t a = 0; a < 3; ++a) d[r + a] += weight * kStencil[a] * kStencil[a];
    for (std::size_t a = 0; a < 2; ++a) e[r + a] += weight * kStencil[a] * kStencil[a + 1];
    f[r] += weight * kStencil[0] * kStencil[2];
  }
  // rhs = lambda^2 D2' (D2 z).
  std::vector<double> x(n, 0.0);
  for (std::size_t r = 0; r + 2 < n; ++r) {
    const double second = z[r] - 2 * z[r + 1] + z[r + 2];
    for (std::size_t a = 0; a < 3; ++a) x[r + a] += weight * kStencil[a] * second;
  }
  // A = L D L', L unit lower triangular with sub-diagonals l1 (i+1, i) and l2 (i+2, i).
  std::vector<double> dd(n), l1(n, 0.0), l2(n, 0.0);
  for (std::size_t i = 0; i < n; ++i) {
    double di = d[i];
    if (i >= 1) di -= l1[i - 1] * l1[i - 1] * dd[i - 1];
    if (i >= 2) di -= l2[i - 2] * l2[i - 2] * dd[i - 2];
    dd[i] = di;
    double ei = e[i];
    if (i >= 1) ei -= l2[i - 1] * l1[i - 1] * dd[i - 1];
    if (i + 1 < n) l1[i] = ei / di;
    if (i + 2 < n) l2[i] = f[i] / di;
  }
  for (std::size_t i = 0; i < n; ++i) {
    if (i >= 1) x[i] -= l1[i - 1] * x[i - 1];
    if (i >= 2) x[i] -= l2[i - 2] * x[i - 2];
  }
  for (std::size_t i = 0; i < n; ++i) x[i] /= dd[i];
  for (std::size_t i = n; i-- > 0;) {
    if (i + 1 < n) x[i] -= l1[i] * x[i + 1];
    if (i + 2 < n) x[i] -= l2[i] * x[i + 2];
  }
  return x;
}

// One-sided Welch power density (ms²/Hz) of x sampled at `rate`: bins k = 0 ... L/2 at
// k rate / L, L = min(kSegment, x.size()). REQUIRES: x.size() >= 2.
std::vector<double> welch(const std::vector<double>& x, double rate) {
  const std::size_t len = std::min(kSegment, x.size());
  const std::size_t segments = 1 + (x.size() - len) / kHop;
  std::vector<double> window(len);
  double window_power = 0.0;
  for (std::size_t k = 0; k < len; ++k) {
    // Periodic Hann (scipy's for Welch): at half overlap the windows sum to a constant, so
    // every sample of a long recording weighs alike.
    window[k] = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(k) /
                                     static_cast<double>(len));
    window_power += window[k] * window[k];
  }
  const DftPlan plan(len);
  const std::size_t bins = len / 2 + 1;
  std::vector<double> density(bins, 0.0);
  std::vector<std::complex<double>> buffer(len);
  for (std::size_t s = 0; s < segments; ++s) {
    const std::size_t start = s * kHop;
    double sum = 0.0;
    for (std::size_t k = 0; k < len; ++k) sum += x[start + k];
    const double segment_mean = sum / static_cast<double>(len);
    for (std::size_t k = 0; k < len; ++k) buffer[k] = (x[start + k] - segment_mean) * window[k];
    plan.forward(buffer);
    for (std::size_t k = 0; k < bins; ++k) density[k] += std::norm(buffer[k]);
  }
  const double scale = 1.0 / (static_cast<double>(segments) * rate * window_power);
  for (std::size_t k = 0; k < bins; ++k) {
    // Negative frequencies fold onto positive ones; bin 0 and an even length's Nyquist bin
    // have no twin.
    const bool single = k == 0 || (len % 2 == 0 && k == len / 2);
    density[k] *= single ? scale : 2 * scale;
  }
  return density;
}

struct BandResult {
  double power = 0.0;
  double peak = HrvIndices::kEmpty;
};

BandResult band(const std::vector<double>& density, std::size_t len, double rate, Band b) {
  BandResult out;
  const double df = rate / static_cast<double>(len);
  double largest = 0.0;
  for (std::size_t k = 0; k < density.size(); ++k) {
    // Written as in the reference, k rate / L, so a bin exactly on a band edge compares alike.
    const double f = (rate * static_cast<double>(k)) / static_cast<double>(len);
    if (f < b.lo || f >= b.hi) continue;
    out.power += density[k] * df;
    if (density[k] > largest) {
      largest = density[k];
      out.peak = f;
    }
  }
  return out;
}

void time_domain(const std::vector<double>& nn, std::size_t corrected_count,
                 const std::vector<double>& hr_10hz, HrvIndices& out) {
  const auto n = static_cast<double>(nn.size());
  out.artefact_pct = 100.0 * static_cast<double>(corrected_count) / n;
  out.mean_nn = mean_of(nn);
  const double var_nn = sample_variance(nn);
  out.sdnn = std::sqrt(var_nn);

  std::vector<double> rate(nn.size());
  for (std::size_t i = 0; i < nn.size(); ++i) rate[i] = 60000.0 / nn[i];
  out.mean_hr = mean_of(rate);
  out.sd_hr = std::sqrt(sample_variance(rate));

  double lo = kInf, hi = -kInf;
  for (double v : hr_10hz) {
    if (!std::isfinite(v)) continue;
    lo = std::min(lo, v);
    hi = std::max(hi, v);
  }
  out.min_hr = lo;  // infinities left for the final check when no sample is finite
  out.max_hr = hi;

  std::vector<double> diff(nn.size() - 1);
  double squares = 0.0;
  int over = 0;
  for (std::size_t i = 0; i + 1 < nn.size(); ++i) {
    diff[i] = nn[i + 1] - nn[i];
    squares += diff[i] * diff[i];
    if (std::abs(diff[i]) > kNn50Ms) ++over;
  }
  out.rmssd = std::sqrt(squares / static_cast<double>(diff.size()));
  out.nn50 = over;
  out.pnn50 = 100.0 * over / static_cast<double>(diff.size());
  // Brennan et al. 2001: SD1² = var(dNN) / 2, SD2² = 2 SDNN² - var(dNN) / 2. With sample
  // variances (n and n - 1 terms) the identity is not exact, and the difference goes below 0
  // for short alternating series (-667 ms² for 800, 900, 800, 900, 800 ms), whose points lie
  // across the identity line: SD2 0.
  const double var_diff = sample_variance(diff);
  out.sd1 = std::sqrt(var_diff / 2);
  out.sd2 = std::sqrt(std::max(0.0, 2 * var_nn - var_diff / 2));
}

void frequency_domain(const std::vector<double>& nn, HrvIndices& out) {
  std::vector<double> t(nn.size());
  double at = 0.0;
  for (std::size_t i = 0; i < nn.size(); ++i) {
    at += nn[i] / 1000.0;
    t[i] = at;
  }
  const double span = t.back() - t.front();
  if (!(span >= kMinSpectrumSeconds && span <= kMaxSpectrumSeconds)) return;
  const std::vector<double> z = detrend(spline_resample(t, nn, 1.0 / kResampleRate), kLambda);
  const std::vector<double> density = welch(z, kResampleRate);
  const std::size_t len = std::min(kSegment, z.size());
  const BandResult vlf = band(density, len, kResampleRate, kVlf);
  const BandResult lf = band(density, len, kResampleRate, kLf);
  const BandResult hf = band(density, len, kResampleRate, kHf);
  out.vlf = vlf.power;
  out.lf = lf.power;
  out.hf = hf.power;
  out.total_power = vlf.power + lf.power + hf.power;
  // A flat series gives 0 / 0 here and HF = 0 alone an infinite LF/HF: the final check in
  // compute_hrv empties both.
  out.lf_hf = lf.power / hf.power;
  out.lf_nu = 100 * lf.power / (lf.power + hf.power);
  out.hf_nu = 100 * hf.power / (lf.power + hf.power);
  out.lf_peak = lf.peak;
  out.hf_peak = hf.peak;
}

BandPower lf_band(const std::vector<double>& beat_s, const std::vector<double>& nn_ms) {
  if (nn_ms.size() < kMinIntervals || beat_s.size() != nn_ms.size()) return {};
  for (std::size_t i = 0; i < nn_ms.size(); ++i) {
    if (!std::isfinite(nn_ms[i]) || !std::isfinite(beat_s[i])) return {};
    if (i > 0 && !(beat_s[i] > beat_s[i - 1])) return {};
  }
  if (!(beat_s.back() - beat_s.front() <= kMaxSpectrumSeconds)) return {};
  const std::vector<double> z =
      detrend(spline_resample(beat_s, nn_ms, 1.0 / kResampleRate), kLambda);
  if (z.size() < 2) return {};  // under a quarter second: no spectrum
  const std::vector<double> density = welch(z, kResampleRate);
  const BandResult lf = band(density, std::min(kSegment, z.size()), kResampleRate, kLf);
  if (!std::isfinite(lf.power)) return {};
  return {lf.power, lf.peak};
}

// Mean over whole cycles of max - min. Grid sample i (at i kHrGridStep s) is in cycle k when
// k C <= i step < (k + 1) C; cycle k is whole when (k + 1) C <= N step. Both compare in grid
// steps with a 1e-9 tolerance, so a boundary that falls on a sample stays on it despite the
// rounding of C / step (a cycle of 1.1 s in and 1.3 s out is 24.000000000000004 steps).
double peak_trough(const std::vector<double>& hr, double cycle) {
  if (!(cycle >= kMinBreathingPeriod) || !std::isfinite(cycle)) return HrvIndices::kEmpty;
  constexpr double kTolerance = 1e-9;
  const double per_cycle = cycle / kHrGridStep;
  const auto n = static_cast<double>(hr.size());
  double sum = 0.0;
  int count = 0;
  // Cycles of at least kMinBreathingPeriod on a 0.1 s grid: at most 2 N of them.
  for (std::size_t k = 0; static_cast<double>(k + 1) * per_cycle <= n + kTolerance; ++k) {
    const double from = static_cast<double>(k) * per_cycle;
    const double to = static_cast<double>(k + 1) * per_cycle;
    const auto first = static_cast<std::size_t>(std::ceil(from - kTolerance));
    const auto end = std::min(hr.size(), static_cast<std::size_t>(std::ceil(to - kTolerance)));
    double lo = kInf, hi = -kInf;
    for (std::size_t i = first; i < end; ++i) {
      if (!std::isfinite(hr[i])) continue;
      lo = std::min(lo, hr[i]);
      hi = std::max(hi, hr[i]);
    }
    if (lo > hi) continue;  // no finite sample: the cycle says nothing
    sum += hi - lo;
    ++count;
  }
  return count > 0 ? sum / count : HrvIndices::kEmpty;
}

}  // namespace detail

HrvIndices compute_hrv(const std::vector<double>& rr_seconds, const std::vector<bool>& corrected,
                       const std::vector<double>& hr_10hz, double cycle_seconds) {
  HrvIndices out;
  std::vector<double> nn;
  nn.reserve(rr_seconds.size());
  std::size_t corrected_count = 0;
  for (std::size_t i = 0; i < rr_seconds.size(); ++i) {
    const double ms = rr_seconds[i] * 1000.0;
    if (!std::isfinite(ms) || !(ms > 0)) continue;
    nn.push_back(ms);
    if (i < corrected.size() && corrected[i]) ++corrected_count;
  }
  out.n_beats = static_cast<int>(std::min<std::size_t>(nn.size(), std::numeric_limits<int>::max()));
  if (nn.size() < detail::kMinIntervals) return out;

  detail::time_domain(nn, corrected_count, hr_10hz, out);
  detail::frequency_domain(nn, out);
  out.peak_trough_hr = detail::peak_trough(hr_10hz, cycle_seconds);

  // Overflow (intervals of 1e300 s) or 0 / 0 (a flat spectrum) leaves no number to show.
  for (const HrvField& field : hrv_fields()) {
    if (field.real != nullptr && !std::isfinite(out.*field.real))
      out.*field.real = HrvIndices::kEmpty;
  }
  return out;
}

double HrvField::value(const HrvIndices& indices) const {
  if (real != nullptr) return indices.*real;
  const int n = indices.*count;
  return n == HrvIndices::kEmptyCount ? HrvIndices::kEmpty : n;
}

std::span<const HrvField> hrv_fields() {
  using H = HrvIndices;
  static constexpr HrvField kFields[] = {
      {"n_beats", "count", nullptr, &H::n_beats},
      {"artefact_pct", "%", &H::artefact_pct, nullptr},
      {"mean_nn", "ms", &H::mean_nn, nullptr},
      {"sdnn", "ms", &H::sdnn, nullptr},
      {"mean_hr", "bpm", &H::mean_hr, nullptr},
      {"sd_hr", "bpm", &H::sd_hr, nullptr},
      {"min_hr", "bpm", &H::min_hr, nullptr},
      {"max_hr", "bpm", &H::max_hr, nullptr},
      {"rmssd", "ms", &H::rmssd, nullptr},
      {"nn50", "count", nullptr, &H::nn50},
      {"pnn50", "%", &H::pnn50, nullptr},
      {"sd1", "ms", &H::sd1, nullptr},
      {"sd2", "ms", &H::sd2, nullptr},
      {"vlf", "ms\u00b2", &H::vlf, nullptr},
      {"lf", "ms\u00b2", &H::lf, nullptr},
      {"hf", "ms\u00b2", &H::hf, nullptr},
      {"total_power", "ms\u00b2", &H::total_power, nullptr},
      {"lf_hf", "", &H::lf_hf, nullptr},
      {"lf_nu", "n.u.", &H::lf_nu, nullptr},
      {"hf_nu", "n.u.", &H::hf_nu, nullptr},
      {"lf_peak", "Hz", &H::lf_peak, nullptr},
      {"hf_peak", "Hz", &H::hf_peak, nullptr},
      {"peak_trough_hr", "bpm", &H::peak_trough_hr, nullptr},
  };
  return kFields;
}

double rr_to_seconds(double value) {
  // An interval above this many seconds is a value in milliseconds.
  constexpr double kLongestSeconds = 10.0;
  return value > kLongestSeconds ? value / 1000.0 : value;
}

}  // namespace cvn
