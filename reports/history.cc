#include "reports/history.h"

#include <algorithm>
#include <charconv>
#include <map>

#include "analysis/pipeline.h"
#include "base/recording.h"
#include "base/text.h"

namespace cvn {

namespace {

constexpr std::string_view kSummaryHeader = "# Corvane Live summary 1";

bool all_digits(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A positive decimal as the file name writes periods ("5", "5.5").
double period(std::string_view s) {
  double v = 0;
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  return ec == std::errc() && end == s.data() + s.size() && v > 0 && std::isfinite(v) ? v : 0;
}

double finite_mean(const std::vector<double>& values) {
  double sum = 0;
  int n = 0;
  for (double v : values)
    if (std::isfinite(v)) sum += v, ++n;
  return n ? sum / n : NAN;
}

std::string number_text(double v) {
  if (!std::isfinite(v)) return {};
  char buf[32];
  const auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  return ec == std::errc() ? std::string(buf, end) : std::string();
}

// NaN for an empty or unreadable value: a damaged number is one not known.
double number_or_nan(std::string_view s) {
  double v = NAN;
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  return ec == std::errc() && end == s.data() + s.size() && std::isfinite(v) ? v : NAN;
}

template <typename T>
bool read_integer(std::string_view s, T* out) {
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), *out);
  return ec == std::errc() && end == s.data() + s.size();
}

// The summary of one run of the chain.
RecordingSummary summary_of(const RecordingAnalysis& a, const std::optional<RfProtocol>& rf,
                            RecordingSummary out) {
  out.duration_s = a.duration_seconds;
  if (a.rr.empty()) {
    out.error = "No heartbeats found in it.";
    return out;
  }
  out.cvn_mean = finite_mean(a.cycles.cvn);
  out.peak_trough_hr = a.hrv.peak_trough_hr;
  out.rmssd = a.hrv.rmssd;
  out.lf_hf = a.hrv.lf_hf;
  if (rf) out.recommended_bpm = score_rf(*rf, a.rr, a.hr, a.duration_seconds).recommended_bpm;
  return out;
}

}  // namespace

RecordingSummary summarize_recording(const std::vector<double>& ecg, double cycle_seconds,
                                     const std::optional<RfProtocol>& rf) {
  RecordingSummary out;
  out.protocol = rf ? "rf" : "free";
  if (ecg.empty()) {
    out.error = "Not a recording: no samples in it.";
    return out;
  }
  return summary_of(analyze_recording(EcgSamples{ecg}, cycle_seconds), rf, std::move(out));
}

RecordingSummary summarize_beats(const std::vector<double>& rr_seconds, double cycle_seconds,
                                 const std::optional<RfProtocol>& rf) {
  RecordingSummary out;
  out.protocol = rf ? "rf" : "free";
  // One interval is two beats but no heart rate to draw between them.
  if (rr_seconds.size() < 2) {
    out.error = "Not a recording: fewer than two beat intervals in it.";
    return out;
  }
  return summary_of(analyze_recording(RrSeconds{rr_seconds, true}, cycle_seconds), rf,
                    std::move(out));
}

std::string stamp_date(std::string_view s) {
  if (s.size() != 15 || s[8] != '-' || !all_digits(s.substr(0, 8)) || !all_digits(s.substr(9)))
    return {};
  return std::string(s.substr(0, 4)) + "-" + std::string(s.substr(4, 2)) + "-" +
         std::string(s.substr(6, 2)) + " " + std::string(s.substr(9, 2)) + ":" +
         std::string(s.substr(11, 2)) + ":" + std::string(s.substr(13, 2));
}

RecordingName parse_recording_name(std::string_view file) {
  RecordingName out;
  std::string_view stem = file.substr(0, std::min(file.rfind('.'), file.size()));
  if (file.ends_with(kBeatsEnding)) stem.remove_suffix(std::string_view("_RR").size());
  if (stem.ends_with("_recovered")) stem.remove_suffix(std::string_view("_recovered").size());
  out.name = std::string(stem);
  const std::size_t stamp_at = stem.rfind('_');
  if (stamp_at == std::string_view::npos) return out;
  const std::string date = stamp_date(stem.substr(stamp_at + 1));
  if (date.empty()) return out;
  std::string_view rest = stem.substr(0, stamp_at);
  out.date = date;
  out.name = std::string(rest);
  // A saved session's parts first: a person may well be named "imported_…".
  const std::string_view before_stamp = rest;
  const auto imported = [&] {
    if (before_stamp.starts_with("imported_") && before_stamp.size() > 9)
      out.name = std::string(before_stamp.substr(9));
    return out;
  };
  // From the right: <sex><age>, off<out>, on<in>; what is left is the name.
  std::string_view parts[3];
  for (std::string_view& part : parts) {
    const std::size_t cut = rest.rfind('_');
    if (cut == std::string_view::npos) return imported();
    part = rest.substr(cut + 1);
    rest = rest.substr(0, cut);
  }
  const std::string_view sex_age = parts[0], off = parts[1], on = parts[2];
  int age = -1;
  if (rest.empty() || sex_age.size() < 2 || (sex_age[0] != 'M' && sex_age[0] != 'F') ||
      !read_integer(sex_age.substr(1), &age) || !on.starts_with("on") || !off.starts_with("off"))
    return imported();
  const double indur = period(on.substr(2)), outdur = period(off.substr(3));
  if (indur == 0 || outdur == 0) return imported();
  out.name = std::string(rest);
  out.sex = std::string(sex_age.substr(0, 1));
  out.age = age;
  out.indur = indur;
  out.outdur = outdur;
  return out;
}

