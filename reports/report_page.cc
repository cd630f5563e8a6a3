#include "reports/report_page.h"

#include <cmath>
#include <cstdio>

#include "base/constants.h"
#include "reports/export_files.h"

namespace cvn::detail {
namespace {

constexpr double kHeadingSize = 12;
constexpr double kLogoTop = 812;
constexpr double kLogoHeight = 34;
constexpr double kLogoMaxWidth = 170;
constexpr double kFooterY = 34;

}  // namespace

std::string fixed(const char* fmt, double v) {
  char buf[256];
  std::snprintf(buf, sizeof buf, fmt, v);
  return buf;
}

std::string fixed_or_dash(const char* fmt, double v) {
  return std::isfinite(v) ? fixed(fmt, v) : kNoValue;
}

void text_right(PdfCanvas& c, PdfColor col, PdfFont f, double size, double right, double y,
                const std::string& s) {
  c.text(col, f, size, right - text_width(f, size, s), y, s);
}

void text_centred(PdfCanvas& c, PdfColor col, PdfFont f, double size, double centre, double y,
                  const std::string& s) {
  c.text(col, f, size, centre - text_width(f, size, s) / 2, y, s);
}

std::string cut(std::string s, PdfFont f, double size, double width) {
  while (!s.empty() && text_width(f, size, s + "...") > width) {
    // A whole character at a time: "ü" is two bytes.
    while (s.size() > 1 && (static_cast<unsigned char>(s.back()) & 0xC0) == 0x80) s.pop_back();
    s.pop_back();
  }
  return s + "...";
}

std::string fit(const std::string& utf8, PdfFont f, double size, double width) {
  return text_width(f, size, utf8) <= width ? utf8 : cut(utf8, f, size, width);
}

void logo(PdfCanvas& c, const ReportLogo& logo) {
  if (logo.empty()) return;
  double h = kLogoHeight;
  double w = h * logo.width / logo.height;
  if (w > kLogoMaxWidth) {
    w = kLogoMaxWidth;
    h = w * logo.height / logo.width;
  }
  c.image("Logo", kRight - w, kLogoTop - h, w, h);
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

void heading(PdfCanvas& c, double y, const std::string& title, const std::string& note) {
  c.text(kAccent, PdfFont::kBold, kHeadingSize, kLeft, y, title);
  if (!note.empty()) text_right(c, kInk, PdfFont::kRegular, kBodySize, kRight, y, note);
}

const PdfImage& or_blank(const PdfImage& image) {
  static const PdfImage blank = pdf_image(RgbImage{1, 1, {255, 255, 255}});
  return image.empty() ? blank : image;
}

}  // namespace cvn::detail
