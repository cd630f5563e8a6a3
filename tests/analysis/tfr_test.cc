#include "analysis/tfr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

#include "analysis/cycles.h"
#include "analysis/fft.h"
#include "analysis/heatmap.h"

namespace cvn {
namespace {

constexpr double kRate = 130.0;

// Beat-to-beat intervals of a paced breather: 65 bpm, 5 bpm of sinus arrhythmia at 1/16 Hz, a
// slower wave, deterministic jitter and one premature beat with its pause.
std::vector<double> breathing_rr(double seconds) {
  std::vector<double> rr;
  double t = 0.0;
  for (int i = 0; t < seconds; ++i) {
    const double bpm = 65 + 5 * std::sin(2 * std::numbers::pi * t / 16) +
                       1.5 * std::sin(2 * std::numbers::pi * 0.23 * t) + 0.8 * std::sin(i * 2.7);
    double r = 60 / bpm;
    if (i == 40) r *= 0.6;
    if (i == 41) r *= 1.4;
    rr.push_back(r);
    t += r;
  }
  return rr;
}

// The heart-rate signal of `seconds` of recording, extended by its cycles as the analysis does.
ExtendedSignal heart_rate(std::size_t samples, double cycle_seconds) {
  const std::vector<double> hr =
      heart_rate_signal(breathing_rr(static_cast<double>(samples) / kRate + 5), samples, kRate);
  return extend_by_cycles(hr, cycle_bounds(samples, cycle_seconds, kRate), cycle_seconds, kRate);
}

// The definition, computed the slow way: the literal wavelet convolved with the whole
// extended signal by one long FFT, power at every signal sample.
std::vector<double> full_resolution_row(const ExtendedSignal& x, std::size_t length, double freq,
                                        double cycles) {
  const std::vector<std::complex<double>> psi = detail::morlet_wavelet(freq, cycles, kRate);
  const std::size_t n = fft_length_for(x.samples.size() + psi.size() - 1);
  const FftPlan plan(n);
  std::vector<std::complex<double>> a(n), b(n);
  std::copy(x.samples.begin(), x.samples.end(), a.begin());
  std::copy(psi.begin(), psi.end(), b.begin());
  plan.forward(a);
  plan.forward(b);
  for (std::size_t i = 0; i < n; ++i) a[i] *= b[i] / static_cast<double>(n);
  plan.backward(a);
  std::vector<double> power(length);
  for (std::size_t k = 0; k < length; ++k)
    power[k] = std::norm(a[x.offset + k + (psi.size() - 1) / 2]);
  return power;
}

TfrRequest request_for(std::vector<double> freqs, std::vector<double> widths,
                       std::vector<std::int32_t> columns) {
  TfrRequest request;
  request.frequencies = std::move(freqs);
  request.widths = std::move(widths);
  request.columns = std::move(columns);
  return request;
}

// The frequency axis is pinned in cycles_test.cc; the wavelet's scale and power against the
// independent reference by the CVN comparison there, at two breathing frequencies.

// The decimated route against the literal convolution, on a heart-rate signal with a
// premature beat, for rows across the axis and one row at every sample.
void expect_matches_full_resolution(std::size_t samples, double cycle_seconds,
                                    double tail_tolerance) {
  const ExtendedSignal x = heart_rate(samples, cycle_seconds);
  ASSERT_FALSE(x.samples.empty());
  std::vector<std::int32_t> columns;
  for (std::size_t j = 0; j < 1200; ++j)
    columns.push_back(static_cast<std::int32_t>(j * samples / 1200));
  columns.push_back(static_cast<std::int32_t>(samples - 1));
  const std::vector<double> freqs = {0.02, 0.041, 0.0625, 0.1, 0.145, 0.1795};
  TfrRequest request = request_for(freqs, {3.0, 10.0}, columns);
  request.dense_width = 1;
  request.dense_row = 3;
  const WaveletPower fast = wavelet_power(x.samples, x.offset, samples, request);
  ASSERT_EQ(fast.matrices.size(), 2u);
  ASSERT_EQ(fast.dense.size(), samples);

  for (int w = 0; w < 2; ++w) {
    for (std::size_t r = 0; r < freqs.size(); ++r) {
      const std::vector<double> full = full_resolution_row(x, samples, freqs[r], request.widths[w]);
      const double peak = *std::max_element(full.begin(), full.end());
      for (std::size_t c = 0; c < columns.size(); ++c) {
        const double want = full[columns[c]], got = fast.matrices[w].at(r, c);
        // Near the end of the recording the extension may be short, and the signal's jump to
        // zero beyond it is felt through the wavelet's repeated t = 0.
        const bool tail = columns[c] + 130 >= static_cast<std::int32_t>(samples);
        const double relative = tail ? tail_tolerance : 1e-4;
        ASSERT_NEAR(got, want, 2e-5 * peak + relative * want)
            << request.widths[w] << " cycles, " << freqs[r] << " Hz, sample " << columns[c];
      }
      if (w == request.dense_width && static_cast<int>(r) == request.dense_row) {
        // The cycle measure averages ln(power) of this row: within 1e-4 wherever the power
        // is not negligible.
        for (std::size_t k = 0; k < samples; ++k) {
          if (full[k] < 1e-3 * peak) continue;
          ASSERT_NEAR(std::log(fast.dense[k]), std::log(full[k]), 1e-4) << "sample " << k;
        }
      }
    }
  }
}

TEST(Tfr, DecimatedRouteMatchesFullResolution) {
  expect_matches_full_resolution(120 * 130, 10.0, 1e-4);
  // b_K one sample before the end: the back extension is 50 samples long.
  expect_matches_full_resolution(12 * 1300 + 1, 10.0, 2e-4);
}

// The picture render_heatmap draws from a full-resolution matrix (one column per sample).
RgbImage full_picture(const std::vector<float>& power, std::size_t rows, std::size_t cols,
                      const HeatmapScale& scale, int expected_row, double cycle) {
  HeatmapParams p;
  p.power = power;
  p.rows = rows;
  p.cols = cols;
  p.centre = scale.centre;
  p.half_range = scale.half_range;
  p.expected_row = expected_row;
  p.sex = 'F';
  p.age = 30;
  p.cycle_seconds = cycle;
  p.sampling_rate = kRate;
  return render_heatmap(p);
}

// The maps keep only the columns a picture shows. Drawn through render_tfr they must give,
// byte for byte, the picture render_heatmap draws from the full-resolution matrix: the same
// sample in every pixel column, the green line, the cycle lines, each map with its own scale.
// The power changes from sample to sample, so a column one sample off changes colour. The
// lengths and cycles include ones whose cycle lines round differently on the kept columns
// than on the full count (72.6 s at 6.05 s puts them exactly on pixel edges).
TEST(TfrImage, MatchesTheFullResolutionPicture) {
  const struct {
    std::size_t samples;
    double cycle;
  } cases[] = {{7020, 6.0}, {14560, 4.0}, {15912, 4.08}, {9438, 6.05}, {8450, 6.5},
               {34320, 16}, {23920, 10},  {1300, 10},    {900, 6},     {2000, 0.2}};
  const auto power_at = [](std::size_t sample) { return sample % 3 ? 1e6f : 1e6f + 1600; };
  for (const auto& c : cases) {
    CycleAnalysis a = analyze_cycles(c.samples, std::vector<double>(300, 0.9), c.cycle, kRate);
    ASSERT_FALSE(a.empty()) << c.samples;
    a.expected_row = 1;  // the top one of two rows
    a.stats.scale3 = {1e6 + 800, 800};
    a.stats.scale10 = {1e6 + 1600, 1600};
    std::vector<float> full;
    TfrMatrix kept{2, a.column_samples.size(), {}};
    for (int row = 0; row < 2; ++row) {
      for (std::size_t s = 0; s < c.samples; ++s) full.push_back(power_at(s));
      for (const std::int32_t s : a.column_samples) kept.power.push_back(power_at(s));
    }
    a.tfr3 = a.tfr10 = kept;
    for (const TfrWidth which : {TfrWidth::kNarrow, TfrWidth::kWide}) {
      const HeatmapScale& scale = which == TfrWidth::kWide ? a.stats.scale10 : a.stats.scale3;
      EXPECT_EQ(render_tfr(a, which, 'F', 30, false).rgb,
                full_picture(full, 2, c.samples, scale, 1, c.cycle).rgb)
          << c.samples << " samples, cycle " << c.cycle << ", wide " << (which == TfrWidth::kWide);
    }
  }
}

// The callers build their requests; what must hold is that a wrong one reads nothing out of
// bounds and says so by an empty result.
TEST(Tfr, RefusesRequestsThatWouldReadOutsideTheSignal) {
  const std::vector<double> x(5000, 70.0);
  const TfrRequest good = request_for({0.1}, {3.0}, {0, 10, 999});
  ASSERT_EQ(wavelet_power(x, 2000, 1000, good).matrices.size(), 1u);
  EXPECT_TRUE(wavelet_power(x, 4500, 1000, good).matrices.empty());  // past the end
  // A zero frequency or rate, or a NaN width, would make a wavelet of no or endless length.
  TfrRequest dense = good, no_rate = good;
  dense.dense_width = 0;
  dense.dense_row = 1;
  no_rate.sample_rate = 0.0;
  for (const TfrRequest& bad : {request_for({0.1}, {3.0}, {1000}), request_for({0.1}, {3.0}, {-1}),
                                request_for({0.1}, {3.0}, {10, 9}), request_for({0.0}, {3.0}, {0}),
                                request_for({0.1}, {std::nan("")}, {0}), dense, no_rate})
    EXPECT_TRUE(wavelet_power(x, 2000, 1000, bad).matrices.empty());
}

}  // namespace
}  // namespace cvn
