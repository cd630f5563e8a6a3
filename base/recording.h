// The recording text format, the markers file, and the file names the
// engine makes from user-given names. Described in docs/recording.md.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/constants.h"

namespace cvn {

struct Marker {
  std::int32_t sample = 0;  // samples counted when it was set
  std::int32_t key = 0;     // 1..9
};

/// Samples from recording text: one number per line (first CSV column),
/// trailing CR and blanks ignored, header and other text lines skipped,
/// values beyond a double's range skipped. Never fails.
std::vector<double> read_recording(std::string_view text);

/// One rounded integer per line (halves away from zero), "\n" endings.
std::string format_recording(const std::vector<double>& samples);

/// How the file of a beat recording ends (a strap that sends beat intervals,
/// not ECG): "<name>_RR.txt".
inline constexpr std::string_view kBeatsEnding = "_RR.txt";

/// A beat recording: the intervals in seconds, and how many lines were not an
/// interval (text, blank, negative) and so were left out.
struct BeatText {
  std::vector<double> rr_seconds;
  std::size_t skipped_lines = 0;
};

/// One interval in milliseconds per line (first CSV column, as for samples);
/// 0 and long intervals are kept for the beat cleaning to judge.
BeatText read_beats(std::string_view text);

/// One interval per line in milliseconds, the shortest text that reads back
/// to the same value; a non-finite interval is left out.
std::string format_beats(const std::vector<double>& rr_seconds);

/// "X_ECG.txt" -> "X_markers.csv", "dir/Y.csv" -> "dir/Y_markers.csv".
std::string markers_path(const std::string& recording_path);

/// Lines "key,sample[,...]" with key 1..9 and sample >= 0; others skipped.
std::vector<Marker> read_markers(std::string_view text);

/// "marker,sample_index,seconds\n" then "key,sample,seconds(3 decimals)\n".
std::string markers_csv(const std::vector<Marker>& markers);

/// "none", or "3 @ 12.5 s, 1 @ 20.0 s" with at most twelve entries then ", ...".
std::string marker_summary(const std::vector<Marker>& markers);

/// Keys of the markers at from_s <= t < to_s (t in seconds from the start), space-separated.
std::string marker_keys_between(const std::vector<Marker>& markers, double from_s, double to_s);

/// Letters, digits, '-', '.', '_' kept, other bytes '_', outer '_' trimmed,
/// `fallback` when nothing is left.
std::string sanitize_file_name(std::string_view name, std::string_view fallback = "recording");

/// `name` without a recording's extension (".txt" or ".csv", any case):
/// "Sample 1.txt" -> "Sample 1"; other names as they are.
std::string_view without_recording_extension(std::string_view name);

/// Shortest general form of a period: 5 -> "5", 5.5 -> "5.5".
std::string short_number(double v);

/// Local time as "%Y%m%d-%H%M%S".
std::string file_time_stamp(std::int64_t unix_seconds);

}  // namespace cvn
