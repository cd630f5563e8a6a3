#include "engine/import.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tests/support/kubios_export.h"

namespace cvn {
namespace {

std::vector<double> ramp(std::size_t n) {
  std::vector<double> x(n);
  for (std::size_t i = 0; i < n; ++i) x[i] = static_cast<double>(i);
  return x;
}

TEST(Resample, LinearInterpolationTo130PerSecond) {
  // 65 per second doubles the count; output i reads input i / 2, the last ones hold the
  // last input.
  const std::vector<double> up = resample(ramp(10), 65);
  ASSERT_EQ(up.size(), 20u);
  for (std::size_t i = 0; i < 19; ++i) EXPECT_DOUBLE_EQ(up[i], std::min(i / 2.0, 9.0)) << i;
  EXPECT_DOUBLE_EQ(up[19], 9.0);
  // 400 samples at 260 per second are 200 at 130.
  const std::vector<double> down = resample(ramp(400), 260);
  ASSERT_EQ(down.size(), 200u);
  EXPECT_DOUBLE_EQ(down[7], 14.0);
  // 1000 Hz: 1000 samples become 130, read at 0, 7.69..., ...
  const std::vector<double> fast = resample(ramp(1000), 1000);
  ASSERT_EQ(fast.size(), 130u);
  EXPECT_NEAR(fast[1], 1000.0 / 130, 1e-12);
  EXPECT_EQ(resample(ramp(5), 260).size(), 3u);  // 2.5 samples: halves round away from zero
}

TEST(Resample, LeavesTheInputAloneWhenThereIsNothingToDo) {
  const std::vector<double> x = ramp(400);
  struct Case {
    const char* what;
    std::vector<double> in;
    double rate;
  } cases[] = {
      {"130 Hz", x, 130},
      {"within half a hertz of 130", x, 130.4},
      {"just inside below", x, 129.6},
      {"zero rate", x, 0},
      {"negative rate", x, -250},
      {"NaN rate", x, std::nan("")},
      {"infinite rate", x, INFINITY},
      {"one sample", {5.0}, 65},
      {"fewer than two outputs", ramp(3), 400},
  };
  for (const Case& c : cases) EXPECT_EQ(resample(c.in, c.rate), c.in) << c.what;
  EXPECT_EQ(resample(x, 130.5).size(), 398u);  // half a hertz away is resampled: 398.47
}

TEST(Kubios, RecognisedByContent) {
  EXPECT_TRUE(looks_like_kubios(test::kubios_export({0.8, 0.9, 1.0})));
  EXPECT_TRUE(looks_like_kubios("sep=,\n12\n13\n"));  // a raw ECG CSV with the hint is Kubios
  EXPECT_TRUE(looks_like_kubios("x\r\nSEP=;\r\n"));
  EXPECT_TRUE(looks_like_kubios("Title\nHRV Analysis Results\n"));
  EXPECT_FALSE(looks_like_kubios("12\n-40\n512\n"));
  EXPECT_FALSE(looks_like_kubios(std::string(4000, '1') + "kubios"));  // beyond the preamble
}

TEST(Kubios, ReadsTheRrColumnWhereverTheOtherColumnsEnd) {
  const std::vector<double> rr = {0.812, 0.9, 1.05, 0.7, 0.95};
  std::vector<double> got = read_kubios_rr(test::kubios_export(rr, 40));
  ASSERT_EQ(got.size(), rr.size());
  for (std::size_t i = 0; i < rr.size(); ++i) EXPECT_NEAR(got[i], rr[i], 1e-6);
  // Milliseconds, as some exports write them, read as the same beats.
  EXPECT_EQ(read_kubios_rr("RR INTERVAL DATA\n,0.812,812\n,1.712,900\n"),
            (std::vector<double>{0.812, 0.9}));
  EXPECT_EQ(read_kubios_rr(test::kubios_export({0.8, 0.9})).size(), 2u);  // too few for a report
  EXPECT_TRUE(read_kubios_rr("sep=,\n,1,0.8\n,2,0.9\n").empty());         // no table title
  // A cell must be a whole number: "0.8 s" is a header, not a beat.
  EXPECT_TRUE(read_kubios_rr("RR INTERVAL DATA\n,1,0.8 s\n,x,0.8\n,2,nan\n,3,-1\n").empty());
}

TEST(ImportName, ExtensionDroppedAndSanitised) {
  EXPECT_EQ(import_name("My Data.txt"), "My_Data");
  EXPECT_EQ(import_name("a.b.csv"), "a.b");
  EXPECT_EQ(import_name("äö.txt"), "import");
  EXPECT_EQ(import_name(""), "import");
}

}  // namespace
}  // namespace cvn
