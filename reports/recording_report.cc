// The recording report: page 1 with the summary rows and the heart-rate and
// log-power plots, page 2 with the HRV indices and both heat-maps, and for a
// resonance assessment page 3 with its steps. Layout: docs/pdf.md.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "base/recording.h"
#include "reports/export_files.h"
#include "reports/plot.h"
#include "reports/report.h"
#include "reports/report_page.h"

namespace cvn {
namespace detail {
namespace {

constexpr const char* kEcgSource = "Source: ECG, 130 samples per second";
constexpr const char* kRrSource = "Source: RR-interval export (no ECG recorded)";

int page_count(const RecordingReport& r) {
  return r.rf ? 3 : 2;
}

// A rate as a pacer is set: one decimal ("5.0"), more only where the
// protocol has them ("5.25").
std::string rate_text(double bpm) {
  const std::string one = fixed("%.1f", bpm);
  return std::strtod(one.c_str(), nullptr) == bpm ? one : short_number(bpm);
}

// The steps the recording reached, where the heart-rate plot marks them.
std::vector<StepMark> step_marks(const RecordingReport& r) {
  std::vector<StepMark> marks;
  if (!r.rf) return marks;
  for (const RfStepScore& s : r.rf->steps)
    if (s.reached) marks.push_back({s.step.start_s, rate_text(s.step.bpm)});
  return marks;
}

PdfCanvas page_one(const RecordingReport& r) {
  PdfCanvas c;
  logo(c, r.logo);
  c.text(kAccent, PdfFont::kBold, kTitleSize, kLeft, 788, kTitle);
  c.text(kInk, PdfFont::kBold, 11, kLeft, 768, "Recording:");
  c.text(kInk, PdfFont::kRegular, 11, kLeft + text_width(PdfFont::kBold, 11, "Recording: "), 768,
         fit(r.name, PdfFont::kRegular, 11, kRight - kLeft - 70));
  // Said outright: without ECG nobody can re-check the beats, and the
  // heart rate is only as good as the program that wrote the intervals.
  const std::string source = !r.rr_only              ? kEcgSource
                             : r.beat_device.empty() ? kRrSource
                                                     : "Source: heart beats from " + r.beat_device;
  c.text(r.rr_only ? kInk : kMuted, PdfFont::kRegular, kBodySize, kLeft, 754,
         fit(source, PdfFont::kRegular, kBodySize, kRight - kLeft));
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
  // An assessment's step rates stand above the plot's frame, in room the
  // plot gives up.
  heart_rate_plot(c, {kPlotLeft, 398, kRight - kPlotLeft, r.rf ? 178 - kStepLabelRoom : 178}, r.hr,
                  r.markers, step_marks(r));
  double x = kPlotLeft;
  x = legend_item(c, x, 350, "heart rate", LegendMark::kHeartRate);
  x = legend_item(c, x, 350, "mean", LegendMark::kMean);
  if (!r.markers.empty())
    x = legend_item(c, x, 350, "marker (its key on top)", LegendMark::kMarker);
  if (r.rf) legend_item(c, x, 350, "step start (breaths/min on top)", LegendMark::kStep);

  const double mean = finite_mean(r.cvn);
  heading(c, 324, "CVN (logpower)",
          std::isfinite(mean) ? fixed("pow (mean): %.3f", mean) : std::string());
  cvn_plot(c, {kPlotLeft, 134, kRight - kPlotLeft, 178}, {{&r.cvn, kCvnBlue}}, true,
           r.cvn.empty() ? "(recording shorter than one breathing cycle)"
                         : "(no cycle had usable heart rate)");
  x = legend_item(c, kPlotLeft, 86, "one breathing cycle (a gap: no usable heart rate)",
                  LegendMark::kCycle);
  legend_item(c, x, 86, "mean", LegendMark::kMean);

  footer(c, 1, page_count(r), r.name);
  return c;
}

// Page 2 from the top: the HRV block, both heat-maps, their legend. The
// block's place is fixed whatever it holds (the note's line is kept when there
// is no note) so that reports of different recordings look alike.
constexpr double kHrvHeading = 734;
constexpr double kHrvHead = 712;  // lower edge of the columns' title band
constexpr double kHrvRow = 11.5;
constexpr int kHrvRows = 11;
constexpr double kHrvNote = kHrvHead - kHrvRows * kHrvRow - 12;
// Values end here within their column (decimals line up), units follow.
constexpr double kHrvValueRight = 172;
constexpr double kHrvColumn = (kRight - kLeft) / 2;
constexpr double kMapHeight = 165;
constexpr double kMapTop = kHrvNote - 30;  // the first map's heading sits 10 above
constexpr double kMapGap = 48;             // tick labels and "Time (s)" under a map
constexpr double kLegendY = kMapTop - 2 * kMapHeight - kMapGap - 10 - 64;

constexpr const char* kShortForSpectrum =
    "Empty (\u2013): frequency measures need at least 2 minutes of beats.";

struct HrvRow {
  std::string label;
  std::string value;
  const char* unit;
};

using Column = std::array<HrvRow, kHrvRows>;

std::string count_or_dash(int n) {
  return n == HrvIndices::kEmptyCount ? kNoValue : std::to_string(n);
}

Column time_domain(const HrvIndices& h) {
  std::string min_max = kNoValue;
  if (std::isfinite(h.min_hr) || std::isfinite(h.max_hr))
    min_max = fixed_or_dash("%.1f", h.min_hr) + " / " + fixed_or_dash("%.1f", h.max_hr);
  return {{
      {"NN intervals", std::to_string(h.n_beats), ""},
      {"Artefacts corrected", fixed_or_dash("%.1f", h.artefact_pct), "%"},
      {"Mean NN", fixed_or_dash("%.1f", h.mean_nn), "ms"},
      {"SDNN", fixed_or_dash("%.1f", h.sdnn), "ms"},
      {"Mean HR", fixed_or_dash("%.1f", h.mean_hr), "bpm"},
      {"SD HR", fixed_or_dash("%.1f", h.sd_hr), "bpm"},
      {"Min / max HR", min_max, "bpm"},
      {"RMSSD", fixed_or_dash("%.1f", h.rmssd), "ms"},
      {"NN50 (differences > 50 ms)", count_or_dash(h.nn50), ""},
      {"pNN50", fixed_or_dash("%.1f", h.pnn50), "%"},
      {"Peak\u2013trough HR (mean per breath)", fixed_or_dash("%.1f", h.peak_trough_hr), "bpm"},
  }};
}

Column frequency_and_poincare(const HrvIndices& h) {
  return {{
      {"VLF (0\u20130.04 Hz)", fixed_or_dash("%.1f", h.vlf), "ms\u00b2"},
      {"LF (0.04\u20130.15 Hz)", fixed_or_dash("%.1f", h.lf), "ms\u00b2"},
      {"HF (0.15\u20130.40 Hz)", fixed_or_dash("%.1f", h.hf), "ms\u00b2"},
      {"Total power", fixed_or_dash("%.1f", h.total_power), "ms\u00b2"},
      {"LF/HF", fixed_or_dash("%.2f", h.lf_hf), ""},
      {"LF, normalised", fixed_or_dash("%.1f", h.lf_nu), "n.u."},
      {"HF, normalised", fixed_or_dash("%.1f", h.hf_nu), "n.u."},
      // The Welch bins are finer than 0.001 Hz; four decimals compare with
      // the expected breathing frequency as the summary rows show it.
      {"LF peak", fixed_or_dash("%.4f", h.lf_peak), "Hz"},
      {"HF peak", fixed_or_dash("%.4f", h.hf_peak), "Hz"},
      {"SD1 (Poincar\u00e9 width)", fixed_or_dash("%.1f", h.sd1), "ms"},
      {"SD2 (Poincar\u00e9 length)", fixed_or_dash("%.1f", h.sd2), "ms"},
  }};
}

void hrv_block(PdfCanvas& c, const HrvIndices& h) {
  heading(c, kHrvHeading, "HRV indices", "");
  text_right(c, kMuted, PdfFont::kRegular, 8, kRight, kHrvHeading,
             "Task Force of the ESC and NASPE, 1996");
  c.fill_rect(kGrid, kLeft, kHrvHead, kRight - kLeft, 14);
  const Column columns[] = {time_domain(h), frequency_and_poincare(h)};
  const char* titles[] = {"Time domain", "Frequency domain and Poincar\u00e9 plot"};
  for (int i = 0; i < kHrvRows; i += 2)
    c.fill_rect(kZebra, kLeft, kHrvHead - (i + 1) * kHrvRow, kRight - kLeft, kHrvRow);
  for (int col = 0; col < 2; ++col) {
    const double x = kLeft + 6 + col * kHrvColumn;
    c.text(kInk, PdfFont::kBold, 9, x, kHrvHead + 4.5, titles[col]);
    for (int i = 0; i < kHrvRows; ++i) {
      const HrvRow& row = columns[col][i];
      const double y = kHrvHead - (i + 1) * kHrvRow + 3.5;
      c.text(kMuted, PdfFont::kRegular, 8, x, y, row.label);
      text_right(c, kInk, PdfFont::kRegular, kBodySize, x + kHrvValueRight, y, row.value);
      c.text(kMuted, PdfFont::kRegular, 8, x + kHrvValueRight + 3, y, row.unit);
    }
  }
  // The spectrum needs two minutes between the first and the last beat;
  // nearly always it is empty for that reason, so the note says it.
  if (!std::isfinite(h.total_power))
    c.text(kMuted, PdfFont::kRegular, 8, kLeft + 6 + kHrvColumn, kHrvNote, kShortForSpectrum);
}

// The head of the pages after the first: the logo, the page's title, the
// recording and a rule.
PdfCanvas later_page(const RecordingReport& r, const char* title) {
  PdfCanvas c;
  logo(c, r.logo);
  c.text(kAccent, PdfFont::kBold, 16, kLeft, 790, title);
  c.text(kInk, PdfFont::kBold, kBodySize, kLeft, 772, "Recording:");
  c.text(kInk, PdfFont::kRegular, kBodySize,
         kLeft + text_width(PdfFont::kBold, kBodySize, "Recording: "), 772,
         fit(r.name, PdfFont::kRegular, kBodySize, 300));
  c.line_width(1);
  c.line(kAccent, kLeft, 756, kRight, 756);
  return c;
}

PdfCanvas page_two(const RecordingReport& r) {
  PdfCanvas c = later_page(r, "HRV and time-frequency maps");
  hrv_block(c, r.hrv);

  const std::pair<const char*, const char*> maps[] = {
      {"TFR - high time resolution", "3-cycle Morlet wavelet"},
      {"TFR - high frequency resolution", "10-cycle Morlet wavelet"}};
  const char* names[] = {"Im1", "Im2"};
  const bool have[] = {!r.tfr3.rgb.empty(), !r.tfr10.rgb.empty()};
  double top = kMapTop;
  for (int i = 0; i < 2; ++i) {
    heading(c, top + 10, maps[i].first, "");
    text_right(c, kMuted, PdfFont::kRegular, 8, kRight, top + 10, maps[i].second);
    heat_map(c, {kPlotLeft, top - kMapHeight, kMapRight - kPlotLeft, kMapHeight}, names[i], have[i],
             r.duration_seconds, r.expected_freq);
    top -= kMapHeight + kMapGap + 10;
  }

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

  footer(c, 2, page_count(r), r.name);
  return c;
}

// Page 3 of an assessment from the top: the recommendation, the protocol,
// the table of steps and its notes, the two scores by rate and how to read
// them. The plots keep their place whatever the table's length (room for
// kRfMaxRates steps), so that assessments compare page for page.
constexpr PdfColor kRecommendTint{0.90, 0.94, 0.98};
constexpr double kRfBoxTop = 744;
constexpr double kRfBoxHeight = 46;
constexpr double kRfProtocolY = kRfBoxTop - kRfBoxHeight - 16;
constexpr double kRfHeading = kRfProtocolY - 28;
constexpr double kRfHead = kRfHeading - 38;  // lower edge of the two-line column titles
constexpr double kRfHeadHeight = 26;
constexpr double kRfRow = 14;
constexpr double kRfNotesBelow = 14;  // the first note's baseline under the last row
constexpr double kRfPlotsHeading = kRfHead - kRfMaxRates * kRfRow - kRfNotesBelow - 36;
constexpr double kRfPlotHeight = 140;
constexpr double kRfPlotBottom = kRfPlotsHeading - 18 - kRfPlotHeight;
constexpr double kRfPlotWidth = 180;
// The right plot starts where its tick labels and title clear the left one.
constexpr double kRfRightPlot = kRight - kRfPlotWidth;
constexpr double kRfLegendY = kRfPlotBottom - 46;
constexpr double kRfReading = kRfLegendY - 30;

struct RfColumn {
  const char* title;
  const char* unit;
  double right;  // values and titles end here
};

constexpr RfColumn kRfColumns[] = {
    {"Rate", "breaths/min", 108},
    {"Breaths", "finished", 164},
    {"Peak\u2013trough HR", "bpm", 240},
    {"LF power", "ms\u00b2", 302},
    {"LF peak", "Hz", 354},
    {"Phase", "deg", 402},
    {"Amplitude", "bpm", 462},
    {"CVN", "log-power", kRight - 6},
};

// The values of a reached step, from the third column on.
std::array<std::string, 6> rf_values(const RfStepScore& s) {
  return {fixed_or_dash("%.1f", s.peak_trough_hr), fixed_or_dash("%.1f", s.lf_power),
          fixed_or_dash("%.4f", s.lf_peak),        fixed_or_dash("%.1f", s.phase_deg),
          fixed_or_dash("%.1f", s.amplitude_bpm),  fixed_or_dash("%.2f", s.cvn)};
}

// The step recommend_rf chose: the first scored one at its rate; -1 for none.
int recommended_step(const RfResult& rf) {
  for (std::size_t i = 0; i < rf.steps.size(); ++i)
    if (rf.steps[i].scored && rf.steps[i].step.bpm == rf.recommended_bpm)
      return static_cast<int>(i);
  return -1;
}

void rf_recommendation(PdfCanvas& c, const RfResult& rf) {
  const double bottom = kRfBoxTop - kRfBoxHeight;
  c.fill_rect(kRecommendTint, kLeft, bottom, kRight - kLeft, kRfBoxHeight);
  c.fill_rect(kAccent, kLeft, bottom, 3, kRfBoxHeight);
  const double x = kLeft + 14;
  if (!std::isfinite(rf.recommended_bpm)) {
    c.text(kAccent, PdfFont::kBold, 15, x, kRfBoxTop - 21, "No recommendation");
    c.text(kInk, PdfFont::kRegular, kBodySize, x, kRfBoxTop - 37,
           "No step had 3 or more finished breaths with a heart-rate swing to compare.");
    return;
  }
  const double cycle = 60 / rf.recommended_bpm, in = rf.protocol.infrac * cycle;
  c.text(kAccent, PdfFont::kBold, 15, x, kRfBoxTop - 21,
         "Recommended pace: " + rate_text(rf.recommended_bpm) + " breaths/min");
  c.text(kInk, PdfFont::kRegular, kBodySize, x, kRfBoxTop - 37,
         fixed("One breath every %.1f s: ", cycle) + fixed("breathe in for %.1f s, ", in) +
             fixed("out for %.1f s.", cycle - in));
}

void rf_table(PdfCanvas& c, const RfResult& rf) {
  heading(c, kRfHeading, "Steps", "");
  text_right(c, kMuted, PdfFont::kRegular, 8, kRight, kRfHeading,
             "Lehrer, Vaschillo & Vaschillo 2000; Shaffer & Meehan 2020");
  c.fill_rect(kGrid, kLeft, kRfHead, kRight - kLeft, kRfHeadHeight);
  for (const RfColumn& col : kRfColumns) {
    text_right(c, kInk, PdfFont::kBold, 8.5, col.right, kRfHead + 15, col.title);
    text_right(c, kMuted, PdfFont::kRegular, 8, col.right, kRfHead + 5, col.unit);
  }
  const int chosen = recommended_step(rf);
  const std::size_t rows = std::min(rf.steps.size(), kRfMaxRates);
  for (std::size_t i = 0; i < rows; ++i) {
    const RfStepScore& s = rf.steps[i];
    const double y = kRfHead - static_cast<double>(i + 1) * kRfRow;
    const bool picked = static_cast<int>(i) == chosen;
    if (picked)
      c.fill_rect(kRecommendTint, kLeft, y, kRight - kLeft, kRfRow);
    else if (i % 2 == 1)
      c.fill_rect(kZebra, kLeft, y, kRight - kLeft, kRfRow);
    const PdfFont font = picked ? PdfFont::kBold : PdfFont::kRegular;
    const double base = y + 4.5;
    text_right(c, kInk, font, kBodySize, kRfColumns[0].right, base, rate_text(s.step.bpm));
    if (!s.reached) {
      c.text(kMuted, PdfFont::kRegular, kBodySize, kRfColumns[0].right + 24, base, "not reached");
      continue;
    }
    const std::string breaths =
        s.finished_breaths == s.step.breaths
            ? std::to_string(s.finished_breaths)
            : std::to_string(s.finished_breaths) + " of " + std::to_string(s.step.breaths);
    text_right(c, kInk, font, kBodySize, kRfColumns[1].right, base, breaths);
    const std::array<std::string, 6> values = rf_values(s);
    for (std::size_t k = 0; k < values.size(); ++k)
      text_right(c, kInk, font, kBodySize, kRfColumns[k + 2].right, base, values[k]);
  }
  const double notes = kRfHead - static_cast<double>(rows) * kRfRow - kRfNotesBelow;
  c.text(kMuted, PdfFont::kRegular, 8, kLeft, notes,
         "Breaths: those finished in the recording (5 of 11: it stopped during the step). A "
         "step with fewer than 3 is not compared.");
  c.text(kMuted, PdfFont::kRegular, 8, kLeft, notes - 11,
         "Empty (\u2013): not computable. Not reached: the recording ended before the step "
         "began. Highlighted: the recommended step.");
}

void rf_plots(PdfCanvas& c, const RfResult& rf) {
  heading(c, kRfPlotsHeading, "Heart-rate swing and LF power by breathing rate", "");
  std::vector<RatePoint> swing, lf;
  for (const RfStepScore& s : rf.steps) {
    swing.push_back({s.step.bpm, s.peak_trough_hr, s.scored});
    lf.push_back({s.step.bpm, s.lf_power, s.scored});
  }
  const char* none = "(no step has a value)";
  rate_plot(c, {kPlotLeft, kRfPlotBottom, kRfPlotWidth, kRfPlotHeight}, swing, kHeartRate,
            "Peak\u2013trough HR (bpm)", rf.recommended_bpm, none);
  rate_plot(c, {kRfRightPlot, kRfPlotBottom, kRfPlotWidth, kRfPlotHeight}, lf, kCvnBlue,
            "LF power (ms\u00b2)", rf.recommended_bpm, none);
  const double x = legend_item(c, kPlotLeft, kRfLegendY, "recommended pace", LegendMark::kMean);
  c.text(kMuted, PdfFont::kRegular, 8, x, kRfLegendY,
         "Filled dot: a step compared. Hollow: too few breaths to compare.");
}

void rf_reading(PdfCanvas& c) {
  c.text(kInk, PdfFont::kBold, 9, kLeft, kRfReading, "How to read the steps");
  const char* lines[] = {
      "Peak\u2013trough HR: the mean over the step's breaths of the highest minus the lowest "
      "heart rate in each breath.",
      "LF power: the power of the step's RR intervals from 0.04 to 0.15 Hz; LF peak: the "
      "frequency where it is largest.",
      "Phase: how long after breathing in ends the heart rate peaks, in degrees of a breath; "
      "near 0 at resonance.",
      "Amplitude: the heart rate's swing at the breathing rate (half of peak to trough). CVN: "
      "the mean log-power per breath.",
      "Recommended: the step with the largest peak\u2013trough HR; of the steps within 5 % of "
      "it, the one with the most LF power.",
  };
  double y = kRfReading - 14;
  for (const char* line : lines) {
    c.text(kMuted, PdfFont::kRegular, 8, kLeft, y, line);
    y -= 11;
  }
}

PdfCanvas page_three(const RecordingReport& r, const RfResult& rf) {
  PdfCanvas c = later_page(r, "Resonance frequency assessment");
  rf_recommendation(c, rf);
  c.text(kMuted, PdfFont::kRegular, 8.5, kLeft, kRfProtocolY,
         std::to_string(rf.steps.size()) + " steps of about " + short_number(rf.protocol.step_s) +
             " s each, in the order breathed, breathing in for " +
             short_number(rf.protocol.infrac * 100) + " % of every breath.");
  rf_table(c, rf);
  rf_plots(c, rf);
  rf_reading(c);
  footer(c, 3, 3, r.name);
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
  if (r.rf) {
    // After every object of the two-page layout, which a single rhythm keeps.
    const int page3 = doc.add_page();
    doc.set_page(page3, doc.add_content(detail::page_three(r, *r.rf)), logo_image);
  }
  return doc.file();
}

}  // namespace cvn
