// The session object: settings, the replay clock, seek, live intake, markers,
// save, and the jobs' hand-over between sessions.
#include "engine/engine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <regex>
#include <thread>
#include <tuple>

#include "analysis/ecg.h"
#include "analysis/pipeline.h"
#include "assets/assets.h"
#include "engine/acquisition.h"
#include "engine/journal.h"
#include "engine/sidecar.h"
#include "tests/support/fake_disk.h"
#include "tests/support/http_client.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using namespace std::chrono_literals;
using test::slurp;
using test::spit;
using test::TempDir;
using test::wait_until;

// A strap that delivers whatever the test hands it.
class FakeSensor : public BleManager {
 public:
  bool available() override { return true; }
  ScanResult scan() override { return {}; }
  void connectAndStream(const std::string&, SamplesCallback s, StatusCallback st) override {
    samples = std::move(s);
    status = std::move(st);
  }
  void connect_and_stream_beats(const std::string&, BeatsCallback b, StatusCallback) override {
    beats = std::move(b);
  }
  void stop() override {}
  SamplesCallback samples;
  BeatsCallback beats;
  StatusCallback status;
};

SessionSettings named(std::string name) {
  SessionSettings s;
  s.name = std::move(name);
  return s;
}

const ReplayOptions kPaused{0.0, ""};

class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* sub : {"/recordings", "/sample_data"})
      std::filesystem::create_directories(data.path() + sub);
    // 100 s of a ramp: positions and saved lines are easy to check.
    std::string text;
    for (int i = 0; i < 13000; ++i) text += std::to_string(i % 1000) + "\n";
    spit(ramp, text);
  }
  std::int64_t played() { return engine.snapshot().samples; }

  TempDir data;
  std::string ramp = data / "sample_data/ramp.txt";
  ManualClock clock;
  FakeSensor* sensor = new FakeSensor;
  Engine engine{data.path(), std::unique_ptr<BleManager>(sensor), clock};
};

TEST_F(EngineTest, SettingsAreRoundedAndTheNameStaysWhenAbsentOrTheFileUnreadable) {
  SessionSettings s = named("x");
  s.indur = 1.954;
  s.outdur = 0.01;
  ASSERT_TRUE(engine.start_replay(ramp, s, kPaused).ok());
  Snapshot snap = engine.snapshot();
  EXPECT_EQ(snap.indur, 1.95);
  EXPECT_EQ(snap.outdur, 0.05);  // raised to the shortest period
  EXPECT_EQ(snap.cycle_seconds, 2.0);
  EXPECT_FALSE(engine.start_replay(data / "sample_data/none.txt", named("other"), kPaused).ok());
  EXPECT_EQ(engine.snapshot().name_id, "x");
  ASSERT_TRUE(engine.start_replay(ramp, {}, kPaused).ok());
  EXPECT_EQ(engine.snapshot().name_id, "x");
}

TEST_F(EngineTest, ReplayFollowsTheClockAndSeekClamps) {
  ASSERT_TRUE(engine.start_replay(ramp, {}, {2.0, ""}).ok());
  clock.advance(5.0);  // 5 s at twice real time: 10 s of recording
  EXPECT_TRUE(wait_until([&] { return played() == 1300; }, 2s)) << played();
  engine.seek(0.5);
  EXPECT_EQ(played(), 6500);
  clock.advance(1.0);
  EXPECT_TRUE(wait_until([&] { return played() == 6760; }, 2s)) << played();
  engine.seek(2);
  EXPECT_EQ(played(), 13000);
  EXPECT_TRUE(wait_until([&] { return !engine.running(); }, 2s));  // the end stops it
  EXPECT_EQ(engine.snapshot().mode, Mode::kReplay);
  engine.seek(-1);
  EXPECT_EQ(played(), 0);
}

