#include "analysis/resonance.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

#include "analysis/heart_rate.h"
#include "analysis/hrv.h"
#include "base/constants.h"
#include "tests/support/resonant_rr.h"

namespace cvn {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(RfSchedule, WholeBreathsHalvesUpAndThePacerAcrossABoundary) {
  const std::vector<RfStep> def = rf_schedule(RfProtocol{});
  ASSERT_EQ(def.size(), 5u);
  for (std::size_t k = 0; k < 5; ++k) {
    EXPECT_EQ(def[k].breaths, 13 - static_cast<int>(k)) << k;  // 120 s is whole breaths
    EXPECT_NEAR(def[k].start_s, 120.0 * k, 1e-9) << k;
  }
  // 90 s: 9.75 -> 10, 9, 8.25 -> 8, 7.5 -> 8 (a half rounds up), 6.75 -> 7 breaths.
  const std::vector<RfStep> odd = rf_schedule({{6.5, 6, 5.5, 5, 4.5}, 90, 0.5});
  const int odd_breaths[] = {10, 9, 8, 8, 7};
  double start = 0;
  for (std::size_t k = 0; k < 5; ++k) {
    EXPECT_EQ(odd[k].breaths, odd_breaths[k]) << k;
    EXPECT_NEAR(odd[k].start_s, start, 1e-9) << k;
    start += odd[k].breaths * 60 / odd[k].bpm;
  }
  EXPECT_NEAR(rf_total_seconds(odd), start, 1e-9);
  EXPECT_EQ(rf_schedule({{3.0, 10.0}, 60, 0.4})[0].breaths, 3);
  EXPECT_TRUE(rf_schedule({{6.0}, 120, 0.4}).empty());

