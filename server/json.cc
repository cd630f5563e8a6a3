#include "server/json.h"

#include <charconv>
#include <cmath>

namespace cvn {

std::string json_text(std::string_view s) {
  std::string out;
  out.reserve(s.size() + 2);
  out.push_back('"');
  for (char c : s) {
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (static_cast<unsigned char>(c) < 0x20) {
      // JSON allows no raw control character in a string (RFC 8259 7): one
      // in a strap's or a file's name would make the page drop the snapshot.
      static constexpr char kHex[] = "0123456789abcdef";
      out += "\\u00";
      out.push_back(kHex[(c >> 4) & 0xF]);
      out.push_back(kHex[c & 0xF]);
    } else {
      out.push_back(c);
    }
  }
  out.push_back('"');
  return out;
}

void append_json_number(std::string& out, double v) {
  if (!std::isfinite(v)) {
    out += "null";
    return;
  }
  // to_chars with a precision formats exactly like printf's "%.6g" (the
  // default stream format), without locale lookups; the longest result is
  // "-1.23457e+308".
  char buf[32];
  auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::general, 6);
  out.append(buf, r.ptr);
}

std::string json_number(double v) {
  std::string out;
  append_json_number(out, v);
  return out;
}

}  // namespace cvn