// An assessment walks its steps on the session's time, stops by itself after
// the last, and keeps its schedule beside the saved recording; a replay
// restores it, and one that cannot be read is said and passed over.
TEST_F(EngineTest, AnAssessmentFollowsItsStepsStopsAfterTheLastAndKeepsItsSchedule) {
  const std::string long_ramp = data / "sample_data/long.txt";
  std::string text;
  for (int i = 0; i < 150 * 130; ++i) text += std::to_string(i % 1000) + "\n";
  spit(long_ramp, text);
  SessionSettings rf = named("Rf");
  rf.rf = RfProtocol{{10, 9}, 60, 0.5};  // 10 breaths of 6 s, then 9 of 6.67 s: 120 s
  rf.protocol_named = true;
  ASSERT_TRUE(engine.start_replay(long_ramp, rf, {1.0, ""}).ok());
  clock.advance(30);
  ASSERT_TRUE(wait_until([&] { return played() == 30 * 130; }, 2s)) << played();
  Snapshot s = engine.snapshot();
  ASSERT_TRUE(s.rf);
  EXPECT_EQ(std::tuple(s.rf->step, s.rf->steps, s.rf->bpm, s.indur, s.outdur, s.cycle_seconds),
            std::tuple(1, 2, 10.0, 3.0, 3.0, 6.0));
  EXPECT_NEAR(s.rf->left, 30, 1e-9);
  clock.advance(60);
  ASSERT_TRUE(wait_until([&] { return played() == 90 * 130; }, 2s)) << played();
  s = engine.snapshot();
  EXPECT_EQ(std::tuple(s.rf->step, s.rf->bpm, s.indur, s.cycle_seconds),
            std::tuple(2, 9.0, 3.33, 6.67));
  clock.advance(35);  // past 120 s: the assessment is over, though the file goes on
  EXPECT_TRUE(wait_until([&] { return !engine.running(); }, 2s));
  EXPECT_LT(played(), 150 * 130);

  const SaveResult saved = engine.save();
  ASSERT_EQ(saved.status.message(), "");
  const std::string path = data / ("recordings/" + saved.file);
  EXPECT_EQ(slurp(sidecar_path(path)),
            "# Corvane Live session 1\nprotocol=rf\nrates=10,9\nstep_s=60\ninfrac=0.5\n"
            "name=Rf\nsex=M\nage=40\nindur=5\noutdur=11\n");
  ASSERT_TRUE(engine.start_replay(path, {}, kPaused).ok());
  ASSERT_TRUE(engine.snapshot().rf);
  EXPECT_EQ(engine.snapshot().rf->protocol.rates, (std::vector<double>{10, 9}));

  spit(sidecar_path(path), "protocol=rf\nrates=10\n");  // one rate is no assessment
  std::string note;
  ASSERT_TRUE(engine.start_replay(path, {}, kPaused, &note).ok());
  EXPECT_FALSE(engine.snapshot().rf);
  EXPECT_NE(note.find("single rhythm"), std::string::npos) << note;
}

// A double click and a stop among them: each start joins and replaces the
// acquisition thread, which only one may do at a time.
TEST_F(EngineTest, StartsAndStopsFromSeveralThreadsEndInOneSession) {
  std::vector<std::thread> clicks;
  for (int i = 0; i < 3; ++i)
    clicks.emplace_back([&, i] {
      for (int k = 0; k < 30; ++k) i ? (void)engine.start_replay(ramp, {}, kPaused) : engine.stop();
    });
  for (std::thread& t : clicks) t.join();
  ASSERT_TRUE(engine.start_replay(ramp, {}, kPaused).ok());
  EXPECT_TRUE(engine.running());
}

TEST_F(EngineTest, MarkersNeedARunningSessionAFreshSampleAndAKey) {
  engine.stop();
  EXPECT_EQ(engine.snapshot().mode, Mode::kIdle);
  EXPECT_FALSE(engine.add_marker(3));  // stopped
  ASSERT_TRUE(engine.start_replay(ramp, {}, kPaused).ok());
  engine.seek(0.1);
  EXPECT_FALSE(engine.add_marker(0));
  EXPECT_FALSE(engine.add_marker(10));
  EXPECT_TRUE(engine.add_marker(3));
  EXPECT_FALSE(engine.add_marker(4));  // same sample, other key
  engine.seek(0.05);                   // backwards: allowed, kept in order of setting
  EXPECT_TRUE(engine.add_marker(9));
  std::vector<Marker> m = engine.snapshot().markers;
  ASSERT_EQ(m.size(), 2u);
  EXPECT_EQ(m[0].sample, 1300);
  EXPECT_EQ(m[1].key, 9);
  engine.stop();
  engine.stop();  // twice is harmless, and what was played stays
  EXPECT_EQ(engine.snapshot().mode, Mode::kReplay);
  EXPECT_EQ(engine.current_samples().size(), 650u);
  EXPECT_FALSE(engine.add_marker(5));
}

