#include "reports/report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "analysis/heart_rate.h"
#include "analysis/heatmap.h"
#include "analysis/tfr.h"
#include "base/constants.h"
#include "reports/pdf.h"

namespace cvn {
namespace {

// --- Look: one ink, one accent, greys for structure.
constexpr PdfColor kInk{0.13, 0.14, 0.17};
constexpr PdfColor kMuted{0.40, 0.42, 0.47};
constexpr PdfColor kAccent{0.10, 0.22, 0.42};
constexpr PdfColor kFrame{0.55, 0.57, 0.61};
constexpr PdfColor kGrid{0.89, 0.90, 0.92};
constexpr PdfColor kZebra{0.955, 0.962, 0.972};
constexpr PdfColor kCvnBlue{0.16, 0.38, 0.68};
constexpr PdfColor kMarker{0.55, 0.22, 0.62};
constexpr PdfColor kHeartRate{0.90, 0.35, 0.10};
constexpr PdfColor kExpectedGreen{20 / 255.0, 150 / 255.0, 20 / 255.0};  // the heat-maps' line
constexpr PdfColor kError{0.75, 0.12, 0.12};
constexpr PdfColor kWhite{1, 1, 1};

// --- Page frame: margins, the title band and the footer.
constexpr double kLeft = 56;
constexpr double kRight = kPageWidth - 56;
constexpr double kTitleSize = 20;
constexpr double kHeadingSize = 12;
constexpr double kBodySize = 9.5;
constexpr double kTickSize = 8;
constexpr double kLogoHeight = 34;
constexpr double kLogoMaxWidth = 170;
constexpr double kFooterY = 34;
// Plots: the left edge leaves room for tick labels and a vertical title.
constexpr double kPlotLeft = 100;
constexpr double kTickLength = 4;
// The heart-rate curve is thinned to this many points per point of width
// (keeping each bucket's minimum and maximum, so no beat-to-beat spike hides).
constexpr double kCurvePointsPerPt = 2;
// Heat-maps leave room on the right for the expected-frequency label.
constexpr double kMapRight = kRight - 48;

constexpr const char* kTitle = "Corvane Live - report";
constexpr const char* kEcgSource = "Source: ECG, 130 samples per second";
constexpr const char* kRrSource = "Source: RR-interval export (no ECG recorded)";

std::string fixed(const char* fmt, double v) {
  char buf[256];
  std::snprintf(buf, sizeof buf, fmt, v);
  return buf;
}

void text_right(PdfCanvas& c, PdfColor col, PdfFont f, double size, double right, double y,
                const std::string& s) {
  c.text(col, f, size, right - text_width(f, size, s), y, s);
}

void text_centred(PdfCanvas& c, PdfColor col, PdfFont f, double size, double centre, double y,
                  const std::string& s) {
  c.text(col, f, size, centre - text_width(f, size, s) / 2, y, s);
}

// Cuts `s` with "..." so that it fits `width`.
// `s` shortened until it and "..." fit in `width`, then marked with "...".
std::string cut(std::string s, PdfFont f, double size, double width) {
  while (!s.empty() && text_width(f, size, s + "...") > width) s.pop_back();
  return s + "...";
}

std::string fit(const std::string& utf8, PdfFont f, double size, double width) {
  std::string s = to_ascii(utf8);
  return text_width(f, size, s) <= width ? s : cut(s, f, size, width);
}

void logo(PdfCanvas& c, const ReportLogo& logo, double top) {
  if (logo.empty()) return;
  double h = kLogoHeight;
  double w = h * logo.width / logo.height;
  if (w > kLogoMaxWidth) {
    w = kLogoMaxWidth;
    h = w * logo.height / logo.width;
  }
  c.image("Logo", kRight - w, top - h, w, h);
}

void footer(PdfCanvas& c, int page, int pages, const std::string& right) {
  c.line_width(0.5);
  c.line(kGrid, kLeft, kFooterY + 12, kRight, kFooterY + 12);
  c.text(kMuted, PdfFont::kRegular, 8, kLeft, kFooterY, std::string("Corvane Live ") + kAppVersion);
  text_centred(c, kMuted, PdfFont::kRegular, 8, kPageWidth / 2, kFooterY,
               "Page " + std::to_string(page) + " of " + std::to_string(pages));
  text_right(c, kMuted, PdfFont::kRegular, 8, kRight, kFooterY,
             fit(right, PdfFont::kRegular, 8, 170));
}

// --- Axes.
struct Axis {
  double lo = 0, hi = 1;
  double step = 1;
  std::vector<double> ticks;
  double at(double v, double from, double length) const {
    return from + (v - lo) / (hi - lo) * length;
  }
};

// Ticks at 1, 2 or 5 times a power of ten, about `target` of them; `snap`
// widens the range to whole steps, `min_step` keeps counts whole.
Axis nice_axis(double lo, double hi, int target, bool snap, double min_step = 0) {
  if (!(hi > lo)) {
    lo -= 0.5;
    hi += 0.5;
  }
  Axis a;
  const double raw = (hi - lo) / target;
  const double mag = std::pow(10.0, std::floor(std::log10(raw)));
  const double f = raw / mag;
  a.step = std::max(min_step, mag * (f <= 1 ? 1 : f <= 2 ? 2 : f <= 5 ? 5 : 10));
  if (snap) {
    lo = std::floor(lo / a.step) * a.step;
    hi = std::ceil(hi / a.step) * a.step;
  }
  a.lo = lo;
  a.hi = hi;
  const long first = std::lround(std::ceil(lo / a.step - 1e-9));
  for (long k = first; k * a.step <= hi + a.step * 1e-9; ++k) a.ticks.push_back(k * a.step);
  return a;
}

// Two significant digits, the house form of tick labels, when that shows
// every tick of the axis exactly; otherwise (1200 s, 1.75) all ticks get as
// many decimals as the step needs, never an exponent.
std::vector<std::string> tick_labels(const Axis& a) {
  std::vector<std::string> labels;
  bool exact = true;
  for (double v : a.ticks) {
    if (std::fabs(v) < a.step * 1e-6) v = 0;
    labels.push_back(fixed("%.2g", v));
    exact = exact && labels.back().find('e') == std::string::npos &&
            std::fabs(std::strtod(labels.back().c_str(), nullptr) - v) <= a.step * 1e-6;
  }
  if (exact) return labels;
  const int decimals = std::max(0, static_cast<int>(-std::floor(std::log10(a.step) + 1e-9)));
  labels.clear();
  for (double v : a.ticks) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, std::fabs(v) < a.step * 1e-6 ? 0.0 : v);
    labels.push_back(buf);
  }
  return labels;
}

