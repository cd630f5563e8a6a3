#include "reports/plot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "analysis/heatmap.h"
#include "analysis/tfr.h"
#include "base/constants.h"
#include "base/recording.h"
#include "reports/export_files.h"
#include "reports/report_page.h"

namespace cvn::detail {
namespace {

constexpr PdfColor kFrame{0.55, 0.57, 0.61};
constexpr PdfColor kMarker{0.55, 0.22, 0.62};
constexpr PdfColor kExpectedGreen{20 / 255.0, 150 / 255.0, 20 / 255.0};  // the heat-maps' line
constexpr PdfColor kWhite{1, 1, 1};

constexpr double kTickSize = 8;
constexpr double kTickLength = 4;
// The heart-rate curve is thinned to this many points per point of width
// (keeping each bucket's minimum and maximum, so no beat-to-beat spike hides).
constexpr double kCurvePointsPerPt = 2;

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

// `own_labels`: one per tick, an empty one leaves its tick unlabelled; null:
// tick_labels.
void x_axis(PdfCanvas& c, const Box& b, const Axis& a, const std::string& title, bool grid,
            const std::vector<std::string>* own_labels = nullptr) {
  c.line_width(0.5);
  const std::vector<std::string> labels = own_labels ? *own_labels : tick_labels(a);
  for (std::size_t i = 0; i < a.ticks.size(); ++i) {
    const double x = a.at(a.ticks[i], b.x, b.w);
    if (grid) c.line(kGrid, x, b.y, x, b.y + b.h);
    c.line(kFrame, x, b.y, x, b.y - kTickLength);
    if (!labels[i].empty())
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

void empty_plot(PdfCanvas& c, const Box& b, const std::string& why) {
  c.line_width(0.7);
  c.stroke_rect(kFrame, b.x, b.y, b.w, b.h);
  text_centred(c, kMuted, PdfFont::kRegular, 10, b.x + b.w / 2, b.y + b.h / 2 - 3, why);
}

// Row r of the heat-map matrix is 0.02 + r * step Hz, drawn as the r-th pixel
// row from the bottom; y is where frequency `f` sits on that scale.
double frequency_y(double f, const Box& b) {
  const auto& axis = tfr_frequencies();
  const double rows = static_cast<double>(axis.size());
  const double step = (axis.back() - axis.front()) / (rows - 1);
  const double u = ((f - axis.front()) / step + 0.5) / rows;
  return b.y + std::clamp(u, 0.0, 1.0) * b.h;
}

}  // namespace

void heart_rate_plot(PdfCanvas& c, const Box& b, const std::vector<double>& hr,
                     const std::vector<Marker>& markers, const std::vector<StepMark>& steps) {
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

  // Step starts under the curve, each a flag reaching above the frame with its
  // label beside the staff. A label that would run into the one before it
  // (a very short step) is left out: the report's table has every step.
  constexpr double kStepLabelSize = 7;
  double label_end = -INFINITY;
  for (const StepMark& s : steps) {
    if (!(s.seconds >= xa.lo && s.seconds <= xa.hi)) continue;
    const double x = xa.at(s.seconds, b.x, b.w);
    c.line_width(0.6);
    c.line(kStepTeal, x, b.y, x, b.y + b.h + kStepLabelRoom - 2);
    if (x < label_end) continue;
    c.text(kStepTeal, PdfFont::kBold, kStepLabelSize, x + 2, b.y + b.h + 3, s.label);
    label_end = x + 2 + text_width(PdfFont::kBold, kStepLabelSize, s.label) + 2;
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

void rate_plot(PdfCanvas& c, const Box& b, std::vector<RatePoint> points, PdfColor colour,
               const std::string& y_title, double marked, const std::string& why_empty) {
  std::erase_if(points, [](const RatePoint& p) { return !std::isfinite(p.rate); });
  std::stable_sort(points.begin(), points.end(),
                   [](const RatePoint& l, const RatePoint& r) { return l.rate < r.rate; });
  double hi = -INFINITY;
  for (const RatePoint& p : points)
    if (std::isfinite(p.value)) hi = std::max(hi, p.value);
  if (!(hi > -INFINITY)) {
    empty_plot(c, b, why_empty);
    return;
  }
  // A tick at every rate of the protocol, valued or not, so that a missing
  // step shows as a gap; the outer dots kept off the frame by a margin that
  // grows with the span.
  const double lo_rate = points.front().rate, hi_rate = points.back().rate;
  const double margin = std::max(0.25, 0.08 * (hi_rate - lo_rate));
  Axis xa;
  xa.lo = lo_rate - margin;
  xa.hi = hi_rate + margin;
  std::vector<std::string> labels;
  double label_end = -INFINITY;
  for (const RatePoint& p : points) {
    if (!xa.ticks.empty() && p.rate == xa.ticks.back()) continue;
    xa.ticks.push_back(p.rate);
    // Rates closer than their labels are wide keep their tick, not the label.
    std::string label = short_number(p.rate);
    const double w = text_width(PdfFont::kRegular, kTickSize, label);
    const double x = xa.at(p.rate, b.x, b.w);
    if (x - w / 2 < label_end) label.clear();
    if (!label.empty()) label_end = x + w / 2 + 3;
    labels.push_back(label);
  }
  // From 0: a swing twice as large then looks twice as large.
  const Axis ya = nice_axis(0, hi, 4, true);
  x_axis(c, b, xa, "Breathing rate (breaths/min)", true, &labels);
  y_axis(c, b, ya, y_title, true);
  if (std::isfinite(marked) && marked >= xa.lo && marked <= xa.hi) {
    const double x = xa.at(marked, b.x, b.w);
    c.guide_line(x, b.y, x, b.y + b.h);
  }

  std::string path;
  for (const RatePoint& p : points) {
    if (!std::isfinite(p.value)) continue;
    path += pdf_number(xa.at(p.rate, b.x, b.w)) + " " + pdf_number(ya.at(p.value, b.y, b.h)) +
            (path.empty() ? " m\n" : " l\n");
  }
  c.stroke_colour(colour);
  c.line_width(1);
  c.raw(path + "S\n");
  constexpr double kDot = 4.5;
  for (const RatePoint& p : points) {
    if (!std::isfinite(p.value)) continue;
    const double x = xa.at(p.rate, b.x, b.w) - kDot / 2, y = ya.at(p.value, b.y, b.h) - kDot / 2;
    if (p.scored) {
      c.fill_rect(colour, x, y, kDot, kDot);
    } else {
      c.fill_rect(kWhite, x, y, kDot, kDot);
      c.line_width(0.8);
      c.stroke_rect(colour, x, y, kDot, kDot);
    }
  }
  c.line_width(0.7);
  c.stroke_rect(kFrame, b.x, b.y, b.w, b.h);
}

void trend_plot(PdfCanvas& c, const Box& b, const std::vector<TrendPoint>& points,
                const TrendSeries& left, const TrendSeries& right) {
  double lo[2] = {INFINITY, INFINITY}, hi[2] = {-INFINITY, -INFINITY};
  for (const TrendPoint& p : points)
    for (int k = 0; k < 2; ++k)
      if (const double v = k ? p.right : p.left; std::isfinite(v))
        lo[k] = std::min(lo[k], v), hi[k] = std::max(hi[k], v);
  if (lo[0] > hi[0] && lo[1] > hi[1])
    return empty_plot(c, b, "(no recording of this person gave these values)");
  const Axis la = lo[0] <= hi[0] ? nice_axis(lo[0], hi[0], 4, true) : nice_axis(0, 1, 4, true);
  const Axis ra = lo[1] <= hi[1] ? nice_axis(lo[1], hi[1], 4, true) : nice_axis(0, 1, 4, true);
  Axis xa;
  xa.lo = -0.5;
  xa.hi = static_cast<double>(points.size()) - 0.5;
  std::vector<std::string> labels;
  double label_end = -INFINITY;
  for (std::size_t i = 0; i < points.size(); ++i) {
    xa.ticks.push_back(static_cast<double>(i));
    // Dates closer than their labels are wide keep their tick, not the label.
    const double w = text_width(PdfFont::kRegular, kTickSize, points[i].label);
    const double x = xa.at(static_cast<double>(i), b.x, b.w);
    labels.push_back(x - w / 2 < label_end ? std::string() : points[i].label);
    if (!labels.back().empty()) label_end = x + w / 2 + 3;
  }
  x_axis(c, b, xa, "Recordings by date", false, &labels);
  y_axis(c, b, la, left.title, true);
  double widest = 0;
  const std::vector<std::string> right_labels = tick_labels(ra);
  for (std::size_t i = 0; i < ra.ticks.size(); ++i) {
    const double y = ra.at(ra.ticks[i], b.y, b.h);
    c.line(kFrame, b.x + b.w, y, b.x + b.w + kTickLength, y);
    c.text(kInk, PdfFont::kRegular, kTickSize, b.x + b.w + kTickLength + 2, y - 2.8,
           right_labels[i]);
    widest = std::max(widest, text_width(PdfFont::kRegular, kTickSize, right_labels[i]));
  }
  c.vertical_text(kInk, 9, b.x + b.w + kTickLength + 12 + widest,
                  b.y + b.h / 2 - text_width(PdfFont::kRegular, 9, right.title) / 2, right.title);
  for (int k = 1; k >= 0; --k) {  // the left series on top
    const Axis& ya = k ? ra : la;
    std::string path;
    for (std::size_t i = 0; i < points.size(); ++i) {
      const double v = k ? points[i].right : points[i].left;
      const bool joined = i > 0 && std::isfinite(k ? points[i - 1].right : points[i - 1].left);
      if (!std::isfinite(v)) continue;
      const double x = xa.at(static_cast<double>(i), b.x, b.w), y = ya.at(v, b.y, b.h);
      path += pdf_number(x) + " " + pdf_number(y) + (joined ? " l\n" : " m\n");
      c.fill_rect(k ? right.colour : left.colour, x - 2.25, y - 2.25, 4.5, 4.5);
    }
    c.stroke_colour(k ? right.colour : left.colour);
    c.line_width(1.2);
    c.raw(path + "S\n");
  }
  c.line_width(0.7);
  c.stroke_rect(kFrame, b.x, b.y, b.w, b.h);
}

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

// Drawn by the heat-map renderer itself, so the legend cannot drift from the
// pictures.
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

double legend_item(PdfCanvas& c, double x, double y, const std::string& what, LegendMark mark) {
  switch (mark) {
    case LegendMark::kHeartRate:
      c.stroke_colour(kHeartRate);
      c.line_width(1.2);
      c.raw(pdf_number(x) + " " + pdf_number(y + 3) + " m " + pdf_number(x + 16) + " " +
            pdf_number(y + 3) + " l S\n");
      break;
    case LegendMark::kMean:
      c.guide_line(x, y + 3, x + 16, y + 3);
      break;
    case LegendMark::kMarker:
      c.line_width(0.8);
      c.line(kMarker, x + 8, y - 1, x + 8, y + 7);
      break;
    case LegendMark::kCycle:
      c.fill_rect(kCvnBlue, x + 6, y + 1, 4, 4);
      break;
    case LegendMark::kStep:
      c.line_width(0.6);
      c.line(kStepTeal, x + 8, y - 1, x + 8, y + 7);
      break;
  }
  c.text(kMuted, PdfFont::kRegular, 8, x + 20, y, what);
  return x + 28 + text_width(PdfFont::kRegular, 8, what);
}

}  // namespace cvn::detail
