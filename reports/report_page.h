// What the recording report and the batch summary share on every page: the
// colours, the margins and type sizes, text placement, and the page's
// furniture (logo, headings, footer). Internal to the reports.
#pragma once
#include <string>

#include "reports/pdf.h"
#include "reports/report_logo.h"

namespace cvn::detail {

// --- Look: one ink, one accent, greys for structure.
inline constexpr PdfColor kInk{0.13, 0.14, 0.17};
inline constexpr PdfColor kMuted{0.40, 0.42, 0.47};
inline constexpr PdfColor kAccent{0.10, 0.22, 0.42};
inline constexpr PdfColor kGrid{0.89, 0.90, 0.92};
inline constexpr PdfColor kZebra{0.955, 0.962, 0.972};
inline constexpr PdfColor kCvnBlue{0.16, 0.38, 0.68};
inline constexpr PdfColor kHeartRate{0.90, 0.35, 0.10};
// An assessment's step boundaries: apart from the markers' purple and the
// heart rate's orange, quieter than both.
inline constexpr PdfColor kStepTeal{0.09, 0.47, 0.44};

// --- Page frame: margins, the title band and the footer.
inline constexpr double kLeft = 56;
inline constexpr double kRight = kPageWidth - 56;
inline constexpr double kTitleSize = 20;
inline constexpr double kBodySize = 9.5;
// Plots: the left edge leaves room for tick labels and a vertical title.
inline constexpr double kPlotLeft = 100;
// Heat-maps leave room on the right for the expected-frequency label.
inline constexpr double kMapRight = kRight - 48;

inline constexpr const char* kTitle = "Corvane Live - report";

/// What a table shows for a value that is empty (NaN): an en dash, never "nan".
inline constexpr const char* kNoValue = "\u2013";

/// `v` through printf's `fmt` (one double).
std::string fixed(const char* fmt, double v);
/// `v` through `fmt`, or kNoValue when it is not finite.
std::string fixed_or_dash(const char* fmt, double v);

/// Text whose right end, or centre, is at x.
void text_right(PdfCanvas& c, PdfColor col, PdfFont f, double size, double right, double y,
                const std::string& s);
void text_centred(PdfCanvas& c, PdfColor col, PdfFont f, double size, double centre, double y,
                  const std::string& s);

/// `s` shortened until it and "..." fit in `width`, then marked with "...".
std::string cut(std::string s, PdfFont f, double size, double width);
/// The text's ASCII as it is when it fits in `width`, else cut.
std::string fit(const std::string& utf8, PdfFont f, double size, double width);

/// The logo in the top right corner as the page's /Logo resource; nothing
/// for an empty logo.
void logo(PdfCanvas& c, const ReportLogo& logo);
/// The program and version, "Page n of N", and `right` (whose page it is).
void footer(PdfCanvas& c, int page, int pages, const std::string& right);
/// A section title at the left margin, `note` (may be empty) at the right.
void heading(PdfCanvas& c, double y, const std::string& title, const std::string& note);

/// `image`, or a 1x1 white picture for an empty one: a page can then always
/// reference its maps, and the file keeps its object layout even when a map
/// could not be computed (the page shows why instead).
const PdfImage& or_blank(const PdfImage& image);

}  // namespace cvn::detail
