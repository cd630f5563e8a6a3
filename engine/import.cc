#include "engine/import.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "analysis/hrv.h"
#include "base/recording.h"
#include "base/text.h"

namespace cvn {
namespace {

// Rates this close to 130 are the chest strap's own, give or take a clock's error.
constexpr double kSameRateTolerance = 0.5;
// Enough of the file to see its preamble without reading a whole study.
constexpr std::size_t kKubiosSniffBytes = 4000;

// The whole cell must be one decimal number ("0.812", "-1e-3"); "0.8 s" is not.
bool read_number(std::string_view cell, double* out) {
  if (cell.empty()) return false;
  std::string text(cell);
  char* end = nullptr;
  *out = std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size();
}

}  // namespace

std::vector<double> resample(const std::vector<double>& samples, double source_rate) {
  const std::size_t n = samples.size();
  if (n < 2 || !(source_rate > 0) || !std::isfinite(source_rate)) return samples;
  if (std::abs(source_rate - kSampleRate) < kSameRateTolerance) return samples;
  const double count = std::round(static_cast<double>(n) / source_rate * kSampleRate);
  if (!(count >= 2) || count > static_cast<double>(std::numeric_limits<std::int32_t>::max())) {
    return samples;
  }
  std::vector<double> out(static_cast<std::size_t>(count));
  for (std::size_t i = 0; i < out.size(); ++i) {
    const double x = static_cast<double>(i) / kSampleRate * source_rate;
    const auto k = static_cast<std::size_t>(x);
    if (k + 1 < n) {
      const double frac = x - static_cast<double>(k);
      out[i] = (1 - frac) * samples[k] + frac * samples[k + 1];
    } else {
      out[i] = samples[n - 1];
    }
  }
  return out;
}

bool looks_like_kubios(std::string_view text) {
  std::string head(text.substr(0, kKubiosSniffBytes));
  for (char& c : head)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return head.find("kubios") != std::string::npos ||
         head.find("hrv analysis results") != std::string::npos || head.starts_with("sep=") ||
         head.find("\nsep=") != std::string::npos;
}

std::vector<double> read_kubios_rr(std::string_view text) {
  std::vector<double> rr;
  bool in_table = false;
  while (!text.empty()) {
    std::size_t eol = text.find('\n');
    std::string_view line = text.substr(0, eol);
    text = eol == std::string_view::npos ? std::string_view() : text.substr(eol + 1);
    if (!in_table) {
      in_table = line.find("RR INTERVAL DATA") != std::string_view::npos;
      continue;
    }
    std::string_view cells[3];
    int n = 0;
    for (std::size_t at = 0; n < 3; ++n) {
      std::size_t comma = line.find(',', at);
      cells[n] = trim_blanks(line.substr(at, comma == std::string_view::npos ? comma : comma - at));
      if (comma == std::string_view::npos) {
        ++n;
        break;
      }
      at = comma + 1;
    }
    if (n < 3) continue;
    double beat_time, interval;
    if (read_number(cells[1], &beat_time) && read_number(cells[2], &interval)) {
      // "nan" and "inf" read as numbers, but no heart beats in them.
      // Some exports write milliseconds, others seconds (rr_to_seconds).
      if (std::isfinite(interval) && interval > 0) rr.push_back(rr_to_seconds(interval));
    } else if (!rr.empty() && cells[1].empty() && cells[2].empty()) {
      break;  // the RR column has ended; the ECG columns may run on
    }
  }
  return rr;
}

std::string import_name(std::string_view file_name) {
  std::size_t dot = file_name.rfind('.');
  if (dot != std::string_view::npos) file_name = file_name.substr(0, dot);
  return sanitize_file_name(file_name, "import");
}

}  // namespace cvn
