#include "analysis/fft.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <vector>

namespace cvn {
namespace {

using Signal = std::vector<std::complex<double>>;

Signal random_signal(std::size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> normal(0.0, 1.0);
  Signal x(n);
  for (auto& v : x) v = {normal(rng), normal(rng)};
  return x;
}

// The defining sum, in long double, as the independent reference.
Signal direct_dft(const Signal& x) {
  const std::size_t n = x.size();
  Signal out(n);
  for (std::size_t k = 0; k < n; ++k) {
    std::complex<long double> sum = 0;
    for (std::size_t j = 0; j < n; ++j) {
      const long double angle = -2 * std::numbers::pi_v<long double> *
                                static_cast<long double>((j * k) % n) / static_cast<long double>(n);
      sum += std::complex<long double>(x[j]) * std::polar(1.0L, angle);
    }
    out[k] = std::complex<double>(sum);
  }
  return out;
}

double max_error(const Signal& a, const Signal& b) {
  double worst = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) worst = std::max(worst, std::abs(a[i] - b[i]));
  return worst;
}

// Odd and even powers of two take different first stages; the defining sum is too slow
// beyond 512 points, where the round trip still shows accumulated twiddle errors.
TEST(Fft, MatchesTheDefiningSumAndRoundTrips) {
  for (std::size_t n : {1u, 2u, 4u, 8u, 32u, 128u, 512u, 8192u, 65536u}) {
    const Signal x = random_signal(n, static_cast<unsigned>(n));
    Signal y = x;
    const FftPlan plan(n);
    plan.forward(y);
    if (n <= 512) {
      EXPECT_LT(max_error(y, direct_dft(x)), 1e-12 * std::sqrt(static_cast<double>(n)) * 4)
          << "n = " << n;
    }
    plan.backward(y);
    for (auto& v : y) v /= static_cast<double>(n);
    EXPECT_LT(max_error(x, y), 1e-13) << "n = " << n;
  }
}

// One plan shared by the TFR's worker threads is checked there: results against the literal
// convolution (tfr_test), races under ThreadSanitizer (the engine's TFR job).

// The bit-reversed pair serves the wavelet convolutions: tfr_test compares those with a
// convolution in natural order.
TEST(Fft, RefusesWhatItCannotTransform) {
  for (std::size_t n : {0u, 3u, 12u, 1000u}) EXPECT_EQ(FftPlan(n).size(), 0u) << n;
  Signal x = random_signal(8, 3);
  const Signal before = x;
  FftPlan(16).forward(x);  // wrong length for the plan: untouched, nothing read beyond it
  FftPlan(16).forward_bit_reversed(x);
  FftPlan(16).backward_bit_reversed(x);
  EXPECT_EQ(x, before);
  EXPECT_EQ(fft_length_for(0), 1u);
  EXPECT_EQ(fft_length_for(1025), 2048u);
  EXPECT_EQ(fft_length_for(2048), 2048u);
}

// Bluestein's convolution for the lengths Welch segments of short recordings take; powers of
// two go straight to FftPlan.
TEST(Fft, AnyLengthMatchesTheDefiningSum) {
  for (std::size_t n : {1u, 2u, 3u, 5u, 12u, 97u, 720u, 1000u, 1024u}) {
    const Signal x = random_signal(n, static_cast<unsigned>(n) + 7);
    Signal y = x;
    const DftPlan plan(n);
    ASSERT_EQ(plan.size(), n);
    plan.forward(y);
    EXPECT_LT(max_error(y, direct_dft(x)), 1e-12 * std::sqrt(static_cast<double>(n)) * 4)
        << "n = " << n;
  }
  EXPECT_EQ(DftPlan(0).size(), 0u);
  Signal x = random_signal(8, 3);
  const Signal before = x;
  DftPlan(12).forward(x);  // wrong length for the plan: untouched
  EXPECT_EQ(x, before);
}

}  // namespace
}  // namespace cvn
