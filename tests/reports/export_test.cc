// The per-recording writer: six files that agree with the analysis, a fresh
// folder per export, and what a full disk leaves behind.
#include "reports/export.h"

#include <gtest/gtest.h>

#include <zlib.h>
#include <sstream>

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "analysis/pipeline.h"
#include "assets/assets.h"
#include "reports/edf.h"
#include "tests/support/fake_disk.h"
#include "tests/support/resonant_rr.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

ExportInput sample_input() {
  ExportInput in;
  in.samples = read_recording(*find_asset("Sample 1.txt"));
  in.markers = {{1300, 2}, {1400, 5}, {26000, 9}};
  in.name = "Anna B";
  in.summary_maps = true;
  return in;
}

// What pdftotext reads from `pdf` with `options`, in which every text in `want` must be.
std::string expect_pdf_text(const std::string& pdf, std::vector<std::string> options,
                            const std::vector<std::string>& want) {
  options.insert(options.begin(), "/usr/bin/pdftotext");
  options.insert(options.end(), {pdf, "-"});
  const test::ToolRun r = test::run_tool(options);
  EXPECT_EQ(r.status, 0) << r.err;
  for (const std::string& t : want)
    EXPECT_NE(r.out.find(t), std::string::npos) << t << "\n" << r.out;
  return r.out;
}

TEST(WriteExport, FilesAgreeWithTheAnalysis) {
  test::TempDir dir;
  const ExportInput in = sample_input();
  ManualClock clock;  // no start time: the export is dated by its clock
  const ExportResult r = write_export(in, dir / "exports", clock);
  ASSERT_TRUE(r.ok()) << r.error;
  EXPECT_EQ(r.folder, dir / "exports/Anna_B_export");
  EXPECT_EQ(r.files,
            (std::vector<std::string>{"Anna_B_ECG.txt", "Anna_B_HR.txt", "Anna_B_markers.csv",
                                      "Anna_B.edf", "Anna_B_CVN_logpower.csv", "Anna_B_HRV.csv",
                                      "Anna_B_RR.csv", "Anna_B_report.pdf"}));
  const auto file = [&](const std::string& name) { return test::slurp(r.folder + "/" + name); };

  EXPECT_EQ(file("Anna_B_ECG.txt"), format_recording(in.samples));
  EXPECT_EQ(file("Anna_B_markers.csv"), markers_csv(in.markers));
  EdfRecording edf{edf_ecg_signal(),
                   in.samples,
                   130,
                   in.name,
                   {{10, "Marker 2"}, {1400 / 130.0, "Marker 5"}, {200, "Marker 9"}},
                   clock.wall()};
  const std::vector<std::uint8_t> edf_bytes = edf_file(edf);
  EXPECT_EQ(file("Anna_B.edf"), std::string(edf_bytes.begin(), edf_bytes.end()));
  EXPECT_EQ(file("Anna_B_report.pdf").substr(0, 9), "%PDF-1.4\n");

  // The tables are the pipeline's results in their formats (export_files_test).
  const RecordingAnalysis analysis = analyze_recording(EcgSamples{in.samples}, 16.0);
  const CycleAnalysis& cycles = analysis.cycles;
  EXPECT_EQ(file("Anna_B_HR.txt"), hr_text(analysis.hr));
  EXPECT_EQ(file("Anna_B_CVN_logpower.csv"),
            logpower_csv(timed_cycles(cycles.cvn, 16.0), in.markers));
  EXPECT_EQ(file("Anna_B_HRV.csv"), hrv_csv(analysis.hrv));
  EXPECT_EQ(
      file("Anna_B_RR.csv"),
      rr_csv(analysis.rr, std::vector<bool>(analysis.corrected.begin(), analysis.corrected.end())));
  EXPECT_EQ(r.summary.beats, analysis.rr.size() + 1);
  EXPECT_EQ(r.summary.cvn, cycles.cvn);

  // The batch summary's maps: each pixel the mean of the block of the full
  // map it stands for, read back through zlib.
  const RgbImage full = render_tfr(cycles, TfrWidth::kNarrow, 'M', 40, true);
  const PdfImage& small = r.summary.map3;
  ASSERT_EQ(small.width, std::min(full.width, kSummaryMapWidth));
  ASSERT_EQ(small.height, kSummaryMapHeight);
  std::vector<std::uint8_t> rgb(static_cast<std::size_t>(small.width) * small.height * 3);
  uLongf size = rgb.size();
  ASSERT_EQ(uncompress(rgb.data(), &size, reinterpret_cast<const Bytef*>(small.zlib.data()),
                       small.zlib.size()),
            Z_OK);
  ASSERT_EQ(size, rgb.size());
  const int bw = full.width / small.width, bh = full.height / small.height;
  ASSERT_EQ(bw * small.width, full.width) << "Sample 1 gives a whole factor";
  for (int y = 0; y < small.height; ++y)
    for (int x = 0; x < small.width; ++x)
      for (int k = 0; k < 3; ++k) {
        double sum = 0;
        for (int sy = y * bh; sy < (y + 1) * bh; ++sy)
          for (int sx = x * bw; sx < (x + 1) * bw; ++sx)
            sum += full.rgb[(static_cast<std::size_t>(sy) * full.width + sx) * 3 + k];
        ASSERT_NEAR(rgb[(static_cast<std::size_t>(y) * small.width + x) * 3 + k], sum / (bw * bh),
                    0.5)
            << x << "," << y << " channel " << k;
      }
  EXPECT_EQ(r.summary.map10.height, kSummaryMapHeight);

  // A second export of the same session never touches the first.
  const ExportResult again = write_export(in, dir / "exports");
  ASSERT_TRUE(again.ok()) << again.error;
  EXPECT_EQ(again.folder, dir / "exports/Anna_B-2_export");
}

