// corvane-analyze: the whole analysis of one raw ECG text file, without the browser. Prints
// one JSON object (R-peak intervals, heart rate, cycles, CVN values, statistics, heat-map
// scales, a resonance assessment's scores and stage timings) and optionally writes both
// heat-maps as PNG files.
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "analysis/hrv.h"
#include "analysis/pipeline.h"
#include "analysis/png.h"
#include "analysis/resonance.h"
#include "base/breathing.h"
#include "base/constants.h"
#include "base/files.h"
#include "base/recording.h"
#include "engine/engine.h"
#include "engine/import.h"
#include "server/json.h"
#include "server/snapshot_json.h"

namespace {

using namespace cvn;

constexpr const char* kProgram = "corvane-analyze";

// Exit codes.
constexpr int kExitOk = 0;
constexpr int kExitNotAnalysable = 1;  // too short, no beats
constexpr int kExitUsage = 2;
constexpr int kExitIo = 3;

constexpr int kMaxAge = 150;

// The defaults and limits are the program's own, so the text is built from them.
std::string usage() {
  const BreathingSettings d;
  const RfProtocolText rf = rf_protocol_text(RfProtocol{});
  return "usage: corvane-analyze [--indur S] [--outdur S] [--sex M|F] [--age N] [--fs HZ]\n"
         "                       [--protocol free|rf [--rates LIST] [--step-s S] [--infrac F]]\n"
         "                       [--png-dir DIR] FILE\n"
         "Analyses a raw ECG text file (one sample per line, " +
         short_number(kSampleRate) +
         " per second unless --fs is\n"
         "given) and prints one JSON object. --indur and --outdur are the breathing periods in\n"
         "seconds (defaults " +
         short_number(d.indur) + " and " + short_number(d.outdur) +
         "; a decimal comma is accepted); --sex and --age choose the\n"
         "heat-maps' reference level (defaults " +
         d.sex + " and " + std::to_string(d.age) +
         "); --png-dir also writes tfr3.png and\n"
         "tfr10.png there.\n"
         "--protocol rf scores the recording as a resonance-frequency assessment (\"rf\" in the\n"
         "JSON; null for free, the default): --rates are the breathing rates in the order\n"
         "breathed (" +
         std::to_string(kRfMinRates) + " to " + std::to_string(kRfMaxRates) + " of them, " +
         short_number(kRfMinRate) + " to " + short_number(kRfMaxRate) + " breaths/min; default " +
         rf.rates +
         "), --step-s the\n"
         "length of each step (" +
         short_number(kRfMinStep) + " to " + short_number(kRfMaxStep) + " s; default " + rf.step_s +
         "), --infrac the share of each breath spent\n"
         "breathing in (" +
         short_number(kRfMinInfrac) + " to " + short_number(kRfMaxInfrac) + "; default " +
         rf.infrac +
         ").\n"
         "Exit status: 0 done, 1 recording not analysable, 2 bad command line, 3 file error.\n";
}

struct Options {
  BreathingSettings breathing;
  double fs = 0.0;               // 0: the file is at kSampleRate
  std::optional<RfProtocol> rf;  // absent: a free (single-rhythm) analysis
  std::string png_dir;
  std::string file;
};

int fail(int code, const std::string& message) {
  std::fprintf(stderr, "%s: %s\n", kProgram, message.c_str());
  if (code == kExitUsage) std::fputs(usage().c_str(), stderr);
  return code;
}

// A number as the session parameters take it (decimal comma accepted), but strict: the
// whole text must be one finite number.
bool parse_number(std::string text, double& value) {
  for (char& c : text) {
    if (c == ',') c = '.';
  }
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  value = std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size() && errno == 0 && std::isfinite(value);
}

// Returns an exit code when the command line is not usable, -1 otherwise.
int parse_options(int argc, char** argv, Options& o) {
  std::string protocol = "free";
  // The texts parse_rf_protocol reads, as a session request carries them; empty: the default.
  std::string rates, step_s, infrac;
  bool rf_options = false;
  std::vector<std::pair<std::string, std::string>> opts;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      std::fputs(usage().c_str(), stdout);
      return kExitOk;
    }
    if (arg.rfind("--", 0) != 0 || arg == "--") {
      if (arg == "--" && i + 1 < argc) arg = argv[++i];
      if (!o.file.empty()) return fail(kExitUsage, "more than one FILE given");
      o.file = arg;
      continue;
    }
    std::string value;
    if (const auto eq = arg.find('='); eq != std::string::npos) {
      value = arg.substr(eq + 1);
      arg.resize(eq);
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      return fail(kExitUsage, "option " + arg + " needs a value");
    }
    double v = 0.0;
    if (arg == "--indur" || arg == "--outdur") {
      if (!parse_number(value, v)) return fail(kExitUsage, arg + ": not a number: " + value);
      (arg == "--indur" ? o.breathing.indur : o.breathing.outdur) = v;
    } else if (arg == "--sex") {
      if (value != "M" && value != "F" && value != "m" && value != "f")
        return fail(kExitUsage, "--sex must be M or F, not " + value);
      o.breathing.sex = value == "F" || value == "f" ? "F" : "M";
    } else if (arg == "--age") {
      if (!parse_number(value, v) || v != std::floor(v) || v < 0 || v > kMaxAge)
        return fail(kExitUsage, "--age must be a whole number of years from 0 to " +
                                    std::to_string(kMaxAge) + ", not " + value);
      o.breathing.age = static_cast<int>(v);
    } else if (arg == "--fs") {
      if (!parse_number(value, v) || v < kMinImportRate || v > kMaxImportRate)
        return fail(kExitUsage, "--fs must be a sample rate from " + short_number(kMinImportRate) +
                                    " to " + short_number(kMaxImportRate) + " Hz, not " + value);
      o.fs = v;
    } else if (arg == "--protocol") {
      if (value != "free" && value != "rf")
        return fail(kExitUsage, "--protocol must be free or rf, not " + value);
      protocol = value;
    } else if (arg == "--rates" || arg == "--step-s" || arg == "--infrac") {
      (arg == "--rates" ? rates : arg == "--step-s" ? step_s : infrac) = value;
      rf_options = true;
    } else if (arg == "--png-dir") {
      if (value.empty()) return fail(kExitUsage, "--png-dir needs a folder");
      o.png_dir = value;
    } else {
      return fail(kExitUsage, "unknown option " + arg);
    }
  }
  if (o.file.empty()) return fail(kExitUsage, "no FILE given");
  // Said rather than ignored: a free analysis would silently score nothing.
  if (rf_options && protocol != "rf")
    return fail(kExitUsage, "--rates, --step-s and --infrac need --protocol rf");
  if (protocol == "rf") {
    std::string error;
    o.rf = parse_rf_protocol(rates, step_s, infrac, &error);
    if (!o.rf) return fail(kExitUsage, error);
  }
  BreathingSettings& b = o.breathing;
  b.indur = breathing_period(b.indur);
  b.outdur = breathing_period(b.outdur);
  if (!std::isfinite(b.indur + b.outdur)) return fail(kExitUsage, "breathing periods too long");
  return -1;
}

