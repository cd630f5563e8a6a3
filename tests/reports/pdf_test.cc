// The PDF reports as readers see them: our own cross-reference check, then
// qpdf, pdfinfo, pdftotext, pdfimages and pdftoppm from poppler.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <set>

#include "assets/assets.h"
#include "base/files.h"
#include "reports/pdf.h"
#include "reports/report.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

using test::have_tool;
using test::run_tool;

ReportLogo bundled_logo() {
  ReportLogo logo;
  logo.jpeg = std::string(*find_asset("report_logo.jpg"));
  jpeg_frame_size(logo.jpeg, &logo.width, &logo.height);
  return logo;
}

RgbImage gradient(int w, int h) {
  RgbImage im{w, h, std::vector<std::uint8_t>(static_cast<std::size_t>(w) * h * 3)};
  for (std::size_t i = 0; i < im.rgb.size(); ++i) im.rgb[i] = static_cast<std::uint8_t>(i * 7);
  return im;
}

RecordingReport example_report() {
  RecordingReport r;
  r.name = "Zoë (pilot) 'B' \\ 2";
  r.summary = {{"Date", "2025-03-02 14:03"},
               {"Sex / Age", "F / 45"},
               {"Markers", "3 @ 12.5 s, 1 @ 20.0 s"},
               {"R-peaks", "321"}};
  for (int i = 0; i < 3000; ++i) r.hr.push_back(70 + 8 * std::sin(i * 0.04));
  r.markers = {{1625, 3}, {2600, 1}};
  r.cvn = {5.1, NAN, 5.3, 5.2};
  r.tfr3 = gradient(300, 320);
  r.tfr10 = gradient(300, 320);
  r.expected_freq = 0.0625;
  r.duration_seconds = 300;
  r.logo = bundled_logo();
  return r;
}

SummaryEntry recording(const std::string& file, int cycles) {
  SummaryEntry e;
  e.file = file;
  e.duration_seconds = cycles * 16.0;
  e.beats = static_cast<std::size_t>(cycles) * 18;
  for (int i = 0; i < cycles; ++i) e.cvn.push_back(11 + std::sin(i * 0.7));
  e.cvn_mean = 11.25;
  e.map3 = pdf_image(gradient(600, 160));
  e.map10 = pdf_image(gradient(600, 160));
  return e;
}

// Two persons, three recordings, one of them failed.
SummaryReport example_summary() {
  SummaryReport s;
  s.name = "Ward (B) study";
  s.created = 1740920587;
  SummaryEntry failed;
  failed.file = "a2.txt";
  // Longer than the lines it may take: cut, and marked so once.
  failed.error = "Could not read a2.txt: Permission denied";
  for (int i = 0; i < 30; ++i) failed.error += " /media/study" + std::to_string(i);
  SummaryEntry rr = recording("ben_hrv.csv", 20);
  rr.rr_only = true;
  s.persons = {{"Anna B", {recording("a1.txt", 14), failed}}, {"Ben C", {rr}}};
  s.expected_freq = 0.0625;
  s.logo = bundled_logo();
  return s;
}

class ReportPdf : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new test::TempDir;
    ASSERT_EQ(write_file_checked(report(), recording_report_pdf(example_report())), "");
    ASSERT_EQ(write_file_checked(summary(), summary_report_pdf(example_summary())), "");
    RecordingReport no_logo = example_report();
    no_logo.logo = {};  // one object fewer
    ASSERT_EQ(write_file_checked(*dir_ / "no_logo.pdf", recording_report_pdf(no_logo)), "");
  }
  static void TearDownTestSuite() { delete dir_; }
  void SetUp() override {
    if (!have_tool("/usr/bin/qpdf") || !have_tool("/usr/bin/pdftotext"))
      GTEST_SKIP() << "qpdf and poppler-utils are not installed";
  }
  static std::string report() { return *dir_ / "report.pdf"; }
  static std::string summary() { return *dir_ / "summary.pdf"; }
  static inline test::TempDir* dir_ = nullptr;
};

TEST(PdfFile, StringsAndNumbers) {
  EXPECT_EQ(pdf_string("a(b)\\c ë"), "a\\(b\\)\\\\c e");
  EXPECT_EQ(pdf_number(595.0) + " " + pdf_number(12.345) + " " + pdf_number(-0.001), "595 12.35 0");
}

// qpdf checks the structure and the cross-reference offsets; pdfinfo the page
// count and size; pdftoppm renders every page without a warning.
TEST_F(ReportPdf, QpdfPdfinfoAndPdftoppmFindNoFault) {
  for (const std::string& file : {report(), summary(), *dir_ / "no_logo.pdf"}) {
    test::ToolRun r = run_tool({"/usr/bin/qpdf", "--check", file});
    EXPECT_EQ(r.status, 0) << file << "\n" << r.out << r.err;
    EXPECT_NE(r.out.find("No syntax or stream encoding errors"), std::string::npos) << r.out;
    r = run_tool({"/usr/bin/pdfinfo", file});
    EXPECT_TRUE(std::regex_search(r.out, std::regex("Pages: +2\n"))) << r.out;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("Page size: +595 x 842 pts \\(A4\\)")))
        << r.out;
    r = run_tool({"/usr/bin/pdftoppm", "-r", "40", "-png", file, *dir_ / "page"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "") << file;
  }
}

