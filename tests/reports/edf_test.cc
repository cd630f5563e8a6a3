// The EDF+ file: its fixed header bytes, and what two independent readers
// (EDFlib and MNE) get back from it.
#include "reports/edf.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#ifdef CVN_HAVE_EDFLIB
#include <edflib.h>
#endif

#include "base/files.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

using test::have_tool;
using test::run_tool;

std::string bytes_of(const EdfRecording& r) {
  std::vector<std::uint8_t> b = edf_file(r);
  return std::string(b.begin(), b.end());
}

TEST(EdfFile, HeaderFieldsAndRecords) {
  EdfRecording r;
  r.samples = {12.5};
  r.name = "John Doe";
  r.start_time = 1740920587;  // 2025-03-02 13:03:07 UTC
  r.annotations = {{2.5, "Marker 3"}};
  std::string f = bytes_of(r);
  ASSERT_EQ(f.size(), 768u + 130 * 2 + 120)
      << "one record of 130 samples and 60 annotation samples";
  EXPECT_EQ(f.substr(0, 8), "0       ");
  EXPECT_EQ(f.substr(8, 16), "X X X John_Doe  ");
  EXPECT_EQ(f.substr(88, 10), "Startdate ");
  EXPECT_EQ(f.substr(88 + 21, 15), " X X CorvaneLiv");
  EXPECT_EQ(f.substr(184, 8), "768     ");
  EXPECT_EQ(f.substr(192, 6), "EDF+C ");
  EXPECT_EQ(f.substr(236, 8 + 8 + 4), "1       1       2   ");
  EXPECT_EQ(f.substr(256, 32), "ECG             EDF Annotations ");
  EXPECT_EQ(f.substr(256 + 216 * 2, 16), "130     60      ");
  EXPECT_EQ(f.substr(768, 4), std::string("\x0D\x00\x00\x00", 4)) << "12.5 rounds away from zero";
  // The marker past the only record's end still lands in it.
  EXPECT_EQ(f.substr(768 + 260, 27), std::string("+0\x14\x14\0+2.500\x14Marker 3\x14\0\0\0\0\0\0", 27));

  r.name = "";
  EXPECT_EQ(bytes_of(r).substr(8, 10), "X X X X   ");
  r.signal = edf_heart_rate_signal();
  r.sample_rate = 10;
  r.samples = {61.234};
  f = bytes_of(r);
  EXPECT_EQ(f.substr(256, 32), "HR              EDF Annotations ");
  EXPECT_EQ(f.substr(256 + 192, 48), "bpm             0       -1      327.67  1       ");
  EXPECT_EQ(f.substr(768, 2), std::string("\xEB\x17", 2)) << "6123 steps of 0.01 bpm";
  r.sample_rate = 0;
  EXPECT_TRUE(edf_file(r).empty());
  r.sample_rate = 130;
  r.samples.clear();
  EXPECT_TRUE(edf_file(r).empty());
}

// Samples: plain, beyond both clip limits, halves; markers: ordinary ones, one
// at exactly a record boundary, and a crowded second that needs more than the
// usual 120 annotation bytes.
struct Written {
  EdfRecording rec;
  std::vector<int> digital;
  std::vector<std::pair<double, std::string>> markers;  // sorted by time
};

// The ECG in microvolts at 130 Hz, or (`heart_rate`) a beat recording's heart rate in bpm at
// 10 Hz, 0.01 bpm per step, with a gap (NaN, stored as 0).
Written example(bool heart_rate = false) {
  Written w;
  w.rec.name = "Zoë (pilot)";
  w.rec.start_time = 1740920587;
  if (heart_rate) {
    w.rec.signal = edf_heart_rate_signal();
    w.rec.sample_rate = 10;
  }
  const int n = w.rec.sample_rate * 5 + 7;
  for (int i = 0; i < n; ++i) {
    double v = heart_rate ? 70 + 12.345 * std::sin(i * 0.3)
                          : 400.0 * std::sin(i * 0.1) + (i % 2 ? 0.5 : -0.5);
    if (i == 10) v = heart_rate ? 400 : 40000;
    if (i == 11) v = heart_rate ? NAN : -40000;
    w.rec.samples.push_back(v);
    const double step = heart_rate ? 100 * (std::isnan(v) ? 0 : v) : v;
    const double limit = 32767;
    w.digital.push_back(
        static_cast<int>(std::round(std::clamp(step, heart_rate ? 0 : -limit, limit))));
  }
  w.rec.annotations = {{4.2, "Marker 2"}, {1.0, "Marker 1"}, {0.25, "Marker 9"}};
  for (int k = 0; k < 14; ++k)
    w.rec.annotations.push_back({3.0 + k * 0.05, "Marker " + std::to_string(k % 9 + 1)});
  for (const auto& a : w.rec.annotations) w.markers.emplace_back(a.seconds, a.label);
  std::sort(w.markers.begin(), w.markers.end());
  return w;
}