struct Box {
  double x, y, w, h;
};

void x_axis(PdfCanvas& c, const Box& b, const Axis& a, const std::string& title, bool grid) {
  c.line_width(0.5);
  const std::vector<std::string> labels = tick_labels(a);
  for (std::size_t i = 0; i < a.ticks.size(); ++i) {
    const double x = a.at(a.ticks[i], b.x, b.w);
    if (grid) c.line(kGrid, x, b.y, x, b.y + b.h);
    c.line(kFrame, x, b.y, x, b.y - kTickLength);
    text_centred(c, kInk, PdfFont::kRegular, kTickSize, x, b.y - kTickLength - 9, labels[i]);
  }
  text_centred(c, kInk, PdfFont::kRegular, 9, b.x + b.w / 2, b.y - kTickLength - 22, title);
}

void y_axis(PdfCanvas& c, const Box& b, const Axis& a, const std::string& title, bool grid) {
  c.line_width(0.5);
  double widest = 0;
  const std::vector<std::string> labels = tick_labels(a);
  for (std::size_t i = 0; i < a.ticks.size(); ++i) {
    const double y = a.at(a.ticks[i], b.y, b.h);
    if (grid) c.line(kGrid, b.x, y, b.x + b.w, y);
    c.line(kFrame, b.x - kTickLength, y, b.x, y);
    const std::string& label = labels[i];
    widest = std::max(widest, text_width(PdfFont::kRegular, kTickSize, label));
    text_right(c, kInk, PdfFont::kRegular, kTickSize, b.x - kTickLength - 2, y - 2.8, label);
  }
  c.vertical_text(kInk, 9, b.x - kTickLength - 6 - widest,
                  b.y + b.h / 2 - text_width(PdfFont::kRegular, 9, title) / 2, title);
}

