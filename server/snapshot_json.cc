#include "server/snapshot_json.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>

#include "analysis/hrv.h"
#include "analysis/live_score.h"
#include "base/constants.h"
#include "server/json.h"

namespace cvn {

namespace {

// "[{"x":0,"y":61.2},...]" of s[from, end); y is null when not a number.
void append_series(std::string& out, const std::vector<SeriesPoint>& s, std::size_t from) {
  out.reserve(out.size() + 2 + (s.size() - from) * 28);
  out += '[';
  for (std::size_t i = from; i < s.size(); ++i) {
    out += i != from ? ",{\"x\":" : "{\"x\":";
    append_json_number(out, s[i].x);
    out += ",\"y\":";
    append_json_number(out, s[i].y);
    out += '}';
  }
  out += ']';
}

std::string series_json(const std::vector<SeriesPoint>& s) {
  std::string out;
  append_series(out, s, 0);
  return out;
}

// {"from":i,"points":[…]}: what replaces the page's series from point i on.
std::string series_tail_json(const std::vector<SeriesPoint>& s, std::size_t from) {
  std::string out = "{\"from\":" + std::to_string(from) + ",\"points\":";
  append_series(out, s, from);
  out += '}';
  return out;
}

// Every field of hrv_fields() in its order, keyed by its name; an empty one is
// null.
std::string hrv_json(const HrvIndices& h) {
  std::string out = "{";
  for (const HrvField& f : hrv_fields()) {
    if (out.size() > 1) out += ',';
    out += '"';
    out += f.name;
    out += "\":";
    const double v = f.value(h);
    // Counts are written whole: six significant digits would round a long
    // recording's beats.
    if (f.count && std::isfinite(v)) {
      out += std::to_string(h.*f.count);
    } else {
      append_json_number(out, v);
    }
  }
  out += '}';
  return out;
}

// A series changes once a second and the HRV indices every 10 s, but each is
// written 20 times a second per open stream, and a 30-minute series is ~500 KB
// of JSON: each is written once and reused for as long as the engine hands out
// the same object.
template <class T, std::string (*kWrite)(const T&)>
class JsonCache {
 public:
  // REQUIRES: value is not null.
  std::shared_ptr<const std::string> get(const std::shared_ptr<const T>& value) {
    std::lock_guard<std::mutex> g(mu_);
    if (value != value_) {
      json_ = std::make_shared<const std::string>(kWrite(*value));
      value_ = value;
    }
    return json_;
  }

