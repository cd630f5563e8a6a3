// The export's text files and the ASCII fallback the EDF and PDF writers share.
#include "reports/export_files.h"

#include <gtest/gtest.h>

#include <cmath>

namespace cvn {
namespace {

TEST(LogPowerCsv, ColumnsNanCellsAndMeanLine) {
  const double nan = NAN;
  struct Case {
    std::vector<double> cvn;
    std::vector<Marker> markers;
    std::string want;
  } cases[] = {
      {{1.5, nan, 2.25}, {}, "cycle,CVN (logpower)\n1,1.5000\n2,\n3,2.2500\npow,1.8750\n"},
      // 16 s cycles: 2.0 s and 15.9 s fall in cycle 1, 16.0 s in cycle 2.
      {{1.5, 2.5},
       {{260, 3}, {2067, 1}, {2080, 7}},
       "cycle,CVN (logpower),markers\n1,1.5000,3 1\n2,2.5000,7\npow,2.0000,\n"},
      {{}, {}, "cycle,CVN (logpower)\npow,\n"},  // too short for one cycle
      {{nan}, {{1, 2}}, "cycle,CVN (logpower),markers\n1,,2\npow,,\n"},
  };
  for (const Case& c : cases) EXPECT_EQ(logpower_csv(timed_cycles(c.cvn, 16.0), c.markers), c.want);
  // An assessment's breaths differ in length: markers go by each breath's own span.
  EXPECT_EQ(logpower_csv({{0, 10, 1.0}, {10, 12, nan}, {12, 20, 3.0}}, {{1300, 4}, {1560, 5}}),
            "cycle,CVN (logpower),markers\n1,1.0000,\n2,,4\n3,3.0000,5\npow,2.0000,\n");
}

// Every field in hrv_fields() order with its unit; six significant digits in
// fixed notation whatever the magnitude (an exponent only below 1e-4); empty
// cells for empty fields, a non-finite value that slipped through included.
TEST(HrvCsv, OrderDigitsUnitsAndEmptyCells) {
  const HrvIndices full{312,  1.5,         812.345678, 45.2,       74.0,       3.25,
                        61.0, 88.5,        38.71234,   0,          0.0,        27.4,
                        58.9, 1.234567e-5, 1234.5678,  987654.321, 12345678.9, 0.0012499999,
                        55.5, 44.5,        0.0625,     0.25,       9.8};
  EXPECT_EQ(hrv_csv(full),
            "index,value,unit\n"
            "n_beats,312,count\nartefact_pct,1.50000,%\nmean_nn,812.346,ms\nsdnn,45.2000,ms\n"
            "mean_hr,74.0000,bpm\nsd_hr,3.25000,bpm\nmin_hr,61.0000,bpm\nmax_hr,88.5000,bpm\n"
            "rmssd,38.7123,ms\nnn50,0,count\npnn50,0,%\nsd1,27.4000,ms\nsd2,58.9000,ms\n"
            "vlf,1.23457e-05,ms\u00b2\nlf,1234.57,ms\u00b2\nhf,987654,ms\u00b2\n"
            "total_power,12345679,ms\u00b2\nlf_hf,0.00125000,\nlf_nu,55.5000,n.u.\n"
            "hf_nu,44.5000,n.u.\nlf_peak,0.0625000,Hz\nhf_peak,0.250000,Hz\n"
            "peak_trough_hr,9.80000,bpm\n");

  HrvIndices empty;  // too few beats: only n_beats has a value
  empty.lf_hf = INFINITY;
  EXPECT_EQ(hrv_csv(empty),
            "index,value,unit\nn_beats,0,count\nartefact_pct,,%\nmean_nn,,ms\nsdnn,,ms\n"
            "mean_hr,,bpm\nsd_hr,,bpm\nmin_hr,,bpm\nmax_hr,,bpm\nrmssd,,ms\nnn50,,count\n"
            "pnn50,,%\nsd1,,ms\nsd2,,ms\nvlf,,ms\u00b2\nlf,,ms\u00b2\nhf,,ms\u00b2\n"
            "total_power,,ms\u00b2\nlf_hf,,\nlf_nu,,n.u.\nhf_nu,,n.u.\nlf_peak,,Hz\nhf_peak,,Hz\n"
            "peak_trough_hr,,bpm\n");
}

// Beat times add up the intervals, ms to 3 decimals; a dropped interval keeps
// its row and flag but neither cell, and does not move the beats after it;
// flags missing at the end read 0.
TEST(RrCsv, BeatTimesIntervalsAndFlags) {
  EXPECT_EQ(rr_csv({0.75, 0.8124567, NAN, 0.0, 0.79}, {false, true, true}),
            "beat_time_s,rr_ms,corrected\n0.750,750.000,0\n1.562,812.457,1\n,,1\n,,0\n"
            "2.352,790.000,0\n");
}

// A row per step in the protocol's order: rates as typed, scores to 6 digits,
// empty cells (never "nan") for what could not be computed and for a step the
// recording did not reach; the recommendation last, empty when there is none.
TEST(RfCsv, StepsEmptyCellsAndRecommendation) {
  RfResult r;
  r.protocol.rates = {6.5, 5.25, 4.5};
  RfStepScore full, partial, unreached;
  full.step = {6.5, 60 / 6.5, 0.4 * 60 / 6.5, 0.6 * 60 / 6.5, 0, 120, 13};
  full.reached = full.scored = true;
  full.finished_breaths = 13;
  full.peak_trough_hr = 9.4666281;
  full.lf_power = 3112.2345;
  full.lf_peak = 0.08350730;
  full.phase_deg = -37.49381;
  full.amplitude_bpm = 4.6975;
  full.cvn = 11.344312;
  partial.step = {5.25, 60 / 5.25, 0, 0, 120, 234.28571428571428, 10};
  partial.reached = true;
  partial.finished_breaths = 2;
  partial.peak_trough_hr = 0.00001234567;  // a flat step: an exponent, not "0.00000"
  partial.lf_power = 0;
  unreached.step = {4.5, 60 / 4.5, 0, 0, 234.28571428571428, 354.28571428571428, 9};
  r.steps = {full, partial, unreached};
  r.recommended_bpm = 6.5;
  const std::string head =
      "bpm,start_s,end_s,breaths,reached,peak_trough_hr,lf_power,lf_peak,phase_deg,"
      "amplitude_bpm,cvn\n";
  const std::string rows =
      "6.5,0,120.000,13,1,9.46663,3112.23,0.0835073,-37.4938,4.69750,11.3443\n"
      "5.25,120.000,234.286,10,1,1.23457e-05,0,,,,\n"
      "4.5,234.286,354.286,9,0,,,,,,\n";
  EXPECT_EQ(rf_csv(r), head + rows + "recommended_bpm,6.5\n");

  r.recommended_bpm = RfStepScore::kEmpty;
  EXPECT_EQ(rf_csv(r), head + rows + "recommended_bpm,\n");
  r.steps.clear();  // a protocol rf_schedule refuses
  EXPECT_EQ(rf_csv(r), head + "recommended_bpm,\n");
}

TEST(HrText, OneLinePerGridPoint) {
  EXPECT_EQ(hr_text({60, 72.456, NAN, 0.004}), "60.00\n72.46\n\n0.00\n");
}

TEST(SummaryRows, LabelsInOrderAndValues) {
  SummaryFacts f;
  f.start_time = 0;
  f.sex = "F";
  f.age = 45;
  f.indur = 5;
  f.outdur = 5.5;
  f.cycle_seconds = 10.5;
  f.expected_freq = 0.0952;
  f.cycles = 7;
  f.cycles_with_value = 6;
  f.duration_seconds = 75.3;
  f.beats = 91;
  std::vector<SummaryRow> rows = summary_rows(f);
  std::vector<std::string> labels, values;
  for (const auto& r : rows) labels.push_back(r.label), values.push_back(r.value);
  EXPECT_EQ(labels, (std::vector<std::string>{"Date", "Sex / Age", "Periods", "Cycle length",
                                              "Expected frequency", "Cycles recorded", "Duration",
                                              "R-peaks", "Markers"}));
  EXPECT_EQ(values[0].size(), 16u);  // "%Y-%m-%d %H:%M", local time
  EXPECT_EQ(std::vector<std::string>(values.begin() + 1, values.end()),
            (std::vector<std::string>{"F / 45", "in 5 s / out 5.5 s", "10.5 s", "0.0952 Hz",
                                      "7 (6 with a value)", "1:15 min (75.3 s)", "91", "none"}));
}

TEST(ToAscii, NearestLettersAndMalformedInput) {
  const std::pair<std::string, std::string> cases[] = {
      {"Zoë (pilot) \\ 2", "Zoe (pilot) \\ 2"},
      {"Straße Æsir Øre Łódź Œuvre İ", "Strasse AEsir Ore Lodz OEuvre I"},
      {"ÀÿāſČ", "AyasC"},
      {"5 µV – 37 °C…", "5 uV - 37 degC..."},
      {"tab\there\n", "tab here "},
      {"日本", "??"},                             // outside what has an ASCII spelling
      {"bad \xC3 end \xE2\x82", "bad ? end ??"},  // cut sequences, one "?" per byte
      {"\xA9 alone", "? alone"},                  // a continuation byte with no lead
  };
  for (const auto& [in, want] : cases) EXPECT_EQ(to_ascii(in), want) << in;
}

}  // namespace
}  // namespace cvn