// The whole file, or a message naming why it cannot be had.
std::optional<std::string> read_input(const std::string& path, std::string& error) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) {
    error = "cannot read " + path + ": it is a folder";
    return std::nullopt;
  }
  errno = 0;
  std::optional<std::string> text = cvn::read_file(path);
  if (!text) error = "cannot open " + path + ": " + std::strerror(errno);
  return text;
}

// JSON numbers with every digit a double holds; NaN and infinities are null.
void append_number(std::string& out, double v) {
  if (!std::isfinite(v)) {
    out += "null";
    return;
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  out += buf;
}

template <typename T>
void append_array(std::string& out, const std::vector<T>& values) {
  out += '[';
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i) out += ',';
    append_number(out, static_cast<double>(values[i]));
  }
  out += ']';
}

class Stopwatch {
 public:
  double lap() {
    const auto now = std::chrono::steady_clock::now();
    const double ms = std::chrono::duration<double, std::milli>(now - last_).count();
    last_ = now;
    return ms;
  }

 private:
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (const int code = parse_options(argc, argv, o); code >= 0) return code;
  const double cycle = o.breathing.cycle_seconds();

  std::vector<std::pair<std::string, double>> timings;
  Stopwatch total, watch;
  std::vector<double> samples;
  {
    std::string error;
    std::optional<std::string> text = read_input(o.file, error);
    if (!text) return fail(kExitIo, error);
    samples = read_recording(*text);
  }
  timings.emplace_back("read", watch.lap());
  if (o.fs > 0) {
    samples = resample(samples, o.fs);
    timings.emplace_back("resample", watch.lap());
  }
  if (samples.empty()) return fail(kExitNotAnalysable, o.file + ": no ECG samples in the file");

  PipelineOptions stages;
  stages.stage_done = [&](const char* stage) { timings.emplace_back(stage, watch.lap()); };
  const RecordingAnalysis recording = analyze_recording(EcgSamples{samples}, cycle, stages);
  const std::vector<double>& rr = recording.rr;
  const std::vector<double>& hr = recording.hr;
  const CycleAnalysis& a = recording.cycles;
  if (rr.empty()) {
    return fail(kExitNotAnalysable, o.file +
                                        ": fewer than two R-peaks found (recording too "
                                        "short, or not an ECG)");
  }
  if (a.empty()) {
    const double seconds = static_cast<double>(samples.size()) / kSampleRate;
    if (seconds < cycle) {
      return fail(kExitNotAnalysable, o.file + ": " + short_number(round_to(seconds, 1)) +
                                          " s of ECG is shorter than one breathing cycle (" +
                                          short_number(cycle) + " s)");
    }
    return fail(kExitNotAnalysable, o.file + ": only " + std::to_string(rr.size()) +
                                        " RR intervals found; the cycle analysis needs 3");
  }

