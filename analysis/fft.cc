#include "analysis/fft.h"

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

  // Each factor straight from cos and sin: no error builds up along a stage.
  twiddles_.assign(std::max<std::size_t>(n, 2), {1.0, 0.0});
  for (std::size_t m = 1; m < n; m *= 2) {
    for (std::size_t j = 0; j < m; ++j) {
      const double angle = std::numbers::pi * static_cast<double>(j) / static_cast<double>(m);
      twiddles_[m + j] = {std::cos(angle), -std::sin(angle)};
    }
  }
}

void FftPlan::forward(std::span<std::complex<double>> data) const {
  if (n_ != 0 && data.size() == n_) run<false>(data.data());
}

void FftPlan::backward(std::span<std::complex<double>> data) const {
  if (n_ != 0 && data.size() == n_) run<true>(data.data());
}

// Decimation in time: bit-reversed order, then the radix-2 stages, taken two at a time as
// radix-4 butterflies so that the data is swept half as often.
template <bool kBackward>
void FftPlan::run(std::complex<double>* data) const {
  for (std::size_t k = 0; k < swaps_.size(); k += 2)
    std::swap(data[swaps_[k]], data[swaps_[k + 1]]);

  double* x = reinterpret_cast<double*>(data);  // re, im interleaved ([complex.numbers.general])
  const double* w = reinterpret_cast<const double*>(twiddles_.data());
  const double sign = kBackward ? -1.0 : 1.0;  // conjugates the factors for the backward pass
  const std::size_t n = n_;

  std::size_t m = 1;
  if (log2n_ % 2 == 1) {
    for (std::size_t i = 0; i < 2 * n; i += 4) {
      const double ar = x[i], ai = x[i + 1], br = x[i + 2], bi = x[i + 3];
      x[i] = ar + br;
      x[i + 1] = ai + bi;
      x[i + 2] = ar - br;
      x[i + 3] = ai - bi;
    }
    m = 2;
  }
  for (; m < n; m *= 4) {
    // Stage of half-width m (factor t = w_2m^j), then stage 2m (factor u = w_4m^j, and
    // w_4m^(j+m) = -i u forward, +i u backward).
    for (std::size_t base = 0; base < n; base += 4 * m) {
      double* p0 = x + 2 * base;
      double* p1 = p0 + 2 * m;
      double* p2 = p1 + 2 * m;
      double* p3 = p2 + 2 * m;
      const double* tw = w + 2 * m;
      const double* uw = w + 4 * m;
      for (std::size_t j = 0; j < 2 * m; j += 2) {
        const double tr = tw[j], ti = sign * tw[j + 1];
        const double ur = uw[j], ui = sign * uw[j + 1];
        const double a0r = p0[j], a0i = p0[j + 1];
        const double a1r = p1[j], a1i = p1[j + 1];
        const double a2r = p2[j], a2i = p2[j + 1];
        const double a3r = p3[j], a3i = p3[j + 1];
        const double t1r = tr * a1r - ti * a1i, t1i = tr * a1i + ti * a1r;
        const double t3r = tr * a3r - ti * a3i, t3i = tr * a3i + ti * a3r;
        const double b0r = a0r + t1r, b0i = a0i + t1i;
        const double b1r = a0r - t1r, b1i = a0i - t1i;
        const double b2r = a2r + t3r, b2i = a2i + t3i;
        const double b3r = a2r - t3r, b3i = a2i - t3i;
        const double u2r = ur * b2r - ui * b2i, u2i = ur * b2i + ui * b2r;
        const double u3r = ur * b3r - ui * b3i, u3i = ur * b3i + ui * b3r;
        // -i (u3r + i u3i) = u3i - i u3r forward; +i (...) = -u3i + i u3r backward.
        const double v3r = sign * u3i, v3i = -sign * u3r;
        p0[j] = b0r + u2r;
        p0[j + 1] = b0i + u2i;
        p2[j] = b0r - u2r;
        p2[j + 1] = b0i - u2i;
        p1[j] = b1r + v3r;
        p1[j + 1] = b1i + v3i;
        p3[j] = b1r - v3r;
        p3[j + 1] = b1i - v3i;
      }
    }
  }
}

}  // namespace cvn