void heading(PdfCanvas& c, double y, const std::string& title, const std::string& note) {
  c.text(kAccent, PdfFont::kBold, kHeadingSize, kLeft, y, title);
  if (!note.empty()) text_right(c, kInk, PdfFont::kRegular, kBodySize, kRight, y, note);
}

void empty_plot(PdfCanvas& c, const Box& b, const std::string& why) {
  c.line_width(0.7);
  c.stroke_rect(kFrame, b.x, b.y, b.w, b.h);
  text_centred(c, kMuted, PdfFont::kRegular, 10, b.x + b.w / 2, b.y + b.h / 2 - 3, why);
}

// A small line sample and its word, left to right from x; returns the next x.
double legend_item(PdfCanvas& c, double x, double y, const std::string& what, int kind) {
  if (kind == 0) {
    c.stroke_colour(kHeartRate);
    c.line_width(1.2);
    c.raw(pdf_number(x) + " " + pdf_number(y + 3) + " m " + pdf_number(x + 16) + " " +
          pdf_number(y + 3) + " l S\n");
  } else if (kind == 1) {
    c.guide_line(x, y + 3, x + 16, y + 3);
  } else if (kind == 2) {
    c.line_width(0.8);
    c.line(kMarker, x + 8, y - 1, x + 8, y + 7);
  } else {
    c.fill_rect(kCvnBlue, x + 6, y + 1, 4, 4);
  }
  c.text(kMuted, PdfFont::kRegular, 8, x + 20, y, what);
  return x + 28 + text_width(PdfFont::kRegular, 8, what);
}

// --- Page 1.
void heart_rate_plot(PdfCanvas& c, const Box& b, const std::vector<double>& hr,
                     const std::vector<Marker>& markers) {
  double lo = INFINITY, hi = -INFINITY;
  for (double v : hr) {
    if (!std::isfinite(v)) continue;
    lo = std::min(lo, v);
    hi = std::max(hi, v);
  }
  if (!(lo <= hi)) {
    empty_plot(c, b, "(heart-rate series unavailable)");
    return;
  }
  const double seconds = static_cast<double>(hr.size()) * kHrGridStep;
  const Axis xa = nice_axis(0, std::max(seconds, kHrGridStep), 8, false);
  const Axis ya = nice_axis(lo, hi, 5, true);
  x_axis(c, b, xa, "Time (s)", true);
  y_axis(c, b, ya, "Heart rate (BPM)", true);

  const double mean = finite_mean(hr);
  c.guide_line(b.x, ya.at(mean, b.y, b.h), b.x + b.w, ya.at(mean, b.y, b.h));

  // Markers under the curve: a line each, the key in a tag at the top; tags
  // that would overlap step down a row so every key stays readable.
  constexpr int kTagRows = 4;
  constexpr double kTagHeight = 10;
  double row_end[kTagRows];
  std::fill(row_end, row_end + kTagRows, -INFINITY);
  for (const Marker& m : markers) {
    const double t = m.sample / kSampleRate;
    if (t < xa.lo || t > xa.hi) continue;
    const double x = xa.at(t, b.x, b.w);
    c.line_width(0.8);
    c.line(kMarker, x, b.y, x, b.y + b.h);
    const std::string key = std::to_string(m.key);
    const double w = text_width(PdfFont::kBold, 7, key) + 4;
    int row = 0;
    while (row + 1 < kTagRows && row_end[row] > x - w / 2) ++row;
    row_end[row] = x + w / 2 + 1;
    const double top = b.y + b.h - row * (kTagHeight + 1);
    c.fill_rect(kMarker, x - w / 2, top - kTagHeight, w, kTagHeight);
    c.text(kWhite, PdfFont::kBold, 7, x - w / 2 + 2, top - 7.5, key);
  }

  // The curve, thinned to min and max per bucket; a gap breaks the path.
  const std::size_t buckets = static_cast<std::size_t>(b.w * kCurvePointsPerPt);
  c.stroke_colour(kHeartRate);
  c.line_width(1.2);
  std::string path;
  bool open = false;
  const auto point = [&](std::size_t i) {
    const double x = xa.at(static_cast<double>(i) * kHrGridStep, b.x, b.w);
    const double y = ya.at(hr[i], b.y, b.h);
    path += pdf_number(x) + " " + pdf_number(y) + (open ? " l\n" : " m\n");
    open = true;
  };
  const std::size_t n = hr.size();
  const std::size_t per =
      std::max<std::size_t>(1, (n + buckets - 1) / std::max<std::size_t>(buckets, 1));
  for (std::size_t start = 0; start < n; start += per) {
    const std::size_t end = std::min(n, start + per);
    std::size_t imin = n, imax = n;
    for (std::size_t i = start; i < end; ++i) {
      if (!std::isfinite(hr[i])) continue;
      if (imin == n || hr[i] < hr[imin]) imin = i;
      if (imax == n || hr[i] > hr[imax]) imax = i;
    }
    if (imin == n) {
      open = false;
      continue;
    }
    point(std::min(imin, imax));
    if (imin != imax) point(std::max(imin, imax));
  }
  c.raw(path + "S\n");
  c.line_width(0.7);
  c.stroke_rect(kFrame, b.x, b.y, b.w, b.h);
}

