#include "engine/live_analysis.h"

#include <cmath>

#include "analysis/ecg.h"
#include "analysis/heart_rate.h"
#include "analysis/live_score.h"
#include "analysis/rr.h"

namespace cvn {

LiveAnalysis analyze_live(const std::vector<double>& samples, double cycle_seconds) {
  LiveAnalysis a;
  a.hr = std::nan("");
  a.cvn = std::nan("");
  // The same chain as analyze_ecg, keeping the peaks it finds on the way.
  a.peaks = find_r_peaks(samples, kEcgSampleRate, kMaxHeartRate);
  if (a.peaks.size() < 2) {
    a.peaks.clear();
    return a;
  }
  std::vector<double> rr(a.peaks.size() - 1);
  for (std::size_t i = 1; i < a.peaks.size(); ++i)
    rr[i - 1] = (a.peaks[i] - a.peaks[i - 1]) / kEcgSampleRate;
  rr = clean_rr(rr);
  a.rr_count = static_cast<std::int32_t>(rr.size());

  std::vector<double> hr = regular_hr(rr, samples.size(), kEcgSampleRate);
  std::vector<double> grid = time_grid(samples.size(), kEcgSampleRate, kHrGridStep);
  a.hr_series.reserve(hr.size());
  for (std::size_t i = 0; i < hr.size() && i < grid.size(); ++i)
    a.hr_series.push_back({grid[i], hr[i]});
  if (!hr.empty()) a.hr = hr.back();

  std::vector<double> scores = live_cvn_scores(rr, samples.size(), cycle_seconds, kEcgSampleRate);
  a.cvn_series.reserve(scores.size());
  for (std::size_t i = 0; i < scores.size(); ++i)
    a.cvn_series.push_back({static_cast<double>(i) * kLiveScoreStep, scores[i]});
  if (!scores.empty()) a.cvn = scores.back();
  return a;
}

}  // namespace cvn
