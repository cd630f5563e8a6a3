// The "Compute TFR" job: from a replayed recording to the two pictures the browser shows.
#include "engine/tfr_images.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <string_view>

#include "analysis/heart_rate.h"
#include "analysis/png.h"
#include "assets/assets.h"
#include "base/recording.h"
#include "engine/engine.h"
#include "tests/support/png_reader.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using namespace std::chrono_literals;
using test::wait_until;

struct Picture : test::DecodedPng {
  std::array<int, 3> at(std::uint32_t x, std::uint32_t y) const {
    const std::size_t i = (std::size_t{y} * width + x) * 3;
    return {pixels[i], pixels[i + 1], pixels[i + 2]};
  }
};

// A data URI's PNG, read the way a browser would: 8-bit RGB, every CRC, all the image data.
testing::AssertionResult read_picture(const std::string& uri, Picture& out) {
  if (!uri.starts_with(kPngDataUriPrefix)) return testing::AssertionFailure() << "prefix";
  const auto png = test::base64_decode(std::string_view(uri).substr(kPngDataUriPrefix.size()));
  testing::AssertionResult ok = test::decode_png(png, 3, &out);
  if (ok && out.ihdr[8] == 8 && out.ihdr[9] == 2) return ok;
  return ok ? testing::AssertionFailure() << "not RGB8" : ok;
}

TEST(TfrJob, FullReplayEndsWithTheFinalAnalysisAndGivesTwoPictures) {
  test::TempDir data;
  std::filesystem::create_directories(data / "sample_data");
  ASSERT_TRUE(
      test::spit(data / "sample_data/Sample 1.txt", std::string(*find_asset("Sample 1.txt"))));
  Engine engine(data.path(), nullptr);
  ASSERT_TRUE(engine.start_replay(data / "sample_data/Sample 1.txt", {}, {200.0, ""}).ok());
  ASSERT_TRUE(wait_until([&] { return !engine.running(); }, 10s));
  const Snapshot s = engine.snapshot();
  EXPECT_EQ(s.samples, s.replay_total);
  EXPECT_NEAR(s.hr, 65, 15);
  EXPECT_GT(s.rr_count, 200);
  EXPECT_FALSE(std::isnan(s.cvn));
  // One heart-rate point per 0.1 s grid time of the whole recording.
  EXPECT_EQ(s.hr_series->size(), time_grid(s.samples, kSampleRate, 0.1).size());

  engine.start_tfr();
  ASSERT_TRUE(wait_until([&] { return engine.tfr().state != JobState::kRunning; }, 20s));
  const TfrResult t = engine.tfr();
  ASSERT_EQ(t.state, JobState::kDone) << t.message;
  for (const std::string* uri : {&t.tfr3_uri, &t.tfr10_uri}) {
    Picture p;
    ASSERT_TRUE(read_picture(*uri, p));
    EXPECT_EQ(p.width, 1200u);
    EXPECT_EQ(p.height, 320u);  // one pixel row per frequency
    // The session's 16 s cycle reached the job: the green line on the rows of
    // 0.0625 Hz (row 85 from the bottom). The rest of the picture is render_tfr's.
    const std::array<int, 3> green = {20, 150, 20};
    EXPECT_EQ(p.at(500, 319 - 85), green);
  }
}

TEST(TfrJob, TooLittleRecordingIsExplained) {
  const std::vector<double> sample = read_recording(*find_asset("Sample 1.txt"));
  TfrInput in;
  // Too few beats is api_test's; here there are beats, but under 16 s.
  in.samples.assign(sample.begin(), sample.begin() + 10 * 130);
  const TfrImages short_one = compute_tfr_images(in);
  EXPECT_EQ(short_one.error, "Could not compute TFR (recording may be too short).");
  EXPECT_TRUE(short_one.tfr3_uri.empty());
  in.breathing.outdur = 5;  // ...which is a whole cycle of 10 s
  const TfrImages ok = compute_tfr_images(in);
  EXPECT_EQ(ok.error, "");
  Picture p;
  EXPECT_TRUE(read_picture(ok.tfr10_uri, p));
  EXPECT_EQ(p.width, 1200u);
}

}  // namespace
}  // namespace cvn
