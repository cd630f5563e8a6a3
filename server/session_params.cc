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
  s.indur = number_param(p, "indur", s.indur);
  s.outdur = number_param(p, "outdur", s.outdur);
  auto sex = p.find("sex");
  s.sex = sex != p.end() && !sex->second.empty() && (sex->second[0] == 'F' || sex->second[0] == 'f')
              ? "F"
              : "M";
  // Truncated toward zero; a value no int can hold is no age at all.
  const int default_age = s.age;
  double age = number_param(p, "age", default_age);
  s.age = std::isfinite(age) && std::fabs(age) < 1e9 ? static_cast<int>(age) : default_age;
  if (auto it = p.find("fs"); it != p.end() && !it->second.empty())
    s.import_rate = number_param(p, "fs", kSampleRate);
  auto source = p.find("source");
  s.beats = source != p.end() && source->second == "beats";
  return s;
}

bool protocol_params(const Params& p, SessionSettings* s, std::string* error) {
  const auto protocol = p.find("protocol");
  if (protocol == p.end() || protocol->second.empty()) return true;
  s->protocol_named = true;
  if (protocol->second == "free") return true;
  if (protocol->second != "rf") {
    *error = "Unknown breathing protocol \"" + protocol->second + "\": use free or rf.";
    return false;
  }
  const auto text = [&p](const char* key) {
    auto it = p.find(key);
    return it == p.end() ? std::string() : it->second;
  };
  s->rf = parse_rf_protocol(text("rates"), text("step_s"), text("infrac"), error);
  return s->rf.has_value();
}

ReplayOptions replay_options(const Params& p) {
  ReplayOptions o;
  o.speed = number_param(p, "speed", 2.0);
  if (auto it = p.find("label"); it != p.end()) o.label = it->second;
  return o;
}

}  // namespace cvn
