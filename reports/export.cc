#include "reports/export.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "analysis/pipeline.h"
#include "base/constants.h"
#include "reports/edf.h"
#include "reports/export_files.h"
#include "reports/report.h"

namespace fs = std::filesystem;

namespace cvn {
namespace {

// Each pixel the mean of the block of `in` it covers, so thin lines (cycle
// starts, the expected frequency) fade rather than vanish or alias.
RgbImage shrink(const RgbImage& in, int max_width, int max_height) {
  const int w = std::min(in.width, max_width), h = std::min(in.height, max_height);
  if (in.rgb.empty() || (w == in.width && h == in.height)) return in;
  RgbImage out{w, h, std::vector<std::uint8_t>(static_cast<std::size_t>(w) * h * 3)};
  std::uint8_t* dst = out.rgb.data();
  for (int y = 0; y < h; ++y) {
    const int y0 = y * in.height / h, y1 = (y + 1) * in.height / h;
    for (int x = 0; x < w; ++x) {
      const int x0 = x * in.width / w, x1 = (x + 1) * in.width / w;
      unsigned sum[3] = {0, 0, 0};
      for (int sy = y0; sy < y1; ++sy) {
        const std::uint8_t* src = &in.rgb[(static_cast<std::size_t>(sy) * in.width + x0) * 3];
        for (int sx = x0; sx < x1; ++sx, src += 3) {
          sum[0] += src[0];
          sum[1] += src[1];
          sum[2] += src[2];
        }
      }
      const unsigned n = static_cast<unsigned>((y1 - y0) * (x1 - x0));
      for (unsigned c : sum) *dst++ = static_cast<std::uint8_t>((c + n / 2) / n);
    }
  }
  return out;
}

// Makes the first free "<stem>_export", "<stem>-2_export", ...; creating the
// folder itself is the test, so two exports at once never share one.
std::string make_folder(const std::string& exports, const std::string& stem, std::string* error) {
  std::error_code ec;
  fs::create_directories(exports, ec);
  if (ec || !fs::is_directory(exports, ec)) {
    *error = "Could not create the exports folder " + exports + ": " +
             (ec ? ec.message() : std::string("a file of that name is in the way"));
    return {};
  }
  for (int n = 1; n <= kMaxExportFolders; ++n) {
    const std::string path =
        exports + "/" + stem + (n == 1 ? "" : "-" + std::to_string(n)) + "_export";
    if (fs::exists(fs::symlink_status(path, ec))) continue;
    if (fs::create_directory(path, ec)) return path;
    if (ec && ec != std::errc::file_exists) {
      *error = "Could not create the export folder " + path + ": " + ec.message();
      return {};
    }
  }
  *error = "Could not create an export folder in " + exports + ": " +
           std::to_string(kMaxExportFolders) + " exports of " + stem + " are already there";
  return {};
}

}  // namespace

ExportResult write_export(const ExportInput& in, const std::string& exports_folder, Clock& clock,
                          Disk& disk) {
  ExportResult out;
  const bool have_ecg = !in.samples.empty();
  const double cycle_seconds = in.breathing.cycle_seconds();

  // Analysis first: nothing is created for a recording the writer cannot read.
  const RecordingAnalysis analysis =
      have_ecg ? analyze_recording(EcgSamples{in.samples}, cycle_seconds)
               : analyze_recording(RrSeconds{in.rr_seconds, in.rr_from_strap}, cycle_seconds);
  const CycleAnalysis& cycles = analysis.cycles;
  const std::size_t beats = analysis.beats;
  // An assessment is scored as /rf_result scores the session (the same beats, heart rate and
  // length), once for the tables and the report. Its breaths, not the single rhythm's
  // cycles, are its log-power cycles.
  std::optional<RfResult> rf;
  if (in.rf) rf = score_rf(*in.rf, analysis.rr, analysis.hr, analysis.duration_seconds);
  const std::vector<TimedCycle> log_cycles =
      rf ? rf_breaths(*rf) : timed_cycles(cycles.cvn, cycle_seconds);
  std::vector<double> cycle_values;
  for (const TimedCycle& c : log_cycles) cycle_values.push_back(c.cvn);

  SummaryEntry& summary = out.summary;
  summary.duration_seconds = analysis.duration_seconds;
  summary.beats = beats;
  summary.cvn_mean = finite_mean(cycle_values);
  summary.cvn = cycle_values;
  summary.rr_only = !have_ecg;
  summary.hrv = analysis.hrv;

  const std::string stem = sanitize_file_name(in.name);
  out.folder = make_folder(exports_folder, stem, &out.error);
  if (out.folder.empty()) return out;

  const auto write = [&](std::string_view ending, std::string_view bytes) {
    if (!out.error.empty()) return;
    const std::string name = stem + std::string(ending);
    const Status written = disk.write(out.folder + "/" + name, bytes);
    if (written.ok())
      out.files.push_back(name);
    else
      out.error = written.message();
  };

  const std::int64_t start = in.start_time ? in.start_time : clock.wall();
  if (have_ecg) write("_ECG.txt", format_recording(in.samples));
  write("_HR.txt", hr_text(analysis.hr));
  write("_markers.csv", markers_csv(in.markers));
  if (out.error.empty()) {
    // Without an ECG (beats from a strap or an RR export) the file holds the
    // heart rate, so that EDF readers still get the recording with its markers.
    EdfRecording edf;
    if (have_ecg) {
      edf.samples = in.samples;
      edf.sample_rate = kSampleRateInt;
    } else {
      edf.signal = edf_heart_rate_signal();
      edf.samples = analysis.hr;
      edf.sample_rate = static_cast<int>(std::lround(1 / kHrGridStep));
    }
    edf.name = in.name;
    edf.start_time = start;
    for (const Marker& m : in.markers)
      edf.annotations.push_back({m.sample / kSampleRate, "Marker " + std::to_string(m.key)});
    const std::vector<std::uint8_t> bytes = edf_file(edf);
    if (!bytes.empty()) write(".edf", {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  }
  write("_CVN_logpower.csv", logpower_csv(log_cycles, in.markers));
  write("_HRV.csv", hrv_csv(analysis.hrv));
  // Our beats, for other HRV tools.
  write("_RR.csv", rr_csv(analysis.rr,
                          std::vector<bool>(analysis.corrected.begin(), analysis.corrected.end())));
  if (rf) write("_RF.csv", rf_csv(*rf));
  if (!out.error.empty()) return out;

  SummaryFacts facts;
  facts.start_time = start;
  facts.sex = in.breathing.sex;
  facts.age = in.breathing.age;
  facts.indur = in.breathing.indur;
  facts.outdur = in.breathing.outdur;
  facts.cycle_seconds = cycle_seconds;
  facts.expected_freq = expected_frequency(cycle_seconds);
  facts.rf = in.rf;
  facts.cycles = cycle_values.size();
  for (double v : cycle_values) facts.cycles_with_value += std::isfinite(v);
  facts.duration_seconds = summary.duration_seconds;
  facts.beats = beats;
  facts.rr_only = !have_ecg;
  facts.beats_from_strap = !in.beat_device.empty();
  facts.markers = in.markers;

  RecordingReport report;
  report.name = in.name.empty() ? stem : in.name;
  report.summary = summary_rows(facts);
  report.hr = analysis.hr;
  report.markers = in.markers;
  report.cvn = cycle_values;
  report.rr_only = !have_ecg;
  report.beat_device = in.beat_device;
  report.hrv = analysis.hrv;
  const char sex = in.breathing.sex == "F" ? 'F' : 'M';
  if (!cycles.empty()) {
    const std::span<const TimedCycle> breaths =
        rf ? std::span<const TimedCycle>(log_cycles) : std::span<const TimedCycle>();
    report.tfr3 = render_tfr(cycles, TfrWidth::kNarrow, sex, in.breathing.age, true, breaths);
    report.tfr10 = render_tfr(cycles, TfrWidth::kWide, sex, in.breathing.age, true, breaths);
    if (in.summary_maps) {
      summary.map3 = pdf_image(shrink(report.tfr3, kSummaryMapWidth, kSummaryMapHeight));
      summary.map10 = pdf_image(shrink(report.tfr10, kSummaryMapWidth, kSummaryMapHeight));
    }
  }
  // An assessment has one breathing frequency per step: no single line on its maps.
  report.expected_freq = rf ? 0.0 : expected_frequency(cycle_seconds);
  report.duration_seconds = summary.duration_seconds;
  report.logo = in.logo;
  report.rf = std::move(rf);
  write("_report.pdf", recording_report_pdf(report));
  return out;
}

}  // namespace cvn
