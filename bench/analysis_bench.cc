// Cost of the per-second live analysis (R-peaks, heart-rate grid, live
// score over the whole session so far) as a session grows. Goal: at most
// 50 ms for a 30-minute recording on one core.
#include <benchmark/benchmark.h>

#include <fstream>
#include <string>
#include <vector>

#include "analysis/ecg.h"
#include "analysis/filter.h"
#include "analysis/heart_rate.h"
#include "analysis/hrv.h"
#include "analysis/live_score.h"
#include "analysis/pipeline.h"

namespace {

// Breathing cycle of the default pacer (5 s in, 11 s out).
constexpr double kCycleSeconds = 16.0;

// The 2-minute synthetic reference recording, repeated to `minutes`.
const std::vector<double>& recording(int minutes) {
  static std::vector<double> base = [] {
    std::vector<double> samples;
    std::ifstream in(std::string(CVN_SOURCE_DIR) + "/tests/analysis/golden/synthetic_rsa.txt");
    for (double v; in >> v;) samples.push_back(v);
    return samples;
  }();
  static std::vector<double> cache[3];
  std::vector<double>& out = cache[minutes <= 5 ? 0 : minutes <= 30 ? 1 : 2];
  const auto n = static_cast<std::size_t>(minutes * 60 * cvn::kSampleRate);
  if (out.size() != n && !base.empty()) {
    out.resize(n);
    for (std::size_t i = 0; i < n; ++i) out[i] = base[i % base.size()];
  }
  return out;
}

void BM_LiveAnalysis(benchmark::State& state) {
  const std::vector<double>& ecg = recording(static_cast<int>(state.range(0)));
  if (ecg.empty()) return state.SkipWithError("reference recording missing");
  for (auto _ : state) {
    const cvn::RecordingAnalysis a =
        cvn::analyze_recording(cvn::EcgSamples{ecg}, kCycleSeconds, {.cycles = false});
    benchmark::DoNotOptimize(a.hr.data());
    benchmark::DoNotOptimize(cvn::live_cvn_scores(a.rr, ecg.size(), kCycleSeconds));
  }
}
BENCHMARK(BM_LiveAnalysis)->Arg(5)->Arg(30)->Arg(120)->Unit(benchmark::kMillisecond);

// The parts, to see where the time goes.
void BM_Bandpass(benchmark::State& state) {
  const std::vector<double>& ecg = recording(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(cvn::ecg_bandpass(ecg));
}
BENCHMARK(BM_Bandpass)->Arg(30)->Unit(benchmark::kMillisecond);

void BM_FindRPeaks(benchmark::State& state) {
  const std::vector<double>& ecg = recording(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(cvn::find_r_peaks(ecg, cvn::kSampleRate, cvn::kMaxHeartRate));
  }
}
BENCHMARK(BM_FindRPeaks)->Arg(30)->Unit(benchmark::kMillisecond);

void BM_RegularHr(benchmark::State& state) {
  const std::vector<double>& ecg = recording(static_cast<int>(state.range(0)));
  const std::vector<double> rr =
      cvn::analyze_recording(cvn::EcgSamples{ecg}, kCycleSeconds, {.cycles = false}).rr;
  for (auto _ : state) {
    benchmark::DoNotOptimize(cvn::regular_hr(rr, ecg.size(), cvn::kSampleRate));
  }
}
BENCHMARK(BM_RegularHr)->Arg(30)->Unit(benchmark::kMillisecond);

void BM_LiveScore(benchmark::State& state) {
  const std::vector<double>& ecg = recording(static_cast<int>(state.range(0)));
  const std::vector<double> rr =
      cvn::analyze_recording(cvn::EcgSamples{ecg}, kCycleSeconds, {.cycles = false}).rr;
  for (auto _ : state) {
    benchmark::DoNotOptimize(cvn::live_cvn_scores(rr, ecg.size(), kCycleSeconds));
  }
}
BENCHMARK(BM_LiveScore)->Arg(5)->Arg(30)->Arg(120)->Unit(benchmark::kMillisecond);

// HRV indices of a finished recording (spline, detrend, Welch, time domain, per breath).
// Goal: at most 10 ms for 30 minutes.
void BM_HrvIndices(benchmark::State& state) {
  const std::vector<double>& ecg = recording(static_cast<int>(state.range(0)));
  const cvn::RecordingAnalysis a =
      cvn::analyze_recording(cvn::EcgSamples{ecg}, kCycleSeconds, {.cycles = false, .hrv = false});
  for (auto _ : state) benchmark::DoNotOptimize(cvn::compute_hrv(a.rr, {}, a.hr, kCycleSeconds));
}
BENCHMARK(BM_HrvIndices)->Arg(5)->Arg(30)->Arg(120)->Unit(benchmark::kMillisecond);

}  // namespace
