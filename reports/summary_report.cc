// The batch summary. Each person starts a page so that a clinic can file a
// person's pages in their record; a section flows onto further pages when it
// does not fit, and each page shows at most one recording's pair of maps,
// named /ImA and /ImB in that page's own resources. Layout: docs/pdf.md.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "base/text.h"
#include "reports/export_files.h"
#include "reports/history.h"
#include "reports/plot.h"
#include "reports/report.h"
#include "reports/report_page.h"

namespace cvn {
namespace detail {
namespace {

constexpr PdfColor kError{0.75, 0.12, 0.12};

// One colour per recording of a person in the cycle plot and beside its row
// of the table; they repeat after eight recordings.
constexpr PdfColor kSeriesColours[] = {
    {0.16, 0.38, 0.68}, {0.90, 0.45, 0.10}, {0.20, 0.58, 0.30}, {0.58, 0.25, 0.65},
    {0.80, 0.20, 0.25}, {0.10, 0.58, 0.64}, {0.55, 0.42, 0.18}, {0.42, 0.43, 0.48},
};
constexpr PdfColor kWarningFill{1.0, 0.95, 0.93};

constexpr const char* kAgeSexWarning[] = {
    "Batch processing: age & sex were not set per person, so the age/sex-normalised level",
    "may be inaccurate - the red/grey colour thresholds below should be ignored. For an",
    "interpretable report, use 'Import folder' and set the correct age and sex for this person.",
};

// Vertical space of the sections, from the page head down to the footer.
constexpr double kSectionTop = 738;
constexpr double kSectionBottom = 56;
constexpr double kNameBlock = 22;
constexpr double kWarningBlock = 48;
constexpr double kTableRow = 15;
constexpr double kErrorLine = 11;
constexpr double kHrvLine = 11;    // under a recording's row: RMSSD, SDNN, LF/HF, peak-trough HR
constexpr int kMaxErrorLines = 4;  // longer texts end in "..."
constexpr double kPlotHeight = 150;
constexpr double kMinPlotHeight = 90;
constexpr double kPlotFrame = 24 + 36;  // heading above, tick labels and title below
constexpr double kTrendHeight = 110;
constexpr PdfColor kTrendCvn{0.26, 0.34, 0.78};  // the History view's colours
constexpr PdfColor kTrendRmssd{0.07, 0.59, 0.42};
constexpr double kTrendLabelWidth = 56;  // a date label at most, in tick type
constexpr double kMapHeight = 92;
constexpr double kMapBlock = 40 + 2 * (18 + kMapHeight + 30);
// Table columns: the file after its colour sample, then by left or right edge.
constexpr double kSwatchX = kLeft + 4, kFileX = kLeft + 24, kSourceX = 292;
constexpr double kDurationRight = 418, kBeatsRight = 466, kCvnRight = kRight - 4;

struct SummaryPage {
  PdfCanvas canvas;
  std::string person;                  // the footer names whose page it is
  const SummaryEntry* maps = nullptr;  // whose heat-maps are /ImA and /ImB
};

// Lines of at most `width`, broken at blanks (or inside a word longer than
// a line, such as a path), at most `max_lines`.
std::vector<std::string> wrap(const std::string& utf8, PdfFont f, double size, double width,
                              int max_lines) {
  std::vector<std::string> lines(1);
  const std::string& s = utf8;
  std::size_t i = 0;
  while (i < s.size()) {
    std::size_t end = s.find(' ', i);
    if (end == std::string::npos) end = s.size();
    const std::string word = s.substr(i, end - i);
    i = end + 1;
    std::string& line = lines.back();
    const std::string joined = line.empty() ? word : line + " " + word;
    if (text_width(f, size, joined) <= width) {
      line = joined;
      continue;
    }
    if (!line.empty()) lines.emplace_back();
    for (std::size_t k = 0; k < word.size();) {  // a whole character at a time
      const std::size_t from = k;
      next_code_point(word, &k);
      const std::string_view ch(word.data() + from, k - from);
      if (text_width(f, size, lines.back() + std::string(ch)) > width) lines.emplace_back();
      lines.back() += ch;
    }
  }
  if (static_cast<int>(lines.size()) > max_lines) {
    lines.resize(static_cast<std::size_t>(max_lines));
    lines.back() = cut(lines.back(), f, size, width);  // whether or not the last line is full
  }
  return lines;
}

std::string duration_text(double seconds) {
  const long whole = std::lround(seconds);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%ld:%02ld min", whole / 60, whole % 60);
  return buf;
}

class SummaryWriter {
 public:
  explicit SummaryWriter(const SummaryReport& r) : r_(r) {
    for (const SummaryPerson& p : r.persons) {
      recordings_ += p.entries.size();
      for (const SummaryEntry& e : p.entries) failed_ += !e.error.empty();
    }
  }

