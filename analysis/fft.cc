#include "analysis/fft.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <utility>

namespace cvn {

std::size_t fft_length_for(std::size_t n) {
  std::size_t p = 1;
  while (p < n) {
    if (p > std::numeric_limits<std::size_t>::max() / 2) return 0;
    p *= 2;
  }
  return p;
}

FftPlan::FftPlan(std::size_t n) {
  // Indices are kept in 32 bits; 2^31 points would need 32 GiB of data anyway.
  constexpr std::size_t kMaxLength = std::size_t{1} << 31;
  if (n == 0 || (n & (n - 1)) != 0 || n > kMaxLength) return;
  n_ = n;
  while ((std::size_t{1} << log2n_) < n) ++log2n_;

  for (std::size_t i = 0; i < n; ++i) {
    std::size_t r = 0;
    for (int b = 0; b < log2n_; ++b) r |= ((i >> b) & 1u) << (log2n_ - 1 - b);
    if (i < r) {
      swaps_.push_back(static_cast<std::uint32_t>(i));
      swaps_.push_back(static_cast<std::uint32_t>(r));
    }
  }

  // Radix-4 butterflies over blocks of 4q points need w^j, w^2j, w^3j (w = exp(-2 pi i / 4q),
  // j < q); each factor straight from cos and sin, so no error builds up along a stage.
  twiddles_.assign(std::max<std::size_t>(3 * n / 2, 3), {1.0, 0.0});
  for (std::size_t q = (log2n_ % 2 == 1) ? 2 : 1; 4 * q <= n; q *= 4) {
    for (std::size_t j = 0; j < q; ++j) {
      for (std::size_t p = 1; p <= 3; ++p) {
        const double angle =
            2 * std::numbers::pi * static_cast<double>(p * j) / static_cast<double>(4 * q);
        twiddles_[3 * (q + j) + p - 1] = {std::cos(angle), -std::sin(angle)};
      }
    }
  }
}

void FftPlan::forward(std::span<std::complex<double>> data) const {
  if (n_ == 0 || data.size() != n_) return;
  permute(data.data());
  time_stages<false>(data.data());
}

void FftPlan::backward(std::span<std::complex<double>> data) const {
  if (n_ == 0 || data.size() != n_) return;
  permute(data.data());
  time_stages<true>(data.data());
}

void FftPlan::forward_bit_reversed(std::span<std::complex<double>> data) const {
  if (n_ != 0 && data.size() == n_) frequency_stages(data.data());
}

void FftPlan::backward_bit_reversed(std::span<std::complex<double>> data) const {
  if (n_ != 0 && data.size() == n_) time_stages<true>(data.data());
}

void FftPlan::permute(std::complex<double>* data) const {
  for (std::size_t k = 0; k < swaps_.size(); k += 2)
    std::swap(data[swaps_[k]], data[swaps_[k + 1]]);
}

namespace {

// The two-point transform of neighbours, the first radix-2 stage of an odd-power length.
void pairs(double* x, std::size_t n) {
  for (std::size_t i = 0; i < 2 * n; i += 4) {
    const double ar = x[i], ai = x[i + 1], br = x[i + 2], bi = x[i + 3];
    x[i] = ar + br;
    x[i + 1] = ai + bi;
    x[i + 2] = ar - br;
    x[i + 3] = ai - bi;
  }
}

}  // namespace

// Decimation in time, input in bit-reversed order: radix-2 stages of half-width m taken two
// at a time. Over a block of 4m, with w = w_4m^j, the pair of stages is the four-point
// transform of (a0, w a2, w^2 a1, w^3 a3).
template <bool kBackward>
void FftPlan::time_stages(std::complex<double>* data) const {
  double* x = reinterpret_cast<double*>(data);  // re, im interleaved ([complex.numbers.general])
  const double sign = kBackward ? -1.0 : 1.0;   // conjugates the factors for the backward pass
  const std::size_t n = n_;
  std::size_t m = 1;
  if (log2n_ % 2 == 1) {
    pairs(x, n);
    m = 2;
  }
  for (; m < n; m *= 4) {
    const double* tw = reinterpret_cast<const double*>(twiddles_.data() + 3 * m);
    for (std::size_t base = 0; base < n; base += 4 * m) {
      double* p0 = x + 2 * base;
      double* p1 = p0 + 2 * m;
      double* p2 = p1 + 2 * m;
      double* p3 = p2 + 2 * m;
      for (std::size_t j = 0; j < m; ++j) {
        const double* w = tw + 6 * j;
        const double w1r = w[0], w1i = sign * w[1], w2r = w[2], w2i = sign * w[3];
        const double w3r = w[4], w3i = sign * w[5];
        const std::size_t k = 2 * j;
        const double a0r = p0[k], a0i = p0[k + 1];
        const double a1r = p2[k] * w1r - p2[k + 1] * w1i, a1i = p2[k] * w1i + p2[k + 1] * w1r;
        const double a2r = p1[k] * w2r - p1[k + 1] * w2i, a2i = p1[k] * w2i + p1[k + 1] * w2r;
        const double a3r = p3[k] * w3r - p3[k + 1] * w3i, a3i = p3[k] * w3i + p3[k + 1] * w3r;
        const double s02r = a0r + a2r, s02i = a0i + a2i, d02r = a0r - a2r, d02i = a0i - a2i;
        const double s13r = a1r + a3r, s13i = a1i + a3i, d13r = a1r - a3r, d13i = a1i - a3i;
        // -i d13 forward, +i d13 backward.
        const double rr = sign * d13i, ri = -sign * d13r;
        p0[k] = s02r + s13r;
        p0[k + 1] = s02i + s13i;
        p2[k] = s02r - s13r;
        p2[k + 1] = s02i - s13i;
        p1[k] = d02r + rr;
        p1[k + 1] = d02i + ri;
        p3[k] = d02r - rr;
        p3[k + 1] = d02i - ri;
      }
    }
  }
}

// Decimation in frequency, natural input, output in bit-reversed order: the mirror image of
// time_stages. Over a block of 4h with w = w_4h^j, the outputs are s0 + s1, w^2 (s0 - s1),
// w (d0 - i d1) and w^3 (d0 + i d1), where s0, d0 = a0 +- a2 and s1, d1 = a1 +- a3.
void FftPlan::frequency_stages(std::complex<double>* data) const {
  double* x = reinterpret_cast<double*>(data);
  const std::size_t n = n_;
  for (std::size_t h = n / 4; h >= 1; h /= 4) {
    const double* tw = reinterpret_cast<const double*>(twiddles_.data() + 3 * h);
    for (std::size_t base = 0; base < n; base += 4 * h) {
      double* p0 = x + 2 * base;
      double* p1 = p0 + 2 * h;
      double* p2 = p1 + 2 * h;
      double* p3 = p2 + 2 * h;
      for (std::size_t j = 0; j < h; ++j) {
        const double* w = tw + 6 * j;
        const std::size_t k = 2 * j;
        const double s0r = p0[k] + p2[k], s0i = p0[k + 1] + p2[k + 1];
        const double d0r = p0[k] - p2[k], d0i = p0[k + 1] - p2[k + 1];
        const double s1r = p1[k] + p3[k], s1i = p1[k + 1] + p3[k + 1];
        const double d1r = p1[k] - p3[k], d1i = p1[k + 1] - p3[k + 1];
        const double er = s0r - s1r, ei = s0i - s1i;  // times w^2
        const double fr = d0r + d1i, fi = d0i - d1r;  // d0 - i d1, times w
        const double gr = d0r - d1i, gi = d0i + d1r;  // d0 + i d1, times w^3
        p0[k] = s0r + s1r;
        p0[k + 1] = s0i + s1i;
        p1[k] = er * w[2] - ei * w[3];
        p1[k + 1] = er * w[3] + ei * w[2];
        p2[k] = fr * w[0] - fi * w[1];
        p2[k + 1] = fr * w[1] + fi * w[0];
        p3[k] = gr * w[4] - gi * w[5];
        p3[k + 1] = gr * w[5] + gi * w[4];
      }
    }
  }
  if (log2n_ % 2 == 1) pairs(x, n);
}

namespace {

// The FftPlan length behind a DftPlan of n points: n itself for a power of two, otherwise the
// Bluestein convolution's (0, an empty plan, beyond 2^30 points, where that would pass
// FftPlan's limit).
std::size_t dft_fft_length(std::size_t n) {
  if (n == 0 || n > (std::size_t{1} << 30)) return 0;
  return fft_length_for(n) == n ? n : fft_length_for(2 * n - 1);
}

}  // namespace

DftPlan::DftPlan(std::size_t n) : fft_(dft_fft_length(n)) {
  if (fft_.size() == 0) return;
  n_ = n;
  if (fft_.size() == n) return;
  const std::size_t m = fft_.size();
  chirp_.resize(n);
  kernel_.assign(m, {0.0, 0.0});
  for (std::size_t j = 0; j < n; ++j) {
    // j^2 mod 2n keeps the angle small, so it loses no digits for long transforms; n <= 2^30
    // here, so j^2 fits in 64 bits.
    const auto j2 = static_cast<std::uint64_t>(j) * j % (2 * static_cast<std::uint64_t>(n));
    const double angle = std::numbers::pi * static_cast<double>(j2) / static_cast<double>(n);
    chirp_[j] = {std::cos(angle), -std::sin(angle)};
    kernel_[j] = std::conj(chirp_[j]) / static_cast<double>(m);
    if (j > 0) kernel_[m - j] = kernel_[j];
  }
  fft_.forward_bit_reversed(kernel_);
}

void DftPlan::forward(std::span<std::complex<double>> data) const {
  if (n_ == 0 || data.size() != n_) return;
  if (chirp_.empty()) return fft_.forward(data);
  std::vector<std::complex<double>> work(fft_.size(), {0.0, 0.0});
  for (std::size_t j = 0; j < n_; ++j) work[j] = data[j] * chirp_[j];
  fft_.forward_bit_reversed(work);
  for (std::size_t k = 0; k < work.size(); ++k) work[k] *= kernel_[k];
  fft_.backward_bit_reversed(work);
  for (std::size_t k = 0; k < n_; ++k) data[k] = work[k] * chirp_[k];
}

}  // namespace cvn
