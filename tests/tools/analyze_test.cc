// corvane-analyze as a script would call it: one JSON object on success,
// a message and a distinct exit status for each kind of failure.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "analysis/pipeline.h"
#include "analysis/resonance.h"
#include "base/breathing.h"
#include "base/files.h"
#include "base/recording.h"
#include "server/snapshot_json.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

using test::ChildProcess;
using test::TempDir;

struct Outcome {
  int status;
  std::string out, err;
};

Outcome analyze(std::vector<std::string> args) {
  args.insert(args.begin(), CVN_ANALYZE_BINARY);
  ChildProcess p(args, {"PATH=/usr/bin:/bin"});
  int status = p.wait_exit(60000);
  return {status, p.out(), p.err()};
}

std::string sample(int n) {
  return std::string(CVN_SOURCE_DIR) + "/assets/Sample " + std::to_string(n) + ".txt";
}

TEST(Analyze, SampleGivesOneJsonObjectAndBothImages) {
  TempDir out;
  Outcome r = analyze({"--indur", "2", "--outdur", "8", "--png-dir", out.path(), sample(2)});
  ASSERT_EQ(r.status, 0) << r.err;
  // Read as 260 Hz, the recording halves to 130 Hz.
  EXPECT_NE(analyze({"--fs", "260", sample(1)}).out.find("\"samples\":17160,"), std::string::npos);
  EXPECT_TRUE(r.out.starts_with("{") && r.out.find_last_of('}') != std::string::npos);
  for (const char* key : {"\"samples\":23920", "\"rr\":[", "\"hr\":[", "\"cycle_bounds\":[0,1300,",
                          "\"cvn\":[", "\"expected_freq\":0.1", "\"expected_row\":160",
                          "\"stats\":{", "\"scale\":{", "\"hrv\":{\"n_beats\":",
                          ",\"peak_trough_hr\":", "},\"rf\":null,\"png_bytes\":[", "\"timings\":{"})
    EXPECT_NE(r.out.find(key), std::string::npos) << key;
  for (const char* png : {"tfr3.png", "tfr10.png"}) {
    std::string bytes = test::slurp(out / png);
    ASSERT_GT(bytes.size(), 1000u) << png;
    EXPECT_EQ(bytes.substr(1, 3), "PNG");
  }
}

// The "rf" object is the one /rf_result gives for the same recording: score_rf on the
// pipeline's beats, heart rate and length, written by rf_result_json.
TEST(Analyze, AssessmentGivesTheServersRfObject) {
  Outcome r = analyze({"--protocol", "rf", "--rates", "6.5,6,5.5", "--step-s", "120", sample(1)});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::size_t from = r.out.find(",\"rf\":"), to = r.out.find(",\"png_bytes\":");
  ASSERT_TRUE(from != std::string::npos && to > from) << r.out.substr(0, 200);

  const std::vector<double> samples = read_recording(*read_file(sample(1)));
  const RecordingAnalysis a =
      analyze_recording(EcgSamples{samples}, BreathingSettings{}.cycle_seconds());
  const RfResult want = score_rf(RfProtocol{{6.5, 6, 5.5}}, a.rr, a.hr, a.duration_seconds);
  ASSERT_TRUE(std::isfinite(want.recommended_bpm)) << "264 s: two whole steps to compare";
  EXPECT_EQ(r.out.substr(from + 6, to - from - 6), rf_result_json(want));
}

TEST(Analyze, FailuresHaveMessagesAndDistinctStatuses) {
  TempDir dir;
  test::spit(dir / "short.txt", "1\n2\n3\n");
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* says;
  } cases[] = {
      {{}, 2, "no FILE given"},
      {{"--bogus", "x"}, 2, "unknown option"},
      {{"--indur", "abc", sample(1)}, 2, "not a number"},
      {{dir / "missing.txt"}, 3, "cannot open"},
      {{dir.path()}, 3, "folder"},
      {{dir / "short.txt"}, 1, "too short"},
      // An assessment's refusals are the session request's sentences.
      {{"--protocol", "rf", "--rates", "6.5,11", sample(1)},
       2,
       "Rates must be 2 to 8 numbers from 3 to 10 breaths per minute."},
      {{"--protocol", "rf", "--infrac", "0.7", sample(1)}, 2, "breathing-in share"},
      {{"--protocol", "paced", sample(1)}, 2, "--protocol must be free or rf"},
      {{"--rates", "6,5", sample(1)}, 2, "need --protocol rf"},
  };
  for (const Case& c : cases) {
    Outcome r = analyze(c.args);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

}  // namespace
}  // namespace cvn