  void person(const SummaryPerson& p) {
    new_page(p, false);
    if (!r_.age_sex_per_person) warning();
    table_head();
    std::vector<CvnSeries> series;
    std::vector<int> colour(p.entries.size(), -1);
    for (std::size_t i = 0; i < p.entries.size(); ++i) {
      if (!p.entries[i].error.empty() || p.entries[i].cvn.empty()) continue;
      colour[i] = static_cast<int>(series.size() % std::size(kSeriesColours));
      series.push_back({&p.entries[i].cvn, kSeriesColours[colour[i]]});
    }
    for (std::size_t i = 0; i < p.entries.size(); ++i) {
      const SummaryEntry& e = p.entries[i];
      const std::vector<std::string> error =
          wrap(e.error, PdfFont::kRegular, 9, kCvnRight - kSourceX, kMaxErrorLines);
      const double height =
          kTableRow +
          (e.error.empty() ? kHrvLine : kErrorLine * static_cast<double>(error.size() - 1));
      if (!fits(height)) {
        new_page(p, true);
        table_head();
      }
      row(e, colour[i], error, height, i % 2 == 1);
    }
    if (p.entries.empty()) {
      y_ -= kTableRow;
      c().text(kMuted, PdfFont::kRegular, 9, kFileX, y_ + 4.5, "(no recordings)");
    }
    y_ -= 14;

    // One pair of maps per person, so that a person's section stays one
    // page: those of the longest recording, which shows the most cycles;
    // every recording's own report has its maps at full size.
    const SummaryEntry* shown = nullptr;
    std::size_t with_maps = 0;
    for (const SummaryEntry& e : p.entries) {
      if (!e.error.empty() || (e.map3.empty() && e.map10.empty())) continue;
      ++with_maps;
      if (!shown || e.duration_seconds > shown->duration_seconds) shown = &e;
    }

    // The plot gives up height before the maps move to a page of their own.
    const double room = y_ - kSectionBottom - kPlotFrame - (shown ? kMapBlock : 0);
    if (room < kMinPlotHeight && !fits(kPlotFrame + kMinPlotHeight)) new_page(p, true);
    const double height = std::clamp(room, kMinPlotHeight, kPlotHeight);
    heading(c(), y_ - 14, "CVN (logpower)", "");
    text_right(c(), kMuted, PdfFont::kRegular, 8, kRight, y_ - 14,
               "one line per recording, coloured as in the table; a gap: no usable heart rate");
    cvn_plot(c(), {kPlotLeft, y_ - 24 - height, kRight - kPlotLeft, height}, series, false,
             "(no recording of this person gave a cycle value)");
    y_ -= kPlotFrame + height;
    trend(p);

    if (!shown) return;
    if (!fits(kMapBlock)) new_page(p, true);
    maps(*shown, with_maps > 1);
  }

  std::string file() {
    if (pages_.empty()) {
      new_page({}, false);
      c().text(kMuted, PdfFont::kRegular, 10, kLeft, y_ - 14, "(no recordings)");
    }
    // Objects as docs/pdf.md lists them: fonts, logo, then each page, its
    // content and its two maps.
    PdfDocument doc;
    doc.add_fonts();
    std::vector<PdfXObject> logo_image;
    if (!r_.logo.empty()) logo_image.push_back({"Logo", doc.add_jpeg(r_.logo)});
    for (std::size_t i = 0; i < pages_.size(); ++i) {
      SummaryPage& page = pages_[i];
      footer(page.canvas, static_cast<int>(i + 1), static_cast<int>(pages_.size()),
             page.person.empty() ? r_.name : page.person);
      const int number = doc.add_page();
      const int content = doc.add_content(page.canvas);
      std::vector<PdfXObject> images = logo_image;
      if (page.maps) {
        images.push_back({"ImA", doc.add_image(or_blank(page.maps->map3))});
        images.push_back({"ImB", doc.add_image(or_blank(page.maps->map10))});
      }
      doc.set_page(number, content, images);
    }
    return doc.file();
  }

 private:
  PdfCanvas& c() { return pages_.back().canvas; }
  bool fits(double height) const { return y_ - height >= kSectionBottom; }

