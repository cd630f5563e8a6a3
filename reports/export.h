// The per-recording writer behind the export job and the batch: analyse one
// recording and write its folder of files under the exports folder.
#pragma once
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "analysis/resonance.h"
#include "base/breathing.h"
#include "base/clock.h"
#include "base/disk.h"
#include "base/recording.h"
#include "reports/report.h"
#include "reports/report_logo.h"

namespace cvn {

/// "<stem>-2_export", "-3", ... are tried up to this before giving up.
inline constexpr int kMaxExportFolders = 10000;

/// Largest heat-map the batch summary keeps per recording: the summary page
/// draws a map about 480 x 110 pt, so this still prints at over 90 dpi.
inline constexpr int kSummaryMapWidth = 600;
inline constexpr int kSummaryMapHeight = 160;

struct ExportInput {
  std::vector<double> samples;  // ECG, microvolts at kSampleRate
  /// Beat-to-beat intervals in seconds, used only when `samples` is empty (an
  /// RR export without ECG): the analysis then runs on these, and the ECG text
  /// and EDF+ files are left out.
  std::vector<double> rr_seconds;
  /// The strap whose beat intervals `rr_seconds` are (a strap that sends no
  /// ECG); empty for an RR export.
  std::string beat_device;
  /// `rr_seconds` are a strap's beats as it sent them, to be cleaned (see
  /// RrSeconds); false for an RR export, used as given.
  bool rr_from_strap = false;
  std::vector<Marker> markers;
  std::string name;             // the session's name; the folder and files use it sanitised
  BreathingSettings breathing;  // the cycle length, and the person for the reference level
  /// A resonance assessment's steps; absent: one rhythm, `breathing`'s.
  std::optional<RfProtocol> rf;
  std::int64_t start_time = 0;  // unix seconds; 0: now, by the export's clock
  ReportLogo logo;
  /// Also shrink the heat-maps for a batch summary (ExportResult::summary);
  /// a single export has no use for them.
  bool summary_maps = false;
};

struct ExportResult {
  std::string folder;              // the export folder; empty when none was made
  std::vector<std::string> files;  // names inside `folder`, in the order written
  std::string error;               // empty on success, else what failed and why
  /// The recording's line in a batch summary, known once the analysis ran
  /// (its file and error are the batch's to fill in). The maps, when asked
  /// for, are the 3- and 10-cycle heat-maps shrunk to fit kSummaryMapWidth x
  /// kSummaryMapHeight, empty when the recording was too short for them;
  /// kept compressed because a batch holds them for every recording until
  /// its summary is written: a map compresses to a third or less of its
  /// 288 KB of raw pixels, and the summary copies the bytes as they are.
  SummaryEntry summary;
  bool ok() const { return error.empty(); }
};

/// Analyses the recording (R-peaks and RR, the 10 Hz heart rate, the cycle
/// measure and both heat-maps), makes "<exports_folder>/<stem>_export" (or
/// the first free "<stem>-<n>_export", n = 2, 3, ...; an existing entry is
/// never reused) with missing parents, and writes <stem>_ECG.txt, _HR.txt,
/// _markers.csv, .edf, _CVN_logpower.csv, _HRV.csv, _RR.csv, for an
/// assessment _RF.csv (its steps scored with score_rf), and _report.pdf through
/// `disk` (docs/export_files.md).
/// Stops at the first file that cannot be written, keeping those already
/// written whole (the failed one is not left behind); throws nothing. `clock`
/// dates a recording without a start time.
ExportResult write_export(const ExportInput& in, const std::string& exports_folder,
                          Clock& clock = Clock::system(), Disk& disk = Disk::system());

}  // namespace cvn
