// A batch handed its recordings in memory (an upload that never touches the
// disk), dated by its clock.
#include "engine/batch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

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

}  // namespace
}  // namespace cvn
