// Heart-rate variability indices of a recording: time domain, Poincaré plot, the Welch
// spectrum of the detrended RR series, and the heart-rate swing per breath. Every
// definition, with its reference, is in docs/analysis.md, "HRV indices".
#pragma once
#include <limits>
#include <span>
#include <vector>

namespace cvn {

/// The indices of one recording. A double is NaN when it is empty (too few beats, too short
/// for a spectrum, or undefined, such as LF/HF when LF + HF is 0); a value that is present
/// is always finite.
struct HrvIndices {
  /// nn50 when it is empty (fewer than 3 intervals): 0 would claim a measured count.
  static constexpr int kEmptyCount = -1;
  static constexpr double kEmpty = std::numeric_limits<double>::quiet_NaN();

  int n_beats = 0;                 ///< intervals used (finite and positive); never empty
  double artefact_pct = kEmpty;    ///< % of the used intervals that clean_rr replaced
  double mean_nn = kEmpty;         ///< ms
  double sdnn = kEmpty;            ///< ms, sample SD of the NN intervals
  double mean_hr = kEmpty;         ///< bpm, mean of 60000 / NN
  double sd_hr = kEmpty;           ///< bpm, sample SD of 60000 / NN
  double min_hr = kEmpty;          ///< bpm, of the smoothed 10 Hz series
  double max_hr = kEmpty;          ///< bpm, of the smoothed 10 Hz series
  double rmssd = kEmpty;           ///< ms
  int nn50 = kEmptyCount;          ///< successive differences above 50 ms; kEmptyCount when empty
  double pnn50 = kEmpty;           ///< %
  double sd1 = kEmpty;             ///< ms, Poincaré width
  double sd2 = kEmpty;             ///< ms, Poincaré length
  double vlf = kEmpty;             ///< ms², 0 to 0.04 Hz
  double lf = kEmpty;              ///< ms², 0.04 to 0.15 Hz
  double hf = kEmpty;              ///< ms², 0.15 to 0.40 Hz
  double total_power = kEmpty;     ///< ms², VLF + LF + HF
  double lf_hf = kEmpty;           ///< LF / HF
  double lf_nu = kEmpty;           ///< n.u., 100 LF / (LF + HF)
  double hf_nu = kEmpty;           ///< n.u., 100 HF / (LF + HF)
  double lf_peak = kEmpty;         ///< Hz, the largest LF bin; empty when LF is 0
  double hf_peak = kEmpty;         ///< Hz, the largest HF bin; empty when HF is 0
  double peak_trough_hr = kEmpty;  ///< bpm, mean (max - min) of the 10 Hz series per whole cycle
};

/// HRV indices from cleaned RR intervals (seconds). `corrected[i]` is true where clean_rr
/// replaced interval i; it may be empty (no replacement), and flags missing at its end count
/// as false. Non-finite and non-positive intervals are dropped, with their flags, before
/// anything is computed; the beats after a dropped interval move earlier by its length.
/// `hr_10hz` is the regular_hr series (bpm, sample i at i kHrGridStep seconds) for min_hr,
/// max_hr and peak_trough_hr; its non-finite samples are skipped. `cycle_seconds` is the
/// breathing cycle. Every field but n_beats needs at least 3 intervals; the spectrum needs
/// 120 s to 24 h between the first and the last beat; peak_trough_hr needs one whole cycle
/// of at least kMinBreathingPeriod. Never throws on bad data: what cannot be computed is empty.
HrvIndices compute_hrv(const std::vector<double>& rr_seconds, const std::vector<bool>& corrected,
                       const std::vector<double>& hr_10hz, double cycle_seconds);

/// One column of HrvIndices for the CSV and JSON writers, in the fixed order.
struct HrvField {
  const char* name;  ///< the key in JSON, CSV and the snapshot: "sdnn"
  const char* unit;  ///< "ms", "%", "bpm", "ms²" (UTF-8), "Hz", "n.u.", "count"; "" for LF/HF
  double HrvIndices::*real;  ///< the member, or nullptr for a count
  int HrvIndices::*count;    ///< the member when it is a count (n_beats, nn50), else nullptr

  /// The field as a double; NaN when empty (an nn50 of kEmptyCount included).
  double value(const HrvIndices& indices) const;
};

/// The 23 fields from n_beats to peak_trough_hr, in the order of HrvIndices.
std::span<const HrvField> hrv_fields();

namespace detail {

/// Smoothness-priors detrending (Tarvainen et al. 2002) of an evenly sampled series: z minus
/// (I + lambda^2 D2' D2)^-1 z, D2 the second-difference matrix. Declared for its tests.
std::vector<double> detrend(const std::vector<double>& z, double lambda);

/// Power (ms²) and largest bin (Hz; NaN when the power is 0) of one frequency band.
struct BandPower {
  double power = HrvIndices::kEmpty;
  double peak = HrvIndices::kEmpty;
};

/// The LF band, 0.04 to 0.15 Hz, of a stretch of a recording by the spectrum of compute_hrv
/// (4 Hz spline, detrend, Welch) without its 120 s minimum, so that a short stretch such as one
/// breathing rate of a resonance assessment has a number: below 256 s it is one Welch segment
/// of its own length. `beat_s` are the closing beat times (s) of the intervals `nn_ms` (ms).
/// Both empty unless there are at least 3 intervals, finite, with strictly increasing times.
BandPower lf_band(const std::vector<double>& beat_s, const std::vector<double>& nn_ms);

}  // namespace detail

/// An RR value from an import, in seconds: values above 10 are taken as milliseconds (no
/// heart beats 10 s apart, and none 10 ms apart), others as seconds. NaN stays NaN.
double rr_to_seconds(double value);

}  // namespace cvn
