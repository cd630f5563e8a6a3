#include "base/recording.h"
#include <charconv>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <sstream>

#include "base/local_time.h"

namespace cvn {

namespace {

bool is_number_char(char c) {
  return (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.' || c == 'e' || c == 'E';
}

// Reads one trimmed line as a sample; false for text and out-of-range lines.
bool parse_sample(std::string_view line, double* out) {
  std::size_t i = (line[0] == '+' || line[0] == '-') ? 1 : 0;
  bool digit = false;
  for (; i < line.size(); ++i) {
    if (!is_number_char(line[i])) return false;
    digit |= line[i] >= '0' && line[i] <= '9';
  }
  if (!digit) return false;
  std::string copy(line);
  errno = 0;
  char* end = nullptr;
  double v = std::strtod(copy.c_str(), &end);
  // strtod takes the longest valid prefix ("12-3" reads 12); a value beyond
  // a double's range is dropped rather than stored as infinity.
  if (end == copy.c_str() || (errno == ERANGE && std::isinf(v))) return false;
  *out = v;
  return true;
}

// Calls `on_line` with the first CSV column of every line, blanks and CR
// trimmed; not for the empty rest after a final line feed.
template <typename OnLine>
void for_each_value_text(std::string_view text, OnLine on_line) {
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t nl = text.find('\n', start);
    std::string_view line =
        text.substr(start, nl == std::string_view::npos ? std::string_view::npos : nl - start);
    start = nl == std::string_view::npos ? text.size() : nl + 1;
    line = line.substr(0, line.find(','));
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.remove_suffix(1);
    // Leading blanks are tolerated as the number conversion would skip them
    // ("  -12.5e1" is a sample, as exported by some tools with aligned columns).
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    on_line(line);
  }
}

}  // namespace

std::vector<double> read_recording(std::string_view text) {
  std::vector<double> out;
  out.reserve(text.size() / 5);  // typical line: 3-4 digits and a line feed
  for_each_value_text(text, [&](std::string_view line) {
    double v;
    if (!line.empty() && parse_sample(line, &v)) out.push_back(v);
  });
  return out;
}

BeatText read_beats(std::string_view text) {
  BeatText out;
  for_each_value_text(text, [&](std::string_view line) {
    double ms;
    if (!line.empty() && parse_sample(line, &ms) && ms >= 0)
      out.rr_seconds.push_back(ms / 1000);
    else
      ++out.skipped_lines;
  });
  return out;
}

std::string format_beats(const std::vector<double>& rr_seconds) {
  std::string out;
  out.reserve(rr_seconds.size() * 8);
  char buf[64];
  for (double rr : rr_seconds) {
    // Shortest text that reads back to the same double: a strap's 1/1024 s
    // steps survive a save and a replay exactly.
    const auto [end, ec] = std::to_chars(buf, buf + sizeof buf, rr * 1000);
    if (ec != std::errc()) continue;
    out.append(buf, end);
    out.push_back('\n');
  }
  return out;
}

std::string format_recording(const std::vector<double>& samples) {
  std::string out;
  out.reserve(samples.size() * 6);
  // The longest "%.0f" of a double: sign, 309 digits (DBL_MAX), line feed, NUL.
  char buf[std::numeric_limits<double>::max_exponent10 + 4];
  for (double v : samples) {
    // std::round halves away from zero; "%.0f" would round halves to even.
    int n = std::snprintf(buf, sizeof buf, "%.0f\n", std::round(v));
    out.append(buf, static_cast<std::size_t>(n));
  }
  return out;
}

std::string markers_path(const std::string& recording_path) {
  std::size_t slash = recording_path.rfind('/');
  std::size_t dot = recording_path.rfind('.');
  std::string stem = recording_path;
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) stem.resize(dot);
  for (const char* kind : {"_ECG", "_RR"})
    if (stem.ends_with(kind)) stem.resize(stem.size() - std::string_view(kind).size());
  return stem + "_markers.csv";
}

std::vector<Marker> read_markers(std::string_view text) {
  std::vector<Marker> out;
  std::istringstream in{std::string(text)};
  std::string line;
  while (std::getline(in, line)) {
    int key = 0;
    long sample = 0;
    if (std::sscanf(line.c_str(), "%d,%ld", &key, &sample) != 2) continue;
    if (key < 1 || key > 9 || sample < 0 || sample > INT32_MAX) continue;
    out.push_back({static_cast<std::int32_t>(sample), key});
  }
  return out;
}

std::string markers_csv(const std::vector<Marker>& markers) {
  std::string out = "marker,sample_index,seconds\n";
  char buf[96];
  for (const Marker& m : markers) {
    std::snprintf(buf, sizeof buf, "%d,%ld,%.3f\n", m.key, static_cast<long>(m.sample),
                  m.sample / kSampleRate);
    out += buf;
  }
  return out;
}

std::string marker_summary(const std::vector<Marker>& markers) {
  if (markers.empty()) return "none";
  // Reports have room for a dozen; the CSV beside them has every marker.
  constexpr std::size_t kShown = 12;
  std::string out;
  char buf[64];
  for (std::size_t i = 0; i < markers.size(); ++i) {
    if (i == kShown) {
      out += ", ...";
      break;
    }
    std::snprintf(buf, sizeof buf, "%s%d @ %.1f s", i ? ", " : "", markers[i].key,
                  markers[i].sample / kSampleRate);
    out += buf;
  }
  return out;
}

std::string marker_keys_between(const std::vector<Marker>& markers, double from_s, double to_s) {
  std::string out;
  for (const Marker& m : markers) {
    const double t = m.sample / kSampleRate;
    if (from_s <= t && t < to_s) {
      if (!out.empty()) out.push_back(' ');
      out += std::to_string(m.key);
    }
  }
  return out;
}

std::string sanitize_file_name(std::string_view name, std::string_view fallback) {
  std::string out;
  for (char c : name) {
    bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                c == '-' || c == '.' || c == '_';
    out.push_back(keep ? c : '_');
  }
  std::size_t first = out.find_first_not_of('_');
  if (first == std::string::npos) return std::string(fallback);
  std::size_t last = out.find_last_not_of('_');
  return out.substr(first, last - first + 1);
}

std::string_view without_recording_extension(std::string_view name) {
  if (name.size() <= 4 || name[name.size() - 4] != '.') return name;
  std::string ext(name.substr(name.size() - 3));
  for (char& c : ext) c = static_cast<char>(c | 0x20);  // ASCII letters to lower case
  return ext == "txt" || ext == "csv" ? name.substr(0, name.size() - 4) : name;
}

std::string short_number(double v) {
  std::ostringstream s;
  s << v;
  return s.str();
}

std::string file_time_stamp(std::int64_t unix_seconds) {
  return format_local_time(unix_seconds, "%Y%m%d-%H%M%S");
}

}  // namespace cvn
