// The running analysis inside the engine: whatever came before (a long
// session, a replay further on), a pass shows what the whole-recording
// analysis of the samples played so far shows.
#include "engine/live_analysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "assets/assets.h"
#include "base/recording.h"
#include "engine/engine.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using test::spit;
using test::TempDir;

void expect_series_close(const std::vector<SeriesPoint>& shown,
                         const std::vector<SeriesPoint>& whole, const char* what) {
  ASSERT_EQ(shown.size(), whole.size()) << what;
  for (std::size_t i = 0; i < whole.size(); ++i) {
    ASSERT_EQ(shown[i].x, whole[i].x) << what << " at " << i;
    if (std::isnan(whole[i].y)) {
      ASSERT_TRUE(std::isnan(shown[i].y)) << what << " at " << i;
    } else {
      ASSERT_NEAR(shown[i].y, whole[i].y, 1e-9) << what << " at " << i;
    }
  }
}

// A long session, then a short one of another person, then that one's replay
// moved back and forth: each pass must match the recording played so far,
// with nothing of the sessions or positions before it.
TEST(RunningAnalysis, EachPassShowsOnlyTheSamplesPlayedInThisSession) {
  TempDir data;
  std::string long_text;
  for (int k = 0; k < 12; ++k) long_text += *find_asset("Sample 1.txt");  // 53 minutes
  spit(data / "long.txt", long_text);
  spit(data / "short.txt", std::string(*find_asset("Sample 2.txt")));
  const std::vector<double> long_ecg = read_recording(long_text);
  const std::vector<double> short_ecg = read_recording(*find_asset("Sample 2.txt"));
  ManualClock clock;
  Engine engine(data.path(), nullptr, clock);

  struct Step {
    const char* file;  // empty: the same session
    double position;   // seek to this fraction of the recording
  };
  const Step steps[] = {{"long.txt", 0.4}, {"", 1.0}, {"short.txt", 0.5},
                        {"", 0.9},         {"", 0.2}, {"", 0.6}};
  const std::vector<double>* ecg = nullptr;
  const auto expect_played_so_far = [&] {
    const Snapshot s = engine.snapshot();
    const std::vector<double> played(ecg->begin(), ecg->begin() + s.samples);
    const LiveAnalysis whole = analyze_live(played, s.cycle_seconds, true);
    ASSERT_GT(whole.rr_count, 20);
    EXPECT_EQ(s.rr_count, whole.rr_count);
    expect_series_close(*s.hr_series, whole.hr_series, "heart rate");
    expect_series_close(*s.cvn_series, whole.cvn_series, "score");
    ASSERT_TRUE(s.hrv);
    EXPECT_EQ(s.hrv->n_beats, whole.hrv->n_beats);
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(std::string(step.file) + " at " + std::to_string(step.position));
    if (*step.file) {
      engine.stop();
      ASSERT_TRUE(engine.start_replay(data / step.file, {}, {0.0, ""}).ok());
      ecg = std::string(step.file) == "long.txt" ? &long_ecg : &short_ecg;
    }
    engine.seek(step.position);
    engine.update_analysis();
    expect_played_so_far();
  }

  // Once the replay has ended no clock runs the passes: a seek itself must
  // bring the results to the new position, back or forth.
  engine.seek(1);
  ASSERT_TRUE(test::wait_until([&] { return !engine.running(); }, std::chrono::seconds(5)));
  for (double position : {0.3, 0.7}) {
    SCOPED_TRACE("after the end, at " + std::to_string(position));
    engine.seek(position);
    expect_played_so_far();
  }
}

}  // namespace
}  // namespace cvn

namespace cvn {
namespace {

// A beat session's passes keep the live scores before the first interval
// that changed: growing by a beat or by many, a damaged beat repaired later,
// a replay moved back, or a new step's cycle must each give, bit for bit,
// what the whole list gives.
TEST(RunningBeats, EachPassIsTheWholeListsAnalysis) {
  std::vector<double> rr;
  for (int i = 0; i < 400; ++i) rr.push_back(0.85 + 0.08 * std::sin(i * 0.7) + 0.01 * (i % 3));
  rr[150] = 2.6;  // a missed beat: clean_rr repairs it once enough follow
  RunningBeats running;
  for (const auto& [beats, cycle] : std::initializer_list<std::pair<std::size_t, double>>{
           {3, 16}, {4, 16}, {151, 16}, {152, 16}, {231, 16}, {120, 16}, {300, 10}, {400, 10}}) {
    const std::vector<double> so_far(rr.begin(), rr.begin() + beats);
    const LiveAnalysis got = running.update(so_far, cycle, false);
    const LiveAnalysis want = analyze_beats(so_far, cycle, false);
    ASSERT_EQ(got.cvn_series.size(), want.cvn_series.size()) << beats;
    for (std::size_t i = 0; i < want.cvn_series.size(); ++i) {
      const double a = got.cvn_series[i].y, b = want.cvn_series[i].y;
      ASSERT_TRUE(a == b || (std::isnan(a) && std::isnan(b))) << beats << " at " << i;
    }
  }
}

}  // namespace
}  // namespace cvn
