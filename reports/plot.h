// The plots of the PDF reports, drawn with their axes into a box of a page:
// the heart-rate curve, the per-cycle log-power values, and the heat-maps
// with their colour legend. Internal to the reports.
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

/// The heart rate (bpm on the 10 Hz grid, non-finite for a gap) over time,
/// its dashed mean, and `markers` as lines with their key on top.
void heart_rate_plot(PdfCanvas& c, const Box& b, const std::vector<double>& hr,
                     const std::vector<Marker>& markers);

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

/// The picture `image` (a resource of the page) with its axes; `have` false
/// draws why it is missing instead. `expected_freq` 0: no label.
void heat_map(PdfCanvas& c, const Box& b, const char* image, bool have, double duration_seconds,
              double expected_freq);

/// A 9 pt high ramp of the heat-maps' colours, low power to high: above the
/// reference level, or `below` it (greyed).
void colour_legend(PdfCanvas& c, double x, double y, double w, bool below);

/// The sample a legend entry shows before its word.
enum class LegendMark { kHeartRate, kMean, kMarker, kCycle };

/// A legend entry left to right from x, its text's baseline at y; returns
/// where the next entry starts.
double legend_item(PdfCanvas& c, double x, double y, const std::string& what, LegendMark mark);

}  // namespace cvn::detail
