// The cost of the live view: the full status snapshot ("/status", and a
// stream's first event) and a stream's later events (20 a second per open
// page). The once-a-second analysis pass is in live_bench.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "assets/assets.h"
#include "engine/engine.h"
#include "server/snapshot_json.h"

namespace {

// A session of `minutes`, tiled from the bundled sample and fully played.
struct Session {
  std::string folder;
  cvn::Engine* engine;
  explicit Session(int minutes) {
    folder = (std::filesystem::temp_directory_path() / "cvn-bench-engine").string();
    std::filesystem::create_directories(folder);
    std::string one(*cvn::find_asset("Sample 1.txt"));
    std::string text;
    const std::size_t lines_wanted = static_cast<std::size_t>(minutes) * 60 * 130;
    std::size_t lines = 0;
    while (lines < lines_wanted) {
      text += one;
      lines += static_cast<std::size_t>(std::count(one.begin(), one.end(), '\n'));
    }
    std::FILE* f = std::fopen((folder + "/rec.txt").c_str(), "wb");
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
    engine = new cvn::Engine(folder, nullptr);
    (void)engine->start_replay(folder + "/rec.txt", {}, {0.0, ""});
    engine->seek(1.0);
    engine->update_analysis();
    engine->stop();
  }
  ~Session() {
    delete engine;
    std::filesystem::remove_all(folder);
  }
};

void BM_StatusSnapshot(benchmark::State& state) {
  Session s(static_cast<int>(state.range(0)));
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string j = cvn::snapshot_json(s.engine->snapshot());
    bytes = j.size();
    benchmark::DoNotOptimize(j);
  }
  state.counters["json_kB"] = static_cast<double>(bytes) / 1000.0;
}
BENCHMARK(BM_StatusSnapshot)->Arg(5)->Arg(30)->Arg(120)->Unit(benchmark::kMillisecond);

// What the stream sends 20 times a second after its first event: the snapshot
// with each series as its new points only (none here, the session being
// stopped), and the comparison that finds them.
void BM_StreamEvent(benchmark::State& state) {
  Session s(static_cast<int>(state.range(0)));
  cvn::StreamCursor cursor;
  (void)cvn::stream_event_json(s.engine->snapshot(), &cursor);
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string j = cvn::stream_event_json(s.engine->snapshot(), &cursor);
    bytes = j.size();
    benchmark::DoNotOptimize(j);
  }
  state.counters["json_kB"] = static_cast<double>(bytes) / 1000.0;
}
BENCHMARK(BM_StreamEvent)->Arg(5)->Arg(30)->Arg(120)->Unit(benchmark::kMillisecond);

}  // namespace
