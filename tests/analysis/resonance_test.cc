#include "analysis/resonance.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <numbers>
#include <string>
#include <tuple>
#include <vector>

#include "analysis/heart_rate.h"
#include "analysis/hrv.h"
#include "base/constants.h"

namespace cvn {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(RfSchedule, BreathsRoundHalvesUpAndStepsFollowEachOther) {
  const std::vector<RfStep> def = rf_schedule(RfProtocol{});
  ASSERT_EQ(def.size(), 5u);
  const int breaths[] = {13, 12, 11, 10, 9};  // 120 s at each rate is whole breaths
  for (std::size_t k = 0; k < def.size(); ++k) {
    EXPECT_EQ(def[k].breaths, breaths[k]) << k;
    EXPECT_NEAR(def[k].start_s, 120.0 * k, 1e-9) << k;
    EXPECT_DOUBLE_EQ(def[k].in_s + def[k].out_s, def[k].cycle_s);
    EXPECT_NEAR(def[k].in_s, 0.4 * 60 / def[k].bpm, 1e-12);
    if (k > 0) {
      EXPECT_EQ(def[k].start_s, def[k - 1].end_s);
    }
  }
  EXPECT_NEAR(rf_total_seconds(def), 600, 1e-9);

  // 90 s: 9.75 -> 10, 9, 8.25 -> 8, 7.5 -> 8 (a half rounds up), 6.75 -> 7 breaths.
  RfProtocol odd;
  odd.step_s = 90;
  odd.infrac = 0.5;
  const std::vector<RfStep> s = rf_schedule(odd);
  const int odd_breaths[] = {10, 9, 8, 8, 7};
  double start = 0;
  for (std::size_t k = 0; k < s.size(); ++k) {
    EXPECT_EQ(s[k].breaths, odd_breaths[k]) << k;
    EXPECT_DOUBLE_EQ(s[k].start_s, start) << k;
    start += odd_breaths[k] * 60 / s[k].bpm;
  }
  EXPECT_DOUBLE_EQ(s[3].end_s - s[3].start_s, 96.0);  // 8 breaths of 12 s, not 90 s

  // 60 s at 3 and 10 bpm: 3 and 10 breaths; an invalid protocol has no schedule.
  EXPECT_EQ(rf_schedule({{3.0, 10.0}, 60, 0.4})[0].breaths, 3);
  EXPECT_EQ(rf_schedule({{3.0, 10.0}, 60, 0.4})[1].breaths, 10);
  EXPECT_TRUE(rf_schedule({{6.0}, 120, 0.4}).empty());
  EXPECT_EQ(rf_total_seconds({}), 0.0);
}

TEST(RfSchedule, PacerAcrossAStepBoundary) {
  const std::vector<RfStep> s = rf_schedule(RfProtocol{});  // 6.5 bpm until 120 s, then 6.0
  PacerPosition p = pacer_at(s, 119.5);
  EXPECT_EQ(p.step, 0);
  EXPECT_NEAR(p.left_s, 0.5, 1e-9);
  EXPECT_NEAR(p.phase, 1 - 0.5 / (60 / 6.5), 1e-9);
  EXPECT_NEAR(p.in_s, 0.4 * 60 / 6.5, 1e-12);

  p = pacer_at(s, s[1].start_s);
  EXPECT_EQ(p.step, 1);
  EXPECT_EQ(p.phase, 0.0);  // each step starts breathing in
  EXPECT_DOUBLE_EQ(p.cycle_s, 10.0);
  EXPECT_DOUBLE_EQ(p.out_s, 6.0);
  EXPECT_NEAR(p.left_s, 120, 1e-9);
  EXPECT_NEAR(pacer_at(s, 124.0).phase, 0.4, 1e-9);  // the end of breathing in

  EXPECT_EQ(pacer_at(s, -3).step, 0);
  EXPECT_EQ(pacer_at(s, -3).phase, 0.0);
  EXPECT_EQ(pacer_at(s, rf_total_seconds(s)).step, -1);
  EXPECT_EQ(pacer_at(s, kNaN).step, -1);
  EXPECT_EQ(pacer_at({}, 1).step, -1);
}

TEST(RfProtocolText, RefusalsDefaultsAndRoundTrip) {
  struct Case {
    const char *rates, *step, *infrac, *says;
  };
  const Case refused[] = {
      {"6", "", "", "Rates"},           {"6,6,6,6,6,6,6,6,6", "", "", "Rates"},
      {"2.9,6", "", "", "Rates"},       {"6,10.1", "", "", "Rates"},
      {"6,,5", "", "", "Rates"},        {"6,5,", "", "", "Rates"},
      {"6;5", "", "", "Rates"},         {"6,nan", "", "", "Rates"},
      {"", "59", "", "step"},           {"", "301", "", "step"},
      {"", "12O", "", "step"},          {"", "inf", "", "step"},
      {"", "", "0.29", "breathing-in"}, {"", "", "0.61", "breathing-in"},
      {"", "", "0.4x", "breathing-in"},
  };
  for (const Case& c : refused) {
    std::string error;
    EXPECT_FALSE(parse_rf_protocol(c.rates, c.step, c.infrac, &error))
        << c.rates << " | " << c.step << " | " << c.infrac;
    EXPECT_NE(error.find(c.says), std::string::npos) << error;
    EXPECT_FALSE(parse_rf_protocol(c.rates, c.step, c.infrac, nullptr));
  }

  const auto def = parse_rf_protocol("", " ", "", nullptr);
  ASSERT_TRUE(def);
  EXPECT_EQ(def->rates, RfProtocol{}.rates);
  EXPECT_EQ(def->step_s, 120);
  EXPECT_EQ(def->infrac, 0.4);
  const RfProtocolText text = rf_protocol_text(*def);
  EXPECT_EQ(text.rates, "6.5,6,5.5,5,4.5");
  EXPECT_EQ(text.step_s, "120");
  EXPECT_EQ(text.infrac, "0.4");

  // Every limit itself is accepted, and reads back from its own text.
  const auto edge = parse_rf_protocol(" 3, 10,3,10,3,10,3,10 ", "300", "0.6", nullptr);
  ASSERT_TRUE(edge);
  EXPECT_EQ(edge->rates.size(), 8u);
  for (const auto& [r, s, f] : {std::tuple{"3,10", "60", "0.3"}, {"5.1,4.7", "97.5", "0.45"}}) {
    const auto p = parse_rf_protocol(r, s, f, nullptr);
    ASSERT_TRUE(p) << r;
    const RfProtocolText t = rf_protocol_text(*p);
    const auto back = parse_rf_protocol(t.rates, t.step_s, t.infrac, nullptr);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->rates, p->rates);
    EXPECT_EQ(back->step_s, p->step_s);
    EXPECT_EQ(back->infrac, p->infrac);
  }
}

