// Bringing outside recordings in: raw ECG recorded at another sample rate,
// and the RR-interval exports of Kubios HRV, which carry no ECG at all.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace cvn {

/// Samples at kSampleRate (130 per second) from samples at `source_rate`, by linear
/// interpolation: m = round(n / source_rate x 130) outputs (halves away from zero), output i
/// read at x = i / 130 x source_rate between input trunc(x) and the next one (the last input
/// when there is no next one). The input is returned unchanged when it has fewer than 2
/// samples, when the rate is not a finite positive number or lies within 0.5 of 130, and when
/// m would be below 2 or beyond a 32-bit sample index.
std::vector<double> resample(const std::vector<double>& samples, double source_rate);

/// Three seconds: an imported raw ECG shorter than this is no recording.
inline constexpr std::size_t kMinImportSamples = 390;
/// Fewer RR intervals than this are no RR column.
inline constexpr std::size_t kMinKubiosBeats = 3;

/// Whether `text` is a Kubios HRV export rather than raw ECG: its first 4,000
/// characters, lower-cased, mention "kubios" or "hrv analysis results", or a
/// line starts with "sep=" (the spreadsheet hint Kubios writes first).
bool looks_like_kubios(std::string_view text);

/// The RR column of a Kubios export, in seconds (a value above 10 is taken as
/// milliseconds: some exports write those, see rr_to_seconds): rows after the
/// "RR INTERVAL DATA" line whose second and third cells are both numbers
/// (an interval that is not finite and positive is skipped); the first row of
/// empty cells after the data ends the table. Empty when there is no table.
std::vector<double> read_kubios_rr(std::string_view text);

/// The name an upload goes by in file names: `file_name` without its
/// extension, sanitised; "import" when nothing is left.
std::string import_name(std::string_view file_name);

}  // namespace cvn
