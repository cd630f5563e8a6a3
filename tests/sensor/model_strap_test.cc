// The model strap: its resonance curve, and whole assessments through the
// engine that must find the rate it resonates at.
#include "sensor/model_strap.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <sstream>

#include "analysis/resonance.h"
#include "engine/engine.h"
#include "sensor/polar_ble.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using namespace std::chrono_literals;

// The assessment picks the largest swing unless a neighbour comes within 5 %
// of it: half a breath per minute away the curve must already be further
// down, or the LF power decides and may pick the neighbour.
TEST(ModelStrap, SwingPeaksAtTheResonanceAndStandsClearOfItsNeighbours) {
  for (double r0 : {4.5, 5.0, 5.5, 6.0, 6.5}) {
    SCOPED_TRACE(r0);
    const double peak = model_rr_swing(r0, r0);
    EXPECT_GT(peak, 0);
    for (double k : {1.05, 1.1, 1.3, 2.0}) {
      // A resonance curve in the rate ratio: as far down at r0 k as at r0 / k.
      EXPECT_NEAR(model_rr_swing(r0 * k, r0), model_rr_swing(r0 / k, r0), 1e-12) << k;
      EXPECT_LT(model_rr_swing(r0 * k, r0), peak) << k;
      EXPECT_LT(model_rr_swing(r0 * k * k, r0), model_rr_swing(r0 * k, r0)) << k;
    }
    EXPECT_LT(model_rr_swing(r0 + 0.5, r0), 0.95 * peak);
    EXPECT_LT(model_rr_swing(r0 - 0.5, r0), 0.95 * peak);
  }
  EXPECT_EQ(model_rr_swing(0, 5.5), 0);
  EXPECT_EQ(model_rr_swing(5.5, -1), 0);
  EXPECT_EQ(model_rr_swing(std::nan(""), 5.5), 0);
}

std::string scores(const RfResult& r) {
  std::ostringstream out;
  for (const RfStepScore& s : r.steps)
    out << s.step.bpm << "/min: peak-trough " << s.peak_trough_hr << " bpm, LF " << s.lf_power
        << " ms2, " << s.finished_breaths << " breaths" << (s.scored ? "" : " (not scored)")
        << "\n";
  return out.str();
}

// 317 s of assessment in about 3 s: the engine counts time in samples, so
// the schedule, the stop after the last step and the scores do not care.
constexpr double kSpeed = 100;

class ModelAssessment : public ::testing::TestWithParam<double> {};

TEST_P(ModelAssessment, RecommendsTheRateTheBodyResonatesAt) {
  const double r0 = GetParam();
  test::TempDir data;
  Engine engine(data.path(),
                std::make_unique<PolarBle>(make_model_strap(r0, kSpeed), test::quick_timings()));
  SessionSettings settings;
  settings.rf = RfProtocol{{6.5, 6.0, 5.5, 5.0, 4.5}, 60, 0.4};
  settings.protocol_named = true;
  const double total = rf_total_seconds(rf_schedule(*settings.rf));

  const auto started = std::chrono::steady_clock::now();
  engine.start_live(kModelStrapAddress, std::string(kModelStrapName), settings);
  // Nobody presses Stop: the session ends with its last step.
  ASSERT_TRUE(test::wait_until([&] { return !engine.snapshot().running; }, 30s))
      << engine.snapshot().bt_status << ", " << engine.snapshot().samples << " samples";
  const double wall_s =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  const Snapshot snap = engine.snapshot();
  EXPECT_GE(static_cast<double>(snap.samples) / kSampleRate, total);

  const std::optional<RfResult> result = engine.rf_result();
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->recommended_bpm, r0) << scores(*result);
  for (const RfStepScore& s : result->steps) EXPECT_TRUE(s.scored) << scores(*result);
  RecordProperty("wall_seconds", std::to_string(wall_s));
}

INSTANTIATE_TEST_SUITE_P(Resonance, ModelAssessment, ::testing::Values(5.0, 6.0));

}  // namespace
}  // namespace cvn
