// The breathing-cycle log-power measure (CVN): how strongly the heart rate oscillates at the
// paced-breathing frequency, one value per breathing cycle, taken from the same pass that
// fills the two time-frequency maps of the recording. Method and accuracy: docs/analysis.md.
#pragma once
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "analysis/heatmap.h"
#include "analysis/tfr.h"

namespace cvn {

/// Copies of the first and of the last cycle laid before and after the heart-rate signal, so
/// that even the widest wavelet (0.02 Hz, 10 cycles: 398 s each side) sees heart rate.
inline constexpr int kExtensionRounds = 50;

/// Cycle boundaries: K + 1 ascending ECG sample indices b_k = trunc(k x samples per cycle)
/// (samples per cycle = cycle_seconds x sample_rate), K = max(floor(sample_count / samples per
/// cycle), 1). Cycle k spans [b_k, b_(k+1)). Empty unless the cycle is at least one sample
/// long and b_K fits in 32 bits.
std::vector<std::int32_t> cycle_bounds(std::size_t sample_count, double cycle_seconds,
                                       double sample_rate);

/// Expected breathing frequency, Hz: 1 / cycle_seconds rounded to 4 decimals, halves away
/// from zero.
double expected_frequency(double cycle_seconds);

/// A breathing cycle placed in time, in seconds from the start of the recording, with its
/// log-power (NaN without one).
struct TimedCycle {
  double start_s = 0, end_s = 0;
  double cvn = std::numeric_limits<double>::quiet_NaN();
};

/// Cycles of one length c: cycle i spans [i c, (i + 1) c).
std::vector<TimedCycle> timed_cycles(const std::vector<double>& cvn, double cycle_seconds);

/// Index of the frequency nearest to `freq`, the first one on a tie; -1 for an empty list.
/// Frequencies outside the list's range map to its first or last entry.
int nearest_row(const std::vector<double>& frequencies, double freq);

/// Heart rate in bpm at every ECG sample. Beat i (of the RR list) sits at
/// trunc(sum_(j<=i) RR_j x sample_rate); samples before the first beat carry 60 / RR_0,
/// samples from beat i-1 to beat i carry 60 / RR_i, and samples after the last beat one more
/// rate, last + (last - second to last). The steps are smoothed by a 2 s Hann window w of N
/// points in centred convolution, output i = sum_j x[j] w[i + (N - 1) / 2 - j] (samples
/// i - 130 ... i + 129 at 130 Hz), divided by the weights that fall inside the recording (so
/// the ends do not droop); spikes are then removed as in
/// remove_artefacts (5 s prominence window, prominence 4) unless the smoothed rate varies by
/// more than 12 bpm (standard deviation), in which case it is left as it is. Empty for an
/// empty RR list or sample count. REQUIRES: finite positive intervals.
std::vector<double> heart_rate_signal(const std::vector<double>& rr, std::size_t sample_count,
                                      double sample_rate);

/// A signal with kExtensionRounds copies of a segment before it and of another after it.
struct ExtendedSignal {
  std::vector<double> samples;
  std::size_t offset = 0;  // where the original signal starts in `samples`
};

/// `signal` extended at both ends. The front segment is the first cycle [b_0, b_1); the back
/// segment is [b_K, end), or the last trunc(cycle samples) samples when b_K is the end. Copy
/// r of each (r = 0 next to the signal) is reversed for even r and in order for odd r, so
/// every junction repeats a sample instead of jumping. Empty when the bounds do not fit the
/// signal.
ExtendedSignal extend_by_cycles(const std::vector<double>& signal,
                                const std::vector<std::int32_t>& bounds, double cycle_seconds,
                                double sample_rate);

/// Colour scale of a heat-map, in power units: lo = centre - half_range, hi = centre + half_range.
struct HeatmapScale {
  double centre = 0.0;
  double half_range = 0.0;
};

/// Summary statistics of one analysis.
struct CycleStats {
  /// Cycles with a value, and the mean and population standard deviation of their values
  /// (natural-log power); NaN when no cycle has a value.
  std::size_t cvn_count = 0;
  double cvn_mean = 0.0;
  double cvn_sd = 0.0;
  /// Heart-rate signal (bpm) over the recording: mean and population standard deviation.
  double hr_mean = 0.0;
  double hr_sd = 0.0;
  /// Power of each map (3 and 10 cycles) over its columns: at the expected row ("band") and
  /// over the whole map; mean and population standard deviation, power units.
  double band_mean3 = 0.0, band_sd3 = 0.0;
  double band_mean10 = 0.0, band_sd10 = 0.0;
  double map_mean3 = 0.0, map_sd3 = 0.0;
  double map_mean10 = 0.0, map_sd10 = 0.0;
  /// Heat-map colour scales: from 0 up to the larger of band mean + 2 SD and map mean + 2 SD
  /// (centre = half range = half of that top).
  HeatmapScale scale3;
  HeatmapScale scale10;
};

/// Everything one pass over a recording yields.
struct CycleAnalysis {
  /// One value per cycle: mean ln(max(1e-30, power)) of the 10-cycle map's expected row over
  /// the cycle's samples; NaN for a cycle without a usable point.
  std::vector<double> cvn;
  /// cycle_bounds of the recording.
  std::vector<std::int32_t> bounds;
  double expected_freq = 0.0;
  int expected_row = 0;
  /// The tfr_frequencies(), one per matrix row.
  std::vector<double> frequencies;
  /// Time-frequency power, 3-cycle and 10-cycle wavelets. Column j holds the power at ECG
  /// sample column_samples[j] = floor(j x sample_count / cols), cols = min(sample_count,
  /// kHeatmapMaxWidth): exactly the samples a heat-map of the full-resolution matrix (one
  /// column per sample) shows, so render_tfr draws the same picture from these.
  TfrMatrix tfr3;
  TfrMatrix tfr10;
  std::vector<std::int32_t> column_samples;
  double sample_rate = 0.0;
  std::size_t sample_count = 0;
  double cycle_seconds = 0.0;
  CycleStats stats;

  /// True when the recording could not be analysed.
  bool empty() const { return cvn.empty(); }
};

/// The per-cycle measure and both time-frequency maps of a recording: its length in samples
/// (of the ECG, or of the time the RR intervals span), its cleaned RR intervals in seconds
/// and the cycle length. Empty when
/// the recording is shorter than one cycle (trunc(cycle_seconds x sample_rate) samples), when
/// there are fewer than 3 intervals, or when an input is not finite and positive.
CycleAnalysis analyze_cycles(std::size_t sample_count, const std::vector<double>& rr,
                             double cycle_seconds, double sample_rate);

/// Which of the two maps.
enum class TfrWidth { kNarrow, kWide };

/// Heat-map of one map of `analysis` with its scale, the green line at the expected row and
/// the cycle lines, pixel for pixel what render_heatmap draws from the full-resolution matrix
/// (draw these matrices through here: render_heatmap alone cannot place the cycle lines of a
/// matrix that keeps only some columns). `sex` 'F' or other and `age` choose the grey
/// reference level. Every picture we show blends (`blend`): below the reference level it keeps
/// 45 % of the colour, so the breathing band stays visible as a shape where it dips under the
/// reference and still reads as subdued. `breaths`, when the rhythm changes (an assessment's
/// rf_breaths), take the place of the analysis's cycles: a line at each start and the expected
/// line, breath by breath, at the row nearest 1 / its length. Empty for an empty analysis.
RgbImage render_tfr(const CycleAnalysis& analysis, TfrWidth which, char sex, int age,
                    bool blend = true, std::span<const TimedCycle> breaths = {});

}  // namespace cvn