TEST_F(EngineTest, SaveWritesTheSamplesPlayedAndTheirMarkers) {
  EXPECT_EQ(engine.save().status.message(), "Nothing recorded to save yet.");
  ASSERT_TRUE(engine.start_replay(ramp, named("Anna"), kPaused).ok());
  engine.seek(0.1);  // 10 s played
  ASSERT_TRUE(engine.add_marker(2));
  SaveResult r = engine.save();
  ASSERT_EQ(r.status.message(), "");
  EXPECT_TRUE(std::regex_match(r.file, std::regex(R"(Anna_on5_off11_M40_\d{8}-\d{6}\.csv)")))
      << r.file;
  EXPECT_EQ(r.count, 1300u);
  std::string text = slurp(data / ("recordings/" + r.file));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1300);
  EXPECT_EQ(engine.snapshot().saved_as, r.file);

  // The saved recording replays with its marker, as a new session.
  ASSERT_TRUE(engine.start_replay(data / ("recordings/" + r.file), {}, kPaused).ok());
  Snapshot s = engine.snapshot();
  ASSERT_EQ(s.markers.size(), 1u);
  EXPECT_EQ(s.markers[0].sample, 1300);
  EXPECT_EQ(s.replay_total, 1300);
  EXPECT_EQ(s.saved_as, "");

  std::filesystem::remove_all(data / "recordings");
  engine.seek(1);
  EXPECT_EQ(engine.save().status.message(), "write failed");
}

TEST_F(EngineTest, LiveScopeTrailsArrivalByFourTenthsOfASecond) {
  engine.start_live("AA:BB:CC:DD:EE:FF", std::string("Polar H10 X"), {});
  Snapshot s = engine.snapshot();
  EXPECT_EQ(s.source_label, "Live — Polar H10 X");
  EXPECT_EQ(s.bt_status, "Starting…");
  ASSERT_TRUE(sensor->samples);
  sensor->status("Streaming ECG…");
  sensor->samples({});  // an empty batch does not start the scope's clock
  clock.advance(10);
  std::vector<double> batch(130 * 10);
  for (std::size_t i = 0; i < batch.size(); ++i) batch[i] = static_cast<double>(i);
  sensor->samples(batch);
  // Right after the first batch the window ends at 0.
  EXPECT_TRUE(engine.snapshot().scope.empty());
  clock.advance(1.0);
  s = engine.snapshot();
  // 1 s - 0.4 s = 78 samples are due.
  ASSERT_EQ(s.scope.size(), 78u);
  EXPECT_EQ(s.scope.back(), 77);
  EXPECT_EQ(s.bt_status, "Streaming ECG…");
  EXPECT_EQ(s.samples, 1300);
}

// The journal lives while a live session runs. The stop keeps the session as
// a recording, which History and a replay find, and only then removes the
// journal; starting anew without saving loses nothing. Under a second there
// is nothing to keep.
TEST_F(EngineTest, LiveSessionIsKeptWhenItStops) {
  auto journals = [&] {
    std::vector<JournalContents> out;
    for (const auto& e : std::filesystem::directory_iterator(data / "recordings"))
      if (e.path().extension() == ".journal") out.push_back(read_journal(slurp(e.path())));
    return out;
  };
  engine.start_live("AA", std::nullopt, named("Kim"));
  sensor->samples(std::vector<double>(260, 7.0));
  ASSERT_TRUE(engine.add_marker(4));
  // The acquisition clock writes what arrived; no stop needed.
  ASSERT_TRUE(wait_until(
      [&] {
        auto j = journals();
        return j.size() == 1 && j[0].markers.size() == 1 && j[0].markers[0].sample == 260;
      },
      2s));
  ASSERT_EQ(engine.save().status.message(), "");  // saved while running: more may come
  ASSERT_EQ(journals().size(), 1u);
  sensor->samples(std::vector<double>(130, 8.0));
  clock.advance(1);  // a second later: a file of its own
  engine.stop();
  EXPECT_TRUE(journals().empty());
  const std::string kept = engine.snapshot().saved_as;
  const std::string text = slurp(data / ("recordings/" + kept));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 390);
  EXPECT_NE(slurp(data / ("recordings/" + markers_path(kept))).find("\n4,260,"), std::string::npos);
  const SaveResult again = engine.save();  // the kept file, not a second one
  EXPECT_EQ(again.file, kept);
  EXPECT_EQ(again.count, 390u);

  engine.start_live("AA", std::nullopt, named("Lee"));
  sensor->samples(std::vector<double>(130 * 3, 1.0));
  ASSERT_TRUE(engine.start_replay(ramp, {}, kPaused).ok());  // no stop, no save
  EXPECT_TRUE(journals().empty());
  EXPECT_TRUE(std::filesystem::exists(
      data / ("recordings/Lee_on5_off11_M40_" + file_time_stamp(clock.wall()) + ".csv")));

  engine.start_live("AA", std::nullopt, named("Ida"));
  sensor->samples(std::vector<double>(100, 1.0));
  engine.stop();
  EXPECT_TRUE(journals().empty());
  EXPECT_EQ(engine.snapshot().saved_as, "");
}

