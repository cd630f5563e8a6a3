// The live journal: what a crash leaves on disk reads back, and start-up
// turns it into a recording named after the session.
#include "engine/journal.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/fake_disk.h"
#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

using test::slurp;
using test::spit;
using test::TempDir;

TEST(JournalFormat, TornTailsAndBadMarkersAreDropped) {
  struct Case {
    const char* text;
    std::vector<double> samples;
    std::string markers;  // as markers_csv writes them, without the header
  };
  const Case cases[] = {
      {"", {}, ""},
      {"# Corvane Live journal 1\n", {}, ""},
      {"# Corvane Live journal 1\n1\n2\nm3,2\n3\n-4", {1, 2, 3}, "3,2,0.015\n"},  // torn sample
      {"1\n2\nm3,2\n3\nm5,", {1, 2, 3}, "3,2,0.015\n"},                           // torn marker
      {"1\n2\nm3,2\nm4,2\n", {1, 2}, "3,2,0.015\n4,2,0.015\n"},  // the sample index is the truth
      {"1\nm0,1\nm10,1\nm5,-1\nm5,2\n", {1}, ""},  // bad key, bad index, past the last sample
      {"12", {}, ""},                              // nothing complete
      // Beats long enough for an index past what a marker holds: dropped, not wrapped.
      {"r99999999999\nr99999999999\nm1,3000000000\nm2,26\n", {}, "2,26,0.200\n"},
  };
  for (const Case& c : cases) {
    JournalContents j = read_journal(c.text);
    EXPECT_EQ(j.samples, c.samples) << c.text;
    EXPECT_EQ(markers_csv(j.markers), "marker,sample_index,seconds\n" + c.markers) << c.text;
  }
}

TEST(JournalRecovery, WriterOutputBecomesANamedRecordingAndTheJournalGoes) {
  TempDir dir;
  const std::int64_t t = 1700000000;
  const std::string stem = session_stem(" Kim Lee ", 5.5, 11, "F", 33, t);
  EXPECT_EQ(stem, "Kim_Lee_on5.5_off11_F33_" + file_time_stamp(t));

  std::vector<double> samples;
  std::vector<Marker> markers;
  {
    LiveJournal journal;
    ASSERT_TRUE(journal.start(dir / (stem + ".journal"), 7, "protocol=rf\nrates=6,5\n"));
    for (int round = 0; round < 3; ++round) {
      for (int i = 0; i < 73; ++i) samples.push_back(round * 100 + i + 0.5);
      markers.push_back({static_cast<std::int32_t>(samples.size()), round + 1});
      journal.collect(7, samples, {}, markers);
      journal.collect(8, std::vector<double>(1000, 9.0), {}, {});  // another session's
      journal.write(round * 0.5, false);
    }
  }  // closed as a killed process leaves it, plus a torn last write:
  std::string text = slurp(dir / (stem + ".journal"));
  spit(dir / (stem + ".journal"), text + "12");
  spit(dir / "empty.journal", "# Corvane Live journal 1\n");
  spit(dir / "other.csv", "1\n");

  std::vector<Recovery> found = recover_journals(dir.path());
  ASSERT_EQ(found.size(), 2u);
  const std::string file = stem + "_recovered.csv";
  EXPECT_FALSE(std::filesystem::exists(dir / (stem + ".journal")));
  EXPECT_FALSE(std::filesystem::exists(dir / "empty.journal"));
  EXPECT_TRUE(std::filesystem::exists(dir / "other.csv"));
  EXPECT_EQ(slurp(dir / file), format_recording(samples));
  EXPECT_EQ(slurp(dir / (stem + "_recovered_markers.csv")), markers_csv(markers));
  // A crashed assessment comes back with its schedule.
  EXPECT_EQ(slurp(dir / (stem + "_recovered.session")), "protocol=rf\nrates=6,5\n");
  for (const Recovery& r : found) {
    EXPECT_FALSE(r.failed);
    if (r.journal == "empty.journal") {
      EXPECT_EQ(r.file, "");
    } else {
      EXPECT_EQ(r.file, file);
      EXPECT_EQ(r.samples, 219u);
      EXPECT_EQ(r.markers, 3u);
    }
  }
}

// A beat session's journal (r-lines) recovers as a beat recording: the
// intervals bit for bit, a torn last one dropped with the marker past it.
TEST(JournalRecovery, ABeatSessionBecomesABeatRecording) {
  TempDir dir;
  const std::vector<double> beats = {0.8, 790.0 / 1024, 0.0, 3.5};  // 0 and 3.5 s kept
  {
    LiveJournal journal;
    ASSERT_TRUE(journal.start(dir / "b.journal", 3));
    journal.collect(3, {}, beats, {{205, 2}});
    journal.write(0, false);
  }
  spit(dir / "b.journal", slurp(dir / "b.journal") + "m4,661\nr1200");
  ASSERT_EQ(recover_journals(dir.path()).at(0).file, "b_recovered_RR.txt");
  EXPECT_EQ(read_beats(slurp(dir / "b_recovered_RR.txt")).rr_seconds, beats);
  EXPECT_EQ(slurp(dir / "b_recovered_markers.csv"), markers_csv({{205, 2}}));
}

// On a full disk or a read-only folder the journal may be the only copy of a
// crashed session: it stays until both files are written, and the next start
// (with room again) recovers it whole.
TEST(JournalRecovery, AJournalThatCannotBeWrittenOutStays) {
  TempDir dir;
  const std::string journal = dir / "s.journal";
  spit(journal, "# Corvane Live journal 1\n1\n2\nm1,4\n3\n");
  for (int writes_left : {0, 1}) {  // the recording fails; then only its markers
    testing::FullDisk full(writes_left);
    std::vector<Recovery> found = recover_journals(dir.path(), full);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_TRUE(found[0].failed) << writes_left;
    EXPECT_TRUE(std::filesystem::exists(journal)) << writes_left;
  }
  std::vector<Recovery> found = recover_journals(dir.path());
  ASSERT_EQ(found.size(), 1u);
  EXPECT_FALSE(found[0].failed);
  EXPECT_FALSE(std::filesystem::exists(journal));
  EXPECT_EQ(slurp(dir / "s_recovered.csv"), "1\n2\n3\n");
}

}  // namespace
}  // namespace cvn
