// One recording through the whole chain: R-peaks, cleaned beat-to-beat
// intervals, the 10 Hz heart rate and, when asked for, the per-cycle measure
// with both time-frequency maps. Every view of a recording (the live pass,
// the TFR pictures, the export, the command-line analyser) starts here, so
// they all agree on what a recording says.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "analysis/cycles.h"
#include "analysis/hrv.h"

namespace cvn {

/// An ECG at kSampleRate, microvolts.
struct EcgSamples {
  const std::vector<double>& samples;
};

/// Beat-to-beat intervals in seconds from elsewhere. A Kubios export's are
/// used as given, since their source has already corrected them. A
/// heart-rate strap's (`from_strap`) are cleaned as R-peak intervals are
/// (clean_rr_marked, the replaced ones marked, so that the HRV's artefact
/// share and the RR table say so); an interval still not positive and finite
/// after that (clean_rr returns a series without spread unchanged) is left
/// out, since no beat can be placed by it.
struct RrSeconds {
  const std::vector<double>& seconds;
  bool from_strap = false;
};

/// What analyze_recording does beyond the beats and the heart rate.
struct PipelineOptions {
  /// The per-cycle measure and both maps: most of the cost, which the
  /// once-a-second live pass goes without.
  bool cycles = true;
  /// The HRV indices (compute_hrv): cheap, but the live pass renews them
  /// only every few seconds.
  bool hrv = true;
  /// Called as each stage ends ("r_peaks", "heart_rate", "hrv", "cycles_and_tfr"),
  /// for a caller that times them.
  std::function<void(const char* stage)> stage_done = {};
};

/// Everything the chain yields for one recording; empty parts where the input
/// gave nothing to work with.
struct RecordingAnalysis {
  /// R-peak sample indices, ascending; empty for an RR input.
  std::vector<std::int32_t> peaks;
  /// Intervals in seconds: cleaned (clean_rr) for an ECG, as given otherwise.
  std::vector<double> rr;
  /// One per interval of `rr`: 1 where clean_rr replaced an artefact. Never
  /// set for an RR input.
  std::vector<unsigned char> corrected;
  /// R-peaks found, or intervals + 1 for an RR input.
  std::size_t beats = 0;
  /// ECG samples, or the time the intervals span counted in samples at
  /// kSampleRate (truncated).
  std::size_t sample_count = 0;
  double duration_seconds = 0.0;
  /// Heart rate, bpm, on the kHrGridStep grid (regular_hr).
  std::vector<double> hr;
  /// Empty unless PipelineOptions::cycles and the recording is long enough
  /// (analyze_cycles).
  CycleAnalysis cycles;
  /// Empty fields unless PipelineOptions::hrv (see compute_hrv for what each
  /// needs).
  HrvIndices hrv;
};

/// The chain on an ECG. Never throws; an ECG with fewer than two R-peaks
/// gives no intervals, heart rate or cycles (its peaks and length remain).
RecordingAnalysis analyze_recording(EcgSamples ecg, double cycle_seconds,
                                    const PipelineOptions& options = {});

/// The chain on an RR list. A list with an interval that is not finite and
/// positive, or spanning more samples than a 32-bit index holds, gives an
/// empty analysis.
RecordingAnalysis analyze_recording(RrSeconds rr, double cycle_seconds,
                                    const PipelineOptions& options = {});

}  // namespace cvn
