// The recording report: page 1 with the summary rows and the heart-rate and
// log-power plots, page 2 with both heat-maps. Layout: docs/pdf.md.
#include <cmath>

#include "reports/export_files.h"
#include "reports/plot.h"
#include "reports/report.h"
#include "reports/report_page.h"

namespace cvn {
namespace detail {
namespace {

constexpr const char* kEcgSource = "Source: ECG, 130 samples per second";
constexpr const char* kRrSource = "Source: RR-interval export (no ECG recorded)";

PdfCanvas page_one(const RecordingReport& r) {
  PdfCanvas c;
  logo(c, r.logo);
  c.text(kAccent, PdfFont::kBold, kTitleSize, kLeft, 788, kTitle);
  c.text(kInk, PdfFont::kBold, 11, kLeft, 768, "Recording:");
  c.text(kInk, PdfFont::kRegular, 11, kLeft + text_width(PdfFont::kBold, 11, "Recording: "), 768,
         fit(r.name, PdfFont::kRegular, 11, kRight - kLeft - 70));
  // Said outright: without ECG nobody can re-check the beats, and the
  // heart rate is only as good as the program that wrote the intervals.
  c.text(r.rr_only ? kInk : kMuted, PdfFont::kRegular, kBodySize, kLeft, 754,
         r.rr_only ? kRrSource : kEcgSource);
  c.line_width(1);
  c.line(kAccent, kLeft, 746, kRight, 746);

  constexpr double kRowHeight = 15;
  double y = 739;
  for (std::size_t i = 0; i < r.summary.size(); ++i) {
    y -= kRowHeight;
    if (i % 2 == 0) c.fill_rect(kZebra, kLeft, y, kRight - kLeft, kRowHeight);
    c.text(kMuted, PdfFont::kBold, 9, kLeft + 6, y + 4.5, r.summary[i].label);
    c.text(kInk, PdfFont::kRegular, kBodySize, kLeft + 130, y + 4.5,
           fit(r.summary[i].value, PdfFont::kRegular, kBodySize, kRight - kLeft - 136));
  }

  const double mean_hr = finite_mean(r.hr);
  heading(c, 588, "HR (BPM)",
          std::isfinite(mean_hr) ? fixed("Mean HR: %.1f BPM", mean_hr) : std::string());
  heart_rate_plot(c, {kPlotLeft, 398, kRight - kPlotLeft, 178}, r.hr, r.markers);
  double x = kPlotLeft;
  x = legend_item(c, x, 350, "heart rate", LegendMark::kHeartRate);
  x = legend_item(c, x, 350, "mean", LegendMark::kMean);
  if (!r.markers.empty()) legend_item(c, x, 350, "marker (its key on top)", LegendMark::kMarker);

  const double mean = finite_mean(r.cvn);
  heading(c, 324, "CVN (logpower)",
          std::isfinite(mean) ? fixed("pow (mean): %.3f", mean) : std::string());
  cvn_plot(c, {kPlotLeft, 134, kRight - kPlotLeft, 178}, {{&r.cvn, kCvnBlue}}, true,
           r.cvn.empty() ? "(recording shorter than one breathing cycle)"
                         : "(no cycle had usable heart rate)");
  x = legend_item(c, kPlotLeft, 86, "one breathing cycle (a gap: no usable heart rate)",
                  LegendMark::kCycle);
  legend_item(c, x, 86, "mean", LegendMark::kMean);

  footer(c, 1, 2, r.name);
  return c;
}

PdfCanvas page_two(const RecordingReport& r) {
  PdfCanvas c;
  logo(c, r.logo);
  c.text(kAccent, PdfFont::kBold, 16, kLeft, 790, "Time-frequency maps of the heart rate");
  c.text(kInk, PdfFont::kBold, kBodySize, kLeft, 772, "Recording:");
  c.text(kInk, PdfFont::kRegular, kBodySize,
         kLeft + text_width(PdfFont::kBold, kBodySize, "Recording: "), 772,
         fit(r.name, PdfFont::kRegular, kBodySize, 300));
  c.line_width(1);
  c.line(kAccent, kLeft, 756, kRight, 756);

  heading(c, 734, "TFR - high time resolution", "");
  text_right(c, kMuted, PdfFont::kRegular, 8, kRight, 734, "3-cycle Morlet wavelet");
  heat_map(c, {kPlotLeft, 494, kMapRight - kPlotLeft, 230}, "Im1", !r.tfr3.rgb.empty(),
           r.duration_seconds, r.expected_freq);
  heading(c, 428, "TFR - high frequency resolution", "");
  text_right(c, kMuted, PdfFont::kRegular, 8, kRight, 428, "10-cycle Morlet wavelet");
  heat_map(c, {kPlotLeft, 188, kMapRight - kPlotLeft, 230}, "Im2", !r.tfr10.rgb.empty(),
           r.duration_seconds, r.expected_freq);

  constexpr double kLegendY = 122;
  c.text(kInk, PdfFont::kBold, 9, kLeft, kLegendY + 18, "How to read the maps");
  c.text(kMuted, PdfFont::kRegular, 8, kLeft, kLegendY + 1, "Power, low to high:");
  colour_legend(c, kLeft + 100, kLegendY, 120, false);
  c.text(kMuted, PdfFont::kRegular, 8, kLeft + 240, kLegendY + 1,
         "Below the age/sex reference level:");
  colour_legend(c, kLeft + 375, kLegendY, 108, true);
  c.text(kMuted, PdfFont::kRegular, 8, kLeft, kLegendY - 16,
         fixed("Green line: the expected breathing frequency (%.4f Hz). Dark vertical lines: the "
               "start of each breathing cycle.",
               r.expected_freq));
  c.text(
      kMuted, PdfFont::kRegular, 8, kLeft, kLegendY - 28,
      "A strong, steady band on the green line means the heart rate follows the paced breathing.");

  footer(c, 2, 2, r.name);
  return c;
}

}  // namespace
}  // namespace detail

std::string recording_report_pdf(const RecordingReport& r) {
  // Object numbers as docs/pdf.md lists them: the pages, their contents, the
  // fonts, the maps, the logo last.
  PdfDocument doc;
  const int page1 = doc.add_page();
  const int page2 = doc.add_page();
  const int content1 = doc.add_content(detail::page_one(r));
  const int content2 = doc.add_content(detail::page_two(r));
  doc.add_fonts();
  const int tfr3 = doc.add_image(detail::or_blank(pdf_image(r.tfr3)));
  const int tfr10 = doc.add_image(detail::or_blank(pdf_image(r.tfr10)));
  std::vector<PdfXObject> logo_image;
  if (!r.logo.empty()) logo_image.push_back({"Logo", doc.add_jpeg(r.logo)});
  doc.set_page(page1, content1, logo_image);
  std::vector<PdfXObject> maps = {{"Im1", tfr3}, {"Im2", tfr10}};
  maps.insert(maps.end(), logo_image.begin(), logo_image.end());
  doc.set_page(page2, content2, maps);
  return doc.file();
}

}  // namespace cvn
