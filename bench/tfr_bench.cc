// The recording analysis behind the TFR images: the FFT plan, the cycle measure with both
// time-frequency maps, and the whole chain from ECG to two encoded heat-maps, for recordings
// of 5, 30 and 60 minutes built by tiling the bundled sample recordings.
#include <benchmark/benchmark.h>

#include <complex>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "analysis/cycles.h"
#include "analysis/ecg.h"
#include "analysis/fft.h"
#include "analysis/pipeline.h"
#include "analysis/png.h"
#include "base/recording.h"

namespace {

constexpr double kCycleSeconds = 16.0;  // 5 s in, 11 s out

std::vector<double> read_sample(const std::string& name) {
  std::ifstream in(std::string(CVN_SOURCE_DIR) + "/assets/" + name);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return cvn::read_recording(text);
}

// ECG of `minutes` minutes: Sample 1 and Sample 2 in turn, as often as needed.
const std::vector<double>& recording(int minutes) {
  static std::map<int, std::vector<double>> cache;
  std::vector<double>& ecg = cache[minutes];
  if (ecg.empty()) {
    const std::vector<double> a = read_sample("Sample 1.txt"), b = read_sample("Sample 2.txt");
    const auto n = static_cast<std::size_t>(minutes * 60 * cvn::kSampleRate);
    while (ecg.size() < n && !(a.empty() && b.empty())) {
      ecg.insert(ecg.end(), a.begin(), a.end());
      ecg.insert(ecg.end(), b.begin(), b.end());
    }
    ecg.resize(n);
  }
  return ecg;
}

void BM_FftForward(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const cvn::FftPlan plan(n);
  std::vector<std::complex<double>> data(n);
  for (std::size_t i = 0; i < n; ++i) data[i] = {std::sin(0.1 * i), std::cos(0.37 * i)};
  for (auto _ : state) {
    plan.forward(data);
    benchmark::DoNotOptimize(data.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
}
BENCHMARK(BM_FftForward)->RangeMultiplier(4)->Range(1 << 12, 1 << 20);

// One row's convolution as the wavelet maps do it: no permutations, spectra multiplied in
// bit-reversed order.
void BM_FftConvolutionRow(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const cvn::FftPlan plan(n);
  std::vector<std::complex<double>> signal(n), kernel(n, 0.0), row(n);
  for (std::size_t i = 0; i < n; ++i) signal[i] = {std::sin(0.1 * i), 0.0};
  for (std::size_t i = 0; i < n / 4; ++i) kernel[i] = {std::cos(0.37 * i), std::sin(0.37 * i)};
  plan.forward_bit_reversed(signal);
  for (auto _ : state) {
    row = kernel;
    plan.forward_bit_reversed(row);
    for (std::size_t i = 0; i < n; ++i) row[i] *= signal[i];
    plan.backward_bit_reversed(row);
    benchmark::DoNotOptimize(row.data());
  }
}
BENCHMARK(BM_FftConvolutionRow)->Arg(1 << 14)->Arg(1 << 15);

// Cycle measure and both maps from the RR intervals (R-peaks found beforehand).
void BM_AnalyzeCycles(benchmark::State& state) {
  const std::vector<double>& ecg = recording(static_cast<int>(state.range(0)));
  const std::vector<double> rr =
      cvn::analyze_recording(cvn::EcgSamples{ecg}, kCycleSeconds, {.cycles = false}).rr;
  for (auto _ : state) {
    cvn::CycleAnalysis a = cvn::analyze_cycles(ecg.size(), rr, kCycleSeconds, cvn::kSampleRate);
    benchmark::DoNotOptimize(a.cvn.data());
  }
}
BENCHMARK(BM_AnalyzeCycles)->Arg(5)->Arg(30)->Arg(60)->Unit(benchmark::kMillisecond)->UseRealTime();

// Everything the TFR job does: the whole pipeline, both heat-maps as PNG.
void BM_WholeRecording(benchmark::State& state) {
  const std::vector<double>& ecg = recording(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    const cvn::RecordingAnalysis r = cvn::analyze_recording(cvn::EcgSamples{ecg}, kCycleSeconds);
    const cvn::CycleAnalysis& a = r.cycles;
    for (const cvn::TfrWidth w : {cvn::TfrWidth::kNarrow, cvn::TfrWidth::kWide}) {
      const std::vector<std::uint8_t> png =
          cvn::encode_png_rgb(cvn::render_tfr(a, w, 'M', 40, true));
      benchmark::DoNotOptimize(png.data());
    }
  }
}
BENCHMARK(BM_WholeRecording)
    ->Arg(5)
    ->Arg(30)
    ->Arg(60)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
