#include "server/json.h"

#include <cmath>
#include <cstdio>

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
    } else {
      out.push_back(c);
    }
  }
  out.push_back('"');
  return out;
}

std::string json_number(double v) {
  if (!std::isfinite(v)) return "null";
  // "%g" with precision 6 is exactly the default stream format, and the
  // buffer cannot overflow: at most "-1.23457e+308".
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.6g", v);
  return buf;
}

std::string json_int(long long v) {
  return std::to_string(v);
}

std::string fixed_decimals(double v, int decimals) {
  char buf[64];
  if (decimals <= 0)
    std::snprintf(buf, sizeof buf, "%.0f", v);
  else
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  return buf;
}

double round_to(double v, int decimals) {
  double scale = std::pow(10.0, decimals);
  return std::round(v * scale) / scale;
}

}  // namespace cvn
