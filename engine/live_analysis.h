// The once-per-second analysis of a running session: heart rate, its 10 Hz
// series and the live coupling score, and now and then the HRV indices.
#pragma once
#include <cstdint>
#include <optional>
#include <vector>

#include "analysis/hrv.h"

namespace cvn {

struct SeriesPoint {
  double x = 0;  // seconds
  double y = 0;  // value; NaN shows as null
};

struct LiveAnalysis {
  double hr;   // latest heart rate, bpm; NaN when unknown
  double cvn;  // latest live score, -1..1; NaN when unknown
  std::int32_t rr_count = 0;
  std::vector<SeriesPoint> hr_series;   // 10 Hz grid
  std::vector<SeriesPoint> cvn_series;  // every score, point i at i * 0.1 s
  std::optional<HrvIndices> hrv;        // when asked for
};

/// Pure: R-peaks, cleaned RR, the regular heart-rate series and the score,
/// and the HRV indices when `with_hrv`.
LiveAnalysis analyze_live(const std::vector<double>& samples, double cycle_seconds,
                          bool with_hrv = false);

}  // namespace cvn
