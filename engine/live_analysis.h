// The once-per-second analysis of a running session: heart rate, its 10 Hz
// series and the live coupling score, and now and then the HRV indices.
#pragma once
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "analysis/hrv.h"
#include "analysis/live_analyzer.h"

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
/// and the HRV indices when `with_hrv`, from the whole recording.
LiveAnalysis analyze_live(const std::vector<double>& samples, double cycle_seconds,
                          bool with_hrv = false);

/// analyze_live for a session of beat intervals (seconds, as the strap sent
/// them): the chain on them, cleaned (RrSeconds::from_strap), the series on
/// the time they span. What the TFR, the export and the history analyse too,
/// so that they agree.
LiveAnalysis analyze_beats(const std::vector<double>& strap_rr, double cycle_seconds,
                           bool with_hrv = false);

/// analyze_beats for a session whose beats arrive as it runs: the same
/// results, bit for bit, but the live scores before the first interval that
/// changed since the last update are kept rather than computed again (they
/// are most of the cost: 25 ms of a pass at two hours, docs/engine.md).
class RunningBeats {
 public:
  LiveAnalysis update(const std::vector<double>& strap_rr, double cycle_seconds, bool with_hrv);
  void reset();

 private:
  std::vector<double> rr_;  // the cleaned intervals of the last update
  double cycle_seconds_ = 0;
  std::vector<double> scores_;
};

/// analyze_live for a session whose samples arrive as it runs: each update
/// costs what arrived since the last one (LiveAnalyzer), and gives what
/// analyze_live would on all samples so far.
class RunningAnalysis {
 public:
  /// Appends `samples` and returns the analysis of everything so far.
  LiveAnalysis update(std::span<const double> samples, double cycle_seconds, bool with_hrv);
  /// Forgets everything, for a new session.
  void reset();
  std::size_t sample_count() const { return analyzer_.sample_count(); }

 private:
  LiveAnalyzer analyzer_;
  std::vector<SeriesPoint> hr_series_, cvn_series_;
};

}  // namespace cvn