// One recording's cycle values and the colour they are drawn in.
struct CvnSeries {
  const std::vector<double>* values;
  PdfColor colour;
};

// Cycles 1..longest series across; each series a line through its values
// (broken where a cycle has none) with a dot per value. `mean` adds the
// dashed mean of all values.
void cvn_plot(PdfCanvas& c, const Box& b, const std::vector<CvnSeries>& series, bool mean,
              const std::string& why_empty) {
  double lo = INFINITY, hi = -INFINITY, sum = 0;
  std::size_t cycles = 0, n = 0;
  for (const CvnSeries& s : series) {
    cycles = std::max(cycles, s.values->size());
    for (double v : *s.values) {
      if (!std::isfinite(v)) continue;
      lo = std::min(lo, v);
      hi = std::max(hi, v);
      sum += v;
      ++n;
    }
  }
  if (!(lo <= hi)) {
    empty_plot(c, b, why_empty);
    return;
  }
  const double k = static_cast<double>(cycles);
  Axis xa = nice_axis(1, k, 10, false, 1);
  xa.lo = 0.5;
  xa.hi = k + 0.5;
  const Axis ya = nice_axis(lo, hi, 5, true);
  x_axis(c, b, xa, "Cycles", false);
  y_axis(c, b, ya, "Log-power (ln)", true);
  if (mean) {
    const double y = ya.at(sum / static_cast<double>(n), b.y, b.h);
    c.guide_line(b.x, y, b.x + b.w, y);
  }

  const double dot = std::clamp(b.w / k * 0.4, 1.5, 4.0);
  for (const CvnSeries& s : series) {
    const std::vector<double>& cvn = *s.values;
    std::string path;
    bool open = false;
    for (std::size_t i = 0; i < cvn.size(); ++i) {
      if (!std::isfinite(cvn[i])) {
        open = false;
        continue;
      }
      const double x = xa.at(static_cast<double>(i + 1), b.x, b.w);
      const double y = ya.at(cvn[i], b.y, b.h);
      path += pdf_number(x) + " " + pdf_number(y) + (open ? " l\n" : " m\n");
      open = true;
    }
    c.stroke_colour(s.colour);
    c.line_width(0.8);
    c.raw(path + "S\n");
    for (std::size_t i = 0; i < cvn.size(); ++i) {
      if (!std::isfinite(cvn[i])) continue;
      const double x = xa.at(static_cast<double>(i + 1), b.x, b.w);
      const double y = ya.at(cvn[i], b.y, b.h);
      c.fill_rect(s.colour, x - dot / 2, y - dot / 2, dot, dot);
    }
  }
  c.line_width(0.7);
  c.stroke_rect(kFrame, b.x, b.y, b.w, b.h);
}

