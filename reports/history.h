// A person's recordings over time: whose each recording is, one line of
// numbers per recording, and the small text file that keeps that line beside
// its recording so that it is computed once (docs/recording.md, "Summary
// cache"). Plain values and pure functions; the folder, the threads and the
// cache files are engine/history.h's.
#pragma once
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/resonance.h"

namespace cvn {

/// One recording as the History view and its trend show it. A double is NaN
/// when the recording did not give it.
struct RecordingSummary {
  double duration_s = NAN;
  std::string protocol = "free";  // "free" (one rhythm) or "rf" (an assessment)
  double cvn_mean = NAN;          // mean breathing-cycle log-power
  double peak_trough_hr = NAN;    // bpm
  double rmssd = NAN;             // ms
  double lf_hf = NAN;
  double recommended_bpm = NAN;  // an assessment's recommended pace, breaths/min
  std::string error;             // set: the recording could not be analysed, and why
};

/// The recording's numbers: the whole chain with the HRV indices, and for an
/// assessment (`rf`) its steps scored. An ECG without two beats gives an
/// error, never an exception.
RecordingSummary summarize_recording(const std::vector<double>& ecg, double cycle_seconds,
                                     const std::optional<RfProtocol>& rf);

/// summarize_recording for a beat recording: `rr_seconds` are its intervals
/// as the session analyses them (no ECG to find beats in). Fewer than two
/// intervals give an error.
RecordingSummary summarize_beats(const std::vector<double>& rr_seconds, double cycle_seconds,
                                 const std::optional<RfProtocol>& rf);

/// What a recording's file name says. Saved sessions are named
/// "<name>_on<in>_off<out>_<sex><age>_<YYYYmmdd-HHMMSS>.csv" (a recovered one
/// adds "_recovered"; a beat recording ends "_RR.txt"), imports
/// "imported_<name>_<YYYYmmdd-HHMMSS>.csv"; any other name is all name. Unknown parts stay empty, 0
/// or -1.
struct RecordingName {
  std::string name;
  std::string date;  // "YYYY-mm-dd HH:MM:SS", local time; "" when the name has none
  double indur = 0, outdur = 0;
  std::string sex;  // "M", "F" or ""
  int age = -1;
};
RecordingName parse_recording_name(std::string_view file);

/// "20250302-140307" -> "2025-03-02 14:03:07"; "" for anything else.
std::string stamp_date(std::string_view stamp);

/// One recording of the folder, as grouping needs it.
struct HistoryFile {
  std::string file;  // its name in the folder
  std::string name;  // whose: the sidecar's, or the file name's
  std::string date;  // as RecordingName::date
  /// How it was breathed and by whom, for a replay as it was recorded:
  /// unknown parts empty, -1 or 0, as in RecordingName.
  std::string sex;
  int age = -1;
  double indur = 0, outdur = 0;
};

struct PersonFiles {
  std::string name;                // as the newest of the files names them
  std::vector<HistoryFile> files;  // newest first
};

/// Two names are one person when they make the same file name
/// (sanitize_file_name) with their letters beyond ASCII kept: "Anna Berg" in
/// a sidecar and "Anna_Berg" in the file name of a recording saved before
/// sidecars named people, but not "Müller" and "Möller".
std::string person_key(std::string_view name);

/// The files by person_key, people sorted by key; each person's files
/// newest first (by date, then by file name, the undated last).
std::vector<PersonFiles> group_by_person(std::vector<HistoryFile> files);

/// What a cached summary was computed from: the recording's size in bytes and
/// its modification time as the file system counts it (compared, never read
/// as a date).
struct SummaryKey {
  std::uint64_t size = 0;
  std::int64_t mtime = 0;
  bool operator==(const SummaryKey&) const = default;
};

inline constexpr std::string_view kSummaryEnding = ".summary";

/// "# Corvane Live summary 1", the key, then one "key=value" line per field;
/// numbers in the fewest digits that read back exactly, NaN as nothing.
std::string summary_text(const RecordingSummary& summary, const SummaryKey& key);

/// The summary summary_text wrote, when `text` is one of this version and
/// its key is `key`; nullopt for a stale, foreign or damaged file.
std::optional<RecordingSummary> read_summary(std::string_view text, const SummaryKey& key);

}  // namespace cvn
