// Batch processing: a folder of recordings (raw ECG text and Kubios RR
// exports) into per-recording export folders and one summary report, without
// replaying anything. Runs beside a live or replayed session.
#pragma once
#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "reports/report.h"
#include "reports/report_logo.h"

namespace cvn {

/// What every recording of a batch is analysed with.
struct BatchSettings {
  double indur = 5.0, outdur = 11.0, cycle_seconds = 16.0;
  std::string sex = "M";
  int age = 40;
  double sample_rate = 130.0;  // of the raw ECG files
  bool per_person = false;     // age and sex were set for this person
};

struct BatchRequest {
  std::string folder;
  bool single = false;      // every file is one person's
  std::string report_name;  // the summary's name (single mode: the person's); "": the folder's
  BatchSettings settings;
};

/// One recording file of a person.
struct BatchFile {
  std::string path;
  std::string name;  // file name without its folder
};

/// A person: a sub-folder of the batch folder, a recording at its top level,
/// or, in single mode, the whole folder.
struct BatchGroup {
  std::string name;  // sanitised
  std::vector<BatchFile> files;
};

/// The recordings of `folder` by person, sorted by name. A recording is a
/// ".txt" (raw ECG) or ".csv" (Kubios export) file; the program's own
/// "_markers.csv" and "_cvn_logpower.csv" outputs are not. Sub-folders are
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

/// Runs the batch on up to `threads` recordings at a time. One unreadable or
/// too-short file is listed with its error and the rest go on; only a
/// failure of the whole (no exports folder to write into) sets `error`.
BatchOutcome run_batch(const BatchRequest& request, const std::string& exports_folder,
                       const ReportLogo& logo, const BatchProgress& progress, int threads = 2);

}  // namespace cvn