// A stop whose save fails (a full disk) leaves the journal, and the next
// start recovers the session from it.
TEST(Acquisition, AFailedKeepLeavesTheJournalForRecovery) {
  TempDir data;
  const std::string folder = data / "recordings";
  std::filesystem::create_directories(folder);
  ManualClock clock;
  FakeSensor sensor;
  testing::FullDisk full;
  {
    SessionState session(clock);
    Acquisition acquisition(session, &sensor, clock, folder, full);
    acquisition.start_live("AA", std::nullopt, named("Kim"));
    sensor.samples(std::vector<double>(260, 7.0));
    acquisition.stop();
    EXPECT_GT(full.failed_writes(), 0);
    EXPECT_EQ(session.snapshot().saved_as, "");
  }
  const std::vector<Recovery> recovered = recover_journals(folder, Disk::system());
  ASSERT_EQ(recovered.size(), 1u);
  EXPECT_EQ(recovered[0].samples, 260u);
}

// A strap that sends beats, never ECG: a live session of `rr`, three
// intervals a notification.
void record_beats(Engine& engine, FakeSensor& sensor, const std::vector<double>& rr) {
  SessionSettings s = named("Kim");
  s.beats = true;
  engine.start_live("00:22:D0:00:00:03", std::string("HR Strap X"), s);
  for (std::size_t at = 0; at < rr.size(); at += 3)
    sensor.beats({rr.begin() + at, rr.begin() + std::min(at + 3, rr.size())});
}

// The sample's beats in a strap's 1/1024 s steps.
std::vector<double> strap_beats() {
  const std::vector<double> ecg = read_recording(*find_asset("Sample 1.txt"));
  std::vector<double> rr =
      peak_intervals(find_r_peaks(ecg, kSampleRate, kMaxHeartRate), kSampleRate);
  for (double& r : rr) r = std::round(r * 1024) / 1024;
  return rr;
}

// The heart rate and HRV shown are the offline chain's on the strap's `fed` beats.
void expect_as_offline(const Snapshot& s, const std::vector<double>& fed) {
  const RecordingAnalysis a = analyze_recording(RrSeconds{fed, true}, 16, {.cycles = false});
  ASSERT_EQ(s.hr_series->size(), a.hr.size());
  for (std::size_t i = 0; i < a.hr.size(); ++i) ASSERT_EQ((*s.hr_series)[i].y, a.hr[i]) << i;
  EXPECT_EQ(s.rr_count, static_cast<std::int32_t>(a.rr.size()));
  ASSERT_TRUE(s.hrv);
  for (const HrvField& f : hrv_fields())  // NaN as -1, to compare empty indices too
    EXPECT_EQ(std::fmax(f.value(*s.hrv), -1), std::fmax(f.value(a.hrv), -1)) << f.name;
}

std::string exported(Engine& engine) {
  engine.start_export();
  EXPECT_TRUE(wait_until([&] { return engine.export_status().state != JobState::kRunning; }, 60s));
  return engine.export_status().result.folder + "/Kim";
}

// An interval of 0 or of seconds is repaired as the export repairs it, never
// divided by (RunningBeats checks the passes before the stop against this).
TEST_F(EngineTest, BeatSessionIsTheOfflineChainOnTheSameBeatsAndExported) {
  const std::vector<double> clean = strap_beats();
  std::vector<double> damaged = clean;
  damaged[40] = 0.0;
  damaged[90] = 4.5;
  for (const std::vector<double>& fed : {clean, damaged}) {
    record_beats(engine, *sensor, fed);
    engine.stop();
    const Snapshot s = engine.snapshot();
    EXPECT_TRUE(s.beats && s.scope.empty());
    double time = 0;  // the session's: the sum of what the strap sent
    for (double r : fed) time += r * kSampleRate;
    EXPECT_EQ(s.samples, static_cast<std::int64_t>(time));
    expect_as_offline(s, fed);
  }
  // The repaired intervals are marked: the HRV counts them as artefacts.
  EXPECT_GT(engine.snapshot().hrv->artefact_pct, 0);
  ExportInput offline;
  offline.rr_seconds = damaged;
  offline.rr_from_strap = true;
  offline.name = "Kim";
  const ExportResult want = write_export(offline, data / "offline", clock);
  EXPECT_EQ(slurp(exported(engine) + "_HRV.csv"), slurp(want.folder + "/Kim_HRV.csv"));
}

