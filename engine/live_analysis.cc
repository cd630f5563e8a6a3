#include "engine/live_analysis.h"

#include <algorithm>
#include <cmath>

#include "analysis/heart_rate.h"
#include "analysis/live_score.h"
#include "analysis/pipeline.h"
#include "analysis/rr.h"

namespace cvn {

namespace {

// The series and the latest values of one run of the chain; `scores`, when
// given, are its live_cvn_scores.
LiveAnalysis live_results(const RecordingAnalysis& r, double cycle_seconds, bool with_hrv,
                          const std::vector<double>* scores = nullptr) {
  LiveAnalysis a;
  a.hr = std::nan("");
  a.cvn = std::nan("");
  if (with_hrv) a.hrv = r.hrv;
  const std::vector<double>& rr = r.rr;
  if (rr.empty()) return a;
  a.rr_count = static_cast<std::int32_t>(rr.size());

  const std::vector<double>& hr = r.hr;
  std::vector<double> grid = time_grid(r.sample_count, kSampleRate, kHrGridStep);
  a.hr_series.reserve(hr.size());
  for (std::size_t i = 0; i < hr.size() && i < grid.size(); ++i)
    a.hr_series.push_back({grid[i], hr[i]});
  if (!hr.empty()) a.hr = hr.back();

  const std::vector<double> computed =
      scores ? std::vector<double>{} : live_cvn_scores(rr, r.sample_count, cycle_seconds);
  if (!scores) scores = &computed;
  a.cvn_series.reserve(scores->size());
  for (std::size_t i = 0; i < scores->size(); ++i)
    a.cvn_series.push_back({static_cast<double>(i) * kLiveScoreStep, (*scores)[i]});
  if (!scores->empty()) a.cvn = scores->back();
  return a;
}

}  // namespace

LiveAnalysis analyze_live(const std::vector<double>& samples, double cycle_seconds, bool with_hrv) {
  // The maps wait for the TFR job: once a second, beats and heart rate suffice.
  return live_results(
      analyze_recording(EcgSamples{samples}, cycle_seconds, {.cycles = false, .hrv = with_hrv}),
      cycle_seconds, with_hrv);
}

LiveAnalysis analyze_beats(const std::vector<double>& strap_rr, double cycle_seconds,
                           bool with_hrv) {
  // The whole list each pass: about a millisecond at two hours of beats
  // (docs/engine.md), so nothing is carried over between passes.
  return live_results(analyze_recording(RrSeconds{strap_rr, true}, cycle_seconds,
                                        {.cycles = false, .hrv = with_hrv}),
                      cycle_seconds, with_hrv);
}

LiveAnalysis RunningBeats::update(const std::vector<double>& strap_rr, double cycle_seconds,
                                  bool with_hrv) {
  const RecordingAnalysis r = analyze_recording(RrSeconds{strap_rr, true}, cycle_seconds,
                                                {.cycles = false, .hrv = with_hrv});
  std::vector<double> rr = r.rr;
  // The scores before the first beat whose interval changed (the cleaning
  // may revise earlier ones when its bounds move) read nothing new.
  std::size_t from = 0;
  if (cycle_seconds == cycle_seconds_) {
    const auto [changed, old] = std::mismatch(rr.begin(), rr.end(), rr_.begin(), rr_.end());
    if (changed != rr.begin()) {
      std::vector<double> time, interval_ms;
      live_score_beats(rr, time, interval_ms);
      const std::size_t beat = static_cast<std::size_t>(changed - rr.begin()) - 1;
      if (beat < time.size()) {
        const std::vector<double> grid = time_grid(r.sample_count, kSampleRate, kLiveScoreStep);
        from = static_cast<std::size_t>(std::lower_bound(grid.begin(), grid.end(), time[beat]) -
                                        grid.begin());
      }
    }
  }
  scores_ = live_cvn_scores_after(rr, r.sample_count, cycle_seconds, scores_, from);
  rr_ = std::move(rr);
  cycle_seconds_ = cycle_seconds;
  return live_results(r, cycle_seconds, with_hrv, &scores_);
}

void RunningBeats::reset() {
  rr_.clear();
  scores_.clear();
  cycle_seconds_ = 0;
}

LiveAnalysis RunningAnalysis::update(std::span<const double> samples, double cycle_seconds,
                                     bool with_hrv) {
  analyzer_.feed(samples, cycle_seconds);
  LiveAnalysis a;
  a.hr = std::nan("");
  a.cvn = std::nan("");
  const std::vector<double>& rr = analyzer_.rr();
  if (with_hrv) {
    // Over the whole session, every 10 s: linear in its length but about a
    // millisecond at two hours (docs/analysis.md, "Live analysis").
    const std::vector<unsigned char>& marks = analyzer_.corrected();
    a.hrv = compute_hrv(rr, std::vector<bool>(marks.begin(), marks.end()), analyzer_.hr(),
                        cycle_seconds);
  }
  if (rr.empty()) {
    hr_series_.clear();
    cvn_series_.clear();
    return a;
  }
  a.rr_count = static_cast<std::int32_t>(rr.size());

  // The series points from the first value the analyzer may have changed.
  const std::vector<double>& hr = analyzer_.hr();
  const std::vector<double>& grid = analyzer_.grid();
  hr_series_.resize(std::min(hr_series_.size(), analyzer_.hr_changed_from()));
  for (std::size_t i = hr_series_.size(); i < hr.size() && i < grid.size(); ++i)
    hr_series_.push_back({grid[i], hr[i]});
  if (!hr.empty()) a.hr = hr.back();

  const std::vector<double>& scores = analyzer_.scores();
  cvn_series_.resize(std::min(cvn_series_.size(), analyzer_.scores_changed_from()));
  for (std::size_t i = cvn_series_.size(); i < scores.size(); ++i)
    cvn_series_.push_back({static_cast<double>(i) * kLiveScoreStep, scores[i]});
  if (!scores.empty()) a.cvn = scores.back();
  a.hr_series = hr_series_;
  a.cvn_series = cvn_series_;
  return a;
}

void RunningAnalysis::reset() {
  analyzer_.reset();
  hr_series_.clear();
  cvn_series_.clear();
}

}  // namespace cvn
