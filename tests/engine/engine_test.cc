// The session object: parameters, replay clock, seek, markers, save and the
// status snapshot.
#include "engine/engine.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <regex>
#include <thread>

#include "analysis/heart_rate.h"
#include "assets/assets.h"
#include "sensor/ble_manager.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {

struct EngineTestAccess {
  static void set_results(Engine& e, double hr, double cvn) {
    std::lock_guard<std::recursive_mutex> g(e.lock());
    e.hr_ = hr;
    e.cvn_ = cvn;
  }
  static void set_live(Engine& e, std::size_t samples) {
    std::lock_guard<std::recursive_mutex> g(e.lock());
    e.mode_ = "live";
    e.live_samples_.assign(samples, 1.0);
  }
  static std::int32_t position(Engine& e) {
    std::lock_guard<std::recursive_mutex> g(e.lock());
    return e.replay_pos_;
  }
  static void feed(Engine& e, const std::vector<double>& batch) { e.on_samples(batch); }
  static double live_start(Engine& e) {
    std::lock_guard<std::recursive_mutex> g(e.lock());
    return e.live_start_;
  }
};

namespace {

using namespace std::chrono_literals;
using test::slurp;
using test::spit;
using test::TempDir;
using A = EngineTestAccess;
using test::wait_until;

// A value out of the snapshot by key: the raw JSON token that follows it.
std::string field(const std::string& json, const std::string& key) {
  std::size_t at = json.find("\"" + key + "\":");
  if (at == std::string::npos) return "<missing>";
  at += key.size() + 3;
  std::size_t end = at;
  int depth = 0;
  bool in_text = false;
  for (; end < json.size(); ++end) {
    char c = json[end];
    if (in_text) {
      if (c == '\\')
        ++end;
      else if (c == '"')
        in_text = false;
    } else if (c == '"') {
      in_text = true;
    } else if (c == '[' || c == '{') {
      ++depth;
    } else if (c == ']' || c == '}') {
      if (depth-- == 0) break;
    } else if (c == ',' && depth == 0) {
      break;
    }
  }
  return json.substr(at, end - at);
}

class EngineTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* sub : {"/recordings", "/sample_data"})
      std::filesystem::create_directories(data.path() + sub);
    // 100 s of a ramp: positions and saved lines are easy to check.
    std::string text;
    for (int i = 0; i < 13000; ++i) text += std::to_string(i % 1000) + "\n";
    spit(data / "sample_data/ramp.txt", text);
  }
  TempDir data;
  Engine engine{data.path(), nullptr};
};

TEST_F(EngineTest, IdleSnapshotHasEveryFieldInOrder) {
  // The exact text fixes every field, its order and its idle value.
  EXPECT_EQ(engine.status_json(),
            R"({"mode":"idle","running":false,"name_id":"","source_label":"","bt_status":"",)"
            R"("elapsed":0,"total":0,"frac":0,"cycles_done":0,"cycles_target":16,"hr":null,)"
            R"("cvn":null,"rr_count":0,"ecg":[],"hr_series":[],"cvn_series":[],"indur":5,)"
            R"("outdur":11,"cycle_seconds":16,"expected_freq":0.0625,"sex":"M","age":40,)"
            R"("tfr_status":"idle","saved_as":null,"export_status":"idle","markers":[],)"
            R"("app_version":"1.0.0"})");
}

TEST_F(EngineTest, RoundingAndLiveProgress) {
  A::set_results(engine, 71.96, 0.12345);
  std::string s = engine.status_json();
  EXPECT_EQ(field(s, "hr"), "72");
  EXPECT_EQ(field(s, "cvn"), "0.123");
  A::set_results(engine, 64.25, -0.9996);
  s = engine.status_json();
  EXPECT_EQ(field(s, "hr"), "64.3");  // halves away from zero
  EXPECT_EQ(field(s, "cvn"), "-1");

  A::set_live(engine, 130 * 128);  // half of 16 cycles of 16 s
  EXPECT_EQ(field(engine.status_json(), "frac"), "0.5");
  A::set_live(engine, 130 * 256);
  EXPECT_EQ(field(engine.status_json(), "frac"), "1");
  A::set_live(engine, 130 * 400);
  s = engine.status_json();
  EXPECT_EQ(field(s, "frac"), "1");
  EXPECT_EQ(field(s, "cycles_done"), "25");
  EXPECT_EQ(field(s, "elapsed"), "400");
  // Before the first live batch the scope shows the end of the buffer.
  std::string ecg = field(s, "ecg");
  EXPECT_EQ(std::count(ecg.begin(), ecg.end(), ','), 779);
}