PdfCanvas page_one(const RecordingReport& r) {
  PdfCanvas c;
  logo(c, r.logo, 812);
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
  x = legend_item(c, x, 350, "heart rate", 0);
  x = legend_item(c, x, 350, "mean", 1);
  if (!r.markers.empty()) legend_item(c, x, 350, "marker (its key on top)", 2);

  const double mean = finite_mean(r.cvn);
  heading(c, 324, "CVN (logpower)",
          std::isfinite(mean) ? fixed("pow (mean): %.3f", mean) : std::string());
  cvn_plot(c, {kPlotLeft, 134, kRight - kPlotLeft, 178}, {{&r.cvn, kCvnBlue}}, true,
           r.cvn.empty() ? "(recording shorter than one breathing cycle)"
                         : "(no cycle had usable heart rate)");
  x = legend_item(c, kPlotLeft, 86, "one breathing cycle (a gap: no usable heart rate)", 3);
  legend_item(c, x, 86, "mean", 1);

  footer(c, 1, 2, r.name);
  return c;
}

// --- Page 2.
// Row r of the heat-map matrix is 0.02 + r * step Hz, drawn as the r-th pixel
// row from the bottom; y is where frequency `f` sits on that scale.
double frequency_y(double f, const Box& b) {
  const auto& axis = tfr_frequencies();
  const double rows = static_cast<double>(axis.size());
  const double step = (axis.back() - axis.front()) / (rows - 1);
  const double u = ((f - axis.front()) / step + 0.5) / rows;
  return b.y + std::clamp(u, 0.0, 1.0) * b.h;
}

// The picture `image` (a resource of the page) with its axes; `have` false
// draws why it is missing instead. `expected_freq` 0: no label.
void heat_map(PdfCanvas& c, const Box& b, const char* image, bool have, double duration_seconds,
              double expected_freq) {
  if (!have) {
    empty_plot(c, b, "(not computed: recording shorter than one breathing cycle)");
    return;
  }
  c.image(image, b.x, b.y, b.w, b.h);
  c.line_width(0.7);
  c.stroke_rect(kFrame, b.x, b.y, b.w, b.h);
  x_axis(c, b, nice_axis(0, std::max(duration_seconds, 1.0), 8, false), "Time (s)", false);

  c.line_width(0.5);
  for (const char* tick : {"0.02", "0.10", "0.18"}) {
    const double y = frequency_y(std::atof(tick), b);
    c.line(kFrame, b.x - kTickLength, y, b.x, y);
    text_right(c, kInk, PdfFont::kRegular, kTickSize, b.x - kTickLength - 2, y - 2.8, tick);
  }
  const std::string title = "Frequency (Hz)";
  c.vertical_text(kInk, 9, b.x - 30, b.y + b.h / 2 - text_width(PdfFont::kRegular, 9, title) / 2,
                  title);

  if (!(expected_freq > 0)) return;
  // The green line of the picture lies on the expected row and the one above.
  const auto& axis = tfr_frequencies();
  const double step = (axis.back() - axis.front()) / static_cast<double>(axis.size() - 1);
  const double y = frequency_y(expected_freq + step / 2, b);
  c.line_width(1.2);
  c.line(kExpectedGreen, b.x + b.w, y, b.x + b.w + 6, y);
  c.text(kExpectedGreen, PdfFont::kBold, 8, b.x + b.w + 8, y - 2.8,
         fixed("%.4f Hz", expected_freq));
}

