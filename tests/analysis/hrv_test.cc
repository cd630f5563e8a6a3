#include "analysis/hrv.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

#include "tests/support/golden_file.h"

namespace cvn {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kBin = 4.0 / 1024;  // Welch bin width for recordings of 256 s and more

// RR intervals (s) for `seconds`, each given by `ms` at the beat that starts it.
std::vector<double> beats(double seconds, const std::function<double(double)>& ms) {
  std::vector<double> rr;
  for (double t = 0; t < seconds; t += rr.back()) rr.push_back(ms(t) / 1000);
  return rr;
}

HrvIndices hrv(const std::vector<double>& rr) {
  return compute_hrv(rr, {}, {}, 10.0);
}

TEST(Hrv, ConstantAndAlternatingSeries) {
  const HrvIndices flat = hrv(std::vector<double>(400, 0.8));  // 320 s
  EXPECT_DOUBLE_EQ(flat.mean_nn, 800);
  EXPECT_DOUBLE_EQ(flat.mean_hr, 75);
  for (double v : {flat.sdnn, flat.sd_hr, flat.rmssd, flat.pnn50, flat.sd1, flat.sd2, flat.vlf,
                   flat.lf, flat.hf, flat.total_power})
    EXPECT_EQ(v, 0.0);
  for (double v : {flat.lf_hf, flat.lf_nu, flat.hf_nu, flat.lf_peak, flat.hf_peak})
    EXPECT_TRUE(std::isnan(v));  // 0 / 0, and no peak in an empty band

  // 800, 900, 800, 900, 800: every difference is 100 ms. The points sit across the identity
  // line, so SD2 is 0, though its sample-variance formula gives -667 ms².
  const HrvIndices alt = hrv({0.8, 0.9, 0.8, 0.9, 0.8});
  EXPECT_NEAR(alt.rmssd, 100, 1e-9);
  EXPECT_EQ(alt.nn50, 4);
  EXPECT_NEAR(alt.pnn50, 100, 1e-12);
  EXPECT_EQ(alt.sd2, 0);
  EXPECT_TRUE(std::isnan(alt.lf));  // 4 s: too short for a spectrum
}

// 40 ms at f over 5 minutes: power A² / 2 = 800 ms², all of it in the band of f. The
// detrend keeps 98.7 % of it at 0.1 Hz. At 75 bpm, 0.25 Hz has 5 beats per period, where the
// spline keeps 99 % (at 60 bpm, 4 beats per period, it keeps only 97 %).
TEST(Hrv, SinusoidLandsInItsBand) {
  for (double f : {0.1, 0.25}) {
    const HrvIndices h = hrv(
        beats(300, [f](double t) { return 800 + 40 * std::sin(2 * std::numbers::pi * f * t); }));
    const double in_band = f < 0.15 ? h.lf : h.hf;
    const double peak = f < 0.15 ? h.lf_peak : h.hf_peak;
    EXPECT_NEAR(in_band, 800, 16) << "f = " << f;
    EXPECT_NEAR(peak, f, kBin) << "f = " << f;
    EXPECT_LT((f < 0.15 ? h.hf : h.lf), 8) << "f = " << f;
  }
}

// A line is what the second difference annihilates: nothing of it may survive but rounding
// (the literal z - A^-1 z leaves 2e-8 here). 0.1 Hz at 4 Hz keeps 99.4 % of its amplitude,
// away from the ends, where the trend bends towards the signal.
TEST(Hrv, DetrendRemovesALineAndKeepsTheLfBand) {
  std::vector<double> ramp(2400), wave(2400);
  for (std::size_t j = 0; j < ramp.size(); ++j) {
    ramp[j] = 700 + 0.5 * static_cast<double>(j);
    wave[j] = 40 * std::sin(2 * std::numbers::pi * 0.1 * static_cast<double>(j) / 4);
  }
  for (double v : detail::detrend(ramp, 500)) EXPECT_LT(std::abs(v), 1e-9);
  const std::vector<double> kept = detail::detrend(wave, 500);
  for (std::size_t j = 400; j < 2000; ++j) EXPECT_NEAR(kept[j], wave[j], 0.01 * 40) << j;
}

TEST(Hrv, BadInputGivesEmptyFieldsNeverAFailure) {
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    const char* what;
    std::vector<double> rr;
    int used;
  };
  const Case cases[] = {
      {"none", {}, 0},
      {"one beat", {0.8}, 1},
      {"two beats", {0.8, 0.9}, 2},
      {"two usable", {kNaN, 0.8, -1, 0, inf, 0.9}, 2},
      {"all outliers", {kNaN, kNaN, -inf, -0.5}, 0},
      {"overflowing", {1e300, 1e300, 1e300, 1e300}, 4},
      {"underflowing", {1e-310, 1e-310, 1e-310, 1e-310}, 4},
      {"36 hours", std::vector<double>(2000, 65.535), 2000},  // past the spectrum's day
      {"usable among bad", {0.8, kNaN, 0.9, -1, 0.8, 0.9, inf}, 4},
  };
  for (const Case& c : cases) {
    HrvIndices h;
    EXPECT_NO_THROW(h = compute_hrv(c.rr, {true}, {60, kNaN, 70}, 16));
    EXPECT_EQ(h.n_beats, c.used) << c.what;
    for (const HrvField& f : hrv_fields()) {
      const double v = f.value(h);  // a value claimed is finite; below 3 intervals, none is
      const bool empty = std::isnan(v) || f.count == &HrvIndices::n_beats;
      EXPECT_TRUE(c.used < 3 ? empty : std::isnan(v) || std::isfinite(v))
          << c.what << " " << f.name;
    }
  }
  const HrvIndices mixed = compute_hrv(cases[8].rr, {true, true, false}, {}, 16);
  EXPECT_DOUBLE_EQ(mixed.mean_nn, 850);      // from the finite, positive intervals only
  EXPECT_DOUBLE_EQ(mixed.artefact_pct, 25);  // the flag of the dropped NaN goes with it
}

