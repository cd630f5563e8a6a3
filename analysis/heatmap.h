// Heat-map pictures of a time-frequency power matrix: frequency upwards, time to the right,
// a blue-white-red scale, grey below an age- and sex-dependent reference level, a green line
// at the expected breathing frequency and dark lines at the cycle starts.
#pragma once
#include <cstddef>
#include <span>

#include "analysis/png.h"
#include "base/constants.h"

namespace cvn {

/// Widest heat-map we draw; wider matrices are sampled down to this many columns.
inline constexpr int kHeatmapMaxWidth = 1200;

/// One breathing cycle of a recording whose rhythm changes (an assessment's breath): a cycle
/// line at its start and the expected-frequency line at `expected_row` until its end. Times
/// in seconds from the start of the recording.
struct HeatmapCycle {
  double start_s = 0, end_s = 0;
  int expected_row = 0;
};

/// What render_heatmap draws and how.
struct HeatmapParams {
  /// Power, row-major: `rows` rows of `cols` values, row 0 the lowest frequency.
  std::span<const float> power;
  std::size_t rows = 0;
  std::size_t cols = 0;
  /// Colour-scale centre and half-range, in the units of `power`.
  double centre = 0.0;
  double half_range = 0.0;
  /// Matrix row of the expected breathing frequency (the green line).
  int expected_row = 0;
  /// 'F' selects the female reference level; any other code the male one.
  char sex = 'M';
  int age = 0;
  /// Cycle length in seconds and time-axis columns per second, for the cycle lines.
  double cycle_seconds = 0.0;
  double sampling_rate = kSampleRate;  // one column per ECG sample of the chest strap
  /// Columns of the full time axis when the matrix keeps only some of them (one per pixel,
  /// say); the cycle lines are placed on this axis. 0: the matrix keeps every column.
  std::size_t time_columns = 0;
  /// When the rhythm changes within the recording: every cycle, in order, each with its own
  /// expected row; expected_row and cycle_seconds are then not used.
  std::span<const HeatmapCycle> cycles;
  /// Grey pixels keep 45 % of their colour instead of becoming plain grey.
  bool blend = false;
};

/// Reference level in natural-log power units for `sex` ('F' or other) and `age` in years;
/// pixels whose log-power is not above it are greyed.
double reference_level(char sex, int age);

/// RGB heat-map of min(cols, kHeatmapMaxWidth) x rows pixels. Empty when the matrix is
/// empty or `power` holds fewer than rows x cols values.
RgbImage render_heatmap(const HeatmapParams& params);

}  // namespace cvn
