// The PDF reports: the two-page report of one recording and the summary of a
// batch. Layout and file structure: docs/pdf.md.
#pragma once
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "analysis/png.h"
#include "base/recording.h"
#include "reports/export_files.h"
#include "reports/report_logo.h"

namespace cvn {

/// What the recording report shows.
struct RecordingReport {
  std::string name;                 // the "Recording:" line
  std::vector<SummaryRow> summary;  // summary_rows
  std::vector<double> hr;           // bpm on the 10 Hz grid; empty: not available
  std::vector<Marker> markers;      // drawn on the heart-rate plot
  std::vector<double> cvn;          // one log-power value per cycle, NaN for none
  RgbImage tfr3, tfr10;             // heat-maps (3- and 10-cycle wavelets); empty: none
  double expected_freq = 0;         // Hz, labels the green line of the heat-maps
  double duration_seconds = 0;      // the heat-maps' time axis
  ReportLogo logo;                  // empty: no logo
};

/// The whole file: page 1 with the title, the summary rows, the heart-rate
/// and the per-cycle log-power plots; page 2 with both heat-maps. Objects
/// 1-10 in a fixed order, the logo as object 11 when there is one.
std::string recording_report_pdf(const RecordingReport& report);

/// One recording of a batch; `error` set means it failed and only the name
/// and file are known.
struct SummaryEntry {
  std::string name;
  std::string file;
  double duration_seconds = 0;
  std::size_t beats = 0;
  double cvn_mean = NAN;  // NaN: no cycle value
  std::string error;
};

struct SummaryReport {
  std::string name;          // the "Name:" line
  std::int64_t created = 0;  // unix seconds
  std::vector<SummaryEntry> entries;
  ReportLogo logo;
};

/// A table of the entries, one row each, over as many A4 pages as it needs
/// (at least one), footed "Page n of N".
std::string summary_report_pdf(const SummaryReport& report);

}  // namespace cvn
