// The export of a 30-minute recording, analysis included: what the user waits
// for after pressing Export, and the size of the report it leaves.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>

#include "assets/assets.h"
#include "base/recording.h"
#include "reports/export.h"

namespace {

void BM_WriteExport(benchmark::State& state) {
  cvn::ExportInput in;
  const std::vector<double> one = cvn::read_recording(*cvn::find_asset("Sample 1.txt"));
  const std::size_t wanted = static_cast<std::size_t>(state.range(0)) * 60 * 130;
  while (in.samples.size() < wanted) in.samples.insert(in.samples.end(), one.begin(), one.end());
  in.samples.resize(wanted);
  for (int s = 30; s < state.range(0) * 60; s += 97) in.markers.push_back({s * 130, s % 9 + 1});
  in.name = "bench";
  in.start_time = 1740920587;
  in.logo.jpeg = std::string(*cvn::find_asset("report_logo.jpg"));
  cvn::jpeg_frame_size(in.logo.jpeg, &in.logo.width, &in.logo.height);

  const std::string folder = (std::filesystem::temp_directory_path() / "cvn-bench-report").string();
  std::filesystem::remove_all(folder);
  double report_bytes = 0;
  for (auto _ : state) {
    cvn::ExportResult r = cvn::write_export(in, folder);
    if (!r.ok()) state.SkipWithError(r.error.c_str());
    report_bytes = static_cast<double>(std::filesystem::file_size(r.folder + "/bench_report.pdf"));
    state.PauseTiming();
    std::filesystem::remove_all(folder);
    state.ResumeTiming();
  }
  state.counters["report_MB"] = report_bytes / 1e6;
}
BENCHMARK(BM_WriteExport)->Arg(30)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
