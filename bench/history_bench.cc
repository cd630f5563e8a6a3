// A person with fifty 5-minute recordings opened in the History view: how
// long until the first summarised row shows, and until all of them do. Cold:
// no summary kept beside any recording (the first look after an update).
// Warm: every summary kept, a fresh start of the program. The goal on a
// two-core machine is the first row within 1 s and all within 5 s.
#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "assets/assets.h"
#include "base/files.h"
#include "base/recording.h"
#include "engine/history.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kRecordings = 50;

// Fifty sessions of one person on fifty days, each 5 minutes of the bundled
// sample shifted so that no two are the same.
const std::string& person_folder() {
  static const std::string root = [] {
    const std::vector<double> one = cvn::read_recording(*cvn::find_asset("Sample 1.txt"));
    const std::string dir = (fs::temp_directory_path() / "cvn-bench-history").string();
    fs::remove_all(dir);
    fs::create_directories(dir);
    for (int i = 0; i < kRecordings; ++i) {
      std::vector<double> ecg;
      while (ecg.size() < 5 * 60 * 130) ecg.insert(ecg.end(), one.begin() + i * 53, one.end());
      ecg.resize(5 * 60 * 130);
      char name[64];
      std::snprintf(name, sizeof name, "Bench_on5_off11_M40_2025%02d%02d-090000.csv", 1 + i / 28,
                    1 + i % 28);
      (void)cvn::write_file(dir + "/" + name, cvn::format_recording(ecg));
    }
    return dir;
  }();
  return root;
}

void drop_summaries(const std::string& dir) {
  for (const auto& e : fs::directory_iterator(dir))
    if (e.path().extension() == ".summary") fs::remove(e.path());
}

// Asks as the page does, every 50 ms here (the page waits longer), until no
// row is pending; the seconds to the first summarised row and to the last.
std::pair<double, double> open_person(const std::string& dir) {
  const Clock::time_point t0 = Clock::now();
  cvn::History history(dir);
  double first = -1;
  for (;;) {
    const std::optional<cvn::PersonHistory> p = history.person("Bench");
    int done = 0;
    for (const cvn::HistoryRow& r : p->rows) done += !r.pending;
    const double s = std::chrono::duration<double>(Clock::now() - t0).count();
    if (done > 0 && first < 0) first = s;
    if (done == static_cast<int>(p->rows.size())) return {first, s};
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

void BM_HistoryOpen(benchmark::State& state, bool warm) {
  const std::string& dir = person_folder();
  drop_summaries(dir);
  if (warm) open_person(dir);  // keeps every summary
  double first = 0, all = 0;
  for (auto _ : state) {
    if (!warm) {
      state.PauseTiming();
      drop_summaries(dir);
      state.ResumeTiming();
    }
    const auto [f, a] = open_person(dir);
    first = std::max(first, f);
    all = std::max(all, a);
  }
  state.counters["first_row_s"] = first;  // the slowest iteration's
  state.counters["all_rows_s"] = all;
}
BENCHMARK_CAPTURE(BM_HistoryOpen, cold, false)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_HistoryOpen, warm, true)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
