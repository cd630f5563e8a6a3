#include "reports/pdf.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <utility>

#include "analysis/deflate.h"
#include "base/text.h"
#include "reports/export_files.h"

namespace cvn {
namespace {

// Advance widths of ASCII 32..126 in 1/1000 em, from Adobe's font metrics
// (AFM) of Helvetica and Helvetica-Bold in WinAnsiEncoding, the one every
// report declares: codes 39 and 96 are the straight quote and the grave
// accent a person typed, not the standard encoding's curly quotes.
constexpr short kRegularWidths[95] = {
    278, 278, 355, 556, 556, 889, 667, 191, 333, 333, 389, 584, 278, 333,  278, 278, 556, 556, 556,
    556, 556, 556, 556, 556, 556, 556, 278, 278, 584, 584, 584, 556, 1015, 667, 667, 722, 722, 667,
    611, 778, 722, 278, 500, 667, 556, 833, 722, 778, 667, 778, 722, 667,  611, 722, 667, 944, 667,
    667, 611, 278, 278, 278, 469, 556, 333, 556, 556, 500, 556, 556, 278,  556, 556, 222, 222, 500,
    222, 833, 556, 556, 556, 556, 333, 500, 278, 556, 500, 722, 500, 500,  500, 334, 260, 334, 584};
constexpr short kBoldWidths[95] = {
    278, 333, 474, 556, 556, 889, 722, 238, 333, 333, 389, 584, 278, 333, 278, 278, 556, 556, 556,
    556, 556, 556, 556, 556, 556, 556, 333, 333, 584, 584, 584, 611, 975, 722, 722, 722, 722, 667,
    611, 778, 722, 278, 556, 722, 611, 833, 722, 778, 667, 778, 722, 667, 611, 722, 667, 944, 667,
    667, 611, 333, 278, 333, 584, 556, 333, 556, 611, 556, 611, 556, 333, 611, 611, 278, 278, 556,
    278, 889, 611, 611, 611, 611, 389, 556, 333, 611, 556, 778, 556, 556, 500, 389, 280, 389, 584};

// WinAnsi makes code 39 the straight quote a person types (the standard
// encoding shows a curly one), so copied text matches what was written.
constexpr const char* kHelvetica =
    "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>";
constexpr const char* kHelveticaBold =
    "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica-Bold /Encoding /WinAnsiEncoding >>";

// WinAnsi agrees with Latin-1 from 0xA0 up: the letters of most European
// names ("Müller", "Ørsted", "José"), and the report's own "²" and "é".
// Advance widths from Adobe's AFM of Helvetica and Helvetica-Bold, codes
// 0xA0..0xFF.
constexpr short kLatin1Regular[96] = {
    278, 333, 556, 556, 556, 556, 260,  556, 333, 737, 370, 556, 584, 333, 737, 333,
    400, 584, 333, 333, 333, 556, 537,  278, 333, 333, 365, 556, 834, 834, 834, 611,
    667, 667, 667, 667, 667, 667, 1000, 722, 667, 667, 667, 667, 278, 278, 278, 278,
    722, 722, 778, 778, 778, 778, 778,  584, 778, 722, 722, 722, 722, 667, 667, 611,
    556, 556, 556, 556, 556, 556, 889,  500, 556, 556, 556, 556, 278, 278, 278, 278,
    556, 556, 556, 556, 556, 556, 556,  584, 611, 556, 556, 556, 556, 500, 556, 500};
constexpr short kLatin1Bold[96] = {
    278, 333, 556, 556, 556, 556, 280,  556, 333, 737, 370, 556, 584, 333, 737, 333,
    400, 584, 333, 333, 333, 611, 556,  278, 333, 333, 365, 556, 834, 834, 834, 611,
    722, 722, 722, 722, 722, 722, 1000, 722, 667, 667, 667, 667, 278, 278, 278, 278,
    722, 722, 778, 778, 778, 778, 778,  584, 778, 722, 722, 722, 722, 667, 667, 611,
    556, 556, 556, 556, 556, 556, 889,  556, 556, 556, 556, 556, 278, 278, 278, 278,
    611, 611, 611, 611, 611, 611, 611,  584, 611, 611, 611, 611, 611, 556, 611, 556};

// The rest of WinAnsi that names and the report use: the en dash of an empty
// value and of a range ("0.04–0.15 Hz"), typographic quotes (a typed
// "O’Brien"), and the letters of WinAnsi's 0x80..0x9F row. Everything else
// goes through to_ascii.
struct WinAnsiChar {
  char32_t code_point;
  unsigned char code;
  short regular_width, bold_width;  // Adobe's AFM, as above
};
constexpr WinAnsiChar kWinAnsiRow8[] = {
    {0x20AC, 0x80, 556, 556},    // Euro
    {0x0160, 0x8A, 667, 667},    // Scaron
    {0x0152, 0x8C, 1000, 1000},  // OE
    {0x017D, 0x8E, 611, 611},    // Zcaron
    {0x2018, 0x91, 222, 278},    // quoteleft
    {0x2019, 0x92, 222, 278},    // quoteright
    {0x201C, 0x93, 333, 500},    // quotedblleft
    {0x201D, 0x94, 333, 500},    // quotedblright
    {0x2013, 0x96, 556, 556},    // endash
    {0x2014, 0x97, 1000, 1000},  // emdash
    {0x0161, 0x9A, 500, 556},    // scaron
    {0x0153, 0x9C, 944, 944},    // oe
    {0x017E, 0x9E, 500, 500},    // zcaron
    {0x0178, 0x9F, 667, 667},    // Ydieresis
};

// `utf8` as the single-byte codes the page shows.
std::string win_ansi(std::string_view utf8) {
  std::string out;
  for (std::size_t i = 0; i < utf8.size();) {
    const std::size_t from = i;
    const char32_t cp = next_code_point(utf8, &i);
    if (cp >= 0xA0 && cp <= 0xFF) {
      out.push_back(static_cast<char>(cp));
      continue;
    }
    const auto row8 = std::find_if(std::begin(kWinAnsiRow8), std::end(kWinAnsiRow8),
                                   [&](const WinAnsiChar& c) { return c.code_point == cp; });
    if (row8 != std::end(kWinAnsiRow8))
      out.push_back(static_cast<char>(row8->code));
    else
      out += to_ascii(utf8.substr(from, i - from));
  }
  return out;
}

std::string color(PdfColor c) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%.2f %.2f %.2f", c.r, c.g, c.b);
  return buf;
}

std::string point(double x, double y) {
  return pdf_number(x) + " " + pdf_number(y);
}

std::string image_head(int width, int height, std::string_view filter, std::size_t length) {
  return "<< /Type /XObject /Subtype /Image /Width " + std::to_string(width) + " /Height " +
         std::to_string(height) + " /ColorSpace /DeviceRGB /BitsPerComponent 8 /Filter /" +
         std::string(filter) + " /Length " + std::to_string(length) + " >>\nstream\n";
}

}  // namespace

