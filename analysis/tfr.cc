#include "analysis/tfr.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <numbers>
#include <thread>
#include <utility>

#include "analysis/fft.h"

namespace cvn {
namespace {

using Complex = std::complex<double>;

constexpr double kFirstFrequency = 0.02;
constexpr double kFrequencyStep = 0.0005;
// Just below 0.18, so that the running sum's rounding cannot add or drop the last row.
constexpr double kFrequencyLimit = 0.179999999999;
constexpr double kFrequencyScale = 10000.0;  // 4 decimals

// The wavelet is cut where its envelope has fallen to exp(-12.5), 4e-6 of its peak.
constexpr double kWaveletSpreadSigmas = 5.0;
// Normalising by sqrt(0.5) times the norm makes the power of a unit cosine at the wavelet's
// frequency about sqrt(pi) sigma_t fs (docs/analysis.md).
constexpr double kNormShare = 0.5;

// The convolution runs on a grid of 5 points per second. The rows' wavelets have no content
// above 0.7 Hz, and the 2 s Hann-smoothed heart rate almost none above 1 Hz, so the band
// up to 1.25 Hz is all that reaches the power; the grid's Nyquist frequency, 2.5 Hz, leaves
// room for the low-pass transition.
constexpr double kGridRate = 5.0;
constexpr double kPassBandHz = 1.25;
// Stop-band attenuation of the low-pass filter; it also bounds its pass-band ripple (1e-7).
constexpr double kLowpassAttenuationDb = 140.0;
// Kaiser's design formulas (Oppenheim & Schafer, eq. 7.62 and 7.63).
constexpr double kKaiserLengthOffsetDb = 7.95;
constexpr double kKaiserLengthSlope = 2.285;
constexpr double kKaiserBetaSlope = 0.1102;
constexpr double kKaiserBetaOffsetDb = 8.7;
// Wavelet values come from rotations and Gaussian ratios, recomputed from scratch this often
// so that rounding cannot build up (it stays near 1e-14 relative).
constexpr std::size_t kReseedInterval = 256;

std::int64_t floor_div(std::int64_t a, std::int64_t b) {
  const std::int64_t q = a / b;
  return (a % b != 0 && a < 0) ? q - 1 : q;
}
std::int64_t ceil_div(std::int64_t a, std::int64_t b) {
  return -floor_div(-a, b);
}

// Four independent partial sums, so the additions pipeline (and vectorise).
double dot(const double* a, const double* b, std::size_t n) {
  double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
  std::size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    s0 += a[i] * b[i];
    s1 += a[i + 1] * b[i + 1];
    s2 += a[i + 2] * b[i + 2];
    s3 += a[i + 3] * b[i + 3];
  }
  for (; i < n; ++i) s0 += a[i] * b[i];
  return (s0 + s1) + (s2 + s3);
}

// Zeroth-order modified Bessel function of the first kind, by its power series; every term is
// positive, so the sum is accurate to rounding.
double bessel_i0(double x) {
  double sum = 1.0, term = 1.0;
  const double q = x * x / 4;
  for (int k = 1; term > sum * 1e-17; ++k) {
    term *= q / (static_cast<double>(k) * k);
    sum += term;
  }
  return sum;
}

// Symmetric low-pass FIR with unit gain at 0 Hz: taps[half + r] for r in [-half, half].
struct Lowpass {
  std::vector<double> taps{1.0};
  std::int64_t half = 0;
};

// Kaiser-windowed sinc passing [0, pass] and stopping from `stop` (both in Hz).
Lowpass kaiser_lowpass(double pass, double stop, double rate) {
  Lowpass lp;
  if (!(stop > pass)) return lp;  // nothing to remove: identity
  const double transition = 2 * std::numbers::pi * (stop - pass) / rate;
  const auto order = static_cast<std::int64_t>(std::ceil(
      (kLowpassAttenuationDb - kKaiserLengthOffsetDb) / (kKaiserLengthSlope * transition)));
  lp.half = (order + 1) / 2;
  const double beta = kKaiserBetaSlope * (kLowpassAttenuationDb - kKaiserBetaOffsetDb);
  const double cutoff = (pass + stop) / 2 / rate;  // cycles per sample
  const double norm = bessel_i0(beta);
  lp.taps.assign(static_cast<std::size_t>(2 * lp.half + 1), 0.0);
  double sum = 0.0;
  for (std::int64_t r = -lp.half; r <= lp.half; ++r) {
    const double x = static_cast<double>(r);
    const double sinc =
        r == 0 ? 2 * cutoff : std::sin(2 * std::numbers::pi * cutoff * x) / (std::numbers::pi * x);
    const double u = x / static_cast<double>(lp.half);
    const double v = sinc * bessel_i0(beta * std::sqrt(std::max(0.0, 1 - u * u))) / norm;
    lp.taps[static_cast<std::size_t>(r + lp.half)] = v;
    sum += v;
  }
  for (double& v : lp.taps) v /= sum;
  return lp;
}

// One row's wavelet, as a function of the lag in samples: psi(e) for e in [-(J-1), J-1].
struct Morlet {
  double omega = 0;  // carrier, radians per sample
  double sigma = 0;  // envelope width, samples
  double carrier_mean = 0;
  double scale = 0;       // 1 / sqrt(0.5 sum |psi|^2)
  std::int64_t half = 0;  // J

