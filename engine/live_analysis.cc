#include "engine/live_analysis.h"

#include <cmath>

#include "analysis/heart_rate.h"
#include "analysis/live_score.h"
#include "analysis/pipeline.h"

namespace cvn {

LiveAnalysis analyze_live(const std::vector<double>& samples, double cycle_seconds, bool with_hrv) {
  LiveAnalysis a;
  a.hr = std::nan("");
  a.cvn = std::nan("");
  // The maps wait for the TFR job: once a second, beats and heart rate suffice.
  const RecordingAnalysis r =
      analyze_recording(EcgSamples{samples}, cycle_seconds, {.cycles = false, .hrv = with_hrv});
  if (with_hrv) a.hrv = r.hrv;
  const std::vector<double>& rr = r.rr;
  if (rr.empty()) return a;
  a.rr_count = static_cast<std::int32_t>(rr.size());

  const std::vector<double>& hr = r.hr;
  std::vector<double> grid = time_grid(samples.size(), kSampleRate, kHrGridStep);
  a.hr_series.reserve(hr.size());
  for (std::size_t i = 0; i < hr.size() && i < grid.size(); ++i)
    a.hr_series.push_back({grid[i], hr[i]});
  if (!hr.empty()) a.hr = hr.back();

  std::vector<double> scores = live_cvn_scores(rr, samples.size(), cycle_seconds, kSampleRate);
  a.cvn_series.reserve(scores.size());
  for (std::size_t i = 0; i < scores.size(); ++i)
    a.cvn_series.push_back({static_cast<double>(i) * kLiveScoreStep, scores[i]});
  if (!scores.empty()) a.cvn = scores.back();
  return a;
}

}  // namespace cvn