  const PacerPosition before = pacer_at(def, 119.5), after = pacer_at(def, def[1].start_s);
  EXPECT_EQ(before.step, 0);
  EXPECT_NEAR(before.left_s, 0.5, 1e-9);
  EXPECT_NEAR(before.phase, 1 - 0.5 / (60 / 6.5), 1e-9);
  EXPECT_EQ(after.step, 1);
  EXPECT_EQ(after.phase, 0.0);  // every step starts breathing in
  EXPECT_DOUBLE_EQ(after.in_s, 4.0);
  EXPECT_NEAR(after.left_s, 120, 1e-9);
  EXPECT_NEAR(pacer_at(def, 124.0).phase, 0.4, 1e-9);
  EXPECT_EQ(pacer_at(def, rf_total_seconds(def)).step, -1);
  EXPECT_EQ(pacer_at(def, kNaN).step, -1);
}

TEST(RfProtocolText, RefusalsDefaultsAndRoundTrip) {
  struct Case {
    const char *rates, *step, *infrac, *says;
  };
  for (const Case& c : {Case{"6", "", "", "Rates"},
                        {"6,6,6,6,6,6,6,6,6", "", "", "Rates"},
                        {"2.9,6", "", "", "Rates"},
                        {"6,10.1", "", "", "Rates"},
                        {"6,,5", "", "", "Rates"},
                        {"6;5", "", "", "Rates"},
                        {"6,nan", "", "", "Rates"},
                        {"", "59", "", "step"},
                        {"", "301", "", "step"},
                        {"", "12O", "", "step"},
                        {"", "", "0.29", "breathing-in"},
                        {"", "", "0.61", "breathing-in"},
                        {"", "", "0.4x", "breathing-in"}}) {
    std::string error;
    EXPECT_FALSE(parse_rf_protocol(c.rates, c.step, c.infrac, &error))
        << c.rates << " | " << c.step << " | " << c.infrac;
    EXPECT_NE(error.find(c.says), std::string::npos) << error;
  }
  const auto def = parse_rf_protocol("", " ", "", nullptr);
  ASSERT_TRUE(def);
  const RfProtocolText text = rf_protocol_text(*def);  // the defaults, as the sidecar keeps them
  EXPECT_EQ(text.rates + " " + text.step_s + " " + text.infrac, "6.5,6,5.5,5,4.5 120 0.4");
  // Each limit itself is accepted, and a protocol reads back from its own text.
  EXPECT_TRUE(parse_rf_protocol(" 3, 10,3,10,3,10,3,10 ", "300", "0.6", nullptr));
  const auto p = parse_rf_protocol("3,5.1", "60", "0.3", nullptr);
  ASSERT_TRUE(p);
  const RfProtocolText t = rf_protocol_text(*p);
  EXPECT_EQ(parse_rf_protocol(t.rates, t.step_s, t.infrac, nullptr)->rates, p->rates);
  EXPECT_EQ(t.rates + " " + t.step_s + " " + t.infrac, "3,5.1 60 0.3");
}

// Steady beats and a 10 Hz series that is an exact sinusoid per step, peaking at a known share
// theta of each breath: the fit returns it, wherever the wrap falls.
TEST(RfScore, PhaseAndAmplitudeOfAKnownSinusoid) {
  const std::vector<RfStep> s = rf_schedule(RfProtocol{});
  const double theta[] = {0.1, 0.4, 0.55, 0.9, 0.95}, amplitude[] = {3, 0.5, 7, 2, 4};
  const double degrees[] = {-108, 0, 54, 180, -162};  // (theta - 0.4) x 360 in (-180, 180]
  std::vector<double> hr(6000);
  for (std::size_t i = 0; i < hr.size(); ++i) {
    const double t = i * kHrGridStep;
    const int k = pacer_at(s, t).step;
    hr[i] = 70 + amplitude[k] * std::cos(2 * std::numbers::pi *
                                         ((t - s[k].start_s) / s[k].cycle_s - theta[k]));
  }
  const RfResult r = score_rf(RfProtocol{}, std::vector<double>(600, 1.0), hr, 600);
  for (std::size_t k = 0; k < 5; ++k) {
    EXPECT_NEAR(r.steps[k].phase_deg, degrees[k], 1e-9) << k;
    EXPECT_NEAR(r.steps[k].amplitude_bpm, amplitude[k], 1e-9) << k;
  }
  EXPECT_EQ(r.recommended_bpm, 5.5);  // the largest swing; no step has any LF power
}

RfStepScore step(double bpm, double peak_trough, double lf, bool scored = true) {
  RfStepScore s;
  s.step.bpm = bpm;
  s.peak_trough_hr = peak_trough;
  s.lf_power = lf;
  s.scored = scored;
  return s;
}

TEST(RfScore, RecommendationRule) {
  // Within 5 % of the largest swing, LF power decides; 9.4 is outside, though its LF is largest.
  EXPECT_EQ(recommend_rf({step(6, 10, 1), step(5.5, 9.6, 5), step(5, 9.4, 9)}), 5.5);
  EXPECT_EQ(recommend_rf({step(6, 10, 1), step(5.5, 9.5, 2)}), 5.5);  // 5 % itself is within
  EXPECT_EQ(recommend_rf({step(6, 10, 3), step(5.5, 10, 3)}), 6);     // a tie: the earlier
  EXPECT_EQ(recommend_rf({step(6, 10, kNaN), step(5.5, 9.8, 0)}), 5.5);
  // An unscored step neither competes nor sets the bar.
  EXPECT_EQ(recommend_rf({step(6, 20, 50, false), step(5.5, 10, 1), step(5, 9, 9)}), 5.5);
  EXPECT_TRUE(std::isnan(recommend_rf({step(6, 10, 1, false), step(5, kNaN, 1)})));
}

TEST(RfScore, ResonantRecordingAndOneStoppedEarly) {
  const RfProtocol p;
  const std::vector<double> rr = test::resonant_rr(rf_schedule(p));
  const std::vector<double> hr = regular_hr(rr, 600 * kSampleRateInt, kSampleRate);
  const RfResult r = score_rf(p, rr, hr, 600);
  EXPECT_EQ(r.recommended_bpm, 5.0);
  for (const RfStepScore& s : r.steps) {
    EXPECT_TRUE(s.scored && std::isfinite(s.cvn)) << s.step.bpm;
    EXPECT_NEAR(s.lf_peak, s.step.bpm / 60, 4.0 / 480) << s.step.bpm;  // within a bin
    // Mid-breath is 0.1 of a breath (36 degrees) after breathing in ends; the 10 Hz series,
    // built from the beats, moves it by less than 3 degrees.
    EXPECT_NEAR(s.phase_deg, 36, 3) << s.step.bpm;
    // One log-power per breath, and the step's value is their mean.
    ASSERT_EQ(s.breath_cvn.size(), static_cast<std::size_t>(s.step.breaths)) << s.step.bpm;
    double sum = 0;
    for (double v : s.breath_cvn) sum += v;
    EXPECT_NEAR(sum / s.step.breaths, s.cvn, 1e-12) << s.step.bpm;
  }

  // Stopped at 300 s: the third step has 5 of its 11 breaths, the last two are not reached.
  const RfResult cut = score_rf(p, rr, hr, 300);
  EXPECT_EQ(cut.steps[2].finished_breaths, 5);
  EXPECT_EQ(cut.recommended_bpm, 5.5);
  for (const RfStepScore& s : {cut.steps[3], cut.steps[4]}) {
    EXPECT_FALSE(s.reached || s.scored);
    for (double v : {s.peak_trough_hr, s.lf_power, s.lf_peak, s.phase_deg, s.amplitude_bpm, s.cvn})
      EXPECT_TRUE(std::isnan(v));
  }
  // Two and a half breaths into a step: reached, too few breaths to compare.
  const RfStepScore two = score_rf(p, rr, hr, 240 + 2.5 * 60 / 5.5).steps[2];
  EXPECT_TRUE(two.reached && !two.scored);
}

// A step from 0 s that spans over 120 s has the intervals, so the spectrum, compute_hrv sees:
// catches a unit or band slip in the step's spectrum.
TEST(RfScore, StepSpectrumIsTheHrvSpectrum) {
  const RfProtocol p{{5.0, 6.0}, 180, 0.4};
  const std::vector<double> rr = test::resonant_rr(rf_schedule(p));
  const RfStepScore s = score_rf(p, rr, {}, 360).steps[0];
  std::vector<double> first;
  for (double t = rr[0]; t < 180; t += rr[first.size()]) first.push_back(rr[first.size()]);
  const HrvIndices h = compute_hrv(first, {}, {}, 12);
  // Beat times summed in seconds here and in milliseconds there: equal to rounding.
  EXPECT_NEAR(s.lf_power, h.lf, 1e-12 * h.lf);
  EXPECT_DOUBLE_EQ(s.lf_peak, h.lf_peak);
}

}  // namespace
}  // namespace cvn
