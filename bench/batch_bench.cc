// A study from a folder on disk into reports: ten 5-minute recordings, each
// analysed and exported, plus the summary. What a researcher waits for, and
// whether memory follows the largest recording or the number of them.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <filesystem>
#include <string>

#include "assets/assets.h"
#include "base/files.h"
#include "base/recording.h"
#include "engine/batch.h"

namespace {

namespace fs = std::filesystem;

// `count` persons with one 5-minute recording each (the bundled sample,
// repeated and shifted so no two are the same).
std::string make_study(int count) {
  const std::vector<double> one = cvn::read_recording(*cvn::find_asset("Sample 1.txt"));
  const std::string root = (fs::temp_directory_path() / "cvn-bench-study").string();
  fs::remove_all(root);
  for (int p = 0; p < count; ++p) {
    std::vector<double> ecg;
    while (ecg.size() < 5 * 60 * 130) ecg.insert(ecg.end(), one.begin() + p * 97, one.end());
    ecg.resize(5 * 60 * 130);
    fs::create_directories(root + "/person" + std::to_string(p));
    (void)cvn::write_file(root + "/person" + std::to_string(p) + "/rest.txt",
                          cvn::format_recording(ecg));
  }
  return root;
}

double peak_rss_mb() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_maxrss) / 1024.0;
}

void BM_Batch(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  const int threads = static_cast<int>(state.range(1));
  cvn::BatchRequest request;
  request.folder = make_study(count);
  const std::string exports = (fs::temp_directory_path() / "cvn-bench-exports").string();
  for (auto _ : state) {
    cvn::BatchOutcome out = cvn::run_batch(
        request, exports, {}, [](int, int, const std::string&) {}, threads);
    if (!out.error.empty() || out.reports.size() != static_cast<std::size_t>(count) + 1)
      state.SkipWithError("batch failed");
    state.PauseTiming();
    fs::remove_all(exports);
    state.ResumeTiming();
  }
  // Peak of the whole process so far: the runs go from few recordings to
  // many, so growth with the count would show here.
  state.counters["peak_MB"] = peak_rss_mb();
  fs::remove_all(request.folder);
}
BENCHMARK(BM_Batch)
    ->Args({2, 2})
    ->Args({10, 1})
    ->Args({10, 2})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

}  // namespace