  void new_page(const SummaryPerson& p, bool continued) {
    pages_.emplace_back();
    pages_.back().person = p.name;
    PdfCanvas& pc = c();
    logo(pc, r_.logo);
    pc.text(kAccent, PdfFont::kBold, kTitleSize, kLeft, 788, kTitle);
    std::string about = "Batch summary";
    if (!r_.name.empty()) about += " \"" + r_.name + "\"";
    about += ", created " + report_date(r_.created) + " - " + std::to_string(r_.persons.size()) +
             (r_.persons.size() == 1 ? " person, " : " persons, ") + std::to_string(recordings_) +
             (recordings_ == 1 ? " recording" : " recordings");
    if (failed_) about += ", " + std::to_string(failed_) + " failed";
    pc.text(kMuted, PdfFont::kRegular, kBodySize, kLeft, 770,
            fit(about, PdfFont::kRegular, kBodySize, kRight - kLeft));
    pc.line_width(1);
    pc.line(kAccent, kLeft, 760, kRight, 760);
    y_ = kSectionTop;
    if (r_.persons.empty()) return;

    const double x = kLeft + text_width(PdfFont::kBold, 13, "Name: ");
    pc.text(kInk, PdfFont::kBold, 13, kLeft, y_ - 13, "Name:");
    const std::string name = fit(p.name, PdfFont::kRegular, 13, 330);
    pc.text(kInk, PdfFont::kRegular, 13, x, y_ - 13, name);
    if (continued)
      pc.text(kMuted, PdfFont::kRegular, kBodySize, x + text_width(PdfFont::kRegular, 13, name) + 6,
              y_ - 13, "(continued)");
    y_ -= kNameBlock;
  }

  void warning() {
    constexpr double kBar = 3;
    c().fill_rect(kWarningFill, kLeft, y_ - kWarningBlock + 6, kRight - kLeft, kWarningBlock - 6);
    c().fill_rect(kError, kLeft, y_ - kWarningBlock + 6, kBar, kWarningBlock - 6);
    double y = y_ - 14;
    for (const char* line : kAgeSexWarning) {
      c().text(kError, PdfFont::kRegular, 8.6, kLeft + 10, y, line);
      y -= 11.5;
    }
    y_ -= kWarningBlock;
  }

  void table_head() {
    y_ -= kTableRow;
    c().fill_rect(kGrid, kLeft, y_, kRight - kLeft, kTableRow);
    const double b = y_ + 4.5;
    c().text(kInk, PdfFont::kBold, 9, kFileX, b, "Recording");
    c().text(kInk, PdfFont::kBold, 9, kSourceX, b, "Source");
    text_right(c(), kInk, PdfFont::kBold, 9, kDurationRight, b, "Duration");
    text_right(c(), kInk, PdfFont::kBold, 9, kBeatsRight, b, "Beats");
    text_right(c(), kInk, PdfFont::kBold, 9, kCvnRight, b, "Mean CVN");
  }

  void row(const SummaryEntry& e, int colour, const std::vector<std::string>& error, double height,
           bool zebra) {
    y_ -= height;
    if (zebra) c().fill_rect(kZebra, kLeft, y_, kRight - kLeft, height);
    const double b = y_ + height - kTableRow + 4.5;
    if (colour >= 0) {
      const PdfColor col = kSeriesColours[colour];
      c().line_width(1.2);
      c().line(col, kSwatchX, b + 3, kSwatchX + 14, b + 3);
      c().fill_rect(col, kSwatchX + 5, b + 1, 4, 4);
    }
    c().text(kInk, PdfFont::kRegular, 9, kFileX, b,
             fit(e.file, PdfFont::kRegular, 9, kSourceX - kFileX - 8));
    if (!e.error.empty()) {
      for (std::size_t i = 0; i < error.size(); ++i)
        c().text(kError, PdfFont::kRegular, 9, kSourceX, b - kErrorLine * static_cast<double>(i),
                 error[i]);
      return;
    }
    c().text(kInk, PdfFont::kRegular, 9, kSourceX, b, e.rr_only ? "RR export (no ECG)" : "ECG");
    text_right(c(), kInk, PdfFont::kRegular, 9, kDurationRight, b,
               duration_text(e.duration_seconds));
    text_right(c(), kInk, PdfFont::kRegular, 9, kBeatsRight, b, std::to_string(e.beats));
    text_right(c(), kInk, PdfFont::kRegular, 9, kCvnRight, b,
               std::isfinite(e.cvn_mean) ? fixed("%.3f", e.cvn_mean) : std::string("-"));
    hrv_line(e.hrv, b - kHrvLine);
  }

