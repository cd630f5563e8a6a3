// The recording and markers formats and the names made from user input.
#include "base/recording.h"

#include <gtest/gtest.h>

namespace cvn {
namespace {

TEST(RecordingReader, AcceptsWhatOtherToolsWriteAndSkipsText) {
  std::string text =
      "ecg_uV\n"         // column title
      "  -12.5e1,7\r\n"  // aligned CSV with CR
      "12abc\n"          // number then letters
      "\n"               // blank
      "+42\n"
      "-\n"      // sign without digits
      "1e999\n"  // beyond a double: dropped, not infinity
      "3.5   \n"
      "7";  // last line without a line feed
  EXPECT_EQ(read_recording(text), (std::vector<double>{-125.0, 42.0, 3.5, 7.0}));
  // One column as a Windows tool writes it.
  EXPECT_EQ(read_recording("123\r\n-4\r\n"), (std::vector<double>{123.0, -4.0}));
  EXPECT_TRUE(read_recording("").empty());
  EXPECT_TRUE(read_recording("time,ecg\nabc\n").empty());
}

TEST(RecordingFormat, RoundsHalvesAwayFromZeroAndReadsBack) {
  EXPECT_EQ(format_recording({0.5, -0.5, 1.49, -2.5, 1234567.0, 0.0}),
            "1\n-1\n1\n-3\n1234567\n0\n");
  // The reader takes anything a double holds, so the writer must print it.
  std::vector<double> ints = {-32768, 0, 1, 65535, -7, 1e199, -1.7976931348623157e308};
  EXPECT_EQ(read_recording(format_recording(ints)), ints);
}

// A beat file from another tool or an old save: text, blank lines and negative values are
// left out and counted; 0 and very long intervals stay for the beat cleaning to judge.
// Intervals in a strap's 1/1024 s steps survive a write and a read exactly.
TEST(BeatFile, SkipsAndCountsBadLinesAndKeepsStrapStepsExact) {
  const BeatText read = read_beats("rr_ms\n812.5\r\n\n-3\n0\n3500,x\n  976.5625\nabc\n1e400\n");
  EXPECT_EQ(read.rr_seconds, (std::vector<double>{0.8125, 0, 3.5, 0.9765625}));
  EXPECT_EQ(read.skipped_lines, 5u);  // the header, the blank, -3, abc and the out-of-range
  EXPECT_EQ(read_beats("").skipped_lines, 0u);

  std::vector<double> strap;
  for (int k = 300; k < 2000; k += 7) strap.push_back(k / 1024.0);
  const std::string text = format_beats(strap);
  EXPECT_TRUE(text.starts_with("292.96875\n299.8046875\n")) << text.substr(0, 40);
  EXPECT_EQ(read_beats(text).rr_seconds, strap);
}

TEST(MarkersFile, PathRuleAndRoundTrip) {
  EXPECT_EQ(markers_path("/d/X_ECG.txt"), "/d/X_markers.csv");
  EXPECT_EQ(markers_path("/d/X_RR.txt"), "/d/X_markers.csv");  // a beat recording
  EXPECT_EQ(markers_path("/d/X.csv"), "/d/X_markers.csv");
  EXPECT_EQ(markers_path("/d.v2/noext"), "/d.v2/noext_markers.csv");
  EXPECT_EQ(markers_path("Anna_on5_off11_M40_20250302-140307.csv"),
            "Anna_on5_off11_M40_20250302-140307_markers.csv");

  std::vector<Marker> m = {{260, 3}, {261, 9}, {0, 1}, {2000000000, 5}};
  std::string csv = markers_csv(m);
  EXPECT_EQ(csv.substr(0, 45), "marker,sample_index,seconds\n3,260,2.000\n9,261");
  auto back = read_markers(csv);
  ASSERT_EQ(back.size(), m.size());
  for (std::size_t i = 0; i < m.size(); ++i) {
    EXPECT_EQ(back[i].sample, m[i].sample);
    EXPECT_EQ(back[i].key, m[i].key);
  }
  EXPECT_TRUE(read_markers("0,10\n10,10\n3,-1\n3\nx,1\n").empty());
}

TEST(MarkerTexts, SummaryStopsAfterTwelveAndCyclesSelectByTime) {
  EXPECT_EQ(marker_summary({}), "none");
  std::vector<Marker> m;
  for (int i = 0; i < 13; ++i) m.push_back({i * 130 + 13, i % 9 + 1});
  std::string s = marker_summary(m);
  EXPECT_TRUE(s.starts_with("1 @ 0.1 s, 2 @ 1.1 s")) << s;
  EXPECT_TRUE(s.ends_with("3 @ 11.1 s, ...")) << s;

  // 16 s cycles: cycle 0 is [0, 16), the marker at exactly 16 s is cycle 1.
  std::vector<Marker> c = {{0, 1}, {130 * 16 - 1, 2}, {130 * 16, 3}, {130 * 17, 4}};
  EXPECT_EQ(marker_keys_between(c, 0, 16), "1 2");
  EXPECT_EQ(marker_keys_between(c, 16, 32), "3 4");
  EXPECT_EQ(marker_keys_between(c, 32, 48), "");
}

TEST(FileNames, SanitisingAndNumbers) {
  EXPECT_EQ(sanitize_file_name("Anna"), "Anna");
  EXPECT_EQ(sanitize_file_name("  Anna Maria  "), "Anna_Maria");
  EXPECT_EQ(sanitize_file_name("äö/\\:*"), "recording");
  EXPECT_EQ(sanitize_file_name("__a-b.c__"), "a-b.c");
  EXPECT_EQ(sanitize_file_name(""), "recording");
  EXPECT_EQ(short_number(5.0), "5");
  EXPECT_EQ(short_number(5.5), "5.5");
  EXPECT_EQ(short_number(1.95), "1.95");
  // Exports are named after the recording, not its file.
  EXPECT_EQ(without_recording_extension("Sample 1.txt"), "Sample 1");
  EXPECT_EQ(without_recording_extension("a.CSV"), "a");
  EXPECT_EQ(without_recording_extension(".txt"), ".txt");
  EXPECT_EQ(without_recording_extension("v1.2"), "v1.2");
}

}  // namespace
}  // namespace cvn
