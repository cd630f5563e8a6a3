// Sessions of beat intervals from a strap that sends no ECG: live through
// the sensor's beats callback, saved, journalled, replayed and exported, each
// agreeing with the offline chain on the same intervals.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "analysis/ecg.h"
#include "analysis/heart_rate.h"
#include "analysis/live_score.h"
#include "analysis/pipeline.h"
#include "assets/assets.h"
#include "engine/engine.h"
#include "engine/journal.h"
#include "engine/sidecar.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using namespace std::chrono_literals;
using test::slurp;
using test::spit;
using test::TempDir;
using test::wait_until;

// A standard strap: hands the test its beats callback.
class FakeBeatStrap : public BleManager {
 public:
  bool available() override { return true; }
  ScanResult scan() override { return {}; }
  void connectAndStream(const std::string&, SamplesCallback, StatusCallback) override {}
  void connect_and_stream_beats(const std::string&, BeatsCallback b, StatusCallback) override {
    beats = std::move(b);
  }
  void stop() override {}
  BeatsCallback beats;
};

// The sample's beats as a strap sends them: in 1/1024 s steps.
std::vector<double> strap_beats() {
  const std::vector<double> ecg = read_recording(*find_asset("Sample 1.txt"));
  std::vector<double> rr =
      peak_intervals(find_r_peaks(ecg, kSampleRate, kMaxHeartRate), kSampleRate);
  for (double& r : rr) r = std::round(r * 1024) / 1024;
  return rr;
}

double sum(const std::vector<double>& v) {
  double t = 0;
  for (double x : v) t += x;
  return t;
}

// The snapshot's series and HRV against the offline chain on `reference`.
void expect_as_offline(const Snapshot& s, const std::vector<double>& reference, double cycle) {
  const RecordingAnalysis a = analyze_recording(RrSeconds{reference}, cycle, {.cycles = false});
  ASSERT_FALSE(a.hr.empty());
  ASSERT_EQ(s.hr_series->size(), a.hr.size());
  const std::vector<double> grid = time_grid(a.sample_count, kSampleRate, kHrGridStep);
  for (std::size_t i = 0; i < a.hr.size(); ++i) {
    ASSERT_EQ((*s.hr_series)[i].y, a.hr[i]) << i;
    ASSERT_EQ((*s.hr_series)[i].x, grid[i]) << i;
  }
  const std::vector<double> scores = live_cvn_scores(reference, a.sample_count, cycle);
  ASSERT_EQ(s.cvn_series->size(), scores.size());
  for (std::size_t i = 0; i < scores.size(); ++i) {
    const double y = (*s.cvn_series)[i].y;
    ASSERT_TRUE(y == scores[i] || (std::isnan(y) && std::isnan(scores[i]))) << i;
  }
  EXPECT_EQ(s.rr_count, static_cast<std::int32_t>(reference.size()));
  ASSERT_TRUE(s.hrv);
  for (const HrvField& f : hrv_fields()) {
    const double got = f.value(*s.hrv), want = f.value(a.hrv);
    EXPECT_TRUE(got == want || (std::isnan(got) && std::isnan(want))) << f.name;
  }
}

class BeatSession : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(data / "recordings"); }

  // A live beat session of `rr`, fed in notifications of 1 to 3 intervals,
  // with an analysis pass after every `pass_every` of them.
  void record(const std::vector<double>& rr, std::size_t pass_every = 0) {
    SessionSettings s;
    s.name = "Kim";
    s.beats = true;
    engine.start_live("00:22:D0:00:00:03", std::string("HR Strap X"), s);
    ASSERT_TRUE(strap->beats);
    for (std::size_t at = 0; at < rr.size();) {
      const std::size_t n = std::min<std::size_t>(1 + at % 3, rr.size() - at);
      strap->beats(std::vector<double>(rr.begin() + at, rr.begin() + at + n));
      at += n;
      if (pass_every && at % pass_every < n) engine.update_analysis();
    }
  }

  std::vector<std::string> export_files() {
    engine.start_export();
    EXPECT_TRUE(
        wait_until([&] { return engine.export_status().state != JobState::kRunning; }, 60s));
    return engine.export_status().result.files;
  }

  TempDir data;
  ManualClock clock;
  FakeBeatStrap* strap = new FakeBeatStrap;
  Engine engine{data.path(), std::unique_ptr<BleManager>(strap), clock};
};

