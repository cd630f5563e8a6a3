// A batch handed its recordings in memory (an upload that never touches the
// disk), dated by its clock.
#include "engine/batch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "assets/assets.h"
#include "base/recording.h"
#include "tests/support/kubios_export.h"
#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

TEST(RunBatch, RecordingsInMemoryAtAFixedTime) {
  test::TempDir dir;
  std::vector<double> rr;
  for (int i = 0; i < 300; ++i) rr.push_back(0.9 + 0.1 * std::sin(i * 0.4));
  BatchRequest request;
  request.folder = dir / "not-there";  // listed, it would give no recordings at all
  request.single = true;
  request.report_name = "Anna";
  // In the order given: an upload's files are already in the order chosen.
  request.files = {{"morning.csv", "morning.csv", test::kubios_export(rr), {}},
                   {"evening.csv", "evening.csv", std::nullopt, rr}};
  ManualClock clock;
  const BatchOutcome out = run_batch(request, dir / "exports", {},
                                     [](int, int, const std::string&) {}, 1, {.clock = clock});
  ASSERT_EQ(out.error, "");
  const std::string summary = "Anna_" + file_time_stamp(clock.wall()) + "_summary_report.pdf";
  EXPECT_EQ(out.reports,
            (std::vector<std::string>{"Anna_morning_export/Anna_morning_report.pdf",
                                      "Anna_evening_export/Anna_evening_report.pdf", summary}));
  for (const std::string& report : out.reports)
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "exports/" + report)) << report;

  // Closing the program mid-batch: no further recording is started and no
  // summary claims a batch that did not run.
  std::stop_source closing;
  closing.request_stop();
  const BatchOutcome stopped =
      run_batch(request, dir / "stopped", {}, [](int, int, const std::string&) {}, 1,
                {.clock = clock, .stop = closing.get_token()});
  EXPECT_NE(stopped.error, "");
  EXPECT_TRUE(stopped.reports.empty());
  EXPECT_TRUE(std::filesystem::is_empty(dir / "stopped"));
}

// A folder as a study leaves it: an ECG recording, a strap's beat recording
// with its markers, and our own tables from an earlier export, which are not
// recordings. The beats are cleaned as a live session cleans them.
TEST(RunBatch, BeatRecordingsCountAndOurTablesDoNot) {
  test::TempDir dir;
  std::vector<double> rr;
  for (int i = 0; i < 300; ++i)
    rr.push_back(std::round((0.9 + 0.1 * std::sin(i * 0.4)) * 1024) / 1024);
  rr[100] = 0;  // a beat the strap missed
  test::spit(dir / "study/Kim_RR.txt", format_beats(rr));
  test::spit(dir / "study/Kim_markers.csv", markers_csv({{1300, 4}}));
  test::spit(dir / "study/Lea.txt", std::string(*find_asset("Sample 1.txt")));
  for (const char* ours : {"Lea_HRV.csv", "Lea_RR.csv", "Lea_RF.csv", "Lea_CVN_logpower.csv"})
    test::spit(dir / (std::string("study/") + ours), "index,value,unit\n1,2,3\n");
  BatchRequest request;
  request.folder = dir / "study";
  ManualClock clock;
  const BatchOutcome out = run_batch(request, dir / "exports", {},
                                     [](int, int, const std::string&) {}, 1, {.clock = clock});
  ASSERT_EQ(out.error, "");
  EXPECT_EQ(out.reports, (std::vector<std::string>{
                             "Kim_export/Kim_report.pdf", "Lea_export/Lea_report.pdf",
                             "study_" + file_time_stamp(clock.wall()) + "_summary_report.pdf"}))
      << out.reports.size();
  const std::string table = test::slurp(dir / "exports/Kim_export/Kim_RR.csv");
  EXPECT_NE(table.find(",1\n"), std::string::npos) << "the missed beat is marked as replaced";
  EXPECT_NE(test::slurp(dir / "exports/Kim_export/Kim_markers.csv").find("4,1300"),
            std::string::npos);
}

}  // namespace
}  // namespace cvn