TEST_F(EngineTest, ParametersAcceptCommasAndFallBackToDefaults) {
  ASSERT_TRUE(engine.start_replay(data / "sample_data/ramp.txt", {{"speed", "0"},
                                                                  {"indur", "1,95"},
                                                                  {"outdur", "0.01"},
                                                                  {"sex", "female"},
                                                                  {"age", "63.9"},
                                                                  {"name", "x"}}));
  std::string s = engine.status_json();
  EXPECT_EQ(field(s, "indur"), "1.95");
  EXPECT_EQ(field(s, "outdur"), "0.05");
  EXPECT_EQ(field(s, "cycle_seconds"), "2");
  EXPECT_EQ(field(s, "expected_freq"), "0.5");
  EXPECT_EQ(field(s, "sex"), "\"F\"");
  EXPECT_EQ(field(s, "age"), "63");
  ASSERT_TRUE(
      engine.start_replay(data / "sample_data/ramp.txt",
                          {{"speed", "0"}, {"indur", "abc"}, {"outdur", ""}, {"age", "?"}}));
  s = engine.status_json();
  EXPECT_EQ(field(s, "cycle_seconds"), "16");
  EXPECT_EQ(field(s, "sex"), "\"M\"");
  EXPECT_EQ(field(s, "age"), "40");
  EXPECT_EQ(field(s, "name_id"), "\"x\"");  // kept when the key is absent
}

TEST_F(EngineTest, TextsAreEscapedOnlyWhereJsonNeedsIt) {
  ASSERT_TRUE(engine.start_replay(data / "sample_data/ramp.txt",
                                  {{"speed", "0"}, {"name", "A\"b\nc\td\\"}}));
  EXPECT_EQ(field(engine.status_json(), "name_id"), "\"A\\\"b\\nc\td\\\\\"");
}

TEST_F(EngineTest, SeekMovesTheReplayAndClamps) {
  ASSERT_TRUE(engine.start_replay(data / "sample_data/ramp.txt", {{"speed", "0"}}));
  EXPECT_EQ(field(engine.status_json(), "frac"), "0");
  engine.seek(0.5);
  EXPECT_TRUE(wait_until([&] { return A::position(engine) == 6500; }, 1s));
  std::this_thread::sleep_for(60ms);  // speed 0: the clock keeps it there
  EXPECT_EQ(A::position(engine), 6500);
  EXPECT_EQ(field(engine.status_json(), "frac"), "0.5");
  engine.seek(2);
  EXPECT_EQ(A::position(engine), 13000);
  engine.seek(-1);
  EXPECT_EQ(A::position(engine), 0);
}

TEST_F(EngineTest, MarkersNeedARunningSessionAFreshSampleAndAKey) {
  EXPECT_FALSE(engine.add_marker(3));  // stopped
  ASSERT_TRUE(engine.start_replay(data / "sample_data/ramp.txt", {{"speed", "0"}}));
  engine.seek(0.1);
  EXPECT_FALSE(engine.add_marker(0));
  EXPECT_FALSE(engine.add_marker(10));
  EXPECT_TRUE(engine.add_marker(3));
  EXPECT_FALSE(engine.add_marker(3));  // same sample
  EXPECT_FALSE(engine.add_marker(4));  // same sample, other key
  engine.seek(0.05);                   // backwards: allowed, kept in order of setting
  EXPECT_TRUE(engine.add_marker(9));
  EXPECT_EQ(field(engine.status_json(), "markers"), R"([{"t":10,"k":3},{"t":5,"k":9}])");
  engine.stop();
  EXPECT_FALSE(engine.add_marker(5));
}

TEST_F(EngineTest, SaveWritesTheSamplesPlayedAndTheirMarkers) {
  EXPECT_EQ(engine.save(), R"({"ok":false,"error":"Nothing recorded to save yet."})");
  ASSERT_TRUE(
      engine.start_replay(data / "sample_data/ramp.txt", {{"speed", "0"}, {"name", "Anna"}}));
  engine.seek(0.1);  // 10 s played
  ASSERT_TRUE(engine.add_marker(2));
  std::string reply = engine.save();
  std::smatch m;
  ASSERT_TRUE(std::regex_match(
      reply, m,
      std::regex(
          R"re(\{"ok":true,"file":"(Anna_on5_off11_M40_\d{8}-\d{6}\.csv)","count":1300\})re")))
      << reply;
  std::string file = m[1];
  std::string text = slurp(data / ("recordings/" + file));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1300);
  EXPECT_EQ(field(engine.status_json(), "saved_as"), "\"" + file + "\"");

  // The saved recording replays with its marker.
  ASSERT_TRUE(engine.start_replay(data / ("recordings/" + file), {{"speed", "0"}}));
  EXPECT_EQ(field(engine.status_json(), "markers"), R"([{"t":10,"k":2}])");
  EXPECT_EQ(field(engine.status_json(), "total"), "10");
  EXPECT_EQ(field(engine.status_json(), "saved_as"), "null");  // a new session
}

TEST_F(EngineTest, SaveIntoAMissingFolderFails) {
  std::filesystem::remove_all(data / "recordings");
  ASSERT_TRUE(engine.start_replay(data / "sample_data/ramp.txt", {{"speed", "0"}}));
  engine.seek(0.5);
  EXPECT_EQ(engine.save(), R"({"ok":false,"error":"write failed"})");
  EXPECT_EQ(field(engine.status_json(), "saved_as"), "null");
}