TEST_F(ReportPdf, PdftotextFindsEveryText) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {report(),
       {"Corvane Live - report", "Recording: Zoe (pilot) 'B' \\ 2", "2025-03-02 14:03",
        "3 @ 12.5 s, 1 @ 20.0 s", "pow (mean): 5.200", "Mean HR: ", "HR (BPM)", "Time (s)",
        "CVN (logpower)", "Cycles", "TFR - high time resolution", "TFR - high frequency resolution",
        "Frequency (Hz)", "0.02", "0.10", "0.18", "0.0625 Hz", "Page 1 of 2", "Page 2 of 2"}},
      {summary(),
       // The head counts what failed, not what worked: a clean batch read as
       // failed (or the reverse) would discredit every number below it.
       {"Corvane Live - report", "Ward (B) study", "2 persons, 3 recordings, 1 failed",
        "Name: Anna B", "Name: Ben C", "a1.txt", "3:44 min", "252", "11.250",
        "Could not read a2.txt: Permission denied", "ben_hrv.csv", "RR export (no ECG)",
        "CVN (logpower)", "Cycles", "0.0625 Hz",
        "Batch processing: age & sex were not set per person, so the age/sex-normalised level\n"
        "may be inaccurate - the red/grey colour thresholds below should be ignored. For an\n"
        "interpretable report, use 'Import folder' and set the correct age and sex for this "
        "person.",
        "Page 1 of 2", "Page 2 of 2"}},
  };
  for (const auto& [file, texts] : cases) {
    test::ToolRun r = run_tool({"/usr/bin/pdftotext", file, "-"});
    ASSERT_EQ(r.status, 0) << r.err;
    for (const std::string& t : texts) EXPECT_NE(r.out.find(t), std::string::npos) << t;
    EXPECT_EQ(r.out.find("......"), std::string::npos) << r.out;
  }
  EXPECT_EQ(run_tool({"/usr/bin/pdftotext", summary(), "-"}).out.find("/media/study29"),
            std::string::npos);
}

TEST_F(ReportPdf, PdfimagesListsTheMapsAndTheJpegLogo) {
  // page num type width height color comp bpc enc ...
  const std::regex row(R"(\n +(\d) +\d+ +image +(\d+) +(\d+) +(\w+) +(\d) +8 +(\w+))");
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {report(),
       {"1 600x150 rgb jpeg", "2 600x150 rgb jpeg", "2 300x320 rgb image", "2 300x320 rgb image"}},
      // Each person's page carries that person's two maps.
      {summary(),
       {"1 600x150 rgb jpeg", "1 600x160 rgb image", "1 600x160 rgb image", "2 600x150 rgb jpeg",
        "2 600x160 rgb image", "2 600x160 rgb image"}},
  };
  for (const auto& [file, expected] : cases) {
    test::ToolRun r = run_tool({"/usr/bin/pdfimages", "-list", file});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> seen;
    for (std::sregex_iterator it(r.out.begin(), r.out.end(), row), end; it != end; ++it)
      seen.push_back((*it)[1].str() + " " + (*it)[2].str() + "x" + (*it)[3].str() + " " +
                     (*it)[4].str() + " " + (*it)[6].str());
    EXPECT_EQ(seen, expected) << r.out;
  }
}

// A person per page, a long list continued on the next, and every page's
// maps under the names /ImA and /ImB of its own resources.
TEST_F(ReportPdf, SummaryOfTwelvePersonsBreaksPages) {
  SummaryReport s = example_summary();
  s.age_sex_per_person = true;
  s.persons.clear();
  for (int i = 1; i <= 12; ++i)
    s.persons.push_back({"Person " + std::to_string(i), {recording("p.txt", 10 + i)}});
  for (int i = 0; i < 40; ++i) s.persons[2].entries.push_back(recording("more.txt", 30));
  const std::string pdf = summary_report_pdf(s);
  const std::string file = *dir_ / "twelve.pdf";
  ASSERT_EQ(write_file_checked(file, pdf), "");
  EXPECT_EQ(run_tool({"/usr/bin/qpdf", "--check", file}).status, 0);
  const std::regex maps(R"(/XObject << /Logo 5 0 R /ImA (\d+) 0 R /ImB (\d+) 0 R >>)");
  std::set<std::string> images;  // object numbers, distinct across pages
  for (std::sregex_iterator it(pdf.begin(), pdf.end(), maps), end; it != end; ++it) {
    images.insert((*it)[1].str());
    images.insert((*it)[2].str());
  }
  EXPECT_EQ(images.size(), 24u);
  test::ToolRun text = run_tool({"/usr/bin/pdftotext", file, "-"});
  for (const char* t : {"Name: Person 3 (continued)", "Name: Person 12", "Page 13 of 13"})
    EXPECT_NE(text.out.find(t), std::string::npos) << t;
  for (const char* t : {"Batch processing", "failed"})  // one age and sex each; nothing failed
    EXPECT_EQ(text.out.find(t), std::string::npos) << t;
}

}  // namespace
}  // namespace cvn