// Writes the example of the parameter's kind to x.edf for a reader.
class EdfReaders : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { ASSERT_EQ(write_file(file, bytes_of(w.rec)).message(), ""); }
  test::TempDir dir;
  const Written w = example(GetParam());
  const std::string file = dir / "x.edf";
};

TEST_P(EdfReaders, EdflibReadsSamplesAndEveryAnnotation) {
#ifndef CVN_HAVE_EDFLIB
  GTEST_SKIP() << "EDFlib (libedf-dev) is not installed";
#else
  edf_hdr_struct hdr{};
  ASSERT_EQ(edfopen_file_readonly(file.c_str(), &hdr, EDFLIB_READ_ALL_ANNOTATIONS), 0)
      << "EDFlib error " << hdr.filetype;
  EXPECT_EQ(hdr.filetype, EDFLIB_FILETYPE_EDFPLUS);
  EXPECT_STREQ(hdr.patient_name, "Zoe (pilot)");
  ASSERT_EQ(hdr.edfsignals, 1);
  const int n = static_cast<int>(hdr.signalparam[0].smp_in_file);
  ASSERT_EQ(n, w.rec.sample_rate * 6);
  EXPECT_TRUE(
      std::string(hdr.signalparam[0].physdimension).starts_with(w.rec.signal.dimension + " "));
  std::vector<int> digital(n);
  ASSERT_EQ(edfread_digital_samples(hdr.handle, 0, n, digital.data()), n);
  digital.resize(w.digital.size());
  EXPECT_EQ(digital, w.digital);
  std::vector<double> physical(n);
  ASSERT_EQ(edfseek(hdr.handle, 0, 0, EDFSEEK_SET), 0);
  ASSERT_EQ(edfread_physical_samples(hdr.handle, 0, n, physical.data()), n);
  EXPECT_NEAR(physical[3], w.rec.samples[3], GetParam() ? 0.005 : 0.5);

  ASSERT_EQ(hdr.annotations_in_file, static_cast<long long>(w.markers.size()));
  for (int i = 0; i < hdr.annotations_in_file; ++i) {
    edf_annotation_struct a{};
    ASSERT_EQ(edf_get_annotation(hdr.handle, i, &a), 0);
    EXPECT_EQ(a.onset / 10000, std::llround(w.markers[i].first * 1000)) << i;
    EXPECT_EQ(a.annotation, w.markers[i].second) << i;
  }
  edfclose_file(hdr.handle);
#endif
}

TEST_P(EdfReaders, MneReadsTheSameSamplesAndAnnotations) {
  const std::string python = "/usr/bin/python3";
  if (!have_tool(python) || run_tool({python, "-c", "import mne"}).status != 0)
    GTEST_SKIP() << "python3-mne is not installed";
  test::ToolRun r = run_tool(
      {python, std::string(CVN_SOURCE_DIR) + "/tests/reports/read_edf.py", file}, dir.path());
  ASSERT_EQ(r.status, 0) << r.err;
  std::ostringstream want;
  want << "samples " << w.rec.sample_rate * 6 << "\n";
  char line[64];
  for (const auto& [t, label] : w.markers) {
    std::snprintf(line, sizeof line, "%.3f %s\n", t, label.c_str());
    want << line;
  }
  EXPECT_EQ(r.out, want.str());
}

INSTANTIATE_TEST_SUITE_P(EcgAndHeartRate, EdfReaders, testing::Bool());

}  // namespace
}  // namespace cvn
