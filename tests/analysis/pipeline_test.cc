// The chain from a recording to its cycles: an ECG and the RR list of the same
// beats tell the same story, and no input makes it throw.
#include "analysis/pipeline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "assets/assets.h"
#include "base/recording.h"

namespace cvn {
namespace {

using Series = std::vector<double>;

TEST(AnalyzeRecording, EcgAndItsRrListAgree) {
  const Series ecg = read_recording(*find_asset("Sample 1.txt"));
  const RecordingAnalysis from_ecg = analyze_recording(EcgSamples{ecg}, 16.0);
  ASSERT_GT(from_ecg.rr.size(), 200u);
  EXPECT_FALSE(from_ecg.cycles.empty());

  const RecordingAnalysis from_rr = analyze_recording(RrSeconds{from_ecg.rr}, 16.0);
  EXPECT_EQ(from_rr.rr, from_ecg.rr);
  EXPECT_EQ(from_rr.beats, from_ecg.beats);
  // Both put the first beat at 0 s; the RR list ends at the last beat, the
  // ECG a little later, so only the end of the heart rate may differ.
  ASSERT_LT(from_rr.sample_count, from_ecg.sample_count);
  for (std::size_t i = 0; i + 20 < from_rr.hr.size(); ++i)
    ASSERT_NEAR(from_rr.hr[i], from_ecg.hr[i], 1e-9) << i;
  EXPECT_FALSE(from_rr.cycles.empty());

  // The live pass leaves the cycles out and loses nothing else.
  const RecordingAnalysis live = analyze_recording(EcgSamples{ecg}, 16.0, {.cycles = false});
  EXPECT_TRUE(live.cycles.empty());
  EXPECT_EQ(live.hr, from_ecg.hr);
}

// A lost beat (the strap slipped for a second) is an interval clean_rr
// replaces, and the HRV's artefact share counts exactly those.
TEST(AnalyzeRecording, ReplacedIntervalsReachTheHrv) {
  Series ecg = read_recording(*find_asset("Sample 1.txt"));
  std::fill(ecg.begin() + 13000, ecg.begin() + 13000 + 160, 0.0);
  const RecordingAnalysis a = analyze_recording(EcgSamples{ecg}, 16.0);
  const auto replaced = std::count(a.corrected.begin(), a.corrected.end(), 1);
  ASSERT_GT(replaced, 0);
  EXPECT_DOUBLE_EQ(a.hrv.artefact_pct, 100.0 * replaced / a.hrv.n_beats);
}

TEST(AnalyzeRecording, UnusableInputGivesEmptyResults) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  for (const Series& ecg : {Series{}, Series(5000, 7.0), Series(5000, nan)}) {
    const RecordingAnalysis a = analyze_recording(EcgSamples{ecg}, 16.0);
    EXPECT_TRUE(a.rr.empty() && a.hr.empty() && a.cycles.empty()) << ecg.size();
  }
  for (const Series& rr :
       {Series{}, Series{0.8, nan, 0.8}, Series{0.8, -0.8, 0.8}, Series{0.8, inf}, Series{1e300}}) {
    const RecordingAnalysis a = analyze_recording(RrSeconds{rr}, 16.0);
    EXPECT_TRUE(a.rr.empty() && a.hr.empty() && a.cycles.empty() && a.beats == 0) << rr.size();
  }
}

}  // namespace
}  // namespace cvn
