// A small PDF 1.4 writer: content streams built from a handful of drawing
// primitives, image objects, and the file assembly with its cross-reference
// table. The files we write are described in docs/pdf.md.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "analysis/png.h"
#include "reports/report_logo.h"

namespace cvn {

/// A4 portrait in points (1/72 inch).
inline constexpr double kPageWidth = 595.0;
inline constexpr double kPageHeight = 842.0;

/// The two fonts every page declares: /F1 Helvetica and /F2 Helvetica-Bold,
/// standard Type1 fonts a reader always has, so nothing is embedded.
enum class PdfFont { kRegular, kBold };

/// Colour components from 0 to 1.
struct PdfColor {
  double r = 0, g = 0, b = 0;
};

/// Width in points of `utf8` as the page shows it (pdf_string) in `font`.
double text_width(PdfFont font, double size, std::string_view utf8);

/// The bytes between "(" and ")" of a PDF string: the text's nearest ASCII
/// with backslash and parentheses escaped, except the en dash, "²" and "é",
/// which keep their WinAnsi codes as the escapes \226, \262 and \351.
std::string pdf_string(std::string_view utf8);

/// A coordinate or size: at most two decimals, no trailing zeros (595.0 ->
/// "595", 12.5 -> "12.5", -0.004 -> "0").
std::string pdf_number(double v);

/// The operators of one page, appended in drawing order.
class PdfCanvas {
 public:
  /// Straight line in `c` with the current line width.
  void line(PdfColor c, double x1, double y1, double x2, double y2);
  /// Dark blue dashed 0.7 pt line (means and guides); later lines are solid.
  void guide_line(double x1, double y1, double x2, double y2);
  void fill_rect(PdfColor c, double x, double y, double w, double h);
  void stroke_rect(PdfColor c, double x, double y, double w, double h);
  void line_width(double w);
  /// The colour of the paths stroked after it.
  void stroke_colour(PdfColor c);
  /// Text with its baseline starting at (x, y).
  void text(PdfColor c, PdfFont font, double size, double x, double y, std::string_view utf8);
  /// Text turned 90 degrees counter-clockwise (vertical axis titles), in F1.
  void vertical_text(PdfColor c, double size, double x, double y, std::string_view utf8);
  /// Image resource `name` scaled into the rectangle.
  void image(std::string_view name, double x, double y, double w, double h);
  /// Operators written as given, for paths the primitives above do not cover.
  void raw(std::string_view ops) { out_ += ops; }

  const std::string& content() const { return out_; }

 private:
  std::string out_;
};

/// RGB pixels already zlib-compressed the way an image object stores them,
/// for pictures kept in memory until a later report is written.
struct PdfImage {
  int width = 0;
  int height = 0;
  std::string zlib;  // the zlib stream of the rows, top to bottom, 3 bytes a pixel
  bool empty() const { return zlib.empty(); }
};

/// The image compressed; empty for an empty image.
PdfImage pdf_image(const RgbImage& image);

/// An image a page draws (PdfCanvas::image): its resource name and object.
struct PdfXObject {
  const char* name;
  int object;
};

/// One file, assembled object by object: each add_* call numbers its object
/// (1, 2, ... in call order, so the file's layout is the order of the calls),
/// and file() adds the catalog (object 1), the page tree (object 2), the
/// cross-reference table and the trailer.
class PdfDocument {
 public:
  PdfDocument();

  /// The two fonts of PdfFont, /F1 and /F2 of every page.
  /// REQUIRES: called once, before the first set_page.
  void add_fonts();
  /// A page's number, taken now so that it can come before the numbers of
  /// its content and images; set_page describes it. Pages show in the order
  /// their numbers were taken.
  int add_page();
  /// The page `page` (from add_page): A4, the fonts, `images` as its
  /// /XObject resources in the order given, and the content stream `content`.
  void set_page(int page, int content, const std::vector<PdfXObject>& images);
  /// An uncompressed content stream.
  int add_content(const PdfCanvas& canvas);
  /// Image XObject of RGB pixels, zlib-compressed (/FlateDecode).
  /// REQUIRES: !image.empty().
  int add_image(const PdfImage& image);
  /// Image XObject holding the logo's JPEG bytes unchanged (/DCTDecode).
  int add_jpeg(const ReportLogo& logo);

  /// "%PDF-1.4", the objects, the cross-reference table with every object's
  /// byte offset, and the trailer. REQUIRES: every page set.
  std::string file();

 private:
  int add(std::string body);

  std::vector<std::string> objects_;
  std::vector<int> pages_;
  int fonts_ = 0;  // /F1, and /F2 the object after it
};

}  // namespace cvn