  Complex at(double e) const {
    const double g = std::exp(-e * e / (2 * sigma * sigma)) * scale;
    return {(std::cos(omega * e) - carrier_mean) * g, std::sin(omega * e) * g};
  }
};

Morlet make_morlet(double freq, double cycles, double rate) {
  Morlet w;
  w.half = static_cast<std::int64_t>(morlet_half_length(freq, cycles, rate));
  if (w.half == 0) return w;
  const double sigma_t = cycles / (2 * std::numbers::pi * freq);
  w.omega = 2 * std::numbers::pi * freq / rate;
  w.sigma = sigma_t * rate;
  w.carrier_mean = std::exp(-2 * std::pow(std::numbers::pi * freq * sigma_t, 2));
  // sum |psi|^2 over the grid: the Gaussian is hundreds of samples wide, so the symmetric
  // sum equals its integral (Poisson summation; the aliases are below exp(-pi^2 sigma^2))
  // and the tails beyond 5 sigma are below 1e-11; t = 0, listed twice, adds (1 - c)^2.
  const double c = w.carrier_mean;
  const double symmetric =
      w.sigma * std::sqrt(std::numbers::pi) *
      (1 + c * c - 2 * c * std::exp(-w.omega * w.omega * w.sigma * w.sigma / 4));
  w.scale = 1 / std::sqrt(kNormShare * (symmetric + (1 - c) * (1 - c)));
  return w;
}

// psi(e0), psi(e0 + step), ... (`count` values) by complex rotation and Gaussian ratios.
void fill_psi(const Morlet& w, std::int64_t e0, std::int64_t step, std::size_t count,
              Complex* out) {
  const double s2 = 2 * w.sigma * w.sigma;
  const double dstep = static_cast<double>(step);
  const double rot_re = std::cos(w.omega * dstep), rot_im = std::sin(w.omega * dstep);
  const double kappa = std::exp(-2 * dstep * dstep / s2);
  for (std::size_t start = 0; start < count; start += kReseedInterval) {
    const double e = static_cast<double>(e0) + static_cast<double>(start) * dstep;
    double zr = std::cos(w.omega * e), zi = std::sin(w.omega * e);
    double g = std::exp(-e * e / s2) * w.scale;
    double rho = std::exp(-(2 * e * dstep + dstep * dstep) / s2);
    const std::size_t end = std::min(count, start + kReseedInterval);
    for (std::size_t j = start; j < end; ++j) {
      out[j] = {(zr - w.carrier_mean) * g, zi * g};
      const double nr = zr * rot_re - zi * rot_im;
      zi = zr * rot_im + zi * rot_re;
      zr = nr;
      g *= rho;
      rho *= kappa;
    }
  }
}

// The literal kernel as a function of the lag d (output k reads input k - d): the grid lists
// t = 0 twice, so lags up to 0 carry psi(d) and lags from 1 carry psi(d - 1); the support is
// [-(J-1), J].
std::int64_t kernel_arg(std::int64_t d) {
  return d <= 0 ? d : d - 1;
}

struct RowJob {
  int width = 0;
  int row = 0;
  Morlet wavelet;
  std::int64_t q_min = 0, q_max = 0;  // decimated kernel support
  std::size_t length = 0;             // transform length
};

struct Segment {
  std::int64_t first = 0;  // grid index of the first transform point
  const FftPlan* plan = nullptr;
  std::vector<Complex> spectrum;
};

class PowerPass {
 public:
  PowerPass(const std::vector<double>& extended, std::size_t offset, std::size_t length,
            const TfrRequest& request)
      : ext_(extended),
        offset_(static_cast<std::int64_t>(offset)),
        length_(static_cast<std::int64_t>(length)),
        request_(request) {}