// The live pass, the final pass and the export all read the strap's intervals
// as the offline chain reads them; an interval of 0 or of seconds (a lost
// contact) is repaired, never divided by.
TEST_F(BeatSession, LiveAnalysisIsTheOfflineChainOnTheSameBeats) {
  const std::vector<double> clean = strap_beats();
  ASSERT_GT(sum(clean), 240.0);
  std::vector<double> damaged = clean;
  damaged[40] = 0.0;
  damaged[90] = 4.5;
  struct Case {
    const char* what;
    std::vector<double> fed, reference;
  };
  const Case cases[] = {
      {"as sent", clean, clean},
      {"with 0 and 4.5 s", damaged, analysable_beats(damaged)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    // Passes as it runs extend the last; the one after the last beat must
    // give what the whole list gives.
    record(c.fed, 37);
    engine.update_analysis();
    Snapshot s = engine.snapshot();
    EXPECT_TRUE(s.beats);
    EXPECT_TRUE(s.scope.empty());
    // The session's time is the sum of what the strap sent.
    EXPECT_EQ(s.samples, static_cast<std::int64_t>(sum(c.fed) * kSampleRate));
    expect_as_offline(s, c.reference, 16);
    EXPECT_TRUE(std::isfinite(s.hr));
    engine.stop();
    expect_as_offline(engine.snapshot(), c.reference, 16);
  }
  // The damaged pair repaired, not dropped: the length stays.
  EXPECT_EQ(cases[1].reference.size(), damaged.size());
  EXPECT_NE(cases[1].reference[40], 0.0);

  // The export's numbers are the offline export's of the same intervals.
  const std::vector<std::string> files = export_files();
  ExportInput offline;
  offline.rr_seconds = cases[1].reference;
  offline.beat_device = "HR Strap X";
  offline.name = "Kim";
  offline.start_time = clock.wall();
  const ExportResult want = write_export(offline, data / "offline", clock);
  ASSERT_TRUE(want.ok()) << want.error;
  const std::string got = engine.export_status().result.folder;
  for (const char* ending : {"_HR.txt", "_CVN_logpower.csv", "_HRV.csv", "_RR.csv"})
    EXPECT_EQ(slurp(got + "/Kim" + ending), slurp(want.folder + "/Kim" + ending)) << ending;
}

// Saved as <stem>_RR.txt beside its markers and sidecar; replayed in its own
// time, seekable, analysed as live; exported without an ECG file; and a crash
// before the save leaves a journal that recovers the same beats.
TEST_F(BeatSession, SaveReplayExportAndRecoveryKeepTheBeats) {
  const std::vector<double> rr = strap_beats();
  record({rr.begin(), rr.begin() + 20});
  ASSERT_TRUE(engine.add_marker(3));
  const std::int32_t mark = engine.snapshot().markers.at(0).sample;
  EXPECT_EQ(mark, static_cast<std::int32_t>(sum({rr.begin(), rr.begin() + 20}) * kSampleRate));
  strap->beats({rr.begin() + 20, rr.end()});
  engine.stop();
  const Snapshot live = engine.snapshot();

  // Stopped, unsaved: the journal holds the session, as a crash would leave it.
  {
    TempDir crash;
    for (const auto& e : std::filesystem::directory_iterator(data / "recordings"))
      std::filesystem::copy(e.path(), crash / e.path().filename().string());
    const std::vector<Recovery> found = recover_journals(crash.path());
    ASSERT_EQ(found.size(), 1u);
    EXPECT_TRUE(found[0].file.ends_with("_recovered_RR.txt")) << found[0].file;
    EXPECT_EQ(read_beats(slurp(crash / found[0].file)).rr_seconds, rr);
    EXPECT_EQ(read_markers(slurp(crash / markers_path(found[0].file))).at(0).sample, mark);
  }

  const SaveResult saved = engine.save();
  ASSERT_EQ(saved.error, "");
  ASSERT_TRUE(saved.file.ends_with(kBeatsEnding)) << saved.file;
  EXPECT_EQ(saved.count, rr.size());
  const std::string path = data / ("recordings/" + saved.file);
  EXPECT_EQ(read_beats(slurp(path)).rr_seconds, rr);
  EXPECT_EQ(read_markers(slurp(markers_path(path))).at(0).sample, mark);
  EXPECT_EQ(read_sidecar(slurp(sidecar_path(path))).device, "HR Strap X");
  for (const auto& e : std::filesystem::directory_iterator(data / "recordings"))
    EXPECT_NE(e.path().extension(), ".journal");  // saved after the stop: nothing to lose

  // Paused, then moved half way: only the beats that ended by then count.
  ASSERT_TRUE(engine.start_replay(path, {}, {0.0, ""}));
  engine.seek(0.5);
  engine.update_analysis();
  Snapshot s = engine.snapshot();
  EXPECT_TRUE(s.beats);
  EXPECT_EQ(s.replay_total, static_cast<std::int32_t>(std::ceil(sum(rr) * kSampleRate)));
  std::size_t half = 0;
  for (double t = 0; half < rr.size() && (t += rr[half]) * kSampleRate <= s.samples;) ++half;
  EXPECT_EQ(s.rr_count, static_cast<std::int32_t>(half));
  EXPECT_EQ(s.markers.at(0).sample, mark);

  // Played in real time times the speed: 4x for 50 s of the clock ends it.
  ASSERT_TRUE(engine.start_replay(path, {}, {4.0, ""}));
  clock.advance(std::ceil(sum(rr) / 4));
  ASSERT_TRUE(wait_until([&] { return !engine.running(); }, 10s));
  s = engine.snapshot();
  ASSERT_EQ(s.hr_series->size(), live.hr_series->size());
  for (std::size_t i = 0; i < s.hr_series->size(); ++i)
    ASSERT_EQ((*s.hr_series)[i].y, (*live.hr_series)[i].y) << i;
  expect_as_offline(s, rr, 16);

  const std::vector<std::string> files = export_files();
  ASSERT_EQ(engine.export_status().result.error, "");
  const std::string stem = "Kim";  // the session's name, as for an ECG
  auto has = [&](const std::string& f) {
    return std::find(files.begin(), files.end(), f) != files.end();
  };
  EXPECT_FALSE(has(stem + "_ECG.txt"));
  EXPECT_TRUE(has(stem + ".edf"));
  EXPECT_TRUE(has(stem + "_report.pdf"));
  const std::string edf = slurp(engine.export_status().result.folder + "/" + stem + ".edf");
  EXPECT_EQ(edf.substr(256, 2), "HR");  // the heart rate, the only signal
}

// A beat file as other tools or hands leave it: lines that are no interval
// are left out, and a file too short to draw a heart rate is refused.
TEST_F(BeatSession, DamagedBeatFilesReplayWhatTheyHoldOrAreRefused) {
  struct Case {
    const char* text;
    int beats;  // played; -1: refused
  };
  const Case cases[] = {
      {"800\nbeats\n\n-5\n900,x\n1000\r\n", 3},
      // Kept for the cleaning, which cannot judge three (no spread): the 0
      // alone cannot be placed and is left out of the analysis.
      {"0\n800\n4000\n", 2},
      {"800\n900\n", -1},
      {"time\n", -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const std::string path = data / "recordings/x_RR.txt";
    spit(path, c.text);
    std::string note;
    const bool ok = engine.start_replay(path, {}, {0.0, ""}, &note);
    ASSERT_EQ(ok, c.beats >= 0);
    if (!ok) {
      EXPECT_NE(note.find("at least 3"), std::string::npos) << note;
      continue;
    }
    engine.seek(1);
    ASSERT_TRUE(wait_until([&] { return !engine.running(); }, 10s));
    const Snapshot s = engine.snapshot();
    EXPECT_EQ(s.rr_count, c.beats);
    EXPECT_TRUE(std::isfinite(s.hr));
  }
}

}  // namespace
}  // namespace cvn