 private:
  std::mutex mu_;
  std::shared_ptr<const T> value_;
  std::shared_ptr<const std::string> json_;
};

}  // namespace

const char* job_text(JobState s, const char* running) {
  switch (s) {
    case JobState::kRunning:
      return running;
    case JobState::kDone:
      return "done";
    case JobState::kError:
      return "error";
    case JobState::kIdle:
      break;
  }
  return "idle";
}

const char* mode_text(Mode m) {
  switch (m) {
    case Mode::kLive:
      return "live";
    case Mode::kReplay:
      return "replay";
    case Mode::kIdle:
      break;
  }
  return "idle";
}

namespace {

JsonCache<std::vector<SeriesPoint>, series_json> hr_cache, cvn_cache;

// The snapshot with the given text for its two series; `reset` puts
// "reset":true ahead of the rest.
std::string snapshot_with(const Snapshot& s, const std::string& hr_json,
                          const std::string& cvn_json, bool reset) {
  static JsonCache<HrvIndices, hrv_json> hrv_cache;
  const auto hrv = s.hrv ? hrv_cache.get(s.hrv) : nullptr;

  const bool replay = s.mode == Mode::kReplay;
  const double elapsed = s.samples / kSampleRate;
  double frac = 0;
  if (replay && s.replay_total != 0) {
    frac = static_cast<double>(s.samples) / s.replay_total;
  } else if (s.cycle_seconds != 0) {
    frac = std::min(1.0, s.samples / (s.cycle_seconds * kCyclesTarget * kSampleRate));
  }

  std::string j;
  j.reserve(16384 + hr_json.size() + cvn_json.size());
  j += reset ? "{\"reset\":true,\"mode\":\"" : "{\"mode\":\"";
  j += mode_text(s.mode);
  j += "\",\"running\":";
  j += s.running ? "true" : "false";
  j += ",\"name_id\":" + json_text(s.name_id);
  j += ",\"source_label\":" + json_text(s.source_label);
  j += ",\"bt_status\":" + json_text(s.bt_status);
  j += ",\"elapsed\":" + json_number(round_to(elapsed, 1));
  j += ",\"total\":" + json_number(replay ? round_to(s.replay_total / kSampleRate, 1) : 0.0);
  j += ",\"frac\":" + json_number(round_to(frac, 4));
  j += ",\"cycles_done\":" + json_number(round_to(elapsed / s.cycle_seconds, 2));
  j += ",\"cycles_target\":" + std::to_string(kCyclesTarget);
  j += ",\"hr\":" + json_number(round_to(s.hr, 1));
  j += ",\"cvn\":" + json_number(round_to(s.cvn, 3));
  j += ",\"rr_count\":" + std::to_string(s.rr_count);
  // Ahead of the series: the page reads everything from "hr_series" to
  // "indur" as the two series only (web/snapshot.js), so a field there is lost.
  j += ",\"hrv\":";
  if (hrv) {
    j += *hrv;
  } else {
    j += "null";
  }
  j += ",\"ecg\":[";
  for (std::size_t i = 0; i < s.scope.size(); ++i) {
    if (i) j += ',';
    append_json_number(j, round_to(s.scope[i], 1));
  }
  j += "],\"hr_series\":";
  j += hr_json;
  j += ",\"cvn_series\":";
  j += cvn_json;
  j += ",\"indur\":" + json_number(s.indur);
  j += ",\"outdur\":" + json_number(s.outdur);
  j += ",\"cycle_seconds\":" + json_number(s.cycle_seconds);
  j += ",\"expected_freq\":" +
       json_number(s.cycle_seconds > 0 ? round_to(1.0 / s.cycle_seconds, 4) : 0.0);
  j += ",\"sex\":" + json_text(s.sex);
  j += ",\"age\":" + std::to_string(s.age);
  j += s.rf ? ",\"protocol\":\"rf\",\"rf\":{" + rf_protocol_json(s.rf->protocol) +
                  ",\"step\":" + std::to_string(s.rf->step) +
                  ",\"steps\":" + std::to_string(s.rf->steps) +
                  ",\"bpm\":" + json_number(s.rf->bpm) +
                  ",\"left\":" + json_number(round_to(s.rf->left, 1)) + "}"
            : ",\"protocol\":\"free\",\"rf\":null";
  j += ",\"tfr_status\":\"";
  j += job_text(s.tfr, "computing");
  j += "\",\"saved_as\":" + (s.saved_as.empty() ? std::string("null") : json_text(s.saved_as));
  j += ",\"export_status\":\"";
  j += job_text(s.export_job, "exporting");
  j += "\",\"markers\":[";
  for (std::size_t i = 0; i < s.markers.size(); ++i) {
    if (i) j += ',';
    j += "{\"t\":" + json_number(round_to(s.markers[i].sample / kSampleRate, 1)) +
         ",\"k\":" + std::to_string(s.markers[i].key) + "}";
  }
  j += "],\"app_version\":\"";
  j += kAppVersion;
  j += "\",\"replay_speed\":" + (replay ? json_number(s.replay_speed) : std::string("null"));
  j += ",\"scope_samples\":" + std::to_string(kScopeSamples);
  j += ",\"countdown_cycles\":" + std::to_string(kLiveScoreCycles);
  j += ",\"batch\":{\"status\":\"";
  j += job_text(s.batch.state, "running");
  j += "\",\"total\":" + std::to_string(s.batch.total) +
       ",\"done\":" + std::to_string(s.batch.done) + ",\"msg\":" + json_text(s.batch.message) + "}";
  j += s.beats ? ",\"source\":\"beats\"}" : ",\"source\":\"ecg\"}";
  return j;
}

}  // namespace

std::string snapshot_json(const Snapshot& s) {
  return snapshot_with(s, *hr_cache.get(s.hr_series), *cvn_cache.get(s.cvn_series), false);
}

std::size_t first_difference(const std::vector<SeriesPoint>& a, const std::vector<SeriesPoint>& b) {
  const std::size_t n = std::min(a.size(), b.size());
  // Bit for bit, so that a NaN (null) point equals itself.
  std::size_t i = 0;
  while (i < n && std::memcmp(&a[i], &b[i], sizeof(SeriesPoint)) == 0) ++i;
  return i;
}

std::string stream_event_json(const Snapshot& s, StreamCursor* c) {
  // A new session, another mode or a series that lost points (a replay's
  // seek rebuilds them) starts the page's copy over.
  const bool fresh = !c->started || s.mode != c->mode || s.name_id != c->name_id ||
                     s.source_label != c->source_label ||
                     s.hr_series->size() < c->hr_series->size() ||
                     s.cvn_series->size() < c->cvn_series->size();
  std::string j;
  if (fresh) {
    j = snapshot_with(s, *hr_cache.get(s.hr_series), *cvn_cache.get(s.cvn_series), c->started);
  } else {
    // The same object is the same series: only a renewed one is compared,
    // about once a second.
    const auto tail = [](const auto& now, const auto& sent) {
      const std::size_t from = now == sent ? now->size() : first_difference(*now, *sent);
      return series_tail_json(*now, from);
    };
    j = snapshot_with(s, tail(s.hr_series, c->hr_series), tail(s.cvn_series, c->cvn_series), false);
  }
  c->started = true;
  c->mode = s.mode;
  c->name_id = s.name_id;
  c->source_label = s.source_label;
  c->hr_series = s.hr_series;
  c->cvn_series = s.cvn_series;
  return j;
}

std::string rf_protocol_json(const RfProtocol& p) {
  std::string j = "\"rates\":[";
  for (std::size_t i = 0; i < p.rates.size(); ++i) {
    if (i) j += ',';
    append_json_number(j, p.rates[i]);
  }
  return j + "],\"step_s\":" + json_number(p.step_s) + ",\"infrac\":" + json_number(p.infrac);
}

std::string rf_result_json(const RfResult& r) {
  std::string j = "{\"protocol\":{" + rf_protocol_json(r.protocol) + "},\"steps\":[";
  for (std::size_t i = 0; i < r.steps.size(); ++i) {
    const RfStepScore& st = r.steps[i];
    if (i) j += ',';
    j += "{\"bpm\":" + json_number(st.step.bpm) + ",\"start_s\":" + json_number(st.step.start_s) +
         ",\"end_s\":" + json_number(st.step.end_s) +
         ",\"breaths\":" + std::to_string(st.step.breaths) +
         ",\"reached\":" + (st.reached ? "true" : "false");
    for (const auto& [key, v] : {std::pair{"peak_trough_hr", st.peak_trough_hr},
                                 {"lf_power", st.lf_power},
                                 {"lf_peak", st.lf_peak},
                                 {"phase_deg", st.phase_deg},
                                 {"amplitude_bpm", st.amplitude_bpm},
                                 {"cvn", st.cvn}}) {
      j += ",\"";
      j += key;
      j += "\":" + json_number(v);
    }
    j += '}';
  }
  return j + "],\"recommended_bpm\":" + json_number(r.recommended_bpm) + "}";
}

}  // namespace cvn
