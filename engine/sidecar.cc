#include "engine/sidecar.h"

#include <charconv>
#include <map>

#include "base/recording.h"
#include "base/text.h"

namespace cvn {

namespace {

constexpr std::string_view kHeader = "# Corvane Live session 1\n";
// Ages outside this are typing slips, not people.
constexpr int kMaxAge = 150;

double period_or_zero(const std::string& text) {
  double v = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  return ec == std::errc() && end == text.data() + text.size() && v > 0 && v < 1e6 ? v : 0;
}

}  // namespace

std::string sidecar_path(const std::string& recording_path) {
  const std::size_t slash = recording_path.find_last_of("/\\");
  const std::size_t dot = recording_path.rfind('.');
  const bool has_ending = dot != std::string::npos && (slash == std::string::npos || dot > slash);
  return (has_ending ? recording_path.substr(0, dot) : recording_path) +
         std::string(kSidecarEnding);
}

SessionSidecar session_sidecar(const ExportInput& in) {
  return {in.rf,
          SessionPerson{in.name, in.breathing.sex, in.breathing.age, in.breathing.indur,
                        in.breathing.outdur},
          {},
          in.beat_device};
}

std::string sidecar_text(const SessionSidecar& sidecar) {
  std::string out(kHeader);
  if (!sidecar.rf) {
    out += "protocol=free\n";
  } else {
    const RfProtocolText t = rf_protocol_text(*sidecar.rf);
    out += "protocol=rf\nrates=" + t.rates + "\nstep_s=" + t.step_s + "\ninfrac=" + t.infrac + "\n";
  }
  if (const std::optional<SessionPerson>& p = sidecar.person) {
    out += "name=" + one_line(p->name) + "\nsex=" + one_line(p->sex) +
           "\nage=" + (p->age >= 0 ? std::to_string(p->age) : std::string()) + "\n";
    if (p->indur > 0 && p->outdur > 0)
      out += "indur=" + short_number(p->indur) + "\noutdur=" + short_number(p->outdur) + "\n";
  }
  if (!sidecar.device.empty()) out += "device=" + one_line(sidecar.device) + "\n";
  return out;
}

SessionSidecar read_sidecar(std::string_view text) {
  std::map<std::string, std::string, std::less<>> values;
  while (!text.empty()) {
    const std::size_t nl = text.find('\n');
    const std::string_view line = trim_blanks(text.substr(0, nl));
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
    const std::size_t eq = line.find('=');
    if (line.empty() || line[0] == '#' || eq == std::string_view::npos) continue;
    values[std::string(trim_blanks(line.substr(0, eq)))] =
        std::string(trim_blanks(line.substr(eq + 1)));
  }
  SessionSidecar out;
  out.device = one_line(values["device"]);
  // A name of control bytes alone names no one.
  if (std::string name = one_line(values["name"]); !name.empty()) {
    SessionPerson& p = out.person.emplace();
    p.name = std::move(name);
    const std::string& sex = values["sex"];
    if (sex == "M" || sex == "F") p.sex = sex;
    const std::string& age = values["age"];
    int a = -1;
    const auto [end, ec] = std::from_chars(age.data(), age.data() + age.size(), a);
    if (ec == std::errc() && end == age.data() + age.size() && a >= 0 && a <= kMaxAge) p.age = a;
    p.indur = period_or_zero(values["indur"]);
    p.outdur = period_or_zero(values["outdur"]);
    if (p.indur == 0 || p.outdur == 0) p.indur = p.outdur = 0;
  }
  const auto protocol = values.find("protocol");
  if (protocol == values.end() || protocol->second == "free") return out;
  if (protocol->second != "rf") {
    out.protocol_error = "Unknown breathing protocol \"" + protocol->second + "\".";
    return out;
  }
  out.rf =
      parse_rf_protocol(values["rates"], values["step_s"], values["infrac"], &out.protocol_error);
  if (!out.rf && out.protocol_error.empty()) out.protocol_error = "The protocol cannot be read.";
  return out;
}

}  // namespace cvn
