// Morlet-wavelet time-frequency power of a heart-rate signal. How the power is computed, and
// how closely it matches the one-column-per-sample convolution, is in docs/analysis.md.
#pragma once
#include <complex>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/constants.h"

namespace cvn {

/// Wavelet widths of the two time-frequency maps, in cycles: high time resolution and high
/// frequency resolution.
inline constexpr double kNarrowWaveletCycles = 3.0;
inline constexpr double kWideWaveletCycles = 10.0;

/// Number of rows of a time-frequency map (0.02 to 0.1795 Hz).
inline constexpr int kTfrRowCount = 320;

/// Row frequencies in Hz: from 0.02, adding 0.0005 while the running value is below
/// 0.179999999999, each stored rounded to 4 decimals (320 values).
std::vector<double> tfr_frequencies();

/// Points on one side of the wavelet's time grid: the count of t = j / sample_rate (j = 0, 1,
/// ...) below 5 sigma, sigma = cycles / (2 pi freq) seconds. 0 unless all three are positive
/// and finite.
std::size_t morlet_half_length(double freq, double cycles, double sample_rate);

/// Power as 32-bit floats, row-major: `rows` rows (frequencies) of `cols` columns (times).
struct TfrMatrix {
  std::size_t rows = 0;
  std::size_t cols = 0;
  std::vector<float> power;

  float at(std::size_t row, std::size_t col) const { return power[row * cols + col]; }
};

/// What wavelet_power computes.
struct TfrRequest {
  double sample_rate = kSampleRate;
  /// Hz, one matrix row each.
  std::vector<double> frequencies;
  /// Wavelet widths in cycles, one matrix each.
  std::vector<double> widths;
  /// Signal sample shown by each matrix column; ascending, each below the signal length.
  std::vector<std::int32_t> columns;
  /// One row, given as indices into `widths` and `frequencies`, also computed at every
  /// signal sample; -1 for none.
  int dense_width = -1;
  int dense_row = -1;
  /// Worker threads; rows are independent.
  int threads = 2;
};

struct WaveletPower {
  /// One per width: frequencies x columns.
  std::vector<TfrMatrix> matrices;
  /// Power of the dense row at every signal sample; empty when none was asked for.
  std::vector<float> dense;
};

/// Wavelet power of the signal extended[offset, offset + length), which the rest of
/// `extended` continues on both sides (zero beyond it): for signal sample k and wavelet psi of
/// length M, |sum_m extended[offset + k + (M - 1) / 2 - m] psi[m]|^2. Computed on a decimated
/// grid (docs/analysis.md); the result stays within about 1e-5 of this convolution relative to
/// the row's peak power. Empty when the request or the ranges are not valid.
WaveletPower wavelet_power(const std::vector<double>& extended, std::size_t offset,
                           std::size_t length, const TfrRequest& request);

namespace detail {

/// Complex Morlet wavelet on the grid -t_(J-1), ..., -t_0, t_0, ..., t_(J-1) (J =
/// morlet_half_length; 0 s appears twice): psi(t) = (cos(2 pi f t) - c + i sin(2 pi f t))
/// exp(-t^2 / (2 sigma^2)), c = exp(-2 (pi f sigma)^2) removing the carrier's mean, divided by
/// sqrt(0.5 sum |psi|^2). Empty when morlet_half_length is 0. wavelet_power builds its
/// wavelets on a decimated grid instead; this full-rate one is the reference the tests hold
/// that against.
std::vector<std::complex<double>> morlet_wavelet(double freq, double cycles, double sample_rate);

}  // namespace detail

}  // namespace cvn