double text_width(PdfFont font, double size, std::string_view utf8) {
  const bool bold = font == PdfFont::kBold;
  const short* widths = bold ? kBoldWidths : kRegularWidths;
  long units = 0;
  for (char c : win_ansi(utf8)) {
    const auto code = static_cast<unsigned char>(c);
    if (code < 0x80) {
      units += widths[code - 32];
    } else if (code >= 0xA0) {
      units += (bold ? kLatin1Bold : kLatin1Regular)[code - 0xA0];
    } else {
      for (const WinAnsiChar& ch : kWinAnsiRow8)
        if (ch.code == code) units += bold ? ch.bold_width : ch.regular_width;
    }
  }
  return static_cast<double>(units) * size / 1000.0;
}

std::string pdf_string(std::string_view utf8) {
  std::string out;
  for (char c : win_ansi(utf8)) {
    const auto code = static_cast<unsigned char>(c);
    if (code >= 0x80) {  // as an octal escape, so that content streams stay ASCII
      const char octal[] = {'\\', static_cast<char>('0' + (code >> 6)),
                            static_cast<char>('0' + ((code >> 3) & 7)),
                            static_cast<char>('0' + (code & 7)), 0};
      out += octal;
      continue;
    }
    if (c == '\\' || c == '(' || c == ')') out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

std::string pdf_number(double v) {
  if (!std::isfinite(v)) v = 0;
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.2f", v);
  std::string s = buf;
  while (s.back() == '0') s.pop_back();
  if (s.back() == '.') s.pop_back();
  if (s == "-0") s = "0";
  return s;
}

void PdfCanvas::line(PdfColor c, double x1, double y1, double x2, double y2) {
  out_ += color(c) + " RG " + point(x1, y1) + " m " + point(x2, y2) + " l S\n";
}

void PdfCanvas::guide_line(double x1, double y1, double x2, double y2) {
  out_ += "0.12 0.25 0.55 RG 0.7 w [2 2] 0 d " + point(x1, y1) + " m " + point(x2, y2) +
          " l S [] 0 d\n";
}

void PdfCanvas::fill_rect(PdfColor c, double x, double y, double w, double h) {
  out_ += color(c) + " rg " + point(x, y) + " " + point(w, h) + " re f\n";
}

void PdfCanvas::stroke_rect(PdfColor c, double x, double y, double w, double h) {
  out_ += color(c) + " RG " + point(x, y) + " " + point(w, h) + " re S\n";
}

void PdfCanvas::line_width(double w) {
  out_ += pdf_number(w) + " w\n";
}

void PdfCanvas::stroke_colour(PdfColor c) {
  out_ += color(c) + " RG\n";
}

void PdfCanvas::text(PdfColor c, PdfFont font, double size, double x, double y,
                     std::string_view utf8) {
  out_ += color(c) + " rg BT /" + (font == PdfFont::kBold ? "F2 " : "F1 ") + pdf_number(size) +
          " Tf " + point(x, y) + " Td (" + pdf_string(utf8) + ") Tj ET\n";
}

void PdfCanvas::vertical_text(PdfColor c, double size, double x, double y, std::string_view utf8) {
  out_ += color(c) + " rg BT /F1 " + pdf_number(size) + " Tf 0 1 -1 0 " + point(x, y) + " Tm (" +
          pdf_string(utf8) + ") Tj ET\n";
}

void PdfCanvas::image(std::string_view name, double x, double y, double w, double h) {
  out_ += "q " + pdf_number(w) + " 0 0 " + pdf_number(h) + " " + point(x, y) + " cm /" +
          std::string(name) + " Do Q\n";
}

PdfImage pdf_image(const RgbImage& image) {
  if (image.rgb.empty()) return {};
  const std::vector<std::uint8_t> z = zlib_compress(image.rgb);
  return {image.width, image.height, std::string(z.begin(), z.end())};
}

PdfDocument::PdfDocument() : objects_(2) {}  // the catalog and the page tree, written by file()

int PdfDocument::add(std::string body) {
  objects_.push_back(std::move(body));
  return static_cast<int>(objects_.size());
}

void PdfDocument::add_fonts() {
  fonts_ = add(kHelvetica);
  add(kHelveticaBold);
}

int PdfDocument::add_page() {
  pages_.push_back(add(""));
  return pages_.back();
}

void PdfDocument::set_page(int page, int content, const std::vector<PdfXObject>& images) {
  std::string xobjects;
  for (const PdfXObject& im : images)
    xobjects += " /" + std::string(im.name) + " " + std::to_string(im.object) + " 0 R";
  objects_[static_cast<std::size_t>(page - 1)] =
      "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 " + pdf_number(kPageWidth) + " " +
      pdf_number(kPageHeight) + "] /Resources << /Font << /F1 " + std::to_string(fonts_) +
      " 0 R /F2 " + std::to_string(fonts_ + 1) + " 0 R >>" +
      (xobjects.empty() ? "" : " /XObject <<" + xobjects + " >>") + " >> /Contents " +
      std::to_string(content) + " 0 R >>";
}

int PdfDocument::add_content(const PdfCanvas& canvas) {
  const std::string& content = canvas.content();
  return add("<< /Length " + std::to_string(content.size()) + " >>\nstream\n" + content +
             "\nendstream");
}

int PdfDocument::add_image(const PdfImage& image) {
  return add(image_head(image.width, image.height, "FlateDecode", image.zlib.size()) + image.zlib +
             "\nendstream");
}

int PdfDocument::add_jpeg(const ReportLogo& logo) {
  return add(image_head(logo.width, logo.height, "DCTDecode", logo.jpeg.size()) + logo.jpeg +
             "\nendstream");
}

std::string PdfDocument::file() {
  std::string kids;
  for (int page : pages_) kids += (kids.empty() ? "" : " ") + std::to_string(page) + " 0 R";
  objects_[0] = "<< /Type /Catalog /Pages 2 0 R >>";
  objects_[1] =
      "<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(pages_.size()) + " >>";

  std::size_t total = 64;
  for (const std::string& o : objects_) total += o.size() + 48;
  std::string out;
  out.reserve(total);
  out += "%PDF-1.4\n";
  std::vector<std::size_t> offsets;
  for (std::size_t i = 0; i < objects_.size(); ++i) {
    offsets.push_back(out.size());
    out += std::to_string(i + 1);
    out += " 0 obj\n";
    out += objects_[i];
    out += "\nendobj\n";
  }
  const std::size_t xref = out.size();
  const std::string size = std::to_string(objects_.size() + 1);
  out += "xref\n0 " + size + "\n0000000000 65535 f \n";
  char entry[32];
  for (std::size_t off : offsets) {
    std::snprintf(entry, sizeof entry, "%010zu 00000 n \n", off);
    out += entry;
  }
  out += "trailer\n<< /Size " + size + " /Root 1 0 R >>\nstartxref\n" + std::to_string(xref) +
         "\n%%EOF\n";
  return out;
}

}  // namespace cvn
