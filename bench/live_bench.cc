// The once-a-second live pass of a session that has run for 5, 30 and 120
// minutes: one more second of ECG through the engine's analysis (the new
// samples copied out of the session, RunningAnalysis, the HRV every 10 s,
// the results handed back), and what a two-hour session holds in memory.
// Goals: at most 5 ms a pass at any length, 120 minutes at most twice 5;
// at most 150 MB resident for two hours.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "assets/assets.h"
#include "base/clock.h"
#include "base/constants.h"
#include "base/recording.h"
#include "engine/acquisition.h"

namespace {

constexpr std::size_t kSecond = 130;

// The bundled sample, repeated as a strap would keep sending it.
class Strap {
 public:
  Strap() : ecg_(cvn::read_recording(*cvn::find_asset("Sample 1.txt"))) {}
  std::vector<double> next_second() {
    std::vector<double> batch(kSecond);
    for (double& v : batch) v = ecg_[at_++ % ecg_.size()];
    return batch;
  }

 private:
  std::vector<double> ecg_;
  std::size_t at_ = 0;
};

// A live session without a strap link: samples go in as the strap callback
// puts them, and the analysis runs as the acquisition clock starts it.
struct LiveSession {
  cvn::ManualClock clock;
  cvn::SessionState session{clock};
  std::string folder = (std::filesystem::temp_directory_path() / "cvn-bench-live").string();
  cvn::Acquisition acquisition{session, nullptr, clock, folder};
  Strap strap;
  LiveSession() { session.begin_live("bench", {}); }
  void one_second() { session.append_live(strap.next_second()); }
  // `seconds` more, with a pass every `every` seconds.
  void run(int seconds, int every) {
    for (int s = 1; s <= seconds; ++s) {
      one_second();
      if (s % every == 0) acquisition.update_analysis();
    }
  }
};

// Resident and peak memory of this process, MB (Linux; 0 elsewhere).
double status_mb(const char* field) {
  std::FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return 0;
  char line[256];
  double kb = 0;
  while (std::fgets(line, sizeof line, f)) {
    if (std::strncmp(line, field, std::strlen(field)) == 0)
      std::sscanf(line + std::strlen(field), "%lf", &kb);
  }
  std::fclose(f);
  return kb / 1024.0;
}

void BM_LiveUpdate(benchmark::State& state) {
  LiveSession live;
  live.run(static_cast<int>(state.range(0)) * 60, 10);
  for (auto _ : state) {
    state.PauseTiming();
    live.one_second();
    state.ResumeTiming();
    live.acquisition.update_analysis();
  }
}
BENCHMARK(BM_LiveUpdate)->Arg(5)->Arg(30)->Arg(120)->Unit(benchmark::kMillisecond);

// The same pass in a beat session (a strap that sends intervals, about 70
// a minute): the whole list through the chain each time, nothing carried
// over. The second argument asks for the HRV indices, as every tenth pass
// does.
void BM_LiveBeatsUpdate(benchmark::State& state) {
  cvn::ManualClock clock;
  cvn::SessionState session{clock};
  const std::string folder = (std::filesystem::temp_directory_path() / "cvn-bench-live").string();
  cvn::Acquisition acquisition{session, nullptr, clock, folder};
  cvn::SessionSettings settings;
  settings.beats = true;
  session.begin_live("bench", settings);
  const std::vector<double> one = {0.84, 0.80, 0.88, 0.92, 0.86, 0.78, 0.82, 0.90};
  const double seconds = static_cast<double>(state.range(0)) * 60;
  double t = 0;
  for (std::size_t i = 0; t < seconds; ++i) {
    session.append_beats({one[i % one.size()]});
    t += one[i % one.size()];
  }
  for (auto _ : state) acquisition.update_analysis(state.range(1) != 0);
}
BENCHMARK(BM_LiveBeatsUpdate)
    ->Args({5, 0})
    ->Args({30, 0})
    ->Args({120, 0})
    ->Args({120, 1})
    ->Unit(benchmark::kMillisecond);

// Two hours, 936,000 samples, a pass every second. Run it alone
// (--benchmark_filter=BM_LiveSessionMemory) for a figure that is this
// session's only.
void BM_LiveSessionMemory(benchmark::State& state) {
  for (auto _ : state) {
    LiveSession live;
    live.run(2 * 60 * 60, 1);
    state.counters["rss_MB"] = status_mb("VmRSS:");
    state.counters["peak_MB"] = status_mb("VmHWM:");
    state.counters["samples"] = static_cast<double>(live.session.snapshot().samples);
  }
}
BENCHMARK(BM_LiveSessionMemory)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