// The journal holds the beats until the save; the saved <stem>_RR.txt
// replays in its own time (a beat counts once the replay passes its end) and
// exports a heart-rate EDF+ and no ECG file.
TEST_F(EngineTest, BeatSessionJournalSaveReplayAndExportKeepTheBeats) {
  const std::vector<double> rr = strap_beats();
  record_beats(engine, *sensor, rr);
  ASSERT_TRUE(engine.add_marker(3));
  const std::string journal = data / "recordings/Kim_on5_off11_M40_" +
                              file_time_stamp(clock.wall()) + std::string(kJournalEnding);
  ASSERT_TRUE(wait_until([&] { return read_journal(slurp(journal)).beats == rr; }, 2s));
  engine.stop();  // keeps the session
  const SaveResult saved = engine.save();
  ASSERT_TRUE(saved.file.ends_with(kBeatsEnding)) << saved.status.message();
  const std::string path = data / ("recordings/" + saved.file);
  EXPECT_EQ(read_beats(slurp(path)).rr_seconds, rr);
  EXPECT_EQ(read_sidecar(slurp(sidecar_path(path))).device, "HR Strap X");
  EXPECT_FALSE(std::filesystem::exists(journal));

  ASSERT_TRUE(engine.start_replay(path, {}, kPaused).ok());
  engine.seek(0.5);
  engine.update_analysis();
  std::size_t played = 0;
  for (double t = 0; (t += rr[played]) * kSampleRate <= engine.snapshot().samples;) ++played;
  EXPECT_EQ(engine.snapshot().rr_count, static_cast<std::int32_t>(played));
  ASSERT_TRUE(engine.start_replay(path, {}, {4.0, ""}).ok());
  clock.advance(static_cast<double>(rr.size()));  // past the end at 4x
  ASSERT_TRUE(wait_until([&] { return !engine.running(); }, 10s));
  expect_as_offline(engine.snapshot(), rr);
  EXPECT_EQ(engine.snapshot().markers.size(), 1u);
  const std::string files = exported(engine);
  EXPECT_FALSE(std::filesystem::exists(files + "_ECG.txt"));
  EXPECT_EQ(slurp(files + ".edf").substr(256, 2), "HR");

  // Lines that are no interval are left out; under 3 intervals is refused.
  for (const auto& [text, beats] : {std::pair{"800\nbeats\n\n-5\n900,x\n1000\r\n", 3},
                                    {"0\n800\n4000\n", 2},
                                    {"800\n900\n", -1}}) {
    spit(path, text);
    const Status started = engine.start_replay(path, {}, kPaused);
    ASSERT_EQ(started.ok(), beats >= 0) << text;
    EXPECT_EQ(started.message().find("at least 3") != std::string::npos, beats < 0)
        << started.message();
    engine.seek(1);
    engine.update_analysis();
    // The 0 of three cannot be judged (no spread): left out.
    if (beats >= 0) {
      EXPECT_EQ(engine.snapshot().rr_count, beats) << text;
    }
  }
}

// The strap's callbacks append from their own thread while the analysis
// worker and the page read the same samples.
TEST(EngineLive, SamplesArriveWhileTheAnalysisReadsThem) {
  TempDir data;
  auto* sensor = new FakeSensor;
  Engine engine(data.path(), std::unique_ptr<BleManager>(sensor));
  engine.start_live("AA:BB:CC:DD:EE:FF", std::nullopt, {});
  const std::vector<double> ecg = read_recording(*find_asset("Sample 1.txt"));
  std::atomic<bool> done{false};
  std::thread strap([&] {
    for (std::size_t at = 0; at + 73 <= ecg.size() && !done; at += 73) {
      sensor->samples(std::vector<double>(ecg.begin() + at, ecg.begin() + at + 73));
      std::this_thread::sleep_for(1ms);
    }
  });
  bool hr = wait_until([&] { return !std::isnan(engine.snapshot().hr); }, 20s);
  done = true;
  strap.join();
  engine.stop();
  EXPECT_TRUE(hr);
  EXPECT_EQ(engine.current_samples().size() % 73, 0u);
}

