// The PDF reports as readers see them: our own cross-reference check, then
// qpdf, pdfinfo, pdftotext, pdfimages and pdftoppm from poppler.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <regex>
#include <set>
#include <tuple>

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

// In field order; the tests look for their printed form: one decimal for ms,
// bpm, % and power, two for LF/HF, four for the peaks.
HrvIndices example_hrv() {
  return {376,  1.86, 798.71,  38.14, 75.3,   3.62,  71.0, 79.04, 20.93,  12,      3.2, 14.8,
          51.9, 0.2,  1148.66, 197.1, 1346.0, 5.827, 85.4, 14.6,  0.0625, 0.26953, 8.04};
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
  r.hrv = example_hrv();
  r.logo = bundled_logo();
  return r;
}

// 90 s: the frequency indices are empty (the fields after sd2), so are min HR
// (one side of a pair) and NN50.
RecordingReport short_report() {
  RecordingReport r = example_report();
  r.duration_seconds = 90;
  r.hr.resize(900);
  r.hrv = {113, 1.86, 798.71, 38.14, 75.3, 3.62, NAN, 79.04, 20.93, -1, 3.2, 14.8, 51.4};
  return r;
}

RfStepScore rf_step(const RfStep& at, int finished, std::array<double, 6> scores) {
  RfStepScore s;
  s.step = at;
  s.reached = true;
  s.finished_breaths = finished;
  s.scored = finished >= 3;
  std::tie(s.peak_trough_hr, s.lf_power, s.lf_peak, s.phase_deg, s.amplitude_bpm, s.cvn) =
      std::tuple_cat(scores);
  return s;
}

// The example stopped at 300 s of the default protocol: two whole steps, the
// third with 2 of its 11 breaths (values, but not compared), two not reached;
// one LF power could not be computed.
RecordingReport rf_report() {
  RecordingReport r = example_report();
  RfResult rf;
  const std::vector<RfStep> steps = rf_schedule(rf.protocol);
  rf.steps = {rf_step(steps[0], 13, {6.31, 1488.73, 0.109244, 37.94, 3.15, 10.39}),
              rf_step(steps[1], 12, {7.52, NAN, 0.101053, -12.5, 3.73, 10.79}),
              rf_step(steps[2], 2, {9.77, 2739.22, 0.0926316, 37.64, 4.36, 11.34})};
  for (int i : {3, 4}) rf.steps.push_back({.step = steps[static_cast<std::size_t>(i)]});
  rf.recommended_bpm = 6;
  r.rf = rf;
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
  e.hrv = example_hrv();
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
  rr.hrv.lf_hf = HrvIndices::kEmpty;
  s.persons = {{"Anna B", {recording("a1.txt", 14), failed}}, {"Ben C", {rr}}};
  s.expected_freq = 0.0625;
  s.logo = bundled_logo();
  return s;
}

class ReportPdf : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new test::TempDir;
    ASSERT_EQ(write_file(report(), recording_report_pdf(example_report())).message(), "");
    ASSERT_EQ(write_file(summary(), summary_report_pdf(example_summary())).message(), "");
    RecordingReport no_logo = example_report();
    no_logo.logo = {};  // one object fewer
    ASSERT_EQ(write_file(*dir_ / "no_logo.pdf", recording_report_pdf(no_logo)).message(), "");
    ASSERT_EQ(write_file(short_report_file(), recording_report_pdf(short_report())).message(), "");
    ASSERT_EQ(write_file(rf_report_file(), recording_report_pdf(rf_report())).message(), "");
  }
  static void TearDownTestSuite() { delete dir_; }
  void SetUp() override {
    if (!have_tool("/usr/bin/qpdf") || !have_tool("/usr/bin/pdftotext"))
      GTEST_SKIP() << "qpdf and poppler-utils are not installed";
  }
  static std::string report() { return *dir_ / "report.pdf"; }
  static std::string summary() { return *dir_ / "summary.pdf"; }
  static std::string short_report_file() { return *dir_ / "short.pdf"; }
  static std::string rf_report_file() { return *dir_ / "rf.pdf"; }
  static inline test::TempDir* dir_ = nullptr;
};

TEST(PdfFile, StringsAndNumbers) {
  // Names keep their Latin-1 letters and typed quotes; what WinAnsi lacks is spelt out.
  EXPECT_EQ(pdf_string("a(b)\\c ë Ø’ł"), "a\\(b\\)\\\\c \\353 \\330\\222l");
  // The report's own en dash, ² and é as WinAnsi codes; widths from the AFM.
  EXPECT_EQ(pdf_string("0.04\u20130.15 ms\u00b2 Poincar\u00e9"),
            "0.04\\2260.15 ms\\262 Poincar\\351");
  EXPECT_DOUBLE_EQ(text_width(PdfFont::kRegular, 10, "\u2013\u00b2\u00e9"), 14.45);
  EXPECT_DOUBLE_EQ(text_width(PdfFont::kBold, 10, "\u00d8\u2019\u00fc"), 16.67);
  EXPECT_EQ(pdf_number(595.0) + " " + pdf_number(12.345) + " " + pdf_number(-0.001), "595 12.35 0");
}