// Beats at 1 s and a 10 Hz series that is an exact sinusoid per step, peaking at a known
// share theta of each breath: the fit must return it, however the wrap falls.
TEST(RfScore, PhaseAndAmplitudeOfAKnownSinusoid) {
  const RfProtocol p;
  const std::vector<RfStep> s = rf_schedule(p);
  const double theta[] = {0.1, 0.4, 0.55, 0.9, 0.95};
  const double degrees[] = {-108, 0, 54, 180, -162};  // (theta - 0.4) x 360 in (-180, 180]
  const double amplitude[] = {3, 0.5, 7, 2, 4};
  std::vector<double> hr(6000);
  for (std::size_t i = 0; i < hr.size(); ++i) {
    const double t = i * kHrGridStep;
    const int k = pacer_at(s, t).step;
    const double x = 2 * std::numbers::pi * ((t - s[k].start_s) / s[k].cycle_s - theta[k]);
    hr[i] = 70 + amplitude[k] * std::cos(x);
  }
  const RfResult r = score_rf(p, std::vector<double>(600, 1.0), hr, 600);
  ASSERT_EQ(r.steps.size(), 5u);
  for (std::size_t k = 0; k < 5; ++k) {
    EXPECT_NEAR(r.steps[k].phase_deg, degrees[k], 1e-9) << k;
    EXPECT_NEAR(r.steps[k].amplitude_bpm, amplitude[k], 1e-9) << k;
    EXPECT_TRUE(r.steps[k].scored);
    EXPECT_EQ(r.steps[k].lf_power, 0.0);          // steady beats: no LF at all
    EXPECT_TRUE(std::isnan(r.steps[k].lf_peak));  // and no largest bin
  }
  // Largest swing: 7 bpm at 5.5 breaths per minute.
  EXPECT_EQ(r.recommended_bpm, 5.5);
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
  // Exactly 5 % below is within.
  EXPECT_EQ(recommend_rf({step(6, 10, 1), step(5.5, 9.5, 2)}), 5.5);
  // Equal LF power: the earlier step.
  EXPECT_EQ(recommend_rf({step(6, 10, 3), step(5.5, 10, 3)}), 6);
  // No LF power loses to any; an unscored step is not a candidate, nor does it set the bar.
  EXPECT_EQ(recommend_rf({step(6, 10, kNaN), step(5.5, 9.8, 0)}), 5.5);
  EXPECT_EQ(recommend_rf({step(6, 20, 50, false), step(5.5, 10, 1), step(5, 9, 9)}), 5.5);
  EXPECT_EQ(recommend_rf({step(6, kNaN, 50), step(5.5, 3, 1)}), 5.5);
  EXPECT_TRUE(std::isnan(recommend_rf({step(6, 10, 1, false), step(5, kNaN, 1)})));
  EXPECT_TRUE(std::isnan(recommend_rf({})));
}

