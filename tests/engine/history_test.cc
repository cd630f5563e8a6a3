// The people of a recordings folder and their rows: grouped by sidecar or by
// file name, newest first, a damaged recording as a row with its error, and
// the summary cache trusted only while its recording is unchanged.
#include "engine/history.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <tuple>

#include "assets/assets.h"
#include "engine/sidecar.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using test::spit;

SummaryKey key_of(const std::string& path) {
  return {fs::file_size(path),
          static_cast<std::int64_t>(fs::last_write_time(path).time_since_epoch().count())};
}

// Polls until no row of `name` is pending.
std::optional<PersonHistory> settled(History& h, const std::string& name) {
  std::optional<PersonHistory> p;
  test::wait_until(
      [&] {
        p = h.person(name);
        return p && std::none_of(p->rows.begin(), p->rows.end(),
                                 [](const HistoryRow& r) { return r.pending; });
      },
      20s);
  return p;
}

class HistoryTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string ecg(*find_asset("Sample 1.txt"));
    // Anna: one recording saved with a sidecar, one from before sidecars
    // named people, under the file name's spelling of her name.
    spit(rec("Anna_Berg_on5_off11_F30_20250301-090000.csv"), ecg);
    SessionSidecar side;
    side.person = SessionPerson{"Anna Berg", "F", 30, 5, 11};
    spit(rec("Anna_Berg_on5_off11_F30_20250301-090000.session"), sidecar_text(side));
    spit(rec("Anna_Berg_on5_off11_F30_20250101-090000.csv"), ecg);
    spit(rec("Anna_Berg_on5_off11_F30_20250101-090000_markers.csv"), "marker,sample_index\n");
    // Ben: an import named by its sidecar, and a damaged recording.
    spit(rec("imported_x_20250201-080000.csv"), ecg.substr(0, ecg.size() / 2));
    side.person = SessionPerson{"Ben", "M", 50, 2, 8};
    spit(rec("imported_x_20250201-080000.session"), sidecar_text(side));
    spit(rec("Ben_on5_off11_M50_20250202-080000.csv"), "ECG of Ben\n\x01\x02\n");
    // And a beat recording, analysed from its intervals.
    std::vector<double> rr;
    for (int i = 0; i < 300; ++i) rr.push_back(0.9 + 0.06 * std::sin(i * 0.55));
    spit(rec("Ben_on5_off11_M50_20250203-080000_RR.txt"), format_beats(rr));
  }
  std::string rec(const std::string& file) const { return dir.path() + "/" + file; }

  test::TempDir dir;
};

TEST_F(HistoryTest, TwoPeopleTheirRowsADamagedFileAndAStaleCache) {
  // A cache from before the recording changed: its numbers must not show.
  const std::string old = rec("Anna_Berg_on5_off11_F30_20250101-090000.csv");
  RecordingSummary wrong;
  wrong.cvn_mean = 999;
  SummaryKey stale = key_of(old);
  stale.size += 1;
  spit(rec("Anna_Berg_on5_off11_F30_20250101-090000.summary"), summary_text(wrong, stale));

  History history(dir.path());
  const std::vector<PersonCount> people = history.people();
  ASSERT_EQ(people.size(), 2u);
  EXPECT_EQ(std::tie(people[0].name, people[0].recordings), std::make_tuple("Anna Berg", 2));
  EXPECT_EQ(std::tie(people[1].name, people[1].recordings), std::make_tuple("Ben", 3));

  const std::optional<PersonHistory> anna = settled(history, "Anna_Berg");
  ASSERT_TRUE(anna);
  ASSERT_EQ(anna->rows.size(), 2u);
  EXPECT_EQ(anna->rows[0].file.date, "2025-03-01 09:00:00");
  EXPECT_EQ(anna->rows[1].file.file, "Anna_Berg_on5_off11_F30_20250101-090000.csv");
  for (const HistoryRow& r : anna->rows) {
    EXPECT_EQ(r.summary.error, "") << r.file.file;
    EXPECT_NEAR(r.summary.duration_s, 34320 / 130.0, 1) << r.file.file;
    EXPECT_TRUE(std::isfinite(r.summary.cvn_mean) && r.summary.cvn_mean != 999) << r.file.file;
    EXPECT_GT(r.summary.rmssd, 0) << r.file.file;
    EXPECT_EQ(r.summary.protocol, "free");
  }
  // The same recording twice gives the same numbers.
  EXPECT_EQ(anna->rows[0].summary.cvn_mean, anna->rows[1].summary.cvn_mean);

  const std::optional<PersonHistory> ben = settled(history, "Ben");
  ASSERT_TRUE(ben);
  ASSERT_EQ(ben->rows.size(), 3u);
  EXPECT_GT(ben->rows[0].summary.rmssd, 0);  // the beats
  EXPECT_NEAR(ben->rows[0].summary.duration_s, 270, 1);
  EXPECT_EQ(ben->rows[1].file.file, "Ben_on5_off11_M50_20250202-080000.csv");
  EXPECT_EQ(ben->rows[1].summary.error, "Not a recording: no samples in it.");
  EXPECT_EQ(ben->rows[2].summary.error, "");
  EXPECT_NEAR(ben->rows[2].summary.duration_s, 34320 / 260.0, 1);
  EXPECT_FALSE(history.person("Nobody"));
}

// A fresh look (the next start of the program) reads what the first one
// kept, and analyses again only the recording that changed since.
TEST_F(HistoryTest, KeptSummariesAreReadBackUntilTheRecordingChanges) {
  const std::string newer = rec("Anna_Berg_on5_off11_F30_20250301-090000.csv");
  {
    History first(dir.path());
    ASSERT_TRUE(settled(first, "Anna Berg"));
  }
  const std::string cache = rec("Anna_Berg_on5_off11_F30_20250301-090000.summary");
  std::optional<RecordingSummary> kept = read_summary(test::slurp(cache), key_of(newer));
  ASSERT_TRUE(kept);
  kept->cvn_mean = 123;  // only a read cache shows this
  spit(cache, summary_text(*kept, key_of(newer)));

  History second(dir.path());
  std::optional<PersonHistory> anna = second.person("Anna Berg");
  ASSERT_TRUE(anna);
  EXPECT_FALSE(anna->rows[0].pending);
  EXPECT_EQ(anna->rows[0].summary.cvn_mean, 123);

  spit(newer, test::slurp(newer) + "100\n");  // one more sample: another key
  anna = settled(second, "Anna Berg");
  ASSERT_TRUE(anna);
  EXPECT_NE(anna->rows[0].summary.cvn_mean, 123);
  EXPECT_TRUE(read_summary(test::slurp(cache), key_of(newer)));
}

}  // namespace
}  // namespace cvn
