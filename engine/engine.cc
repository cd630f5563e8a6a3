#include "engine/engine.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>

#include "app/file_util.h"
#include "engine/live_analysis.h"
#include "sensor/ble_manager.h"
#include "server/json.h"

namespace cvn {

namespace {

constexpr auto kClockTick = std::chrono::milliseconds(20);
constexpr double kAnalysisPeriod = 1.0;  // seconds between analysis starts
// stop() waits this long (200 x 10 ms) for a running analysis worker.
constexpr int kWorkerWaitRounds = 200;
constexpr auto kWorkerWaitStep = std::chrono::milliseconds(10);
// The live scope trails arrival by 0.4 s so bursts of notifications scroll
// smoothly; it shows the last six seconds.
constexpr double kScopeDelaySamples = 52;
constexpr std::int64_t kScopeSamples = 780;
constexpr double kMinPeriod = 0.05;

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

// Monotonic seconds, the time base of the acquisition clock.
double steady_seconds() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

std::int64_t unix_now() {
  return static_cast<std::int64_t>(std::time(nullptr));
}

}  // namespace

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

double breathing_period(double seconds) {
  return round_to(std::max(seconds, kMinPeriod), 2);
}

Engine::Engine(std::string data_folder, std::unique_ptr<BleManager> ble)
    : data_folder_(std::move(data_folder)),
      ble_(std::move(ble)),
      hr_(std::nan("")),
      cvn_(std::nan("")) {}

Engine::~Engine() {
  stop();
  // A worker that outlived stop()'s two seconds still uses this object.
  while (workers_.load() > 0) std::this_thread::sleep_for(kWorkerWaitStep);
}

void Engine::set_parameters(const Params& p) {
  if (auto it = p.find("name"); it != p.end()) name_id_ = it->second;
  indur_ = breathing_period(number_param(p, "indur", 5.0));
  outdur_ = breathing_period(number_param(p, "outdur", 11.0));
  cycle_seconds_ = round_to(outdur_ + indur_, 2);
  auto sex = p.find("sex");
  sex_ =
      (sex != p.end() && !sex->second.empty() && (sex->second[0] == 'F' || sex->second[0] == 'f'))
          ? "F"
          : "M";
  double age = number_param(p, "age", 40.0);
  age_ = std::isfinite(age) && std::fabs(age) < 1e9 ? static_cast<int>(age) : 40;
  double fs = number_param(p, "fs", kSampleRate);
  if (fs >= 20.0 && fs <= 20000.0) sample_rate_ = fs;
}

void Engine::reset_results() {
  hr_ = std::nan("");
  cvn_ = std::nan("");
  rr_count_ = 0;
  hr_series_.clear();
  cvn_series_.clear();
  hr_series_json_ = "[]";
  cvn_series_json_ = "[]";
  markers_.clear();
  peaks_.clear();
  session_start_ = unix_now();
  ++generation_;
  tfr_status = "idle";
  tfr_message.clear();
  tfr3_uri.clear();
  tfr10_uri.clear();
  saved_as.clear();
  export_status = "idle";
  export_result.clear();
  export_error.clear();
}

std::vector<double> Engine::current_samples() {
  Guard g(mu_);
  // A negative replay speed is accepted as given and walks the position
  // below zero; nothing before the first sample counts.
  if (mode_ == "replay")
    return std::vector<double>(replay_samples_.begin(),
                               replay_samples_.begin() + std::max<std::int32_t>(replay_pos_, 0));
  if (mode_ == "live") return live_samples_;
  return {};
}

std::int64_t Engine::sample_count() {
  Guard g(mu_);
  if (mode_ == "replay") return std::max<std::int32_t>(replay_pos_, 0);
  if (mode_ == "live") return static_cast<std::int64_t>(live_samples_.size());
  return 0;
}

void Engine::stop() {
  std::string mode;
  {
    Guard g(mu_);
    mode = mode_;
    stop_request_ = true;
  }
  if (mode == "live" && ble_) ble_->stop();
  if (clock_.joinable() && clock_.get_id() != std::this_thread::get_id()) clock_.join();
  for (int i = 0; i < kWorkerWaitRounds && analysis_busy_.load(); ++i)
    std::this_thread::sleep_for(kWorkerWaitStep);
  Guard g(mu_);
  running_ = false;
}

bool Engine::start_replay(const std::string& path, const Params& p) {
  std::optional<std::string> text = read_file(path);
  if (!text) return false;
  std::vector<double> samples = read_recording(*text);
  std::optional<std::string> marker_text = read_file(markers_path(path));
  std::vector<Marker> markers = marker_text ? read_markers(*marker_text) : std::vector<Marker>{};
  text.reset();

  stop();
  {
    Guard g(mu_);
    set_parameters(p);
    mode_ = "replay";
    replay_samples_ = std::move(samples);
    replay_total_ = static_cast<std::int32_t>(replay_samples_.size());
    replay_pos_ = 0;
    replay_speed_ = number_param(p, "speed", 2.0);
    replay_offset_ = 0.0;
    std::size_t slash = path.rfind('/');
    source_name_ = slash == std::string::npos ? path : path.substr(slash + 1);
    auto label = p.find("label");
    source_label_ = label != p.end() && !label->second.empty() ? label->second : source_name_;
    reset_results();
    markers_ = std::move(markers);
    running_ = true;
    stop_request_ = false;
  }
  start_clock();
  return true;
}

void Engine::start_live(const std::string& address, const Params& p) {
  stop();
  {
    Guard g(mu_);
    set_parameters(p);
    mode_ = "live";
    live_samples_.clear();
    live_start_ = 0.0;
    bt_status_ = "Starting…";
    auto device = p.find("device");
    bool has_device = device != p.end();
    source_name_ = has_device ? device->second : address;
    source_label_ = "Live — " + (has_device && !device->second.empty() ? device->second : address);
    reset_results();
    running_ = true;
    stop_request_ = false;
  }
  // Outside the lock: a link that reports a status at once calls back into
  // the engine from inside connectAndStream.
  if (ble_)
    ble_->connectAndStream(
        address, [this](const std::vector<double>& b) { on_samples(b); },
        [this](const std::string& s) { on_status(s); });
  start_clock();
}

void Engine::on_samples(const std::vector<double>& batch) {
  Guard g(mu_);
  if (live_samples_.empty() && !batch.empty()) live_start_ = steady_seconds();
  live_samples_.insert(live_samples_.end(), batch.begin(), batch.end());
}

void Engine::on_status(const std::string& text) {
  Guard g(mu_);
  bt_status_ = text;
}

void Engine::seek(double frac) {
  Guard g(mu_);
  if (mode_ != "replay" || replay_total_ <= 0) return;
  double f = std::min(frac > 0 ? frac : 0.0, 1.0);
  replay_offset_ = replay_total_ / kSampleRate * f;
  clock_start_ = steady_seconds();
  replay_pos_ = static_cast<std::int32_t>(
      std::min<double>(replay_total_, std::trunc(replay_offset_ * kSampleRate)));
}

void Engine::start_clock() {
  if (clock_.joinable()) clock_.join();  // a replay that ended by itself
  clock_ = std::thread([this] { clock_loop(); });
}

SessionCopy Engine::copy_session() {
  Guard g(mu_);
  SessionCopy c;
  c.samples = current_samples();
  c.markers = markers_;
  c.name = name_id_.empty() ? source_label_ : name_id_;
  c.indur = indur_;
  c.outdur = outdur_;
  c.cycle_seconds = cycle_seconds_;
  c.sex = sex_;
  c.age = age_;
  c.start_time = session_start_;
  c.generation = generation_;
  return c;
}

void Engine::run_detached(std::function<void()> job) {
  ++workers_;
  std::thread([this, job = std::move(job)] {
    job();
    --workers_;
  }).detach();
}

void Engine::maybe_start_worker(double* last_start) {
  double now = steady_seconds();
  if (now - *last_start < kAnalysisPeriod) return;
  bool expected = false;
  if (!analysis_busy_.compare_exchange_strong(expected, true)) return;
  *last_start = now;
  run_detached([this] {
    try {
      update_analysis();
    } catch (...) {
      // The previous results stay; the next round tries again.
    }
    analysis_busy_ = false;
  });
}

void Engine::clock_loop() {
  {
    Guard g(mu_);
    clock_start_ = steady_seconds();
    if (mode_ != "replay") replay_offset_ = 0.0;
  }
  double last_start = -1e300;  // the first round always starts a worker
  for (;;) {
    std::string mode;
    {
      Guard g(mu_);
      if (stop_request_) return;
      mode = mode_;
      if (mode == "replay") {
        double pos = std::trunc(
            ((steady_seconds() - clock_start_) * replay_speed_ + replay_offset_) * kSampleRate);
        replay_pos_ = static_cast<std::int32_t>(std::clamp<double>(pos, INT32_MIN, replay_total_));
      }
    }
    maybe_start_worker(&last_start);
    if (mode == "replay") {
      Guard g(mu_);
      if (replay_pos_ >= replay_total_) break;
    }
    std::this_thread::sleep_for(kClockTick);
  }
  update_analysis();
  Guard g(mu_);
  running_ = false;
}

void Engine::update_analysis() {
  std::vector<double> samples;
  double cycle;
  {
    Guard g(mu_);
    samples = current_samples();
    cycle = cycle_seconds_;
  }
  LiveAnalysis a = analyze_live(samples, cycle);
  std::string hr_json = series_json(a.hr_series);
  std::string cvn_json = series_json(a.cvn_series);
  Guard g(mu_);
  hr_series_json_ = std::move(hr_json);
  cvn_series_json_ = std::move(cvn_json);
  hr_ = a.hr;
  cvn_ = a.cvn;
  rr_count_ = a.rr_count;
  hr_series_ = std::move(a.hr_series);
  cvn_series_ = std::move(a.cvn_series);
  peaks_ = std::move(a.peaks);
}

bool Engine::add_marker(int key) {
  Guard g(mu_);
  if (!running_ || key < 1 || key > 9) return false;
  std::int32_t sample = static_cast<std::int32_t>(sample_count());
  // A double press before the next sample arrives must not make two markers.
  if (!markers_.empty() && markers_.back().sample == sample) return false;
  markers_.push_back({sample, key});
  return true;
}

std::string Engine::save() {
  SessionCopy c = copy_session();
  if (c.samples.size() < static_cast<std::size_t>(kSampleRateInt))
    return "{\"ok\":false,\"error\":\"Nothing recorded to save yet.\"}";
  std::string file = sanitize_file_name(c.name) + "_on" + short_number(c.indur) + "_off" +
                     short_number(c.outdur) + "_" + c.sex + std::to_string(c.age) + "_" +
                     file_time_stamp(unix_now()) + ".csv";
  std::string path = data_folder_ + "/recordings/" + file;
  if (!write_file(path, format_recording(c.samples)))
    return "{\"ok\":false,\"error\":\"write failed\"}";
  // The header-only file is written too, so a replay finds "no markers"
  // rather than a missing file.
  write_file(markers_path(path), markers_csv(c.markers));
  {
    Guard g(mu_);
    saved_as = file;
  }
  return "{\"ok\":true,\"file\":" + json_text(file) +
         ",\"count\":" + std::to_string(c.samples.size()) + "}";
}

std::string Engine::status_json() {
  Guard g(mu_);
  const bool replay = mode_ == "replay";
  const bool live = mode_ == "live";
  const std::int64_t count = sample_count();
  const double elapsed = count / kSampleRate;

  double frac = 0;
  if (replay && replay_total_ != 0) {
    frac = static_cast<double>(replay_pos_) / replay_total_;
  } else if (cycle_seconds_ != 0) {
    frac = std::min(1.0, count / (cycle_seconds_ * kCyclesTarget * kSampleRate));
  }

  std::string j;
  j.reserve(16384 + hr_series_json_.size() + cvn_series_json_.size());
  j += "{\"mode\":" + json_text(mode_);
  j += ",\"running\":";
  j += running_ ? "true" : "false";
  j += ",\"name_id\":" + json_text(name_id_);
  j += ",\"source_label\":" + json_text(source_label_);
  j += ",\"bt_status\":" + json_text(bt_status_);
  j += ",\"elapsed\":" + json_number(round_to(elapsed, 1));
  j += ",\"total\":" + json_number(replay ? round_to(replay_total_ / kSampleRate, 1) : 0.0);
  j += ",\"frac\":" + json_number(round_to(frac, 4));
  j += ",\"cycles_done\":" + json_number(round_to(elapsed / cycle_seconds_, 2));
  j += ",\"cycles_target\":" + std::to_string(kCyclesTarget);
  j += ",\"hr\":" + json_number(round_to(hr_, 1));
  j += ",\"cvn\":" + json_number(round_to(cvn_, 3));
  j += ",\"rr_count\":" + std::to_string(rr_count_);

  j += ",\"ecg\":[";
  if (replay || live) {
    const std::vector<double>& buf = replay ? replay_samples_ : live_samples_;
    std::int64_t end = count;
    if (live && live_start_ != 0.0) {
      double e = std::trunc((steady_seconds() - live_start_) * kSampleRate - kScopeDelaySamples);
      end = static_cast<std::int64_t>(std::clamp<double>(e, 0, static_cast<double>(buf.size())));
    }
    std::int64_t start = std::max<std::int64_t>(0, end - kScopeSamples);
    end = std::min<std::int64_t>(end, static_cast<std::int64_t>(buf.size()));
    for (std::int64_t i = start; i < end; ++i) {
      if (i > start) j += ',';
      append_json_number(j, round_to(buf[i], 1));
    }
  }
  j += "]";

  j += ",\"hr_series\":";
  j += hr_series_json_;
  j += ",\"cvn_series\":";
  j += cvn_series_json_;

  j += ",\"indur\":" + json_number(indur_);
  j += ",\"outdur\":" + json_number(outdur_);
  j += ",\"cycle_seconds\":" + json_number(cycle_seconds_);
  j += ",\"expected_freq\":" +
       json_number(cycle_seconds_ > 0 ? round_to(1.0 / cycle_seconds_, 4) : 0.0);
  j += ",\"sex\":" + json_text(sex_);
  j += ",\"age\":" + std::to_string(age_);
  j += ",\"tfr_status\":" + json_text(tfr_status);
  j += ",\"saved_as\":" + (saved_as.empty() ? std::string("null") : json_text(saved_as));
  j += ",\"export_status\":" + json_text(export_status);
  j += ",\"markers\":[";
  for (std::size_t i = 0; i < markers_.size(); ++i) {
    if (i) j += ',';
    j += "{\"t\":" + json_number(round_to(markers_[i].sample / kSampleRate, 1)) +
         ",\"k\":" + std::to_string(markers_[i].key) + "}";
  }
  j += "],\"app_version\":\"";
  j += CVN_VERSION;
  j += "\"}";
  return j;
}

}  // namespace cvn
