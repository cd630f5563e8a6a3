#include "analysis/cycles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "analysis/numeric.h"
#include "tests/support/golden_file.h"

namespace cvn {
namespace {

constexpr double kRate = 130.0;

TEST(CycleBounds, WholeCyclesFromTheStart) {
  EXPECT_EQ(cycle_bounds(2080, 16, kRate), (std::vector<std::int32_t>{0, 2080}));
  EXPECT_EQ(cycle_bounds(6239, 16, kRate), (std::vector<std::int32_t>{0, 2080, 4160}));
  EXPECT_EQ(cycle_bounds(6240, 16, kRate), (std::vector<std::int32_t>{0, 2080, 4160, 6240}));
  // 12.35 s is 1605.5 samples: every boundary is truncated on its own.
  EXPECT_EQ(cycle_bounds(5000, 12.35, kRate), (std::vector<std::int32_t>{0, 1605, 3211, 4816}));
  // At least one cycle, even when the recording is shorter.
  EXPECT_EQ(cycle_bounds(100, 16, kRate), (std::vector<std::int32_t>{0, 2080}));
  EXPECT_TRUE(cycle_bounds(100, 0.0, kRate).empty());
  EXPECT_TRUE(cycle_bounds(100, std::nan(""), kRate).empty());
}

// 16 s and 10 s cycles (rows 85 and 160) are the reference CVN files' expected_row.
TEST(ExpectedFrequency, RoundedAndMappedToTheNearestRow) {
  const std::vector<double> f = tfr_frequencies();
  struct Case {
    double cycle, freq;
    int row;
  } cases[] = {
      {32.0, 0.0313, 23},  // 0.03125: the half rounds up, and 0.0313 is nearer 0.0315
      {6.4, 0.1563, 273},  // 0.15625 likewise
      {100.0, 0.01, 0},    // below the axis: first row
      {2.0, 0.5, 319},     // above it: last row
  };
  for (const Case& c : cases) {
    EXPECT_EQ(expected_frequency(c.cycle), c.freq) << c.cycle;
    EXPECT_EQ(nearest_row(f, expected_frequency(c.cycle)), c.row) << c.cycle;
  }
  EXPECT_EQ(nearest_row({0.1, 0.2}, 0.15), 0);  // a tie keeps the first
}

TEST(HeartRateSignal, StepsAtTheBeatsSmoothedOverTwoSeconds) {
  // Stretches: before beat 0 (sample 130) 60 bpm, then 40, 60, 120 bpm, then the
  // extrapolated 180 after the last beat (sample 715).
  const std::vector<double> rr = {1.0, 1.5, 1.0, 0.5};
  const std::vector<double> hr = heart_rate_signal(rr, 2000, kRate);
  ASSERT_EQ(hr.size(), 2000u);
  // A Hann window of 260 samples is 0 at both ends: 129 samples to either side count.
  EXPECT_DOUBLE_EQ(hr[1900], 180.0);
  EXPECT_DOUBLE_EQ(hr[1999], 180.0);  // no droop at the end
  // Centred convolution, output i = sum_j x[j] w[i + 129 - j], weighs samples i - 130 ...
  // i + 129, as the 10 Hz series is smoothed: a lone step is at half height on its first
  // sample, not one sample earlier or later.
  const std::vector<double> step =
      heart_rate_signal({1.0, 1.0, 1.0, 1.0, 0.5, 0.5, 0.5}, 3000, kRate);
  const std::size_t beat = 4 * 130;  // the 0.5 s intervals start here
  EXPECT_DOUBLE_EQ(step[beat - 200], 60.0);
  EXPECT_LT(step[beat - 1], 90.0 - 1e-3);
  EXPECT_NEAR(step[beat], 90.0, 1e-12);
  EXPECT_GT(step[beat + 1], 90.0 + 1e-3);
  EXPECT_DOUBLE_EQ(step[beat + 200], 120.0);
  EXPECT_TRUE(heart_rate_signal({}, 100, kRate).empty());
}

TEST(HeartRateSignal, SpikesGoOnlyWhenTheRateIsSteady) {
  // A steady 60 bpm with one 0.4 s interval (and its 1.6 s pause) is repaired...
  std::vector<double> rr(120, 1.0);
  rr[60] = 0.4;
  rr[61] = 1.6;
  const std::vector<double> steady = heart_rate_signal(rr, 120 * 130, kRate);
  EXPECT_LT(*std::max_element(steady.begin(), steady.end()), 62.0);
  // ...but on a rate that swings by more than 12 bpm (SD) it is left in (at 45 s here).
  std::vector<double> swinging = rr;
  for (std::size_t i = 0; i < 30; ++i) swinging[i] = swinging[90 + i] = 0.5;
  const std::vector<double> kept = heart_rate_signal(swinging, 105 * 130, kRate);
  ASSERT_GT(population_std(kept), 12.0);
  EXPECT_GT(*std::max_element(kept.begin() + 44 * 130, kept.begin() + 48 * 130), 75.0);
}

TEST(ExtendByCycles, MirroredCopiesOfTheFirstAndLastCycle) {
  std::vector<double> x(11);
  for (std::size_t i = 0; i < x.size(); ++i) x[i] = static_cast<double>(i);
  // Rate 1, cycle 3: bounds 0, 3, 6, 9; the back segment is samples 9 and 10.
  const ExtendedSignal e = extend_by_cycles(x, cycle_bounds(11, 3, 1), 3, 1);
  ASSERT_EQ(e.offset, 150u);
  ASSERT_EQ(e.samples.size(), 150u + 11 + 100);
  const std::vector<double> front(e.samples.begin() + 144, e.samples.begin() + 153);
  EXPECT_EQ(front, (std::vector<double>{0, 1, 2, 2, 1, 0, 0, 1, 2}));
  const std::vector<double> back(e.samples.begin() + 159, e.samples.begin() + 166);
  EXPECT_EQ(back, (std::vector<double>{9, 10, 10, 9, 9, 10, 10}));
  EXPECT_EQ(e.samples.front(), 0.0);  // copy 49 runs forward
  EXPECT_EQ(e.samples.back(), 10.0);

  // When the last boundary is the end, the last whole cycle is copied.
  const ExtendedSignal exact =
      extend_by_cycles(std::vector<double>(x.begin(), x.begin() + 9), cycle_bounds(9, 3, 1), 3, 1);
  ASSERT_EQ(exact.samples.size(), 150u + 9 + 150);
  EXPECT_EQ(std::vector<double>(exact.samples.begin() + 159, exact.samples.begin() + 163),
            (std::vector<double>{8, 7, 6, 6}));
}

TEST(AnalyzeCycles, PreconditionsAndShape) {
  const std::vector<double> rr(40, 0.9);
  // Exactly one cycle: K = 1.
  const CycleAnalysis one = analyze_cycles(2080, rr, 16, kRate);
  ASSERT_FALSE(one.empty());
  EXPECT_EQ(one.bounds, (std::vector<std::int32_t>{0, 2080}));
  ASSERT_EQ(one.cvn.size(), 1u);
  EXPECT_TRUE(std::isfinite(one.cvn[0]));
  // Which samples the 1200 columns keep is pinned against the renderer in tfr_test.cc.
  for (const TfrMatrix* m : {&one.tfr3, &one.tfr10}) {
    EXPECT_EQ(m->power.size(), 320u * 1200u);
  }

  struct Case {
    const char* what;
    std::size_t samples;
    std::vector<double> rr;
    double cycle;
  } refused[] = {
      {"one sample short of a cycle", 2079, rr, 16},
      {"two intervals", 4000, {1.0, 1.0}, 16},
      {"a zero interval", 4000, {1.0, 0.0, 1.0}, 16},
      {"a NaN interval", 4000, {1.0, std::nan(""), 1.0}, 16},
      {"no cycle length", 4000, rr, 0.0},
      {"an infinite cycle", 4000, rr, INFINITY},
  };
  for (const Case& c : refused) {
    EXPECT_TRUE(analyze_cycles(c.samples, c.rr, c.cycle, kRate).empty()) << c.what;
  }
  EXPECT_FALSE(analyze_cycles(4000, {1.0, 1.0, 1.0}, 16, kRate).empty());
}

// The independent reference (tools/make_cvn_reference.py) computes the literal chain at
// full resolution from the RR intervals our detector finds in the sample recordings.
TEST(AnalyzeCycles, MatchesTheIndependentReferenceOnTheSamples) {
  for (const char* name : {"cvn_sample1.txt", "cvn_sample2.txt"}) {
    const test::GoldenFile g =
        test::read_golden(test::source_path("tests/analysis/golden/") + name);
    ASSERT_TRUE(g.ok) << name;
    const std::size_t samples = std::stoul(g.fields.at("samples"));
    const double cycle = std::stod(g.fields.at("cycle_seconds"));
    const CycleAnalysis a = analyze_cycles(samples, g.series.at("rr"), cycle, kRate);
    ASSERT_FALSE(a.empty()) << name;
    EXPECT_EQ(a.expected_row, std::stoi(g.fields.at("expected_row"))) << name;
    const std::vector<double>& want = g.series.at("cvn");
    ASSERT_EQ(a.cvn.size(), want.size()) << name;
    for (std::size_t k = 0; k < want.size(); ++k) {
      EXPECT_NEAR(a.cvn[k], want[k], 1e-6) << name << ", cycle " << k;
    }
  }
}

}  // namespace
}  // namespace cvn
