#include "analysis/ecg.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "analysis/heart_rate.h"
#include "analysis/live_score.h"
#include "tests/support/golden_file.h"
#include "tests/support/synthetic_ecg.h"

namespace cvn {
namespace {

using Series = std::vector<double>;

// Detection is judged at 50 ms, a third of a QRS complex.
constexpr double kMatchTolerance = 0.05;

Series peak_times(const std::vector<int32_t>& peaks) {
  Series times;
  for (int32_t p : peaks) times.push_back(p / kSampleRate);
  return times;
}

void expect_series_near(const Series& actual, const Series& expected, double tolerance,
                        const char* what) {
  ASSERT_EQ(actual.size(), expected.size()) << what;
  for (std::size_t i = 0; i < actual.size(); ++i) {
    if (std::isnan(expected[i])) {
      ASSERT_TRUE(std::isnan(actual[i])) << what << " " << i;
    } else {
      ASSERT_NEAR(actual[i], expected[i], tolerance) << what << " " << i;
    }
  }
}

// Reference results from scipy and numpy (tools/make_analysis_golden.py): a
// recording with ectopic beats, an inverted noisy one, one whose electrode
// pops force the robust prominence threshold, and the two bundled samples.
// The live scores there are the plain per-window definition.
class GoldenRecording : public testing::TestWithParam<std::string> {};

TEST_P(GoldenRecording, MatchesReferenceChain) {
  const test::GoldenFile golden =
      test::read_golden(test::source_path("tests/analysis/golden/" + GetParam() + ".golden"));
  ASSERT_TRUE(golden.ok);
  const Series ecg = test::read_samples(test::source_path(golden.fields.at("input")));
  ASSERT_FALSE(ecg.empty());

  const std::vector<int32_t> peaks = find_r_peaks(ecg, kSampleRate, kMaxHeartRate);
  const Series& expected_peaks = golden.series.at("peaks");
  ASSERT_EQ(peaks.size(), expected_peaks.size());
  for (std::size_t i = 0; i < peaks.size(); ++i) ASSERT_EQ(peaks[i], expected_peaks[i]) << i;

  const Series rr = analyze_ecg(ecg, kSampleRate, kMaxHeartRate);
  expect_series_near(rr, golden.series.at("rr"), 1e-12, "rr");
  expect_series_near(regular_hr(rr, ecg.size(), kSampleRate), golden.series.at("hr"), 1e-9,
                     "hr");
  const double cycle = std::stod(golden.fields.at("cycle_seconds"));
  expect_series_near(live_cvn_scores(rr, ecg.size(), cycle), golden.series.at("live"), 1e-12,
                     "live");
}

INSTANTIATE_TEST_SUITE_P(Analysis, GoldenRecording,
                         testing::Values("synthetic_rsa", "synthetic_noisy", "synthetic_pops",
                                         "sample_1", "sample_2"));

TEST(AnalyzeEcg, FindsBeatsOfARealisticRecordingInEitherPolarity) {
  test::SyntheticEcgOptions options;
  options.seconds = 600.0;
  const test::SyntheticEcg ecg = test::make_synthetic_ecg(options);
  const std::vector<int32_t> peaks = find_r_peaks(ecg.samples, kSampleRate, kMaxHeartRate);
  const test::DetectionScore score =
      test::score_detection(ecg.beat_times, peak_times(peaks), kMatchTolerance);
  EXPECT_GE(score.sensitivity, 0.995);
  EXPECT_GE(score.positive_predictivity, 0.995);

  // Negating the lead negates the filtered signal exactly; the vote must pick
  // the negated copy and so return the very same beats (the upright copy of
  // an inverted lead would give Q and S waves within 50 ms, not R waves).
  Series inverted = ecg.samples;
  for (double& v : inverted) v = -v;
  EXPECT_EQ(find_r_peaks(inverted, kSampleRate, kMaxHeartRate), peaks);
}

TEST(AnalyzeEcg, TieInPolarityVoteKeepsUprightSignal) {
  // Alternating positive and negative pulses, 1 s apart each way: both
  // polarities find the same number of 1 s intervals.
  Series x(130 * 30, 0.0);
  for (int k = 1; k < 29; ++k) {
    const int centre = 130 * k + (k % 2 == 0 ? 0 : 65);
    for (int d = -3; d <= 3; ++d)
      x[centre + d] = (k % 2 == 0 ? 1000.0 : -1000.0) * std::exp(-d * d / 2.0);
  }
  const std::vector<int32_t> peaks = find_r_peaks(x, kSampleRate, kMaxHeartRate);
  ASSERT_FALSE(peaks.empty());
  for (int32_t p : peaks) EXPECT_NEAR(p % 130, 0, 1) << p;
}

TEST(AnalyzeEcg, EctopicBeatsAreRepairedToTheSinusRhythm) {
  test::SyntheticEcgOptions options;
  options.seconds = 180.0;
  options.ectopic_beats = {30, 75, 120};
  const test::SyntheticEcg ecg = test::make_synthetic_ecg(options);
  const Series rr = analyze_ecg(ecg.samples, kSampleRate, kMaxHeartRate);
  ASSERT_EQ(rr.size(), ecg.beat_times.size() - 1);
  for (std::size_t k = 0; k < rr.size(); ++k) {
    const double truth = ecg.beat_times[k + 1] - ecg.beat_times[k];
    const bool around_ectopic = std::abs(truth - ecg.sinus_rr[k]) > 1e-9;
    // Repaired intervals follow the sinus rhythm within the beat-to-beat
    // variability; raw ones would be off by 40 %.
    EXPECT_NEAR(rr[k], around_ectopic ? ecg.sinus_rr[k] : truth, 0.06) << k;
  }
}

TEST(AnalyzeEcg, HeavyNoiseAndDropoutsStayLocal) {
  test::SyntheticEcgOptions options;
  options.seconds = 300.0;
  options.noise_uv = 120.0;
  options.bursts = {{100.0, 104.0, 500.0}, {200.0, 201.5, 800.0}};
  options.seed = 7;
  test::SyntheticEcg ecg = test::make_synthetic_ecg(options);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (int i = 130 * 150; i < 130 * 150 + 65; ++i) ecg.samples[i] = nan;  // 0.5 s dropout
  ecg.samples[130 * 250] = std::numeric_limits<double>::infinity();

  const std::vector<int32_t> peaks = find_r_peaks(ecg.samples, kSampleRate, kMaxHeartRate);
  const test::DetectionScore score =
      test::score_detection(ecg.beat_times, peak_times(peaks), kMatchTolerance);
  // Bursts of muscle noise as tall as the R waves let some false beats through.
  EXPECT_GE(score.sensitivity, 0.98);
  EXPECT_GE(score.positive_predictivity, 0.95);

  const Series rr = analyze_ecg(ecg.samples, kSampleRate, kMaxHeartRate);
  const Series hr = regular_hr(rr, ecg.samples.size(), kSampleRate);
  ASSERT_EQ(hr.size(), 3000u);
  for (double v : hr) {  // the rate swings 58-72 bpm; doubled or lost beats would leave this band
    ASSERT_TRUE(std::isfinite(v));
    EXPECT_NEAR(v, options.mean_hr, 25.0);
  }
}

TEST(AnalyzeEcg, UnusableInputGivesEmptyResult) {
  EXPECT_TRUE(analyze_ecg({}, kSampleRate, kMaxHeartRate).empty());
  EXPECT_TRUE(analyze_ecg({1.0, 2.0}, kSampleRate, kMaxHeartRate).empty());
  EXPECT_TRUE(analyze_ecg(Series(5000, 7.0), kSampleRate, kMaxHeartRate).empty());
  EXPECT_TRUE(analyze_ecg(Series(5000, std::numeric_limits<double>::quiet_NaN()), kSampleRate,
                          kMaxHeartRate)
                  .empty());
  test::SyntheticEcgOptions options;
  options.seconds = 20.0;
  const Series ecg = test::make_synthetic_ecg(options).samples;
  EXPECT_TRUE(analyze_ecg(ecg, 0.0, kMaxHeartRate).empty());
  EXPECT_TRUE(analyze_ecg(ecg, kSampleRate, 0).empty());
}

}  // namespace
}  // namespace cvn
