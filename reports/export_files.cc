#include "reports/export_files.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "base/local_time.h"
#include "base/text.h"

namespace cvn {
namespace {

std::string format(const char* fmt, double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, fmt, v);
  return buf;
}

// Base letters of U+00C0..U+017F, one per code point; '*' marks the ones
// spelt with two letters (see kTwoLetters).
constexpr std::string_view kLatin =
    "AAAAAA*CEEEEIIIIDNOOOOOxOUUUUY**"   // U+00C0 (Æ, Þ, ß)
    "aaaaaa*ceeeeiiiidnooooo/ouuuuy*y"   // U+00E0 (æ, þ)
    "AaAaAaCcCcCcCcDdDdEeEeEeEeEeGgGg"   // U+0100
    "GgGgHhHhIiIiIiIiIi**JjKkkLlLlLlL"   // U+0120 (Ĳ, ĳ)
    "lLlNnNnNnnNnOoOoOo**RrRrRrSsSsSs"   // U+0140 (Œ, œ)
    "SsTtTtTtUuUuUuUuUuUuWwYyYZzZzZzs";  // U+0160
static_assert(kLatin.size() == 0x180 - 0xC0);

std::string_view two_letters(char32_t cp) {
  switch (cp) {
    case 0xC6:
      return "AE";
    case 0xDE:
      return "Th";
    case 0xDF:
      return "ss";
    case 0xE6:
      return "ae";
    case 0xFE:
      return "th";
    case 0x132:
      return "IJ";
    case 0x133:
      return "ij";
    case 0x152:
      return "OE";
    case 0x153:
      return "oe";
  }
  return "?";
}

// Symbols a report plausibly meets (units, quotes, dashes from word
// processors); everything else unknown reads "?".
std::string_view symbol(char32_t cp) {
  switch (cp) {
    case 0xA0:
      return " ";
    case 0xA9:
      return "(c)";
    case 0xAB:
      return "<<";
    case 0xAE:
      return "(R)";
    case 0xB0:
      return "deg";
    case 0xB1:
      return "+/-";
    case 0xB5:
    case 0x3BC:
      return "u";
    case 0xB7:
    case 0x2022:
      return "*";
    case 0xBB:
      return ">>";
    case 0x2013:
    case 0x2014:
    case 0x2212:
      return "-";
    case 0x2018:
    case 0x2019:
      return "'";
    case 0x201C:
    case 0x201D:
      return "\"";
    case 0x2026:
      return "...";
  }
  return "?";
}

// At least 6 significant digits, in fixed notation for the magnitudes HRV
// indices have (a spreadsheet then shows the number as written); only a value
// below 1e-4, such as the power of a nearly flat series, takes an exponent.
std::string significant(double v) {
  const double a = std::fabs(v);
  if (a == 0) return "0";
  if (a < 1e-4) return format("%.5e", v);
  const int decimals = std::max(0, 5 - static_cast<int>(std::floor(std::log10(a))));
  char buf[400];  // 1e308 in fixed notation
  std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  return buf;
}

// A number that came from typed text (a protocol's rate) reads back as typed:
// "6.5", not "6.50000".
std::string shortest(double v) {
  std::array<char, 32> buf{};
  const auto [end, ec] = std::to_chars(buf.data(), buf.data() + buf.size(), v);
  return ec == std::errc() ? std::string(buf.data(), end) : std::string();
}

void append_cell(std::string& out, double v, std::string (*write)(double)) {
  out.push_back(',');
  if (std::isfinite(v)) out += write(v);
}

}  // namespace

std::string to_ascii(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size();) {
    const char32_t cp = next_code_point(s, &i);
    if (cp < 0x80) {
      out.push_back(cp < 32 || cp == 127 ? ' ' : static_cast<char>(cp));
      continue;
    }
    if (cp >= 0xC0 && cp < 0x180) {
      const char c = kLatin[cp - 0xC0];
      if (c == '*')
        out += two_letters(cp);
      else
        out.push_back(c);
    } else {
      out += symbol(cp);
    }
  }
  return out;
}

std::string hr_text(const std::vector<double>& hr) {
  std::string out;
  out.reserve(hr.size() * 7);
  for (double v : hr) {
    if (std::isfinite(v)) out += format("%.2f", v);
    out.push_back('\n');
  }
  return out;
}

double finite_mean(const std::vector<double>& values) {
  double sum = 0;
  std::size_t n = 0;
  for (double v : values) {
    if (!std::isfinite(v)) continue;
    sum += v;
    ++n;
  }
  return n ? sum / static_cast<double>(n) : NAN;
}

