#include "analysis/pipeline.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include "analysis/ecg.h"
#include "analysis/heart_rate.h"
#include "analysis/rr.h"
#include "base/constants.h"

namespace cvn {

namespace {

void stage_done(const PipelineOptions& options, const char* stage) {
  if (options.stage_done) options.stage_done(stage);
}

// The heart rate and the cycles, once the intervals and the length are known.
void finish(RecordingAnalysis& a, double cycle_seconds, const PipelineOptions& options) {
  a.duration_seconds = static_cast<double>(a.sample_count) / kSampleRate;
  a.hr = regular_hr(a.rr, a.sample_count, kSampleRate);
  stage_done(options, "heart_rate");
  if (options.hrv) {
    a.hrv = compute_hrv(a.rr, std::vector<bool>(a.corrected.begin(), a.corrected.end()), a.hr,
                        cycle_seconds);
    stage_done(options, "hrv");
  }
  if (!options.cycles) return;
  a.cycles = analyze_cycles(a.sample_count, a.rr, cycle_seconds, kSampleRate);
  stage_done(options, "cycles_and_tfr");
}

}  // namespace

RecordingAnalysis analyze_recording(EcgSamples ecg, double cycle_seconds,
                                    const PipelineOptions& options) {
  RecordingAnalysis a;
  a.peaks = find_r_peaks(ecg.samples, kSampleRate, kMaxHeartRate);
  CleanedRr cleaned = clean_rr_marked(peak_intervals(a.peaks, kSampleRate));
  a.rr = std::move(cleaned.rr);
  a.corrected = std::move(cleaned.replaced);
  a.beats = a.peaks.size();
  a.sample_count = ecg.samples.size();
  stage_done(options, "r_peaks");
  finish(a, cycle_seconds, options);
  return a;
}

RecordingAnalysis analyze_recording(RrSeconds rr, double cycle_seconds,
                                    const PipelineOptions& options) {
  RecordingAnalysis a;
  if (rr.from_strap) {
    CleanedRr cleaned = clean_rr_marked(rr.seconds);
    for (std::size_t i = 0; i < cleaned.rr.size(); ++i) {
      if (!(std::isfinite(cleaned.rr[i]) && cleaned.rr[i] > 0.0)) continue;
      a.rr.push_back(cleaned.rr[i]);
      a.corrected.push_back(cleaned.replaced[i]);
    }
  } else {
    a.rr = rr.seconds;
    a.corrected.assign(a.rr.size(), 0);
  }
  const bool usable =
      std::all_of(a.rr.begin(), a.rr.end(), [](double r) { return std::isfinite(r) && r > 0.0; });
  const double samples = std::accumulate(a.rr.begin(), a.rr.end(), 0.0) * kSampleRate;
  // Beyond a 32-bit sample index no cycle can be placed (cycle_bounds), and the
  // heart-rate grid alone would take gigabytes.
  if (!usable || !(samples <= std::numeric_limits<std::int32_t>::max())) return {};
  a.beats = a.rr.empty() ? 0 : a.rr.size() + 1;
  a.sample_count = static_cast<std::size_t>(samples);
  stage_done(options, "r_peaks");
  finish(a, cycle_seconds, options);
  return a;
}

}  // namespace cvn