  // Scored as the server's /rf_result scores a session, and written by the same code, so
  // that the two agree byte for byte.
  std::string rf_json = "null";
  if (o.rf) {
    rf_json = rf_result_json(score_rf(*o.rf, rr, hr, recording.duration_seconds));
    timings.emplace_back("rf", watch.lap());
  }

  const char sex = o.breathing.sex == "F" ? 'F' : 'M';
  const int age = o.breathing.age;
  const std::vector<TimedCycle> breaths =
      o.rf ? rf_breaths(rf_schedule(*o.rf), recording.duration_seconds) : std::vector<TimedCycle>{};
  const RgbImage image3 = render_tfr(a, TfrWidth::kNarrow, sex, age, true, breaths);
  const RgbImage image10 = render_tfr(a, TfrWidth::kWide, sex, age, true, breaths);
  timings.emplace_back("heatmaps", watch.lap());
  const std::vector<std::uint8_t> png3 = encode_png_rgb(image3);
  const std::vector<std::uint8_t> png10 = encode_png_rgb(image10);
  timings.emplace_back("png", watch.lap());
  if (!o.png_dir.empty()) {
    for (const auto& [name, bytes] :
         {std::pair{"tfr3.png", &png3}, std::pair{"tfr10.png", &png10}}) {
      const std::string path = o.png_dir + "/" + name;
      const std::string_view data(reinterpret_cast<const char*>(bytes->data()), bytes->size());
      if (bytes->empty() || !cvn::write_file(path, data).ok())
        return fail(kExitIo, "cannot write " + path);
    }
    timings.emplace_back("write_png", watch.lap());
  }
  timings.emplace_back("total", total.lap());

  const CycleStats& st = a.stats;
  std::string j;
  j.reserve(64 * (rr.size() + hr.size() + a.cvn.size()) + 4096);
  j += "{\"file\":" + json_text(o.file);
  j += ",\"samples\":" + std::to_string(samples.size());
  j += ",\"indur\":";
  append_number(j, o.breathing.indur);
  j += ",\"outdur\":";
  append_number(j, o.breathing.outdur);
  j += ",\"cycle_seconds\":";
  append_number(j, cycle);
  j += ",\"sex\":\"";
  j += sex;
  j += "\",\"age\":" + std::to_string(age);
  j += ",\"rr\":";
  append_array(j, rr);
  j += ",\"hr\":";
  append_array(j, hr);
  j += ",\"cycle_bounds\":";
  append_array(j, a.bounds);
  j += ",\"cvn\":";
  append_array(j, a.cvn);
  j += ",\"expected_freq\":";
  append_number(j, a.expected_freq);
  j += ",\"expected_row\":" + std::to_string(a.expected_row);
  j += ",\"stats\":{\"cvn_count\":" + std::to_string(st.cvn_count);
  for (const auto& [key, v] : {std::pair{"cvn_mean", st.cvn_mean},
                               {"cvn_sd", st.cvn_sd},
                               {"hr_mean", st.hr_mean},
                               {"hr_sd", st.hr_sd},
                               {"band_mean3", st.band_mean3},
                               {"band_sd3", st.band_sd3},
                               {"band_mean10", st.band_mean10},
                               {"band_sd10", st.band_sd10},
                               {"map_mean3", st.map_mean3},
                               {"map_sd3", st.map_sd3},
                               {"map_mean10", st.map_mean10},
                               {"map_sd10", st.map_sd10}}) {
    j += ",\"";
    j += key;
    j += "\":";
    append_number(j, v);
  }
  j += "},\"scale\":{";
  bool first = true;
  for (const auto& [key, s] : {std::pair{"tfr3", st.scale3}, {"tfr10", st.scale10}}) {
    if (!first) j += ',';
    first = false;
    j += "\"";
    j += key;
    j += "\":{\"centre\":";
    append_number(j, s.centre);
    j += ",\"half_range\":";
    append_number(j, s.half_range);
    j += '}';
  }
  j += "},\"hrv\":{";
  first = true;
  for (const HrvField& f : hrv_fields()) {
    if (!first) j += ',';
    first = false;
    j += "\"";
    j += f.name;
    j += "\":";
    append_number(j, f.value(recording.hrv));
  }
  j += "},\"rf\":" + rf_json;
  j += ",\"png_bytes\":[" + std::to_string(png3.size()) + "," + std::to_string(png10.size()) + "]";
  j += ",\"timings\":{";
  for (std::size_t i = 0; i < timings.size(); ++i) {
    if (i) j += ',';
    j += "\"" + timings[i].first + "\":";
    append_number(j, timings[i].second);
  }
  j += "}}\n";
  std::fwrite(j.data(), 1, j.size(), stdout);
  return std::fflush(stdout) == 0 ? kExitOk : kExitIo;
}