  bool prepare();
  WaveletPower run();

 private:
  struct Scratch {
    std::vector<Complex> buffer;
    std::vector<Complex> kernel;
    std::vector<Complex> window;
    std::vector<double> window_re, window_im;
  };

  double lowpassed_signal(std::int64_t x) const;
  void decimated_kernel(const RowJob& job, Scratch& s) const;
  Complex interpolate(const std::vector<Complex>& grid, std::int64_t first, std::int64_t p) const;
  void do_row(const RowJob& job, Scratch& s, WaveletPower& out) const;

  const std::vector<double>& ext_;
  std::int64_t offset_, length_;
  const TfrRequest& request_;

  std::int64_t step_ = 1;  // ECG samples per grid point
  Lowpass lp_;
  std::int64_t m_first_ = 0, m_last_ = 0;  // grid points the outputs are interpolated from
  std::vector<RowJob> jobs_;
  std::map<std::size_t, FftPlan> plans_;
  std::map<std::size_t, Segment> segments_;
  // Interpolation weights per phase p mod step_, taps_ each, starting at grid offset
  // first_tap_[phase] from floor(p / step_).
  std::vector<double> interp_;
  std::vector<std::int64_t> first_tap_;
  std::int64_t taps_ = 0;
};

bool PowerPass::prepare() {
  const double rate = request_.sample_rate;
  step_ = std::max<std::int64_t>(1, static_cast<std::int64_t>(std::floor(rate / kGridRate)));
  if (step_ > 1) lp_ = kaiser_lowpass(kPassBandHz, rate / (2 * static_cast<double>(step_)), rate);
  const std::int64_t hl = lp_.half;

  // Band-limited interpolation from the grid: y(p) = step sum_m y(m step) lp(p - m step).
  first_tap_.resize(static_cast<std::size_t>(step_));
  for (std::int64_t phase = 0; phase < step_; ++phase) {
    first_tap_[phase] = ceil_div(phase - hl, step_);
    taps_ = std::max(taps_, floor_div(phase + hl, step_) - first_tap_[phase] + 1);
  }
  interp_.assign(static_cast<std::size_t>(step_ * taps_), 0.0);
  for (std::int64_t phase = 0; phase < step_; ++phase) {
    for (std::int64_t k = 0; k < taps_; ++k) {
      const std::int64_t r = phase - (first_tap_[phase] + k) * step_;
      if (r >= -hl && r <= hl) interp_[phase * taps_ + k] = lp_.taps[r + hl];
    }
  }

  // Every grid point an output reads, zero weights included.
  const std::int64_t p_lo = offset_, p_hi = offset_ + length_ - 1;
  const auto [min_tap, max_tap] = std::minmax_element(first_tap_.begin(), first_tap_.end());
  m_first_ = floor_div(p_lo, step_) + *min_tap;
  m_last_ = floor_div(p_hi, step_) + *max_tap + taps_ - 1;
  const std::int64_t span = m_last_ - m_first_ + 1;

  for (int w = 0; w < static_cast<int>(request_.widths.size()); ++w) {
    for (int r = 0; r < static_cast<int>(request_.frequencies.size()); ++r) {
      RowJob job;
      job.width = w;
      job.row = r;
      job.wavelet = make_morlet(request_.frequencies[r], request_.widths[w], rate);
      if (job.wavelet.half == 0) return false;
      job.q_min = -floor_div(job.wavelet.half - 1 + hl, step_);
      job.q_max = floor_div(job.wavelet.half + hl, step_);
      const std::int64_t reach = std::max(job.q_max, -job.q_min);
      job.length = fft_length_for(static_cast<std::size_t>(span + 2 * reach + 1));
      if (job.length == 0) return false;
      if (w == request_.dense_width && r == request_.dense_row) {
        jobs_.insert(jobs_.begin(), job);  // the longest job starts first
      } else {
        jobs_.push_back(job);
      }
    }
  }
  if (jobs_.empty()) return true;

  // Each transform length gets its segment of the low-passed signal, centred on the output
  // range so that no kernel reaches round the circular convolution's end. The segments nest,
  // so the low-pass runs once, over the longest.
  std::size_t longest = 0;
  for (const RowJob& job : jobs_) longest = std::max(longest, job.length);
  const auto first_of = [&](std::size_t n) {
    return m_first_ - (static_cast<std::int64_t>(n) - span + 1) / 2;
  };
  const std::int64_t base = first_of(longest);
  std::vector<double> lowpassed(longest);
  for (std::size_t j = 0; j < longest; ++j) {
    lowpassed[j] = lowpassed_signal((base + static_cast<std::int64_t>(j)) * step_);
  }
  for (const RowJob& job : jobs_) {
    if (plans_.count(job.length)) continue;
    const FftPlan& plan = plans_.emplace(job.length, FftPlan(job.length)).first->second;
    Segment seg;
    seg.first = first_of(job.length);
    seg.plan = &plan;
    const auto from = lowpassed.begin() + (seg.first - base);
    seg.spectrum.assign(from, from + static_cast<std::ptrdiff_t>(job.length));
    plan.forward_bit_reversed(seg.spectrum);
    // A grid value is step x the circular convolution, the interpolation weights carry
    // another step, and the backward transform needs 1 / n: all folded in here.
    const double gain =
        static_cast<double>(step_) * static_cast<double>(step_) / static_cast<double>(job.length);
    for (Complex& v : seg.spectrum) v *= gain;
    segments_.emplace(job.length, std::move(seg));
  }
  return true;
}

double PowerPass::lowpassed_signal(std::int64_t x) const {
  const std::int64_t hl = lp_.half;
  const auto size = static_cast<std::int64_t>(ext_.size());
  const std::int64_t lo = std::max<std::int64_t>(x - hl, 0);
  const std::int64_t hi = std::min<std::int64_t>(x + hl, size - 1);
  double sum = 0.0;
  for (std::int64_t i = lo; i <= hi; ++i) sum += lp_.taps[x - i + hl] * ext_[i];
  return sum;
}

// h(q step) for q in [q_min, q_max] into s.kernel: the low-passed kernel sampled on the grid.
// Where the filter window lies inside one smooth piece of the kernel, filtering changes
// nothing (the pieces are band-limited far below the pass band), so the sample is taken as
// is; windows that straddle the start, the end or the repeated t = 0 are filtered outright.
void PowerPass::decimated_kernel(const RowJob& job, Scratch& s) const {
  const Morlet& w = job.wavelet;
  const std::int64_t J = w.half, hl = lp_.half;
  const std::size_t count = static_cast<std::size_t>(job.q_max - job.q_min + 1);
  s.kernel.resize(count);
  Complex* k = s.kernel.data();

  const std::int64_t zero = -job.q_min;  // index of q = 0
  fill_psi(w, job.q_min * step_, step_, static_cast<std::size_t>(zero + 1), k);
  if (job.q_max >= 1)
    fill_psi(w, step_ - 1, step_, static_cast<std::size_t>(job.q_max), k + zero + 1);
  for (std::int64_t q = job.q_min; q <= job.q_max; ++q) {
    const std::int64_t d = q * step_;
    if (d < -(J - 1) || d > J) k[q - job.q_min] = 0.0;
  }
  if (hl == 0) return;

  // Runs of grid points whose window [d - hl, d + hl] holds a break b (between b-1 and b).
  std::vector<std::pair<std::int64_t, std::int64_t>> runs;
  for (const std::int64_t b : {-(J - 1), std::int64_t{1}, J + 1}) {
    const std::int64_t lo = std::max(ceil_div(b - hl, step_), job.q_min);
    const std::int64_t hi = std::min(floor_div(b + hl - 1, step_), job.q_max);
    if (lo > hi) continue;
    if (!runs.empty() && lo <= runs.back().second + 1) {
      runs.back().second = std::max(runs.back().second, hi);
    } else {
      runs.emplace_back(lo, hi);
    }
  }
  for (const auto& [q_lo, q_hi] : runs) {
    // Kernel values over every lag the run's windows touch, clipped to the support.
    const std::int64_t d_lo = q_lo * step_ - hl, d_hi = q_hi * step_ + hl;
    const std::int64_t in_lo = std::max(d_lo, -(J - 1)), in_hi = std::min(d_hi, J);
    s.window.assign(static_cast<std::size_t>(d_hi - d_lo + 1), 0.0);
    if (in_lo <= in_hi) {
      const std::int64_t e_lo = kernel_arg(in_lo), e_hi = kernel_arg(in_hi);
      Complex* psi = s.window.data() + (in_lo - d_lo);
      fill_psi(w, e_lo, 1, static_cast<std::size_t>(e_hi - e_lo + 1), psi);
      if (in_lo <= 0 && in_hi >= 1) {
        // Lags 0 and 1 both carry psi(0): shift the positive lags up by one.
        const std::int64_t at0 = -in_lo;
        for (std::int64_t i = in_hi - in_lo; i > at0; --i) psi[i] = psi[i - 1];
      }
    }
    // Split into real and imaginary parts so that each window is two plain dot products;
    // only the lags inside the support contribute.
    s.window_re.resize(s.window.size());
    s.window_im.resize(s.window.size());
    for (std::size_t i = 0; i < s.window.size(); ++i) {
      s.window_re[i] = s.window[i].real();
      s.window_im[i] = s.window[i].imag();
    }
    for (std::int64_t q = q_lo; q <= q_hi; ++q) {
      // The taps are symmetric: (lp * h)(d) = sum_t taps[t] h(d - hl + t).
      const std::int64_t d = q * step_;
      const std::int64_t t_lo = std::max<std::int64_t>(0, in_lo - (d - hl));
      const std::int64_t t_hi = std::min<std::int64_t>(2 * hl, in_hi - (d - hl));
      if (t_lo > t_hi) {
        k[q - job.q_min] = 0.0;
        continue;
      }
      const std::size_t at = static_cast<std::size_t>(d - hl + t_lo - d_lo);
      const std::size_t count = static_cast<std::size_t>(t_hi - t_lo + 1);
      const double* taps = lp_.taps.data() + t_lo;
      k[q - job.q_min] = {dot(taps, s.window_re.data() + at, count),
                          dot(taps, s.window_im.data() + at, count)};
    }
  }
}

Complex PowerPass::interpolate(const std::vector<Complex>& grid, std::int64_t first,
                               std::int64_t p) const {
  const std::int64_t a = floor_div(p, step_);
  const std::int64_t phase = p - a * step_;
  const double* wts = interp_.data() + phase * taps_;
  const Complex* y = grid.data() + (a + first_tap_[phase] - first);
  // Two sets of sums (even and odd taps) halve the chain of dependent additions.
  double re0 = 0.0, im0 = 0.0, re1 = 0.0, im1 = 0.0;
  std::int64_t k = 0;
  for (; k + 2 <= taps_; k += 2) {
    re0 += wts[k] * y[k].real();
    im0 += wts[k] * y[k].imag();
    re1 += wts[k + 1] * y[k + 1].real();
    im1 += wts[k + 1] * y[k + 1].imag();
  }
  if (k < taps_) {
    re0 += wts[k] * y[k].real();
    im0 += wts[k] * y[k].imag();
  }
  return {re0 + re1, im0 + im1};
}

void PowerPass::do_row(const RowJob& job, Scratch& s, WaveletPower& out) const {
  decimated_kernel(job, s);
  const Segment& seg = segments_.at(job.length);
  const auto n = static_cast<std::int64_t>(job.length);
  s.buffer.assign(job.length, 0.0);
  for (std::int64_t q = job.q_min; q <= job.q_max; ++q) {
    s.buffer[static_cast<std::size_t>(q < 0 ? q + n : q)] = s.kernel[q - job.q_min];
  }
  seg.plan->forward_bit_reversed(s.buffer);
  // Both spectra are in the same (bit-reversed) order; plain doubles keep the product in
  // registers.
  double* y = reinterpret_cast<double*>(s.buffer.data());
  const double* x = reinterpret_cast<const double*>(seg.spectrum.data());
  for (std::size_t i = 0; i < 2 * job.length; i += 2) {
    const double ar = y[i], ai = y[i + 1], br = x[i], bi = x[i + 1];
    y[i] = ar * br - ai * bi;
    y[i + 1] = ar * bi + ai * br;
  }
  seg.plan->backward_bit_reversed(s.buffer);

  TfrMatrix& m = out.matrices[job.width];
  float* row = m.power.data() + static_cast<std::size_t>(job.row) * m.cols;
  for (std::size_t c = 0; c < m.cols; ++c) {
    const Complex y = interpolate(s.buffer, seg.first, offset_ + request_.columns[c]);
    row[c] = static_cast<float>(std::norm(y));
  }
  if (job.width == request_.dense_width && job.row == request_.dense_row) {
    for (std::int64_t k = 0; k < length_; ++k) {
      const Complex y = interpolate(s.buffer, seg.first, offset_ + k);
      out.dense[k] = static_cast<float>(std::norm(y));
    }
  }
}

WaveletPower PowerPass::run() {
  WaveletPower out;
  out.matrices.resize(request_.widths.size());
  for (TfrMatrix& m : out.matrices) {
    m.rows = request_.frequencies.size();
    m.cols = request_.columns.size();
    m.power.assign(m.rows * m.cols, 0.0f);
  }
  if (request_.dense_width >= 0) out.dense.assign(static_cast<std::size_t>(length_), 0.0f);

  std::atomic<std::size_t> next{0};
  const auto worker = [&] {
    Scratch scratch;
    for (std::size_t j; (j = next.fetch_add(1)) < jobs_.size();) do_row(jobs_[j], scratch, out);
  };
  std::vector<std::thread> pool;
  for (int t = 1; t < request_.threads; ++t) pool.emplace_back(worker);
  worker();
  for (std::thread& t : pool) t.join();
  return out;
}

bool valid(const std::vector<double>& extended, std::size_t offset, std::size_t length,
           const TfrRequest& request) {
  if (!(request.sample_rate > 0) || !std::isfinite(request.sample_rate)) return false;
  if (length == 0 || offset > extended.size() || length > extended.size() - offset) return false;
  for (double f : request.frequencies) {
    if (!(f > 0) || !std::isfinite(f)) return false;
  }
  for (double w : request.widths) {
    if (!(w > 0) || !std::isfinite(w)) return false;
  }
  for (std::size_t c = 0; c < request.columns.size(); ++c) {
    if (request.columns[c] < 0 || static_cast<std::size_t>(request.columns[c]) >= length)
      return false;
    if (c > 0 && request.columns[c] < request.columns[c - 1]) return false;
  }
  if (request.dense_width >= 0 || request.dense_row >= 0) {
    if (request.dense_width < 0 ||
        static_cast<std::size_t>(request.dense_width) >= request.widths.size())
      return false;
    if (request.dense_row < 0 ||
        static_cast<std::size_t>(request.dense_row) >= request.frequencies.size())
      return false;
  }
  return request.threads >= 1;
}

}  // namespace

