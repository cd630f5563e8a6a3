// Heat-map rendering and PNG encoding at the size of a 30-minute recording.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "analysis/deflate.h"
#include "analysis/heatmap.h"
#include "analysis/png.h"

namespace {

constexpr std::size_t kRows = 320;      // frequency rows, 0.02 to 0.1795 Hz
constexpr std::size_t kCols = 234'000;  // 30 minutes at 130 Hz

// Smooth power with a breathing band and a slow drift, roughly like a real map; a third of
// it lies below the reference level.
const std::vector<float>& matrix() {
  static const std::vector<float> power = [] {
    std::vector<float> v(kRows * kCols);
    std::vector<double> drift(kCols);
    for (std::size_t c = 0; c < kCols; ++c) drift[c] = std::sin(2e-5 * static_cast<double>(c));
    for (std::size_t r = 0; r < kRows; ++r) {
      const double band = std::exp(-0.5 * std::pow((static_cast<double>(r) - 85) / 12, 2));
      for (std::size_t c = 0; c < kCols; ++c) {
        v[r * kCols + c] = static_cast<float>(std::exp(7.5 + 3 * band + 1.5 * drift[c]));
      }
    }
    return v;
  }();
  return power;
}

cvn::HeatmapParams params() {
  cvn::HeatmapParams p;
  p.power = matrix();
  p.rows = kRows;
  p.cols = kCols;
  p.centre = std::exp(9.0);
  p.half_range = std::exp(9.5);
  p.expected_row = 85;
  p.sex = 'F';
  p.age = 45;
  p.cycle_seconds = 16;
  p.sampling_rate = 130;
  p.blend = true;
  return p;
}

void BM_RenderHeatmap(benchmark::State& state) {
  const cvn::HeatmapParams p = params();
  for (auto _ : state) benchmark::DoNotOptimize(cvn::render_heatmap(p));
}
BENCHMARK(BM_RenderHeatmap)->Unit(benchmark::kMillisecond);

void BM_RenderAndEncodeDataUri(benchmark::State& state) {
  const cvn::HeatmapParams p = params();
  std::size_t png_bytes = 0;
  for (auto _ : state) {
    const std::vector<std::uint8_t> png = cvn::encode_png_rgb(cvn::render_heatmap(p));
    png_bytes = png.size();
    benchmark::DoNotOptimize(cvn::png_data_uri(png));
  }
  state.counters["png_bytes"] = static_cast<double>(png_bytes);
}
BENCHMARK(BM_RenderAndEncodeDataUri)->Unit(benchmark::kMillisecond);

void BM_ZlibCompressHeatmap(benchmark::State& state) {
  const std::vector<std::uint8_t> rgb = cvn::render_heatmap(params()).rgb;
  std::size_t out = 0;
  for (auto _ : state) {
    out = cvn::zlib_compress(rgb).size();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * rgb.size()));
  state.counters["ratio"] = static_cast<double>(rgb.size()) / static_cast<double>(out);
}
BENCHMARK(BM_ZlibCompressHeatmap)->Unit(benchmark::kMillisecond);

}  // namespace
