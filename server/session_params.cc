#include "server/session_params.h"

#include <cmath>
#include <cstdlib>

#include "base/constants.h"

namespace cvn {

double number_param(const Params& p, const std::string& key, double fallback) {
  auto it = p.find(key);
  if (it == p.end() || it->second.empty()) return fallback;
  std::string text = it->second;
  for (char& c : text)
    if (c == ',') c = '.';
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  return end == text.c_str() ? fallback : v;
}

SessionSettings session_settings(const Params& p) {
  SessionSettings s;
  if (auto it = p.find("name"); it != p.end()) s.name = it->second;
  s.indur = number_param(p, "indur", 5.0);
  s.outdur = number_param(p, "outdur", 11.0);
  auto sex = p.find("sex");
  s.sex = sex != p.end() && !sex->second.empty() && (sex->second[0] == 'F' || sex->second[0] == 'f')
              ? "F"
              : "M";
  // Truncated toward zero; a value no int can hold is no age at all.
  double age = number_param(p, "age", 40.0);
  s.age = std::isfinite(age) && std::fabs(age) < 1e9 ? static_cast<int>(age) : 40;
  if (auto it = p.find("fs"); it != p.end() && !it->second.empty())
    s.import_rate = number_param(p, "fs", kSampleRate);
  return s;
}

ReplayOptions replay_options(const Params& p) {
  ReplayOptions o;
  o.speed = number_param(p, "speed", 2.0);
  if (auto it = p.find("label"); it != p.end()) o.label = it->second;
  return o;
}

}  // namespace cvn
