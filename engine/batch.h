// Batch processing: a folder of recordings (raw ECG text and Kubios RR
// exports) into per-recording export folders and one summary report, without
// replaying anything. Runs beside a live or replayed session.
#pragma once
#include <cmath>
#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "base/breathing.h"
#include "base/clock.h"
#include "base/constants.h"
#include "base/disk.h"
#include "reports/report.h"
#include "reports/report_logo.h"

namespace cvn {

/// What every recording of a batch is analysed with.
struct BatchSettings {
  BreathingSettings breathing;
  double sample_rate = kSampleRate;  // of the raw ECG files
  bool per_person = false;           // age and sex were set for this person
};

/// One recording file of a person: on disk at `path`, or handed over in
/// memory (`text` or `rr_seconds`; `path` then only names it).
struct BatchFile {
  std::string path;
  std::string name;  // file name without its folder
  /// The file's contents, read instead of `path`: raw ECG text or a Kubios export.
  std::optional<std::string> text = {};
  /// RR intervals in seconds already read from a Kubios export; when not
  /// empty they are the recording and `text` is not looked at.
  std::vector<double> rr_seconds = {};
};

struct BatchRequest {
  std::string folder;
  bool single = false;      // every file is one person's
  std::string report_name;  // the summary's name (single mode: the person's); "": the folder's
  BatchSettings settings;
  /// Recordings handed over in memory (an upload of one file): when not
  /// empty, these are the batch and `folder` is not listed. Grouped as the
  /// files at the top of a folder are.
  std::vector<BatchFile> files;
};

/// A person: a sub-folder of the batch folder, a recording at its top level,
/// or, in single mode, the whole folder.
struct BatchGroup {
  std::string name;  // sanitised
  std::vector<BatchFile> files;
};

/// The recordings of `folder` by person, sorted by name. A recording is a
/// ".txt" (raw ECG) or ".csv" (Kubios export) file; the program's own
/// "_markers.csv" and "_CVN_logpower.csv" outputs are not. Sub-folders are
/// persons; a file at the top is a person of its own unless `single`.
std::vector<BatchGroup> list_batch(const std::string& folder, bool single,
                                   const std::string& report_name);

/// How one recording ended.
struct BatchItem {
  std::string person;
  std::string path;    // the file, relative to the batch folder
  SummaryEntry entry;  // file, error (empty when written) and what the summary shows
  std::string report;  // its PDF report, relative to the exports folder
};

struct BatchOutcome {
  std::string error;  // the batch as a whole failed (nothing to write into)
  std::vector<BatchItem> items;
  std::vector<std::string> reports;  // the PDFs written, relative to `folder`
  std::string folder;                // the exports folder
  std::string message;               // how it ended, for the user
};

/// Called after each recording: how many are done of how many, and the text
/// the user sees ("Processing 3 / 10 — Anna").
using BatchProgress = std::function<void(int done, int total, const std::string& message)>;

/// Where a batch reads and writes, and what time it is; the real ones unless
/// a test hands in others.
struct BatchIo {
  Clock& clock = Clock::system();
  Disk& disk = Disk::system();
  /// Set when the program shuts down: the recordings being worked on are
  /// finished, no other is started, and no summary is written.
  std::stop_token stop = {};
};

/// Runs the batch on up to `threads` recordings at a time. One unreadable or
/// too-short file is listed with its error and the rest go on; only a
/// failure of the whole (no exports folder to write into, no summary
/// written) sets `error`. The summary is named and dated by `io.clock`.
BatchOutcome run_batch(const BatchRequest& request, const std::string& exports_folder,
                       const ReportLogo& logo, const BatchProgress& progress, int threads = 2,
                       BatchIo io = {});

}  // namespace cvn
