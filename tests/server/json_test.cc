// The JSON value writers every answer is built from, the snapshot they
// write, and the session parameters read from the page.
#include "server/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <random>

#include "server/session_params.h"
#include "server/snapshot_json.h"

namespace cvn {
namespace {

TEST(JsonNumber, SixSignificantDigitsInTheDefaultStreamFormat) {
  EXPECT_EQ(json_number(1234567), "1.23457e+06");
  EXPECT_EQ(json_number(-0.0), "-0");
  EXPECT_EQ(json_number(std::nan("")), "null");
  EXPECT_EQ(json_number(std::numeric_limits<double>::infinity()), "null");
  // The fast path must agree with printf everywhere, not just on examples.
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> mantissa(-10, 10);
  std::uniform_int_distribution<int> exponent(-12, 12);
  for (int i = 0; i < 20000; ++i) {
    double v = mantissa(rng) * std::pow(10.0, exponent(rng));
    if (i % 3 == 0) v = std::round(v * 10) / 10;  // the rounded values the snapshot writes
    char expect[32];
    std::snprintf(expect, sizeof expect, "%.6g", v);
    ASSERT_EQ(json_number(v), expect) << v;
  }
}

TEST(JsonText, EscapesEveryControlCharacterAndKeepsUtf8) {
  EXPECT_EQ(json_text("a\"b\\c\nd\te\r\x01\x1f \x7f\xC3\xA9"),
            "\"a\\\"b\\\\c\\nd\\te\\r\\u0001\\u001f \x7f\xC3\xA9\"");
}

TEST(Snapshot, IdleSnapshotHasEveryFieldInOrder) {
  Snapshot s;
  s.sex = "M";
  s.hr = s.cvn = std::nan("");
  s.hr_series = s.cvn_series = std::make_shared<const std::vector<SeriesPoint>>();
  // The exact text fixes every field, its order and its idle value.
  EXPECT_EQ(
      snapshot_json(s),
      R"({"mode":"idle","running":false,"name_id":"","source_label":"","bt_status":"",)"
      R"("elapsed":0,"total":0,"frac":0,"cycles_done":0,"cycles_target":16,"hr":null,)"
      R"("cvn":null,"rr_count":0,"hrv":null,"ecg":[],"hr_series":[],"cvn_series":[],)"
      R"("indur":5,"outdur":11,"cycle_seconds":16,"expected_freq":0.0625,"sex":"M","age":40,)"
      R"("protocol":"free","rf":null,"tfr_status":"idle","saved_as":null,"export_status":"idle","markers":[],)"
      R"("app_version":"1.0.0","replay_speed":null,"scope_samples":780,"countdown_cycles":2,)"
      R"("batch":{"status":"idle","total":0,"done":0,"msg":""},"source":"ecg"})");
}

TEST(Snapshot, RoundingProgressSeriesAndMarkers) {
  Snapshot s;
  s.mode = Mode::kLive;
  s.running = true;
  s.name_id = "A\"b\nc\td\\";
  s.source_label = "Live \xE2\x80\x94 Polar\tH10\r\x02";  // a strap may name itself so
  s.hr = 71.96;
  s.cvn = -0.9996;
  s.samples = 130 * 400;  // 25 cycles of 16 s: progress stops at 1
  s.scope = {1.25, -2.25};
  s.hr_series = std::make_shared<const std::vector<SeriesPoint>>(
      std::vector<SeriesPoint>{{0, 61.25}, {0.1, 61.3}});
  s.cvn_series =
      std::make_shared<const std::vector<SeriesPoint>>(std::vector<SeriesPoint>{{0, std::nan("")}});
  s.markers = {{1300, 3}, {650, 9}};
  s.tfr = JobState::kRunning;
  s.export_job = JobState::kError;
  s.saved_as = "x.csv";
  const std::string j = snapshot_json(s);
  for (const char* part :
       {R"("mode":"live","running":true,"name_id":"A\"b\nc\td\\")",
        "\"source_label\":\"Live \xE2\x80\x94 Polar\\tH10\\r\\u0002\"",
        R"("elapsed":400,"total":0,"frac":1,"cycles_done":25,)", R"("hr":72,"cvn":-1,)",
        R"("ecg":[1.3,-2.3],)",
        R"("hr_series":[{"x":0,"y":61.25},{"x":0.1,"y":61.3}],"cvn_series":[{"x":0,"y":null}],)",
        R"("tfr_status":"computing","saved_as":"x.csv","export_status":"error",)",
        R"("markers":[{"t":10,"k":3},{"t":5,"k":9}],)"})
    EXPECT_NE(j.find(part), std::string::npos) << part << "\n" << j;
  // The page's JSON parser refuses the whole snapshot for one raw control byte.
  for (char c : j) EXPECT_GE(static_cast<unsigned char>(c), 0x20) << j;
}

TEST(Snapshot, HrvHasEveryFieldInOrderWithEmptyOnesNull) {
  Snapshot s;
  s.hr_series = s.cvn_series = std::make_shared<const std::vector<SeriesPoint>>();
  HrvIndices h;
  h.n_beats = 1234567;  // more digits than a number keeps: a count is written whole
  h.sdnn = 48.5;
  h.rmssd = 37.125;
  h.lf = 1234567.8;
  h.hf = 0;  // zero is a value, not an empty index
  h.lf_peak = 0.0625;
  s.hrv = std::make_shared<const HrvIndices>(h);
  const std::string want =
      R"(,"rr_count":0,"hrv":{"n_beats":1234567,"artefact_pct":null,"mean_nn":null,"sdnn":48.5,)"
      R"("mean_hr":null,"sd_hr":null,"min_hr":null,"max_hr":null,"rmssd":37.125,"nn50":null,)"
      R"("pnn50":null,"sd1":null,"sd2":null,"vlf":null,"lf":1.23457e+06,"hf":0,)"
      R"("total_power":null,"lf_hf":null,"lf_nu":null,"hf_nu":null,"lf_peak":0.0625,)"
      R"("hf_peak":null,"peak_trough_hr":null},"ecg":[],)";
  std::string j = snapshot_json(s);
  EXPECT_NE(j.find(want), std::string::npos) << j;

  // The text is kept per object: renewed indices must show, and going back to
  // none must not keep the old ones.
  h.nn50 = 7;
  s.hrv = std::make_shared<const HrvIndices>(h);
  j = snapshot_json(s);
  EXPECT_NE(j.find(R"("rmssd":37.125,"nn50":7,)"), std::string::npos) << j;
  s.hrv = nullptr;
  EXPECT_NE(snapshot_json(s).find(R"("hrv":null,)"), std::string::npos);
}

TEST(SessionParams, CommasDefaultsAndTruncation) {
  SessionSettings s = session_settings(
      {{"indur", "1,95"}, {"outdur", "abc"}, {"sex", "female"}, {"age", "63.9"}, {"name", ""}});
  EXPECT_EQ(s.indur, 1.95);
  EXPECT_EQ(s.outdur, 11.0);
  EXPECT_EQ(s.sex, "F");
  EXPECT_EQ(s.age, 63);
  EXPECT_EQ(s.name, std::optional<std::string>(""));
  s = session_settings({{"age", "?"}, {"sex", "m"}});
  EXPECT_EQ(s.age, 40);
  EXPECT_EQ(s.sex, "M");
  EXPECT_FALSE(s.name);  // absent: the previous name stays
  EXPECT_FALSE(s.beats);  // a live session streams ECG unless asked for beats
  EXPECT_TRUE(session_settings({{"source", "beats"}}).beats);
  EXPECT_EQ(replay_options({}).speed, 2.0);

  std::string why;
  EXPECT_TRUE(protocol_params({}, &s, &why));
  EXPECT_FALSE(s.protocol_named);  // a replay then takes the saved protocol
  EXPECT_TRUE(protocol_params({{"protocol", "rf"}, {"step_s", "90"}}, &s, &why));
  ASSERT_TRUE(s.rf);
  EXPECT_EQ(s.rf->step_s, 90);
  EXPECT_EQ(s.rf->rates.size(), 5u);
  EXPECT_FALSE(protocol_params({{"protocol", "rf"}, {"infrac", "0.7"}}, &s, &why));
  EXPECT_NE(why, "");
}

using Series = std::vector<SeriesPoint>;

std::shared_ptr<const Series> series_of(std::initializer_list<double> ys) {
  Series s;
  for (double y : ys) s.push_back({0.1 * static_cast<double>(s.size()), y});
  return std::make_shared<const Series>(std::move(s));
}

// The text of one series in an event, from its key to the next one.
std::string series_in(const std::string& event, const std::string& key) {
  const std::size_t a = event.find("\"" + key + "\":");
  const std::size_t b = event.find(key == "hr_series" ? ",\"cvn_series\"" : ",\"indur\"", a);
  return event.substr(a, b - a);
}

TEST(StreamEvent, FirstFullThenChangesFromTheirFirstDifferingPointAndResets) {
  Snapshot s;
  s.mode = Mode::kReplay;
  s.name_id = "Ann";
  s.hr = s.cvn = 60;
  s.hr_series = series_of({60, 61});
  s.cvn_series = series_of({0.5});
  StreamCursor c;
  // The first event is exactly what /status answers.
  EXPECT_EQ(stream_event_json(s, &c), snapshot_json(s));
  std::string e = stream_event_json(s, &c);
  EXPECT_EQ(series_in(e, "hr_series"), R"("hr_series":{"from":2,"points":[]})");
  EXPECT_EQ(series_in(e, "cvn_series"), R"("cvn_series":{"from":1,"points":[]})");
  EXPECT_EQ(e.find("reset"), std::string::npos);

  // Appended points, and a renewed series whose last point was revised.
  s.hr_series = series_of({60, 61, 62});
  s.cvn_series = series_of({0.25, 0.5});
  e = stream_event_json(s, &c);
  EXPECT_EQ(series_in(e, "hr_series"), R"("hr_series":{"from":2,"points":[{"x":0.2,"y":62}]})");
  EXPECT_EQ(series_in(e, "cvn_series"),
            R"("cvn_series":{"from":0,"points":[{"x":0,"y":0.25},{"x":0.1,"y":0.5}]})");
  // A new object with equal points (NaN included) sends nothing again.
  s.hr_series = series_of({60, 61, 62});
  s.cvn_series = series_of({0.25, std::nan("")});
  e = stream_event_json(s, &c);
  EXPECT_EQ(series_in(e, "hr_series"), R"("hr_series":{"from":3,"points":[]})");
  EXPECT_EQ(series_in(e, "cvn_series"), R"("cvn_series":{"from":1,"points":[{"x":0.1,"y":null}]})");
  s.cvn_series = series_of({0.25, std::nan("")});
  EXPECT_EQ(series_in(stream_event_json(s, &c), "cvn_series"),
            R"("cvn_series":{"from":2,"points":[]})");
  // A change mid-series is sent from the changed point, with all after it.
  s.hr_series = series_of({60, 66, 62, 63});
  EXPECT_EQ(
      series_in(stream_event_json(s, &c), "hr_series"),
      R"("hr_series":{"from":1,"points":[{"x":0.1,"y":66},{"x":0.2,"y":62},{"x":0.3,"y":63}]})");

  // A seek (shorter series) and a new session each start over, in full.
  const auto reset_event = [&] {
    const std::string ev = stream_event_json(s, &c);
    EXPECT_EQ(ev, R"({"reset":true,)" + snapshot_json(s).substr(1));
    return ev;
  };
  s.hr_series = series_of({60, 66});
  reset_event();
  s.name_id = "Bob";
  reset_event();
  s.mode = Mode::kLive;
  reset_event();
  EXPECT_EQ(series_in(stream_event_json(s, &c), "hr_series"),
            R"("hr_series":{"from":2,"points":[]})");
}

}  // namespace
}  // namespace cvn