TEST(WriteExport, RrListWithoutEcgLeavesOutTheEcgFiles) {
  test::TempDir dir;
  ExportInput in;
  in.name = "kubios";
  in.summary_maps = true;
  for (int i = 0; i < 300; ++i) in.rr_seconds.push_back(0.9 + 0.1 * std::sin(i * 0.4));
  ManualClock clock;
  const ExportResult r = write_export(in, dir.path(), clock);
  ASSERT_TRUE(r.ok()) << r.error;
  EXPECT_EQ(r.files, (std::vector<std::string>{"kubios_HR.txt", "kubios_markers.csv", "kubios.edf",
                                               "kubios_CVN_logpower.csv", "kubios_HRV.csv",
                                               "kubios_RR.csv", "kubios_report.pdf"}));
  // No ECG: the EDF+ file carries the 10 Hz heart rate the report plots.
  const RecordingAnalysis a = analyze_recording(RrSeconds{in.rr_seconds}, 16.0);
  EdfRecording edf{edf_heart_rate_signal(), a.hr, 10, in.name, {}, clock.wall()};
  const std::vector<std::uint8_t> edf_bytes = edf_file(edf);
  EXPECT_EQ(test::slurp(r.folder + "/kubios.edf"), std::string(edf_bytes.begin(), edf_bytes.end()));
  EXPECT_EQ(r.summary.beats, 301u);
  EXPECT_GT(test::lines_of(test::slurp(r.folder + "/kubios_CVN_logpower.csv")).size(), 2u);
  EXPECT_FALSE(r.summary.map3.empty());

  // The report says where the beats came from: nobody can re-check them.
  if (!test::have_tool("/usr/bin/pdftotext")) GTEST_SKIP() << "poppler-utils is not installed";
  EXPECT_EQ(
      expect_pdf_text(r.folder + "/kubios_report.pdf", {"-layout"},
                      {"Source: RR-interval export (no ECG recorded)", "Beats (from RR export)"})
          .find("R-peaks"),
      std::string::npos);

  // The same beats from a strap that sends no ECG name the strap.
  in.beat_device = "Wahoo TICKR 5E21";
  const ExportResult strap = write_export(in, dir.path(), clock);
  ASSERT_TRUE(strap.ok()) << strap.error;
  expect_pdf_text(strap.folder + "/kubios_report.pdf", {"-layout"},
                  {"Source: heart beats from Wahoo TICKR 5E21", "Beats (from the strap)"});
}