// hr[i] = i² on the 0.1 s grid: cycle k of 24 samples swings (24k + 23)² - (24k)² =
// 1104 k + 529. A cycle of 1.1 s in and 1.3 s out is 24.000000000000004 steps, yet cycles
// must start on samples 24, 48, ... and 96 samples hold four of them.
TEST(Hrv, PeakTroughOverWholeCyclesOnly) {
  const std::vector<double> rr(5, 0.8);
  for (std::size_t samples : {96u, 97u, 95u}) {
    std::vector<double> hr(samples);
    for (std::size_t i = 0; i < samples; ++i) hr[i] = static_cast<double>(i * i);
    const std::size_t cycles = samples / 24;  // 4, 4, 3
    const double expected = 552.0 * static_cast<double>(cycles - 1) + 529;
    EXPECT_NEAR(compute_hrv(rr, {}, hr, 1.1 + 1.3).peak_trough_hr, expected, 1e-9) << samples;
  }
  const std::vector<double> hr(100, 60);
  EXPECT_TRUE(std::isnan(compute_hrv(rr, {}, hr, 10.1).peak_trough_hr));  // no whole cycle
  EXPECT_EQ(compute_hrv(rr, {}, hr, 10.0).peak_trough_hr, 0.0);
  for (double cycle : {0.0, 0.01, -5.0, kNaN, std::numeric_limits<double>::infinity()})
    EXPECT_TRUE(std::isnan(compute_hrv(rr, {}, hr, cycle).peak_trough_hr)) << cycle;
}

// Independent numpy/scipy computation (tools/make_hrv_reference.py): 10 minutes (three
// Welch segments) and 3 minutes (one segment of 720 points, through the any-length DFT).
TEST(Hrv, MatchesTheReference) {
  std::string names;
  for (const HrvField& f : hrv_fields()) names += std::string(names.empty() ? "" : " ") + f.name;
  EXPECT_EQ(names,
            "n_beats artefact_pct mean_nn sdnn mean_hr sd_hr min_hr max_hr rmssd nn50 pnn50 sd1 "
            "sd2 vlf lf hf total_power lf_hf lf_nu hf_nu lf_peak hf_peak peak_trough_hr");
  for (const char* name : {"hrv_10min", "hrv_3min"}) {
    const test::GoldenFile golden =
        test::read_golden(test::source_path("tests/analysis/golden/") + name + ".golden");
    ASSERT_TRUE(golden.ok) << name;
    std::vector<bool> corrected;
    for (double v : golden.series.at("corrected")) corrected.push_back(v != 0);
    const HrvIndices h = compute_hrv(golden.series.at("rr"), corrected, golden.series.at("hr"),
                                     std::stod(golden.fields.at("cycle_seconds")));
    double worst = 0;
    for (const HrvField& f : hrv_fields()) {
      const double want = std::stod(golden.fields.at(f.name)), got = f.value(h);
      const double relative = std::abs(got - want) / std::abs(want);
      EXPECT_LE(relative, 1e-6) << name << " " << f.name << ": " << got << " vs " << want;
      worst = std::max(worst, relative);
    }
    std::printf("%s: largest relative difference from the reference %.3g\n", name, worst);
  }
}

TEST(Hrv, RrToSeconds) {
  EXPECT_EQ(rr_to_seconds(0.85), 0.85);
  EXPECT_EQ(rr_to_seconds(10.0), 10.0);  // 10 itself is still seconds
  EXPECT_EQ(rr_to_seconds(850.0), 0.85);
}

}  // namespace
}  // namespace cvn
