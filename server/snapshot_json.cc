#include "server/snapshot_json.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include "base/constants.h"
#include "server/json.h"

namespace cvn {

namespace {

// "[{"x":0,"y":61.2},...]"; y is null when not a number.
std::string series_json(const std::vector<SeriesPoint>& s) {
  std::string out;
  out.reserve(2 + s.size() * 28);
  out += '[';
  for (std::size_t i = 0; i < s.size(); ++i) {
    out += i ? ",{\"x\":" : "{\"x\":";
    append_json_number(out, s[i].x);
    out += ",\"y\":";
    append_json_number(out, s[i].y);
    out += '}';
  }
  out += ']';
  return out;
}

// A series changes once a second but is written 20 times a second per open
// stream, and a 30-minute one is ~500 KB of JSON: each series is written once
// and reused for as long as the engine hands out the same one.
class SeriesCache {
 public:
  std::shared_ptr<const std::string> get(
      const std::shared_ptr<const std::vector<SeriesPoint>>& series) {
    std::lock_guard<std::mutex> g(mu_);
    if (series != series_) {
      json_ = std::make_shared<const std::string>(series_json(*series));
      series_ = series;
    }
    return json_;
  }

 private:
  std::mutex mu_;
  std::shared_ptr<const std::vector<SeriesPoint>> series_;
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

std::string snapshot_json(const Snapshot& s) {
  static SeriesCache hr_cache, cvn_cache;
  const auto hr_json = hr_cache.get(s.hr_series);
  const auto cvn_json = cvn_cache.get(s.cvn_series);

  const bool replay = s.mode == Mode::kReplay;
  const double elapsed = s.samples / kSampleRate;
  double frac = 0;
  if (replay && s.replay_total != 0) {
    frac = static_cast<double>(s.samples) / s.replay_total;
  } else if (s.cycle_seconds != 0) {
    frac = std::min(1.0, s.samples / (s.cycle_seconds * kCyclesTarget * kSampleRate));
  }

  std::string j;
  j.reserve(16384 + hr_json->size() + cvn_json->size());
  j += "{\"mode\":\"";
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
  j += ",\"ecg\":[";
  for (std::size_t i = 0; i < s.scope.size(); ++i) {
    if (i) j += ',';
    append_json_number(j, round_to(s.scope[i], 1));
  }
  j += "],\"hr_series\":";
  j += *hr_json;
  j += ",\"cvn_series\":";
  j += *cvn_json;
  j += ",\"indur\":" + json_number(s.indur);
  j += ",\"outdur\":" + json_number(s.outdur);
  j += ",\"cycle_seconds\":" + json_number(s.cycle_seconds);
  j += ",\"expected_freq\":" +
       json_number(s.cycle_seconds > 0 ? round_to(1.0 / s.cycle_seconds, 4) : 0.0);
  j += ",\"sex\":" + json_text(s.sex);
  j += ",\"age\":" + std::to_string(s.age);
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
  j += "\"}";
  return j;
}

}  // namespace cvn
