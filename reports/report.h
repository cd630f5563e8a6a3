// The PDF reports: the report of one recording (two pages, three for a
// resonance assessment) and the summary of a batch. Layout and file
// structure: docs/pdf.md.
#pragma once
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "analysis/hrv.h"
#include "analysis/png.h"
#include "analysis/resonance.h"
#include "base/recording.h"
#include "reports/export_files.h"
#include "reports/pdf.h"
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
  bool rr_only = false;             // from beat intervals: there is no ECG
  std::string beat_device;          // rr_only: the strap that sent them; empty: an RR export
  HrvIndices hrv;                   // the HRV block
  ReportLogo logo;                  // empty: no logo
  /// A resonance assessment's scores (score_rf); absent: a single rhythm.
  std::optional<RfResult> rf;
};

/// The whole file: page 1 with the title, the summary rows, the heart-rate
/// and the per-cycle log-power plots; page 2 with both heat-maps; for an
/// assessment, page 3 with its steps, their plots and the recommended pace,
/// and the steps marked on page 1's heart rate. Objects 1-10 in a fixed
/// order, the logo as object 11 when there is one, then page 3 and its
/// content.
std::string recording_report_pdf(const RecordingReport& report);

/// One recording of a batch as the summary shows it: the ExportResult
/// fields of the same names, or only `file` and `error` when it failed.
struct SummaryEntry {
  std::string file;  // the recording's file name, as the user knows it
  double duration_seconds = 0;
  std::size_t beats = 0;
  double cvn_mean = NAN;    // NaN: no cycle value
  std::vector<double> cvn;  // one log-power value per cycle, NaN for none
  PdfImage map3, map10;     // the shrunk heat-maps; empty: none
  bool rr_only = false;     // read from an RR-interval export, no ECG
  HrvIndices hrv;           // RMSSD, SDNN, LF/HF and peak-trough HR go in its row
  std::string error;        // set: the recording failed, in words a user can act on
};

/// One person (a batch group) and their recordings, failed ones included.
struct SummaryPerson {
  std::string name;  // the "Name:" line
  std::vector<SummaryEntry> entries;
};

struct SummaryReport {
  std::string name;          // the batch, shown in the head of every page
  std::int64_t created = 0;  // unix seconds
  std::vector<SummaryPerson> persons;
  /// False when the batch ran with one age and sex for everybody: each
  /// person's section then warns that the grey reference level may be wrong.
  bool age_sex_per_person = false;
  double expected_freq = 0;  // Hz, labels the heat-maps' green line; 0: no label
  ReportLogo logo;
};

/// The whole file. Each person starts a page: the "Name:" line, the
/// recordings (a failed one with its error), their cycle values in one plot
/// and the heat-maps of each recording with maps, one recording's pair per
/// page as /ImA and /ImB; a long section continues on further pages. At
/// least one page, each footed "Page n of N".
std::string summary_report_pdf(const SummaryReport& report);

}  // namespace cvn
