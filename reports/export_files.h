// The text files of an export folder beside the ECG text (format_recording)
// and the markers file (markers_csv): the heart-rate series, the per-cycle
// log-power table, the HRV indices, the RR intervals, a resonance assessment's
// steps and the summary rows the PDF report shows. The HRV, RR and RF files:
// docs/export_files.md.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/cycles.h"
#include "analysis/hrv.h"
#include "analysis/resonance.h"
#include "base/recording.h"

namespace cvn {

/// Title of the log-power column, in the table and on the report's plot.
inline constexpr std::string_view kLogPowerTitle = "CVN (logpower)";

/// One value per line ("%.2f" beats per minute, "\n" endings); a value that
/// is not finite leaves its line empty so the 10 Hz grid keeps its length.
std::string hr_text(const std::vector<double>& hr);

/// "cycle,CVN (logpower)[,markers]\n", one line per cycle numbered from 1
/// ("%.4f", an empty cell for NaN; markers: the keys inside the cycle's span), and
/// "pow,<mean of the non-NaN values>[,]\n". The markers column is there only
/// when `markers` is not empty. The cycles are those of one rhythm
/// (timed_cycles) or, for an assessment, its breaths (rf_breaths).
std::string logpower_csv(const std::vector<TimedCycle>& cycles, const std::vector<Marker>& markers);

/// "index,value,unit\n", then one line per field of hrv_fields() in its order: the
/// field's name, its value with at least 6 significant digits (a count as an integer;
/// an empty cell for an empty field, never "nan") and its unit as hrv_fields() spells
/// it (UTF-8, "ms²"). The file `<stem>_HRV.csv`.
std::string hrv_csv(const HrvIndices& indices);

/// "beat_time_s,rr_ms,corrected\n", then one line per interval: the time of the
/// beat that ends it (the sum of the intervals up to and including it, "%.3f" s),
/// the interval ("%.3f" ms) and 1 where clean_rr replaced it, else 0. `corrected`
/// may be shorter than `rr_seconds` (missing flags are 0). An interval that is not
/// finite and positive leaves both number cells empty and does not move the later
/// beats, as compute_hrv drops it. The file `<stem>_RR.csv`.
std::string rr_csv(const std::vector<double>& rr_seconds, const std::vector<bool>& corrected);

/// "bpm,start_s,end_s,breaths,reached,peak_trough_hr,lf_power,lf_peak,phase_deg,
/// amplitude_bpm,cvn\n", one line per step in the protocol's order, then
/// "recommended_bpm,<rate>\n". Rates in their shortest round-trip form, as the
/// protocol's texts write them ("6.5", "5"); the scheduled breaths as an integer,
/// reached as 1 or 0; every other number with at least 6 significant digits as in
/// hrv_csv, and an empty cell for NaN, never "nan". The file `<stem>_RF.csv`.
std::string rf_csv(const RfResult& result);

/// Mean of the finite values; NaN when there is none.
double finite_mean(const std::vector<double>& values);

struct SummaryRow {
  std::string label;
  std::string value;
};

/// What the summary rows are made of.
struct SummaryFacts {
  std::int64_t start_time = 0;  // unix seconds, shown in local time
  std::string sex;
  int age = 0;
  double indur = 0, outdur = 0, cycle_seconds = 0;
  double expected_freq = 0;  // Hz; 0 when the cycles could not be analysed
  std::size_t cycles = 0;
  std::size_t cycles_with_value = 0;
  double duration_seconds = 0;
  std::size_t beats = 0;
  bool rr_only = false;           // the beats came as intervals, not from R-peak detection
  bool beats_from_strap = false;  // rr_only: from a heart-rate strap, not an RR export
  std::vector<Marker> markers;
  std::optional<RfProtocol> rf;  // an assessment: its rates replace the single rhythm's rows
};

/// Local time as "%Y-%m-%d %H:%M", as the reports show dates.
std::string report_date(std::int64_t unix_seconds);

/// Date, Sex / Age, Periods, Cycle length, Expected frequency, Cycles
/// recorded, Duration, R-peaks (for an RR export: the beats it lists),
/// Markers: label and value, in that order. For an assessment the periods are
/// shares of every breath, "Breathing rates" lists the steps' rates in place
/// of the cycle length, the expected frequency is the steps' range and the
/// cycles are its breaths.
std::vector<SummaryRow> summary_rows(const SummaryFacts& facts);

/// Nearest plain ASCII for UTF-8 text ("Zoë" -> "Zoe", "ß" -> "ss"): the
/// report fonts and EDF header fields hold ASCII only. Letters of Latin-1 and
/// Latin Extended-A lose their accents, a few symbols get a spelling, control
/// characters become blanks, and anything else (or a malformed byte) "?".
std::string to_ascii(std::string_view utf8);

}  // namespace cvn