std::string person_key(std::string_view name) {
  // As sanitize_file_name makes a file name, except that bytes of letters
  // beyond ASCII stay: the file name makes "Müller" and "Möller" both
  // "M__ller", and they are two people.
  std::string key;
  for (char c : name) {
    const auto u = static_cast<unsigned char>(c);
    const bool keep = u >= 0x80 || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                      (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_';
    key.push_back(keep ? c : '_');
  }
  const std::size_t first = key.find_first_not_of('_');
  if (first == std::string::npos) return "recording";  // as the file is named
  return key.substr(first, key.find_last_not_of('_') - first + 1);
}

std::vector<PersonFiles> group_by_person(std::vector<HistoryFile> files) {
  // Newest first; an undated file after every dated one.
  std::sort(files.begin(), files.end(), [](const HistoryFile& a, const HistoryFile& b) {
    if (a.date.empty() != b.date.empty()) return b.date.empty();
    if (a.date != b.date) return a.date > b.date;
    return a.file > b.file;
  });
  std::map<std::string, PersonFiles> by_key;
  for (HistoryFile& f : files) {
    PersonFiles& p = by_key[person_key(f.name)];
    if (p.files.empty()) p.name = f.name;
    p.files.push_back(std::move(f));
  }
  std::vector<PersonFiles> out;
  for (auto& [key, p] : by_key) out.push_back(std::move(p));
  return out;
}

std::string summary_text(const RecordingSummary& s, const SummaryKey& key) {
  return std::string(kSummaryHeader) + "\nsize=" + std::to_string(key.size) +
         "\nmtime=" + std::to_string(key.mtime) + "\nduration_s=" + number_text(s.duration_s) +
         "\nprotocol=" + one_line(s.protocol) + "\ncvn_mean=" + number_text(s.cvn_mean) +
         "\npeak_trough_hr=" + number_text(s.peak_trough_hr) + "\nrmssd=" + number_text(s.rmssd) +
         "\nlf_hf=" + number_text(s.lf_hf) + "\nrecommended_bpm=" + number_text(s.recommended_bpm) +
         "\nerror=" + one_line(s.error) + "\n";
}

std::optional<RecordingSummary> read_summary(std::string_view text, const SummaryKey& key) {
  // A file cut short by a crash lacks its last line, and with it the
  // closing line break: it is no summary.
  if (!text.starts_with(kSummaryHeader) || !text.ends_with('\n')) return std::nullopt;
  std::map<std::string, std::string, std::less<>> values;
  while (!text.empty()) {
    const std::size_t nl = text.find('\n');
    const std::string_view line = text.substr(0, nl);
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
    const std::size_t eq = line.find('=');
    if (line.empty() || line[0] == '#' || eq == std::string_view::npos) continue;
    values[std::string(line.substr(0, eq))] = std::string(trim_blanks(line.substr(eq + 1)));
  }
  SummaryKey stored;
  if (!read_integer(values["size"], &stored.size) ||
      !read_integer(values["mtime"], &stored.mtime) || stored != key || !values.contains("error"))
    return std::nullopt;
  RecordingSummary s;
  s.duration_s = number_or_nan(values["duration_s"]);
  s.protocol = values["protocol"] == "rf" ? "rf" : "free";
  s.cvn_mean = number_or_nan(values["cvn_mean"]);
  s.peak_trough_hr = number_or_nan(values["peak_trough_hr"]);
  s.rmssd = number_or_nan(values["rmssd"]);
  s.lf_hf = number_or_nan(values["lf_hf"]);
  s.recommended_bpm = number_or_nan(values["recommended_bpm"]);
  s.error = one_line(values["error"]);
  return s;
}

}  // namespace cvn