// qpdf checks the structure and the cross-reference offsets; pdfinfo the page
// count (an assessment has a third) and size; pdftoppm renders every page
// without a warning.
TEST_F(ReportPdf, QpdfPdfinfoAndPdftoppmFindNoFault) {
  for (const std::string& file :
       {report(), summary(), *dir_ / "no_logo.pdf", short_report_file(), rf_report_file()}) {
    test::ToolRun r = run_tool({"/usr/bin/qpdf", "--check", file});
    EXPECT_EQ(r.status, 0) << file << "\n" << r.out << r.err;
    EXPECT_NE(r.out.find("No syntax or stream encoding errors"), std::string::npos) << r.out;
    r = run_tool({"/usr/bin/pdfinfo", file});
    const std::string pages = file == rf_report_file() ? "3" : "2";
    EXPECT_TRUE(std::regex_search(r.out, std::regex("Pages: +" + pages + "\n"))) << r.out;
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
       {"Corvane Live - report", "Recording: Zoë (pilot) 'B' \\ 2", "2025-03-02 14:03",
        "3 @ 12.5 s, 1 @ 20.0 s", "pow (mean): 5.200", "Mean HR: ", "HR (BPM)", "Time (s)",
        "CVN (logpower)", "Cycles", "TFR - high time resolution", "TFR - high frequency resolution",
        "Frequency (Hz)", "0.02", "0.10", "0.18", "0.0625 Hz", "Page 1 of 2", "Page 2 of 2"}},
      {rf_report_file(),
       {"step start (breaths/min on top)", "Page 1 of 3", "Page 2 of 3",
        "Resonance frequency assessment", "Recommended pace: 6.0 breaths/min",
        "One breath every 10.0 s: breathe in for 4.0 s, out for 6.0 s.", "Steps",
        "Heart-rate swing and LF power by breathing rate", "Breathing rate (breaths/min)",
        "Peak\u2013trough HR (bpm)", "LF power (ms\u00b2)", "recommended pace",
        "How to read the steps", "Page 3 of 3"}},
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

// pdftotext's layout mode with runs of blanks as one: a label, its value and
// its unit read as one line, the two columns of a row side by side.
std::string layout_text(const std::string& file) {
  test::ToolRun r = run_tool({"/usr/bin/pdftotext", "-layout", file, "-"});
  EXPECT_EQ(r.status, 0) << r.err;
  return std::regex_replace(r.out, std::regex(" +"), " ");
}

// The HRV block with its values, units and dashes, the short recording's
// note, and each summary row's line of indices.
TEST_F(ReportPdf, HrvBlockAndSummaryLinesReadAsValuesWithUnits) {
  const std::string kNote = "frequency measures need at least 2 minutes";
  const std::string full = layout_text(report());
  for (const char* t :
       {"HRV indices", "NN intervals 376 VLF (0\u20130.04 Hz) 0.2 ms\u00b2",
        "Artefacts corrected 1.9 % LF (0.04\u20130.15 Hz) 1148.7 ms\u00b2", "Mean NN 798.7 ms",
        "SDNN 38.1 ms Total power 1346.0 ms\u00b2", "Mean HR 75.3 bpm LF/HF 5.83",
        "SD HR 3.6 bpm LF, normalised 85.4 n.u.", "Min / max HR 71.0 / 79.0 bpm",
        "RMSSD 20.9 ms LF peak 0.0625 Hz", "NN50 (differences > 50 ms) 12 HF peak 0.2695 Hz",
        "pNN50 3.2 % SD1 (Poincar\u00e9 width) 14.8 ms",
        "Peak\u2013trough HR (mean per breath) 8.0 bpm SD2 (Poincar\u00e9 length) 51.9 ms"})
    EXPECT_NE(full.find(t), std::string::npos) << t;
  EXPECT_EQ(full.find(kNote), std::string::npos);

  const std::string part = layout_text(short_report_file());
  for (const char* t : {"VLF (0\u20130.04 Hz) \u2013 ms\u00b2", "Mean HR 75.3 bpm LF/HF \u2013\n",
                        "Min / max HR \u2013 / 79.0 bpm", "SD1 (Poincar\u00e9 width) 14.8 ms",
                        "NN50 (differences > 50 ms) \u2013 HF peak \u2013 Hz"})
    EXPECT_NE(part.find(t), std::string::npos) << t;
  EXPECT_NE(part.find(kNote), std::string::npos);

  const std::string summary_text = layout_text(summary());
  for (const char* t : {"RMSSD 20.9 ms SDNN 38.1 ms LF/HF 5.83 Peak\u2013trough HR 8.0 bpm",
                        "RMSSD 20.9 ms SDNN 38.1 ms LF/HF \u2013 Peak\u2013trough HR 8.0 bpm"})
    EXPECT_NE(summary_text.find(t), std::string::npos) << t;
}

// No word's box meets another's or the logo on any page (a value run into its
// label, the note into a heading, a map's ticks into the block, a long title
// under the logo), and none comes closer
// than 24 pt to the paper's edge, which printers may clip.
TEST_F(ReportPdf, NoWordMeetsAnother) {
  const std::regex word(
      R"re(<word xMin="([\d.]+)" yMin="([\d.]+)" xMax="([\d.]+)" yMax="([\d.]+)">([^<]*))re");
  for (const std::string& file : {report(), short_report_file(), summary(), rf_report_file()}) {
    const std::string html = run_tool({"/usr/bin/pdftotext", "-bbox", file, "-"}).out;
    std::size_t from = 0, to = 0;
    for (int page = 1; (to = html.find("</page>", from)) != std::string::npos; ++page) {
      const std::string text = html.substr(from, to - from);
      from = to + 1;
      std::vector<std::array<double, 4>> boxes;
      std::vector<std::string> words;
      if (file != short_report_file()) {
        // The 4:1 logo, 34 pt high at the top right of every page, counts as a word.
        boxes.push_back(
            {kPageWidth - 56 - 136, kPageHeight - 812, kPageWidth - 56, kPageHeight - 812 + 34});
        words.push_back("(logo)");
      }
      for (std::sregex_iterator it(text.begin(), text.end(), word), end; it != end; ++it) {
        boxes.push_back(
            {std::stod((*it)[1]), std::stod((*it)[2]), std::stod((*it)[3]), std::stod((*it)[4])});
        words.push_back((*it)[5]);
      }
      for (std::size_t i = 0; i < boxes.size(); ++i) {
        const auto [x0, y0, x1, y1] = boxes[i];
        EXPECT_TRUE(x0 >= 24 && x1 <= kPageWidth - 24 && y0 >= 24 && y1 <= kPageHeight - 24)
            << file << " page " << page << ": " << words[i];
        for (std::size_t j = i + 1; j < boxes.size(); ++j)
          EXPECT_FALSE(x0 < boxes[j][2] && boxes[j][0] < x1 && y0 < boxes[j][3] && boxes[j][1] < y1)
              << file << " page " << page << ": " << words[i] << " / " << words[j];
      }
    }
  }
}

// Page 3 in layout mode: a step per line with its values in column order, the
// partial step's breaths, dashes, "not reached"; page 1 flags the steps the
// recording reached, and only those. Without a step to recommend, the page
// says so.
TEST_F(ReportPdf, AssessmentPageReadsAsRows) {
  const std::string text = layout_text(rf_report_file());
  for (const char* t :
       {"6.5 13 6.3 1488.7 0.1092 37.9 3.1 10.39\n", "6.0 12 7.5 \u2013 0.1011 -12.5 3.7 10.79\n",
        "5.5 2 of 11 9.8 2739.2 0.0926 37.6 4.4 11.34\n", "5.0 not reached\n", "4.5 not reached\n",
        " 6.5 6.0 5.5\n"})
    EXPECT_NE(text.find(t), std::string::npos) << t;

  RecordingReport none = rf_report();
  none.rf->recommended_bpm = NAN;
  const std::string file = *dir_ / "rf_none.pdf";
  ASSERT_EQ(write_file(file, recording_report_pdf(none)).message(), "");
  const std::string said = layout_text(file);
  EXPECT_NE(said.find("No recommendation"), std::string::npos);
  EXPECT_EQ(said.find("Recommended pace"), std::string::npos);
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
  ASSERT_EQ(write_file(file, pdf).message(), "");
  EXPECT_EQ(run_tool({"/usr/bin/qpdf", "--check", file}).status, 0);
  const std::regex maps(R"(/XObject << /Logo 5 0 R /ImA (\d+) 0 R /ImB (\d+) 0 R >>)");
  std::set<std::string> images;  // object numbers, distinct across pages
  for (std::sregex_iterator it(pdf.begin(), pdf.end(), maps), end; it != end; ++it) {
    images.insert((*it)[1].str());
    images.insert((*it)[2].str());
  }
  EXPECT_EQ(images.size(), 24u);
  test::ToolRun text = run_tool({"/usr/bin/pdftotext", file, "-"});
  for (const char* t : {"Name: Person 3 (continued)", "Name: Person 12", "Page 14 of 14"})
    EXPECT_NE(text.out.find(t), std::string::npos) << t;
  for (const char* t : {"Batch processing", "failed"})  // one age and sex each; nothing failed
    EXPECT_EQ(text.out.find(t), std::string::npos) << t;
}

}  // namespace
}  // namespace cvn