// A TFR still computing when the user starts over belongs to the old
// session: its pictures must not turn up in the new one.
TEST(EngineJobs, OldTfrDoesNotLandInANewSession) {
  TempDir data;
  spit(data / "Sample 1.txt", std::string(*find_asset("Sample 1.txt")));
  Engine engine(data.path(), nullptr);
  ASSERT_TRUE(engine.start_replay(data / "Sample 1.txt", {}, kPaused).ok());
  engine.seek(1);
  engine.start_tfr();
  EXPECT_EQ(engine.tfr().state, JobState::kRunning);
  ASSERT_TRUE(engine.start_replay(data / "Sample 1.txt", {}, kPaused).ok());
  EXPECT_EQ(engine.tfr().state, JobState::kIdle);
  // The old job takes well under a second; give it three.
  EXPECT_FALSE(wait_until([&] { return engine.tfr().state != JobState::kIdle; }, 3s));
  EXPECT_TRUE(engine.tfr().tfr3_uri.empty());
}

// The first seconds of a new session must not show the heart rate and score
// of the person before: an analysis that began in the old session is dropped
// when it comes back.
TEST(SessionState, AnAnalysisOfTheLastSessionDoesNotLandInTheNext) {
  ManualClock clock;
  SessionState state(clock);
  LiveAnalysis a;
  a.hr = 70;
  a.cvn = 0.5;
  a.rr_count = 3;
  a.hr_series = {{0, 70}};
  a.hrv = HrvIndices{};
  state.begin_replay(std::vector<double>(1300, 1.0), {}, "first", {}, 1.0);
  const AnalysisInput old = state.analysis_input();
  EXPECT_TRUE(state.store_analysis(old.session, a));
  state.begin_replay(std::vector<double>(1300, 2.0), {}, "second", {}, 1.0);
  EXPECT_FALSE(state.store_analysis(old.session, a));
  Snapshot s = state.snapshot();
  EXPECT_TRUE(std::isnan(s.hr));
  EXPECT_EQ(s.rr_count, 0);
  EXPECT_TRUE(s.hr_series->empty());
  EXPECT_EQ(s.hrv, nullptr);
  EXPECT_TRUE(state.store_analysis(state.analysis_input().session, a));
  EXPECT_EQ(state.snapshot().hr, 70);
}

// Two starts at once (a double click) may tell the jobs of their sessions in
// either order; the jobs follow the newer one, or a TFR of the running
// session would never be taken up.
TEST(Jobs, FollowTheNewerOfTwoSessionsReportedOutOfOrder) {
  ManualClock clock;
  SessionState state(clock);
  TempDir data;
  Jobs jobs(state, data / "exports", clock);
  state.begin_replay(std::vector<double>(1300, 1.0), {}, "first", {}, 1.0);
  const std::uint64_t first = state.session();
  state.begin_replay(std::vector<double>(1300, 1.0), {}, "second", {}, 1.0);
  jobs.new_session(state.session());
  jobs.new_session(first);
  jobs.start_tfr();
  EXPECT_NE(jobs.tfr().state, JobState::kIdle);
}

// Closing the program in the middle of everything: a live session, a TFR,
// an export and a batch all running. The engine ends them and joins every
// thread it started (none is left behind, none outlives it); under the
// sanitizers this also shows no race on the way out.
TEST(EngineShutdown, EndsWithEveryJobRunningAndLeavesNoThread) {
  TempDir data;
  for (const char* sub : {"/recordings", "/batch/a", "/batch/b"})
    std::filesystem::create_directories(data.path() + sub);
  const std::string ecg(*find_asset("Sample 1.txt"));
  for (const char* f : {"/batch/a/1.txt", "/batch/a/2.txt", "/batch/b/1.txt"})
    spit(data.path() + f, ecg);
  const int before = test::thread_count();
  {
    auto* sensor = new FakeSensor;
    Engine engine(data.path(), std::unique_ptr<BleManager>(sensor));
    engine.start_live("AA:BB:CC:DD:EE:FF", std::nullopt, {});
    const std::vector<double> samples = read_recording(ecg);
    for (std::size_t at = 0; at + 130 <= samples.size(); at += 130)
      sensor->samples(std::vector<double>(samples.begin() + at, samples.begin() + at + 130));
    engine.start_tfr();
    engine.start_export();
    ASSERT_TRUE(engine.start_batch(data / "batch", false, "", std::nullopt));
    EXPECT_EQ(engine.tfr().state, JobState::kRunning);
    EXPECT_EQ(engine.batch_status().state, JobState::kRunning);
  }
  EXPECT_EQ(test::thread_count(), before);
}

}  // namespace
}  // namespace cvn
