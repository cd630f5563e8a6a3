// Complex fast Fourier transform of power-of-two length: a plan is built once per length and
// then executed many times, in place and without allocating.
#pragma once
#include <complex>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace cvn {

/// Radix-2 transform plan for one length (two stages at a time, as radix-4 butterflies). The
/// bit-reversal permutation and the twiddle factors are computed when the plan is built; the
/// transforms are const and allocation-free, so one plan can serve many rows and several
/// threads at once.
class FftPlan {
 public:
  /// Plan for `n` points. A length that is not a power of two gives an empty plan: size()
  /// is 0 and the transforms leave their input alone.
  explicit FftPlan(std::size_t n);

  std::size_t size() const { return n_; }

  /// X[k] = sum_j x[j] exp(-2 pi i j k / n), in place. Does nothing unless
  /// data.size() == size().
  void forward(std::span<std::complex<double>> data) const;

  /// x[j] = sum_k X[k] exp(+2 pi i j k / n), in place and unscaled: backward(forward(x))
  /// gives n x. Does nothing unless data.size() == size().
  void backward(std::span<std::complex<double>> data) const;

  /// forward() leaving X[k] at index bitreverse(k). A convolution only multiplies spectra
  /// point by point, so it can skip both permutations: forward_bit_reversed on each input,
  /// the products, then backward_bit_reversed.
  void forward_bit_reversed(std::span<std::complex<double>> data) const;

  /// backward() of a spectrum held in bit-reversed order (as forward_bit_reversed leaves
  /// it); the result is in natural order, unscaled.
  void backward_bit_reversed(std::span<std::complex<double>> data) const;

 private:
  void permute(std::complex<double>* data) const;
  template <bool kBackward>
  void time_stages(std::complex<double>* data) const;
  void frequency_stages(std::complex<double>* data) const;

  std::size_t n_ = 0;
  int log2n_ = 0;
  // Index pairs (i, j), i < j, that the bit-reversal permutation swaps.
  std::vector<std::uint32_t> swaps_;
  // For each radix-4 block of 4q points, w^j, w^2j, w^3j (w = exp(-2 pi i / 4q), j < q) at
  // [3 (q + j), 3 (q + j) + 3).
  std::vector<std::complex<double>> twiddles_;
};

/// Forward transform of any length, for spectra whose segment is not a power of two: a power
/// of two goes straight to FftPlan; any other length n becomes a circular convolution of
/// length fft_length_for(2n - 1) with Bluestein's chirp, whose spectrum the plan keeps.
class DftPlan {
 public:
  /// Plan for `n` points; size() is 0 for n == 0 or when the convolution would exceed what
  /// FftPlan can take.
  explicit DftPlan(std::size_t n);

  std::size_t size() const { return n_; }

  /// X[k] = sum_j x[j] exp(-2 pi i j k / n), in place. Does nothing unless
  /// data.size() == size(). Other than a power of two, allocates one work buffer per call.
  void forward(std::span<std::complex<double>> data) const;

 private:
  std::size_t n_ = 0;
  FftPlan fft_;  // n itself, or the convolution length
  // exp(-i pi j^2 / n), j < n: the chirp that turns j k into (j^2 + k^2 - (k - j)^2) / 2.
  std::vector<std::complex<double>> chirp_;
  // Transform (bit-reversed order) of the conjugate chirp wrapped around the convolution,
  // divided by its length so that the unscaled backward pass comes out right.
  std::vector<std::complex<double>> kernel_;
};

/// Smallest power of two that is at least `n` (1 for n <= 1); 0 when there is none.
std::size_t fft_length_for(std::size_t n);

}  // namespace cvn