// Colour ramps drawn by the heat-map renderer itself, so the legend cannot
// drift from the pictures: power from low to high, once above the reference
// level and once below it (greyed).
void colour_legend(PdfCanvas& c, double x, double y, double w, bool below) {
  constexpr std::size_t kSteps = 48;
  std::vector<float> power(kSteps);
  // Far above (1e12) or below (1) any age's reference level, whose natural
  // log stays within 0..13 for ages 0 to 120.
  const double centre = below ? 1.0 : 1e12;
  for (std::size_t i = 0; i < kSteps; ++i)
    power[i] = static_cast<float>(centre * (i + 0.5) / kSteps * 2);
  HeatmapParams p;
  p.power = power;
  p.rows = 1;
  p.cols = kSteps;
  p.centre = centre;
  p.half_range = centre;
  p.expected_row = -10;  // no green line
  p.blend = true;
  const RgbImage ramp = render_heatmap(p);
  const double dw = w / kSteps;
  for (std::size_t i = 0; i < kSteps && !ramp.rgb.empty(); ++i) {
    const PdfColor col{ramp.rgb[3 * i] / 255.0, ramp.rgb[3 * i + 1] / 255.0,
                       ramp.rgb[3 * i + 2] / 255.0};
    c.fill_rect(col, x + i * dw, y, dw + 0.3, 9);
  }
  c.line_width(0.5);
  c.stroke_rect(kFrame, x, y, w, 9);
}

PdfCanvas page_two(const RecordingReport& r) {
  PdfCanvas c;
  logo(c, r.logo, 812);
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

// A picture the page can always reference: the file keeps its fixed objects
// even when a map could not be computed (the page then shows why instead).
const PdfImage& or_blank(const PdfImage& image) {
  static const PdfImage blank = pdf_image(RgbImage{1, 1, {255, 255, 255}});
  return image.empty() ? blank : image;
}

}  // namespace

std::string recording_report_pdf(const RecordingReport& r) {
  // Object numbers as docs/pdf.md lists them: the pages, their contents, the
  // fonts, the maps, the logo last.
  PdfDocument doc;
  const int page1 = doc.add_page();
  const int page2 = doc.add_page();
  const int content1 = doc.add_content(page_one(r));
  const int content2 = doc.add_content(page_two(r));
  doc.add_fonts();
  const int tfr3 = doc.add_image(or_blank(pdf_image(r.tfr3)));
  const int tfr10 = doc.add_image(or_blank(pdf_image(r.tfr10)));
  std::vector<PdfXObject> logo_image;
  if (!r.logo.empty()) logo_image.push_back({"Logo", doc.add_jpeg(r.logo)});
  doc.set_page(page1, content1, logo_image);
  std::vector<PdfXObject> maps = {{"Im1", tfr3}, {"Im2", tfr10}};
  maps.insert(maps.end(), logo_image.begin(), logo_image.end());
  doc.set_page(page2, content2, maps);
  return doc.file();
}

namespace {

// --- Batch summary. Each person starts a page so that a clinic can file a
// person's pages in their record; a section flows onto further pages when it
// does not fit, and each page shows at most one recording's pair of maps,
// named /ImA and /ImB in that page's own resources.

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
constexpr int kMaxErrorLines = 4;  // longer texts end in "..."
constexpr double kPlotHeight = 150;
constexpr double kMinPlotHeight = 90;
constexpr double kPlotFrame = 24 + 36;  // heading above, tick labels and title below
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
  const std::string s = to_ascii(utf8);
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
    for (char ch : word) {
      if (text_width(f, size, lines.back() + ch) > width) lines.emplace_back();
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
          kTableRow + (e.error.empty() ? 0 : kErrorLine * static_cast<double>(error.size() - 1));
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
    logo(pc, r_.logo, 812);
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

std::string summary_report_pdf(const SummaryReport& r) {
  SummaryWriter w(r);
  for (const SummaryPerson& p : r.persons) w.person(p);
  return w.file();
}

}  // namespace cvn
