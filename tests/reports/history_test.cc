// Whose a recording is from its file name, the grouping of people, and the
// summary cache's text: read back, refused when stale or damaged.
#include "reports/history.h"

#include "reports/report.h"

#include <gtest/gtest.h>

#include <tuple>

namespace cvn {
namespace {

TEST(History, FileNamesSayWhoAndWhen) {
  struct Case {
    const char* file;
    const char* name;
    const char* date;
    double indur, outdur;
    const char* sex;
    int age;
  };
  const Case cases[] = {
      {"Anna_on5_off11_M40_20250302-140307.csv", "Anna", "2025-03-02 14:03:07", 5, 11, "M", 40},
      {"Anna_Berg_on5.5_off10_F7_20250302-140307_recovered.csv", "Anna_Berg", "2025-03-02 14:03:07",
       5.5, 10, "F", 7},
      {"imported_My_Data_20261123-140307.csv", "My_Data", "2026-11-23 14:03:07", 0, 0, "", -1},
      // A session of a person whose name begins like an import's.
      {"imported_Ann_on5_off11_F33_20261123-140307.csv", "imported_Ann", "2026-11-23 14:03:07", 5,
       11, "F", 33},
      // Beat recordings: their ending is not part of the date.
      {"Kim_on5_off11_F33_20250302-140307_recovered_RR.txt", "Kim", "2025-03-02 14:03:07", 5, 11,
       "F", 33},
      // A name that looks like the tail of the pattern is still all name.
      {"on5_off11_M40_20250302-140307.csv", "on5_off11_M40", "2025-03-02 14:03:07", 0, 0, "", -1},
      {"Ben_onx_off11_M40_20250302-140307.csv", "Ben_onx_off11_M40", "2025-03-02 14:03:07", 0, 0,
       "", -1},
      {"Ben_20250302-1403.csv", "Ben_20250302-1403", "", 0, 0, "", -1},
      {"notes.txt", "notes", "", 0, 0, "", -1},
      {"", "", "", 0, 0, "", -1},
  };
  for (const Case& c : cases) {
    const RecordingName n = parse_recording_name(c.file);
    EXPECT_EQ(std::tie(n.name, n.date, n.indur, n.outdur, n.sex, n.age),
              std::tie(c.name, c.date, c.indur, c.outdur, c.sex, c.age))
        << c.file;
  }
}

TEST(History, OnePersonUnderEitherSpellingNewestFirst) {
  const std::vector<PersonFiles> people = group_by_person({
      {"old.csv", "Anna_Berg", "2025-01-01 09:00:00", ""},
      {"b.csv", "Ben", "", ""},
      {"new.csv", "Anna Berg", "2025-03-01 09:00:00", ""},
      {"a.csv", "Ben", "2025-02-01 09:00:00", ""},
      // Two people whose file names are alike ("M__ller", "recording").
      {"m1.csv", "Müller", "", ""},
      {"m2.csv", "Möller", "", ""},
      {"i.csv", "Иван", "", ""},
      {"p.csv", "Петр", "", ""},
  });
  ASSERT_EQ(people.size(), 6u);
  EXPECT_EQ(people[0].name, "Anna Berg");  // as the newest recording names her
  ASSERT_EQ(people[0].files.size(), 2u);
  EXPECT_EQ(people[0].files[0].file, "new.csv");
  EXPECT_EQ(people[1].name, "Ben");
  EXPECT_EQ(people[1].files[0].file, "a.csv");  // the undated one last
}

TEST(History, SummaryCacheReadsBackOnlyForItsOwnRecording) {
  RecordingSummary s;
  s.duration_s = 300.25;
  s.protocol = "rf";
  s.cvn_mean = -1.0 / 3;
  s.rmssd = 42.5;
  s.recommended_bpm = 5.5;
  s.error = "two\nlines";  // one line in the file
  const SummaryKey key{34320, 1732512345123456789};
  const std::string text = summary_text(s, key);
  const std::optional<RecordingSummary> back = read_summary(text, key);
  ASSERT_TRUE(back) << text;
  EXPECT_EQ(
      std::tie(back->duration_s, back->protocol, back->cvn_mean, back->rmssd, back->recommended_bpm,
               back->error),
      std::tie(s.duration_s, s.protocol, s.cvn_mean, s.rmssd, s.recommended_bpm, "two lines"));
  EXPECT_TRUE(std::isnan(back->lf_hf) && std::isnan(back->peak_trough_hr));

  const std::pair<std::string, SummaryKey> refused[] = {
      {text, {key.size + 1, key.mtime}},  // the recording grew
      {text, {key.size, key.mtime + 1}},  // or was rewritten
      {text.substr(0, text.size() - 1), key},
      {text.substr(0, text.find("error=")), key},  // cut short by a crash
      {"# Corvane Live summary 2" + text.substr(text.find('\n')), key},
      {"", key},
      {std::string("\0\xff\n", 3), key},
  };
  for (const auto& [t, k] : refused) EXPECT_FALSE(read_summary(t, k)) << t;
}

// A trend needs two points: one recording, or one beside a failed one,
// draws none.
TEST(History, BatchSummaryDrawsATrendOnlyFromTwoRecordingsOn) {
  SummaryEntry ok;
  ok.file = "Anna_on5_off11_F30_20250301-090000.csv";
  ok.cvn_mean = 7.5;
  ok.hrv.rmssd = 30;
  SummaryEntry failed;
  failed.file = "broken.csv";
  failed.error = "Not a recording: no samples in it.";
  const std::pair<std::vector<SummaryEntry>, bool> cases[] = {
      {{ok}, false}, {{ok, failed}, false}, {{failed, ok, ok}, true}};
  for (const auto& [entries, trend] : cases) {
    SummaryReport r;
    r.persons.push_back({"Anna", entries});
    const std::string pdf = summary_report_pdf(r);
    EXPECT_EQ(pdf.find("(Trend)") != std::string::npos, trend) << entries.size();
    EXPECT_EQ(pdf.find("(2025-03-01)") != std::string::npos, trend) << entries.size();
  }
}

}  // namespace
}  // namespace cvn