TEST_F(EngineTest, MissingFileLeavesTheEngineAlone) {
  ASSERT_TRUE(engine.start_replay(data / "sample_data/ramp.txt", {{"speed", "0"}, {"name", "k"}}));
  EXPECT_FALSE(engine.start_replay(data / "sample_data/none.txt", {{"name", "other"}}));
  EXPECT_TRUE(engine.running());
  EXPECT_EQ(field(engine.status_json(), "name_id"), "\"k\"");
}

TEST_F(EngineTest, EmptyRecordingEndsAtOnce) {
  spit(data / "sample_data/empty.txt", "no numbers here\n");
  ASSERT_TRUE(engine.start_replay(data / "sample_data/empty.txt", {}));
  EXPECT_TRUE(wait_until([&] { return !engine.running(); }, 2s));
  EXPECT_EQ(field(engine.status_json(), "frac"), "0");
}

TEST_F(EngineTest, StopIsIdempotentAndKeepsTheSession) {
  engine.stop();
  engine.stop();
  EXPECT_EQ(field(engine.status_json(), "mode"), "\"idle\"");
  ASSERT_TRUE(engine.start_replay(data / "sample_data/ramp.txt", {{"speed", "0"}}));
  engine.seek(0.2);
  engine.stop();
  engine.stop();
  std::string s = engine.status_json();
  EXPECT_EQ(field(s, "mode"), "\"replay\"");
  EXPECT_EQ(field(s, "running"), "false");
  EXPECT_EQ(field(s, "elapsed"), "20");
  EXPECT_EQ(engine.current_samples().size(), 2600u);
}

TEST_F(EngineTest, LiveWithoutASensorLinkRunsWithNoSamples) {
  engine.start_live("AA:BB:CC:DD:EE:FF", {{"device", ""}});
  std::string s = engine.status_json();
  EXPECT_EQ(field(s, "mode"), "\"live\"");
  EXPECT_EQ(field(s, "running"), "true");
  EXPECT_EQ(field(s, "source_label"), "\"Live — AA:BB:CC:DD:EE:FF\"");
  EXPECT_EQ(field(s, "bt_status"), "\"Starting…\"");
  EXPECT_EQ(field(s, "ecg"), "[]");
  EXPECT_EQ(A::live_start(engine), 0.0);
  A::feed(engine, {});  // an empty batch does not start the clock
  EXPECT_EQ(A::live_start(engine), 0.0);
  A::feed(engine, {1, 2, 3});
  EXPECT_GT(A::live_start(engine), 0.0);
  engine.seek(0.5);                                        // nothing to seek in live mode
  EXPECT_EQ(field(engine.status_json(), "elapsed"), "0");  // 3 samples
}

TEST_F(EngineTest, LiveScopeTrailsArrivalByFourTenthsOfASecond) {
  engine.start_live("AA:BB:CC:DD:EE:FF", {{"device", "Polar H10 X"}});
  std::vector<double> batch(130 * 10);
  for (std::size_t i = 0; i < batch.size(); ++i) batch[i] = static_cast<double>(i);
  A::feed(engine, batch);
  // Right after the first batch, the window end is clamped at 0.
  EXPECT_EQ(field(engine.status_json(), "ecg"), "[]");
  std::this_thread::sleep_for(1s);
  std::string ecg = field(engine.status_json(), "ecg");
  // About 1 s - 0.4 s = 78 samples are due: the last shown is near 77.
  std::size_t comma = ecg.rfind(',');
  double last = std::stod(ecg.substr(comma + 1));
  EXPECT_GE(last, 70);
  EXPECT_LE(last, 100);
  EXPECT_EQ(field(engine.status_json(), "source_label"), "\"Live — Polar H10 X\"");
}

TEST(EngineReplay, BundledSampleAtHighSpeedEndsWithTheFinalAnalysis) {
  TempDir data;
  std::filesystem::create_directories(data / "sample_data");
  spit(data / "sample_data/Sample 1.txt", std::string(*find_asset("Sample 1.txt")));
  Engine engine(data.path(), nullptr);
  ASSERT_TRUE(engine.start_replay(data / "sample_data/Sample 1.txt", {{"speed", "200"}}));
  ASSERT_TRUE(wait_until([&] { return !engine.running(); }, 10s));
  std::string s = engine.status_json();
  EXPECT_EQ(field(s, "frac"), "1");
  EXPECT_EQ(field(s, "elapsed"), field(s, "total"));
  double hr = std::stod(field(s, "hr"));
  EXPECT_GT(hr, 50);
  EXPECT_LT(hr, 80);
  EXPECT_GT(std::stoi(field(s, "rr_count")), 200);
  EXPECT_NE(field(s, "cvn"), "null");
  // The heart-rate series covers the whole recording on the 10 Hz grid.
  std::string hr_series = field(s, "hr_series");
  std::size_t points = 0;
  for (std::size_t at = 0; (at = hr_series.find("{\"x\":", at)) != std::string::npos; ++at)
    ++points;
  // One point per 0.1 s grid time of the whole recording (the grid's own
  // rule decides whether the end itself is a point).
  EXPECT_EQ(points, time_grid(engine.current_samples().size(), 130.0, 0.1).size());
}

}  // namespace
}  // namespace cvn