std::vector<double> tfr_frequencies() {
  std::vector<double> freqs;
  freqs.reserve(kTfrRowCount);
  for (double f = kFirstFrequency; f < kFrequencyLimit; f += kFrequencyStep) {
    freqs.push_back(std::round(f * kFrequencyScale) / kFrequencyScale);
  }
  return freqs;
}

std::size_t morlet_half_length(double freq, double cycles, double sample_rate) {
  if (!(freq > 0) || !(cycles > 0) || !(sample_rate > 0)) return 0;
  const double limit = kWaveletSpreadSigmas * cycles / (2 * std::numbers::pi * freq);
  const double estimate = std::ceil(limit * sample_rate);
  // Beyond 2^40 points the wavelet could not be stored anyway.
  if (!std::isfinite(estimate) || estimate > 0x1p40) return 0;
  auto j = static_cast<std::size_t>(estimate);
  // The grid is t = j / rate; settle the count on exactly those values.
  while (j > 0 && static_cast<double>(j - 1) / sample_rate >= limit) --j;
  while (static_cast<double>(j) / sample_rate < limit) ++j;
  return j;
}

std::vector<std::complex<double>> detail::morlet_wavelet(double freq, double cycles,
                                                         double sample_rate) {
  const std::size_t half = morlet_half_length(freq, cycles, sample_rate);
  if (half == 0) return {};
  const double sigma = cycles / (2 * std::numbers::pi * freq);
  const double c = std::exp(-2 * std::pow(std::numbers::pi * freq * sigma, 2));
  std::vector<std::complex<double>> psi(2 * half);
  double energy = 0.0;
  for (std::size_t j = 0; j < half; ++j) {
    const double t = static_cast<double>(j) / sample_rate;
    const double g = std::exp(-t * t / (2 * sigma * sigma));
    const double phase = 2 * std::numbers::pi * freq * t;
    const std::complex<double> v{(std::cos(phase) - c) * g, std::sin(phase) * g};
    psi[half + j] = v;
    psi[half - 1 - j] = std::conj(v);  // -t: the cosine is even, the sine odd
    energy += 2 * std::norm(v);
  }
  const double scale = 1 / (std::sqrt(energy) * std::sqrt(kNormShare));
  for (auto& v : psi) v *= scale;
  return psi;
}

WaveletPower wavelet_power(const std::vector<double>& extended, std::size_t offset,
                           std::size_t length, const TfrRequest& request) {
  if (!valid(extended, offset, length, request)) return {};
  PowerPass pass(extended, offset, length, request);
  if (!pass.prepare()) return {};
  return pass.run();
}

}  // namespace cvn