// RR(t) = 1 - A(r) cos(2 pi (phase - 0.5)) through the default schedule, the swing A(r)
// following a resonance curve that peaks at 5 bpm: the shortest RR (highest rate) falls in
// the middle of each breath.
std::vector<double> resonant_rr(const std::vector<RfStep>& s) {
  constexpr double kA0 = 0.08, kQ = 2, kR0 = 5.0;
  std::vector<double> rr;
  for (double t = 0; t < rf_total_seconds(s);) {
    const PacerPosition at = pacer_at(s, t);
    const double r = s[at.step].bpm, detune = r / kR0 - kR0 / r;
    const double a = kA0 / std::sqrt(1 + kQ * kQ * detune * detune);
    rr.push_back(1.0 - a * std::cos(2 * std::numbers::pi * (at.phase - 0.5)));
    t += rr.back();
  }
  return rr;
}

TEST(RfScore, ResonantRecordingRecommendsItsPeak) {
  const RfProtocol p;
  const std::vector<double> rr = resonant_rr(rf_schedule(p));
  const double duration = 600;
  const std::size_t samples = static_cast<std::size_t>(duration * kSampleRate);
  const std::vector<double> hr = regular_hr(rr, samples, kSampleRate);
  const RfResult r = score_rf(p, rr, hr, duration);
  ASSERT_EQ(r.steps.size(), 5u);
  EXPECT_EQ(r.recommended_bpm, 5.0);
  for (std::size_t k = 0; k < 5; ++k) {
    const RfStepScore& s = r.steps[k];
    EXPECT_TRUE(s.reached && s.scored) << k;
    EXPECT_EQ(s.finished_breaths, s.step.breaths) << k;
    EXPECT_TRUE(std::isfinite(s.cvn)) << k;
    // Each step's LF peak is its own breathing rate, within a bin of 4 Hz / 480 samples.
    EXPECT_NEAR(s.lf_peak, s.step.bpm / 60, 4.0 / 480) << k;
    // The rate peaks mid-breath, 0.1 of a breath (36 degrees) after breathing in ends; the
    // 10 Hz series, built from the beats, moves it by less than 3 degrees.
    EXPECT_NEAR(s.phase_deg, 36, 3) << k;
    if (k != 3) {
      EXPECT_LT(s.peak_trough_hr, r.steps[3].peak_trough_hr) << k;
    }
  }

  // Stopped at 300 s: two steps done, the third has 5 of its 11 breaths, the rest not reached.
  const RfResult cut = score_rf(p, rr, hr, 300);
  EXPECT_EQ(cut.steps[2].finished_breaths, 5);
  EXPECT_TRUE(cut.steps[2].scored);
  EXPECT_EQ(cut.recommended_bpm, 5.5);  // the nearest to resonance of those done
  for (std::size_t k : {3u, 4u}) {
    const RfStepScore& s = cut.steps[k];
    EXPECT_FALSE(s.reached || s.scored) << k;
    for (double v : {s.peak_trough_hr, s.lf_power, s.lf_peak, s.phase_deg, s.amplitude_bpm, s.cvn})
      EXPECT_TRUE(std::isnan(v)) << k;
  }
  // Stopped within a step's first breath: reached, but nothing finished to score.
  const RfStepScore early = score_rf(p, rr, hr, 245).steps[2];
  EXPECT_TRUE(early.reached);
  EXPECT_FALSE(early.scored);
  EXPECT_TRUE(std::isnan(early.peak_trough_hr) && std::isnan(early.cvn));
  // Two finished breaths are too few to compare.
  EXPECT_FALSE(score_rf(p, rr, hr, 240 + 2.5 * 60 / 5.5).steps[2].scored);
}

// A step that starts at 0 and spans more than 120 s takes the same intervals, so the same
// spectrum, as compute_hrv over them: catches a unit or band slip in the step's spectrum.
TEST(RfScore, StepSpectrumIsTheHrvSpectrum) {
  RfProtocol p;
  p.step_s = 180;
  const std::vector<RfStep> s = rf_schedule(p);
  const std::vector<double> rr = resonant_rr(s);
  const RfResult r = score_rf(p, rr, {}, rf_total_seconds(s));
  std::vector<double> first;
  double t = 0;
  for (std::size_t i = 0; t + rr[i] < s[0].end_s; ++i) {
    t += rr[i];
    first.push_back(rr[i]);
  }
  const HrvIndices h = compute_hrv(first, {}, {}, s[0].cycle_s);
  ASSERT_TRUE(std::isfinite(h.lf));
  // Beat times summed in seconds here and in milliseconds there: equal to rounding.
  EXPECT_NEAR(r.steps[0].lf_power, h.lf, 1e-12 * h.lf);
  EXPECT_DOUBLE_EQ(r.steps[0].lf_peak, h.lf_peak);
  EXPECT_TRUE(std::isnan(r.steps[0].peak_trough_hr));  // no 10 Hz series given
}

}  // namespace
}  // namespace cvn
