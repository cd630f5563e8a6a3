// The plots of the PDF reports, drawn with their axes into a box of a page:
// the heart-rate curve, the per-cycle log-power values, a resonance
// assessment's scores by breathing rate, and the heat-maps with their colour
// legend. Internal to the reports.
#pragma once
#include <string>
#include <vector>

#include "base/recording.h"
#include "reports/pdf.h"

namespace cvn::detail {

/// A plot's frame in points, (x, y) its lower left corner; tick labels and
/// axis titles go outside it.
struct Box {
  double x, y, w, h;
};

/// Where a new part of a recording starts (an assessment's step) and what
/// names it.
struct StepMark {
  double seconds;
  std::string label;
};

/// Room a plot with step marks needs above its frame for their labels.
inline constexpr double kStepLabelRoom = 12;

/// The heart rate (bpm on the 10 Hz grid, non-finite for a gap) over time,
/// its dashed mean, `markers` as lines with their key on top, and `steps` as
/// thin lines with their label above the frame (kStepLabelRoom).
void heart_rate_plot(PdfCanvas& c, const Box& b, const std::vector<double>& hr,
                     const std::vector<Marker>& markers, const std::vector<StepMark>& steps = {});

/// One recording's cycle values and the colour they are drawn in.
struct CvnSeries {
  const std::vector<double>* values;
  PdfColor colour;
};

/// Cycles 1..longest series across; each series a line through its values
/// (broken where a cycle has none) with a dot per value. `mean` adds the
/// dashed mean of all values; with no value at all, `why_empty` is shown.
void cvn_plot(PdfCanvas& c, const Box& b, const std::vector<CvnSeries>& series, bool mean,
              const std::string& why_empty);

/// One value at a breathing rate; an unscored one (too few breaths to be
/// compared) is drawn hollow.
struct RatePoint {
  double rate;  // breaths per minute
  double value;
  bool scored;
};

/// The points' finite values over their rates (a tick at each rate, its
/// shortest decimals), from 0 up, joined in rate order; `marked` (NaN: none)
/// gets a dashed guide. With no finite value, `why_empty` is shown.
void rate_plot(PdfCanvas& c, const Box& b, std::vector<RatePoint> points, PdfColor colour,
               const std::string& y_title, double marked, const std::string& why_empty);

/// One recording of a person's trend: the label under its tick (its date)
/// and its two values, NaN for none.
struct TrendPoint {
  std::string label;
  double left, right;
};
/// A value of the trend: its axis title and colour.
struct TrendSeries {
  std::string title;
  PdfColor colour;
};
/// The recordings evenly across in the order given, `left` values on the
/// left axis and `right` ones on a right axis, each a line (broken where a
/// value is missing) with a dot per value. With no value at all, a note.
void trend_plot(PdfCanvas& c, const Box& b, const std::vector<TrendPoint>& points,
                const TrendSeries& left, const TrendSeries& right);

/// The picture `image` (a resource of the page) with its axes; `have` false
/// draws why it is missing instead. `expected_freq` 0: no label.
void heat_map(PdfCanvas& c, const Box& b, const char* image, bool have, double duration_seconds,
              double expected_freq);

/// A 9 pt high ramp of the heat-maps' colours, low power to high: above the
/// reference level, or `below` it (greyed).
void colour_legend(PdfCanvas& c, double x, double y, double w, bool below);

/// The sample a legend entry shows before its word.
enum class LegendMark { kHeartRate, kMean, kMarker, kCycle, kStep };

/// A legend entry left to right from x, its text's baseline at y; returns
/// where the next entry starts.
double legend_item(PdfCanvas& c, double x, double y, const std::string& what, LegendMark mark);

}  // namespace cvn::detail
