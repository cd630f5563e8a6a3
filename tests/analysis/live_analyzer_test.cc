// The live analysis fed in pieces against the whole-recording chain it stands
// in for (analyze_recording, live_cvn_scores): the same beats, intervals,
// heart rate and scores, however the samples arrive.
#include "analysis/live_analyzer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>

#include "analysis/ecg.h"
#include "analysis/filter.h"
#include "analysis/heart_rate.h"
#include "analysis/live_score.h"
#include "analysis/peaks.h"
#include "analysis/pipeline.h"
#include "assets/assets.h"
#include "base/constants.h"
#include "base/recording.h"

namespace cvn {
namespace {

using Series = std::vector<double>;

// A recording of `minutes`, the bundled sample repeated.
Series tiled(const char* asset, int minutes) {
  const Series one = read_recording(*find_asset(asset));
  Series ecg;
  const auto wanted = static_cast<std::size_t>(minutes * 60 * kSampleRate);
  while (ecg.size() < wanted) ecg.insert(ecg.end(), one.begin(), one.end());
  ecg.resize(wanted);
  return ecg;
}

// Feeds `ecg` in pieces of 1 to 500 samples (a fixed sequence).
void feed_in_pieces(LiveAnalyzer& live, const Series& ecg, double cycle_seconds,
                    unsigned seed = 22) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<std::size_t> piece(1, 500);
  for (std::size_t at = 0; at < ecg.size();) {
    const std::size_t n = std::min(piece(rng), ecg.size() - at);
    live.feed(std::span<const double>(ecg).subspan(at, n), cycle_seconds);
    at += n;
  }
}

// Equal within `bound`, NaN where the other is NaN.
void expect_close(const Series& live, const Series& whole, double bound, const std::string& what) {
  ASSERT_EQ(live.size(), whole.size()) << what;
  for (std::size_t i = 0; i < whole.size(); ++i) {
    if (std::isnan(whole[i])) {
      ASSERT_TRUE(std::isnan(live[i])) << what << " at " << i;
    } else {
      ASSERT_NEAR(live[i], whole[i], bound) << what << " at " << i;
    }
  }
}

// Everything the live analysis holds against the whole chain on the same
// samples. The band-passed ECG differs from the whole recording's by
// rounding only (docs/analysis.md, "Live analysis"), so beats and
// intervals are identical and the rest agrees to far below 1e-9.
void expect_matches_whole(const LiveAnalyzer& live, const Series& ecg, double cycle_seconds) {
  const RecordingAnalysis whole =
      analyze_recording(EcgSamples{ecg}, cycle_seconds, {.cycles = false, .hrv = false});
  ASSERT_EQ(live.peaks(), whole.peaks);
  EXPECT_EQ(live.rr(), whole.rr);
  EXPECT_EQ(live.corrected(), whole.corrected);
  expect_close(live.hr(), whole.hr, 1e-9, "heart rate");
  expect_close(live.scores(), live_cvn_scores(whole.rr, ecg.size(), cycle_seconds), 1e-9, "score");

  // The detector's candidates, both polarities: the overlap before each
  // anchor decides these even where the screens hide a difference.
  Series filtered = ecg_bandpass(ecg);
  for (int polarity = 0; polarity < 2; ++polarity) {
    if (polarity == 1)
      for (double& v : filtered) v = -v;
    const PeakCandidates c =
        peak_candidates(filtered, kSampleRate, min_peak_distance(kSampleRate, kMaxHeartRate));
    const PolarityCandidates& mine = live.detector().candidates(polarity);
    ASSERT_EQ(mine.positions, c.positions) << "polarity " << polarity;
    expect_close(mine.prominences, c.prominences, 1e-9, "prominence");
  }
}

struct Case {
  const char* name;
  Series ecg;
  bool replaces = false;  // clean_rr replaces intervals
  bool spikes = false;    // the heart rate has spikes to remove
};

// A steady 60 bpm of narrow pulses in a little noise, one beat early by 20
// samples: the intervals' MAD is 0, so clean_rr keeps them, and the heart
// rate has a spike that remove_artefacts blanks.
Series steady_with_early_beat(int minutes) {
  std::mt19937 rng(9);
  std::normal_distribution<double> noise(0.0, 5.0);
  Series ecg(static_cast<std::size_t>(minutes * 60 * kSampleRate));
  for (double& v : ecg) v = noise(rng);
  for (std::size_t beat = 65; beat + 10 < ecg.size(); beat += 130) {
    const std::size_t at = beat == 65 + 130 * 400 ? beat - 20 : beat;
    for (int k = -6; k <= 6; ++k) ecg[at + k] += 1000.0 * std::exp(-k * k / 8.0);
  }
  return ecg;
}

// Whether the heart rate differs from its smoothed grid: blanks were filled.
bool has_blanks(const LiveAnalyzer& live) {
  Series beat_time{0.0};
  for (double r : live.rr()) beat_time.push_back(beat_time.back() + r);
  const Series rate = beat_rates(live.rr());
  Series grid = live.grid();
  for (double& t : grid) t = rate_at(beat_time, rate, t);
  return hann_smooth(grid) != live.hr();
}

// Half an hour of the sample, and the same with what a strap really sends
// now and then: a lost stretch (NaN), a flat one and a burst of noise, which
// make clean_rr replace intervals and the heart rate carry spikes.
std::vector<Case> cases() {
  Series rough = tiled("Sample 1.txt", 30);
  std::fill(rough.begin() + 40000, rough.begin() + 40300, std::numeric_limits<double>::quiet_NaN());
  std::fill(rough.begin() + 90000, rough.begin() + 90200, 0.0);
  std::mt19937 rng(5);
  std::normal_distribution<double> noise(0.0, 900.0);
  for (std::size_t i = 150000; i < 150400; ++i) rough[i] += noise(rng);
  std::fill(rough.end() - 250, rough.end(), std::numeric_limits<double>::quiet_NaN());
  Series late = tiled("Sample 1.txt", 5);
  std::fill(late.begin(), late.begin() + 100, std::numeric_limits<double>::quiet_NaN());
  return {{"sample, 30 min", tiled("Sample 1.txt", 30)},
          {"second sample, 20 min", tiled("Sample 2.txt", 20), true},
          {"lost, flat and noisy stretches", rough, true},
          {"steady rhythm, one early beat", steady_with_early_beat(15), false, true},
          {"nothing in the first 100 samples", late}};
}

TEST(LiveAnalyzer, FedInPiecesMatchesTheWholeRecording) {
  for (const Case& c : cases()) {
    SCOPED_TRACE(c.name);
    LiveAnalyzer live;
    feed_in_pieces(live, c.ecg, 16.0);
    ASSERT_EQ(live.sample_count(), c.ecg.size());
    expect_matches_whole(live, c.ecg, 16.0);
    // What each case is there for.
    const bool replaced = std::count(live.corrected().begin(), live.corrected().end(), 1) > 0;
    EXPECT_EQ(replaced, c.replaces);
    EXPECT_EQ(has_blanks(live), c.spikes);
  }
}

// A resonance assessment changes the cycle at each step; the score series is
// then that of the new cycle throughout, as live_cvn_scores gives it.
TEST(LiveAnalyzer, ANewCycleLengthRescoresTheWholeSeries) {
  const Series ecg = tiled("Sample 1.txt", 6);
  LiveAnalyzer live;
  const Series first(ecg.begin(), ecg.begin() + 4 * 60 * 130);
  feed_in_pieces(live, first, 16.0);
  live.feed(std::span<const double>(ecg).subspan(first.size()), 10.0);
  EXPECT_EQ(live.scores_changed_from(), 0u);
  expect_matches_whole(live, ecg, 10.0);
}

}  // namespace
}  // namespace cvn