// An assessment adds its steps after the intervals, scored on the beats, heart
// rate and length the pipeline gives (as /rf_result scores a session), and a
// third page that recommends the resonant rate.
TEST(WriteExport, AssessmentAddsItsStepsAndAThirdPage) {
  test::TempDir dir;
  ExportInput in;
  in.name = "rf";
  in.rf = RfProtocol{};
  const std::vector<RfStep> steps = rf_schedule(*in.rf);
  in.rr_seconds = test::resonant_rr(steps);
  // In the third breath of the second step.
  in.markers = {{static_cast<int>((steps[1].start_s + 2.5 * steps[1].cycle_s) * 130), 7}};
  const ExportResult r = write_export(in, dir.path());
  ASSERT_TRUE(r.ok()) << r.error;
  EXPECT_EQ(r.files, (std::vector<std::string>{"rf_HR.txt", "rf_markers.csv", "rf.edf",
                                               "rf_CVN_logpower.csv", "rf_HRV.csv", "rf_RR.csv",
                                               "rf_RF.csv", "rf_report.pdf"}));
  const RecordingAnalysis a =
      analyze_recording(RrSeconds{in.rr_seconds}, in.breathing.cycle_seconds());
  const RfResult want = score_rf(*in.rf, a.rr, a.hr, a.duration_seconds);
  ASSERT_EQ(want.recommended_bpm, 5.0);
  EXPECT_EQ(test::slurp(r.folder + "/rf_RF.csv"), rf_csv(want));

  // The log-power table has one row per breath of the schedule, each step's rows average to
  // its cvn, and the marker sits in its own breath's row.
  std::istringstream table(test::slurp(r.folder + "/rf_CVN_logpower.csv"));
  std::string line;
  std::getline(table, line);
  std::vector<std::string> rows;
  while (std::getline(table, line) && !line.starts_with("pow,")) rows.push_back(line);
  std::size_t first = 0;
  for (std::size_t k = 0; k < steps.size(); ++k) {
    double sum = 0;
    for (int b = 0; b < steps[k].breaths; ++b) {
      ASSERT_LT(first + b, rows.size());
      sum += std::stod(rows[first + b].substr(rows[first + b].find(',') + 1));
    }
    EXPECT_NEAR(sum / steps[k].breaths, want.steps[k].cvn, 1e-4) << "step " << k;
    first += steps[k].breaths;
  }
  EXPECT_EQ(rows.size(), first);
  EXPECT_TRUE(rows[steps[0].breaths + 2].ends_with(",7")) << rows[steps[0].breaths + 2];

  if (!test::have_tool("/usr/bin/pdftotext")) GTEST_SKIP() << "poppler-utils is not installed";
  const std::string pdf = r.folder + "/rf_report.pdf";
  const test::ToolRun info = test::run_tool({"/usr/bin/pdfinfo", pdf});
  EXPECT_NE(info.out.find("\nPages:           3\n"), std::string::npos) << info.out;
  expect_pdf_text(
      pdf, {"-f", "3", "-l", "3"},
      {"Resonance frequency assessment", "Recommended pace: 5.0 breaths/min", "Page 3 of 3"});
  expect_pdf_text(
      pdf, {"-f", "1", "-l", "1", "-raw"},
      {"Breathing rates 6.5, 6, 5.5, 5, 4.5 breaths/min", "in 40 % / out 60 % of every breath"});
}

// The disk fills up at the third file: the two before it stay whole, the
// third is not left half-written, nothing after it is tried, and the error
// names the file.
TEST(WriteExport, FullDiskStopsAtTheFileThatDidNotFit) {
  test::TempDir dir;
  const ExportInput in = sample_input();
  testing::FullDisk disk(2);
  const ExportResult r = write_export(in, dir.path(), Clock::system(), disk);
  EXPECT_FALSE(r.ok());
  EXPECT_NE(r.error.find("Anna_B_markers.csv"), std::string::npos) << r.error;
  EXPECT_EQ(r.files, (std::vector<std::string>{"Anna_B_ECG.txt", "Anna_B_HR.txt"}));
  EXPECT_EQ(disk.failed_writes(), 1);
  EXPECT_EQ(test::slurp(r.folder + "/Anna_B_ECG.txt"), format_recording(in.samples));
  std::vector<std::string> left;
  for (const auto& e : std::filesystem::directory_iterator(r.folder))
    left.push_back(e.path().filename().string());
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, r.files);
}

}  // namespace
}  // namespace cvn
