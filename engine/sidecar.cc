#include "engine/sidecar.h"

#include <map>

#include "base/text.h"

namespace cvn {

namespace {

constexpr std::string_view kHeader = "# Corvane Live session 1\n";

}  // namespace

std::string sidecar_path(const std::string& recording_path) {
  const std::size_t slash = recording_path.find_last_of("/\\");
  const std::size_t dot = recording_path.rfind('.');
  const bool has_ending = dot != std::string::npos && (slash == std::string::npos || dot > slash);
  return (has_ending ? recording_path.substr(0, dot) : recording_path) +
         std::string(kSidecarEnding);
}

std::string sidecar_text(const SessionSidecar& sidecar) {
  std::string out(kHeader);
  if (!sidecar.rf) return out + "protocol=free\n";
  const RfProtocolText t = rf_protocol_text(*sidecar.rf);
  return out + "protocol=rf\nrates=" + t.rates + "\nstep_s=" + t.step_s + "\ninfrac=" + t.infrac +
         "\n";
}

std::optional<SessionSidecar> read_sidecar(std::string_view text, std::string* error) {
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
  const auto protocol = values.find("protocol");
  if (protocol == values.end() || protocol->second == "free") return out;
  if (protocol->second != "rf") {
    if (error) *error = "Unknown breathing protocol \"" + protocol->second + "\".";
    return std::nullopt;
  }
  out.rf = parse_rf_protocol(values["rates"], values["step_s"], values["infrac"], error);
  if (!out.rf) return std::nullopt;
  return out;
}

}  // namespace cvn