std::string logpower_csv(const std::vector<TimedCycle>& cycles,
                         const std::vector<Marker>& markers) {
  const bool with_markers = !markers.empty();
  std::string out = "cycle,";
  out += kLogPowerTitle;
  out += with_markers ? ",markers\n" : "\n";
  std::vector<double> values;
  for (std::size_t i = 0; i < cycles.size(); ++i) {
    const TimedCycle& c = cycles[i];
    values.push_back(c.cvn);
    out += std::to_string(i + 1);
    out.push_back(',');
    if (std::isfinite(c.cvn)) out += format("%.4f", c.cvn);
    if (with_markers) {
      out.push_back(',');
      out += marker_keys_between(markers, c.start_s, c.end_s);
    }
    out.push_back('\n');
  }
  out += "pow,";
  const double mean = finite_mean(values);
  if (std::isfinite(mean)) out += format("%.4f", mean);
  out += with_markers ? ",\n" : "\n";
  return out;
}

std::string hrv_csv(const HrvIndices& indices) {
  std::string out = "index,value,unit\n";
  for (const HrvField& field : hrv_fields()) {
    const double v = field.value(indices);
    out += field.name;
    out.push_back(',');
    if (std::isfinite(v))
      out += field.count ? std::to_string(indices.*field.count) : significant(v);
    out.push_back(',');
    out += field.unit;
    out.push_back('\n');
  }
  return out;
}

std::string rr_csv(const std::vector<double>& rr_seconds, const std::vector<bool>& corrected) {
  std::string out = "beat_time_s,rr_ms,corrected\n";
  out.reserve(out.size() + rr_seconds.size() * 20);
  double beat = 0;
  for (std::size_t i = 0; i < rr_seconds.size(); ++i) {
    const double rr = rr_seconds[i];
    if (std::isfinite(rr) && rr > 0) {
      beat += rr;
      out += format("%.3f", beat);
      out.push_back(',');
      out += format("%.3f", rr * 1000);
    } else {
      out.push_back(',');
    }
    out += i < corrected.size() && corrected[i] ? ",1\n" : ",0\n";
  }
  return out;
}

std::string rf_csv(const RfResult& result) {
  std::string out =
      "bpm,start_s,end_s,breaths,reached,peak_trough_hr,lf_power,lf_peak,phase_deg,"
      "amplitude_bpm,cvn\n";
  for (const RfStepScore& s : result.steps) {
    if (std::isfinite(s.step.bpm)) out += shortest(s.step.bpm);
    append_cell(out, s.step.start_s, significant);
    append_cell(out, s.step.end_s, significant);
    out += ',' + std::to_string(s.step.breaths) + (s.reached ? ",1" : ",0");
    for (double v : {s.peak_trough_hr, s.lf_power, s.lf_peak, s.phase_deg, s.amplitude_bpm, s.cvn})
      append_cell(out, v, significant);
    out.push_back('\n');
  }
  out += "recommended_bpm";
  append_cell(out, result.recommended_bpm, shortest);
  out.push_back('\n');
  return out;
}

std::string report_date(std::int64_t unix_seconds) {
  return format_local_time(unix_seconds, "%Y-%m-%d %H:%M");
}

std::vector<SummaryRow> summary_rows(const SummaryFacts& f) {
  const long whole = std::lround(f.duration_seconds);
  char duration[64];
  std::snprintf(duration, sizeof duration, "%ld:%02ld min (%.1f s)", whole / 60, whole % 60,
                f.duration_seconds);
  std::string cycles = std::to_string(f.cycles);
  if (f.cycles_with_value != f.cycles)
    cycles += " (" + std::to_string(f.cycles_with_value) + " with a value)";

  SummaryRow periods{"Periods",
                     "in " + short_number(f.indur) + " s / out " + short_number(f.outdur) + " s"};
  SummaryRow rhythm{"Cycle length", short_number(f.cycle_seconds) + " s"};
  SummaryRow frequency{"Expected frequency", f.expected_freq > 0
                                                 ? format("%.4f", f.expected_freq) + " Hz"
                                                 : std::string("-")};
  if (f.rf && !f.rf->rates.empty()) {
    const double in_pct = f.rf->infrac * 100;
    periods.value = "in " + short_number(in_pct) + " % / out " + short_number(100 - in_pct) +
                    " % of every breath";
    rhythm = {"Breathing rates", ""};
    for (double rate : f.rf->rates)
      rhythm.value += (rhythm.value.empty() ? "" : ", ") + short_number(rate);
    rhythm.value += " breaths/min";
    const auto [low, high] = std::minmax_element(f.rf->rates.begin(), f.rf->rates.end());
    frequency.value = format("%.4f", expected_frequency(60 / *low)) + " \u2013 " +
                      format("%.4f", expected_frequency(60 / *high)) + " Hz";
  }
  return {
      {"Date", report_date(f.start_time)},
      {"Sex / Age", f.sex + " / " + std::to_string(f.age)},
      periods,
      rhythm,
      frequency,
      {"Cycles recorded", cycles},
      {"Duration", duration},
      {!f.rr_only           ? "R-peaks"
       : f.beats_from_strap ? "Beats (from the strap)"
                            : "Beats (from RR export)",
       std::to_string(f.beats)},
      {"Markers", marker_summary(f.markers)},
  };
}

}  // namespace cvn
