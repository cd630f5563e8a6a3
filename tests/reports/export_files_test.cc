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
  for (const Case& c : cases) EXPECT_EQ(logpower_csv(c.cvn, c.markers, 16.0), c.want);
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