  // The HRV indices a clinician compares across recordings, on a line of
  // their own: the table's columns are full. Each at a fixed place, so that
  // a person's values stand in columns.
  void hrv_line(const HrvIndices& h, double y) {
    struct Item {
      const char* label;
      std::string value;
      const char* unit;
    };
    const Item items[] = {{"RMSSD", fixed_or_dash("%.1f", h.rmssd), "ms"},
                          {"SDNN", fixed_or_dash("%.1f", h.sdnn), "ms"},
                          {"LF/HF", fixed_or_dash("%.2f", h.lf_hf), ""},
                          {"Peak\u2013trough HR", fixed_or_dash("%.1f", h.peak_trough_hr), "bpm"}};
    constexpr double kValueWidth = 30;  // "1234.5" in 8.5 pt, the widest plausible value
    double x = kFileX;
    for (const Item& item : items) {
      c().text(kMuted, PdfFont::kRegular, 8, x, y, item.label);
      const double right = x + text_width(PdfFont::kRegular, 8, item.label) + 4 + kValueWidth;
      text_right(c(), kInk, PdfFont::kRegular, 8.5, right, y, item.value);
      c().text(kMuted, PdfFont::kRegular, 8, right + 2.5, y, item.unit);
      x = right + 2.5 + text_width(PdfFont::kRegular, 8, item.unit) + 16;
    }
  }

  // Mean CVN and RMSSD of the person's recordings by date, as the History
  // view shows them: whether the practice changes something over weeks.
  void trend(const SummaryPerson& p) {
    struct Dated {
      std::string date;
      const SummaryEntry* e;
    };
    std::vector<Dated> dated;
    for (const SummaryEntry& e : p.entries)
      if (e.error.empty()) dated.push_back({parse_recording_name(e.file).date, &e});
    if (dated.size() < 2) return;
    // Undated recordings keep their file order after the dated ones.
    std::stable_sort(dated.begin(), dated.end(), [](const Dated& a, const Dated& b) {
      return !a.date.empty() && (b.date.empty() || a.date < b.date);
    });
    std::vector<TrendPoint> points;
    for (const Dated& d : dated) {
      const std::string stem = d.e->file.substr(0, d.e->file.rfind('.'));
      points.push_back({d.date.empty() ? fit(stem, PdfFont::kRegular, 8, kTrendLabelWidth)
                                       : d.date.substr(0, 10),
                        d.e->cvn_mean, d.e->hrv.rmssd});
    }
    if (!fits(kPlotFrame + kTrendHeight)) new_page(p, true);
    heading(c(), y_ - 14, "Trend", "");
    text_right(c(), kMuted, PdfFont::kRegular, 8, kRight, y_ - 14,
               "one point per recording, oldest left: mean CVN (blue), RMSSD (green)");
    trend_plot(c(), {kPlotLeft, y_ - 24 - kTrendHeight, kRight - kPlotLeft - 40, kTrendHeight},
               points, {"Mean CVN (logpower)", kTrendCvn}, {"RMSSD (ms)", kTrendRmssd});
    y_ -= kPlotFrame + kTrendHeight;
  }

  void maps(const SummaryEntry& e, bool others) {
    pages_.back().maps = &e;
    heading(c(), y_ - 14, "Time-frequency maps", "");
    text_right(c(), kInk, PdfFont::kRegular, kBodySize, kRight, y_ - 14,
               fit(e.file, PdfFont::kRegular, kBodySize, 260));
    c().text(kMuted, PdfFont::kRegular, 8, kLeft, y_ - 28,
             std::string("Green line: the expected breathing frequency. Grey: power below the "
                         "age/sex reference level.") +
                 (others ? " Other recordings: see their own reports." : ""));
    double y = y_ - 40;
    const std::pair<const char*, bool> maps[] = {
        {"TFR - high time resolution", !e.map3.empty()},
        {"TFR - high frequency resolution", !e.map10.empty()}};
    const char* names[] = {"ImA", "ImB"};
    for (int i = 0; i < 2; ++i) {
      c().text(kInk, PdfFont::kBold, 9, kPlotLeft, y - 12, maps[i].first);
      heat_map(c(), {kPlotLeft, y - 18 - kMapHeight, kMapRight - kPlotLeft, kMapHeight}, names[i],
               maps[i].second, e.duration_seconds, r_.expected_freq);
      y -= 18 + kMapHeight + 30;
    }
    y_ -= kMapBlock;
  }

  const SummaryReport& r_;
  std::size_t recordings_ = 0, failed_ = 0;
  std::vector<SummaryPage> pages_;
  double y_ = kSectionTop;
};

}  // namespace
}  // namespace detail

std::string summary_report_pdf(const SummaryReport& r) {
  detail::SummaryWriter w(r);
  for (const SummaryPerson& p : r.persons) w.person(p);
  return w.file();
}

}  // namespace cvn
