#include "engine/engine.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>

#include "base/files.h"
#include "base/numbers.h"
#include "engine/import.h"
#include "engine/tfr_images.h"
#include "sensor/ble_manager.h"

namespace cvn {

namespace {

constexpr auto kClockTick = std::chrono::milliseconds(20);
constexpr double kAnalysisPeriod = 1.0;  // seconds between analysis starts
// How often the destructor looks whether the detached workers are done.
constexpr auto kWorkerWaitStep = std::chrono::milliseconds(10);
// The live scope trails arrival by 0.4 s so bursts of notifications scroll
// smoothly.
constexpr double kScopeDelaySamples = 52;

bool valid_import_rate(const std::optional<double>& rate) {
  return rate && *rate >= kMinImportRate && *rate <= kMaxImportRate;
}

const auto kNoSeries = std::make_shared<const std::vector<SeriesPoint>>();

}  // namespace

Engine::Engine(std::string data_folder, std::unique_ptr<BleManager> ble, Clock& clock)
    : data_folder_(std::move(data_folder)),
      ble_(std::move(ble)),
      clock_(clock),
      hr_(std::nan("")),
      cvn_(std::nan("")),
      hr_series_(kNoSeries),
      cvn_series_(kNoSeries) {}

Engine::~Engine() {
  stop();
  // A detached worker (analysis, TFR, export) may still use this object.
  while (workers_.load() > 0) std::this_thread::sleep_for(kWorkerWaitStep);
}

void Engine::apply_settings(const SessionSettings& st) {
  if (st.name) name_id_ = *st.name;
  indur_ = breathing_period(st.indur);
  outdur_ = breathing_period(st.outdur);
  cycle_seconds_ = round_to(outdur_ + indur_, 2);
  sex_ = st.sex;
  age_ = st.age;
  if (valid_import_rate(st.import_rate)) import_rate_ = *st.import_rate;
}

void Engine::reset_results() {
  hr_ = std::nan("");
  cvn_ = std::nan("");
  rr_count_ = 0;
  hr_series_ = kNoSeries;
  cvn_series_ = kNoSeries;
  markers_.clear();
  session_start_ = clock_.wall();
  ++generation_;
  tfr_ = {};
  saved_as_.clear();
  export_ = {};
}

std::vector<double> Engine::current_samples() {
  Guard g(mu_);
  // A negative replay speed is accepted as given and walks the position
  // below zero; nothing before the first sample counts.
  if (mode_ == Mode::kReplay)
    return std::vector<double>(replay_samples_.begin(),
                               replay_samples_.begin() + std::max<std::int32_t>(replay_pos_, 0));
  if (mode_ == Mode::kLive) return live_samples_;
  return {};
}

std::int64_t Engine::sample_count() {
  if (mode_ == Mode::kReplay) return std::max<std::int32_t>(replay_pos_, 0);
  if (mode_ == Mode::kLive) return static_cast<std::int64_t>(live_samples_.size());
  return 0;
}

void Engine::stop() {
  std::lock_guard<std::mutex> l(lifecycle_mu_);
  stop_locked();
}

void Engine::stop_locked() {
  Mode mode;
  {
    Guard g(mu_);
    mode = mode_;
    stop_request_ = true;
  }
  if (mode == Mode::kLive && ble_) ble_->stop();
  if (clock_thread_.joinable() && clock_thread_.get_id() != std::this_thread::get_id())
    clock_thread_.join();
  // Everything that arrived up to the stop goes to the disk now.
  if (mode == Mode::kLive) pump_journal(true);
  Guard g(mu_);
  running_ = false;
}

bool Engine::start_replay(const std::string& path, const SessionSettings& settings,
                          const ReplayOptions& options) {
  std::optional<std::string> text = read_file(path);
  if (!text) return false;
  std::vector<double> samples = read_recording(*text);
  text.reset();
  std::optional<std::string> marker_text = read_file(markers_path(path));
  std::size_t slash = path.rfind('/');
  start_replay_of(std::move(samples),
                  marker_text ? read_markers(*marker_text) : std::vector<Marker>{},
                  slash == std::string::npos ? path : path.substr(slash + 1), settings, options);
  return true;
}

void Engine::start_replay_of(std::vector<double> samples, std::vector<Marker> markers,
                             const std::string& file, const SessionSettings& settings,
                             const ReplayOptions& options) {
  std::lock_guard<std::mutex> l(lifecycle_mu_);
  stop_locked();
  journal_.remove();  // a new session: the stopped live one was given up
  {
    Guard g(mu_);
    apply_settings(settings);
    mode_ = Mode::kReplay;
    replay_samples_ = std::move(samples);
    replay_total_ = static_cast<std::int32_t>(replay_samples_.size());
    replay_pos_ = 0;
    replay_speed_ = options.speed;
    replay_offset_ = 0.0;
    source_label_ = options.label.empty() ? file : options.label;
    reset_results();
    markers_ = std::move(markers);
    running_ = true;
    stop_request_ = false;
  }
  start_clock();
}

void Engine::start_live(const std::string& address, const std::optional<std::string>& device,
                        const SessionSettings& settings) {
  std::lock_guard<std::mutex> l(lifecycle_mu_);
  stop_locked();
  {
    Guard g(mu_);
    apply_settings(settings);
    mode_ = Mode::kLive;
    live_samples_.clear();
    live_start_ = 0.0;
    bt_status_ = "Starting…";
    source_label_ = "Live — " + (device && !device->empty() ? *device : address);
    reset_results();
    running_ = true;
    stop_request_ = false;
  }
  open_journal();
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
  if (live_samples_.empty() && !batch.empty()) live_start_ = clock_.now();
  live_samples_.insert(live_samples_.end(), batch.begin(), batch.end());
}

void Engine::on_status(const std::string& text) {
  Guard g(mu_);
  bt_status_ = text;
}

void Engine::open_journal() {
  std::string path;
  std::uint64_t generation;
  {
    Guard g(mu_);
    path = data_folder_ + "/recordings/" +
           session_stem(session_name(), indur_, outdur_, sex_, age_, session_start_) +
           std::string(kJournalEnding);
    generation = generation_;
  }
  // Replaces the previous session's journal: starting anew gives that one up.
  journal_.start(path, generation);
}

void Engine::pump_journal(bool sync_now) {
  {
    Guard g(mu_);
    journal_.collect(generation_, live_samples_, markers_);  // copies only
  }
  journal_.write(clock_.now(), sync_now);
}

void Engine::seek(double frac) {
  Guard g(mu_);
  if (mode_ != Mode::kReplay || replay_total_ <= 0) return;
  double f = std::min(frac > 0 ? frac : 0.0, 1.0);
  replay_offset_ = replay_total_ / kSampleRate * f;
  clock_start_ = clock_.now();
  replay_pos_ = static_cast<std::int32_t>(
      std::min<double>(replay_total_, std::trunc(replay_offset_ * kSampleRate)));
}

void Engine::start_clock() {
  if (clock_thread_.joinable()) clock_thread_.join();  // a replay that ended by itself
  {
    Guard g(mu_);
    clock_start_ = clock_.now();
    if (mode_ != Mode::kReplay) replay_offset_ = 0.0;
  }
  clock_thread_ = std::thread([this] { clock_loop(); });
}

ExportInput Engine::session_input() {
  ExportInput in;
  in.samples = current_samples();
  in.markers = markers_;
  in.name = session_name();
  in.breathing = {indur_, outdur_, sex_, age_};
  in.start_time = session_start_;
  in.logo = logo_;
  return in;
}

void Engine::run_detached(std::function<void()> job) {
  ++workers_;
  std::thread([this, job = std::move(job)] {
    job();
    --workers_;
  }).detach();
}

void Engine::maybe_start_worker(double* last_start) {
  double now = clock_.now();
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
  double last_start = -1e300;  // the first round always starts a worker
  for (;;) {
    Mode mode;
    {
      Guard g(mu_);
      if (stop_request_) return;
      mode = mode_;
      if (mode == Mode::kReplay) {
        double pos = std::trunc(((clock_.now() - clock_start_) * replay_speed_ + replay_offset_) *
                                kSampleRate);
        replay_pos_ = static_cast<std::int32_t>(std::clamp<double>(pos, INT32_MIN, replay_total_));
      }
    }
    maybe_start_worker(&last_start);
    if (mode == Mode::kLive) pump_journal(false);
    if (mode == Mode::kReplay) {
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
  std::uint64_t generation;
  {
    Guard g(mu_);
    samples = current_samples();
    cycle = cycle_seconds_;
    generation = generation_;
  }
  LiveAnalysis a = analyze_live(samples, cycle);
  auto hr_series = std::make_shared<const std::vector<SeriesPoint>>(std::move(a.hr_series));
  auto cvn_series = std::make_shared<const std::vector<SeriesPoint>>(std::move(a.cvn_series));
  Guard g(mu_);
  // A new session started meanwhile: these results belong to no one.
  if (generation != generation_) return;
  hr_ = a.hr;
  cvn_ = a.cvn;
  rr_count_ = a.rr_count;
  hr_series_ = std::move(hr_series);
  cvn_series_ = std::move(cvn_series);
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

SaveResult Engine::save() {
  ExportInput c;
  std::uint64_t generation;
  bool finished_live;
  {
    Guard g(mu_);
    c = session_input();
    generation = generation_;
    finished_live = mode_ == Mode::kLive && !running_;
  }
  SaveResult r;
  if (c.samples.size() < static_cast<std::size_t>(kSampleRateInt)) {
    r.error = "Nothing recorded to save yet.";
    return r;
  }
  const BreathingSettings& b = c.breathing;
  std::string file = session_stem(c.name, b.indur, b.outdur, b.sex, b.age, clock_.wall()) + ".csv";
  std::string path = data_folder_ + "/recordings/" + file;
  // Atomic, so a crash mid-save never leaves a truncated recording.
  if (!write_file_atomic(path, format_recording(c.samples))) {
    r.error = "write failed";
    return r;
  }
  // The header-only file is written too, so a replay finds "no markers"
  // rather than a missing file.
  bool markers_written = write_file_atomic(markers_path(path), markers_csv(c.markers));
  {
    Guard g(mu_);
    saved_as_ = file;
  }
  // The journal goes once no data can be lost with it: this save holds the
  // whole live session (it was stopped, so nothing more can arrive), or a
  // new session is started (open_journal, start_replay: the old one was
  // given up). A session stopped but not saved keeps its journal, so closing
  // the window after Stop still recovers it at the next start.
  if (finished_live && markers_written) journal_.remove(generation);
  r.file = file;
  r.count = c.samples.size();
  return r;
}

ImportResult Engine::import_recording(const std::string& text, const std::string& file_name,
                                      const SessionSettings& settings,
                                      const ReplayOptions& options) {
  ImportResult r;
  if (text.empty()) {
    r.note = "No file received.";
    return r;
  }
  const std::string name = import_name(file_name);
  if (looks_like_kubios(text)) {
    r.beats = read_kubios_rr(text).size();
    if (r.beats < kMinKubiosBeats) {
      r.note = "This looks like a Kubios file but no RR-interval column was found.";
      return r;
    }
    if (batch_running_) {
      r.note = "A batch is already running.";
      return r;
    }
    // The export goes through a batch of its own, in a fresh upload area.
    std::string error = reset_upload_folder();
    if (error.empty()) error = write_file_checked(upload_folder() + "/" + name + ".csv", text);
    if (!error.empty()) {
      r.note = error;
      return r;
    }
    if (!start_batch(upload_folder(), true, name, settings)) {
      r.note = "A batch is already running.";
      return r;
    }
    r.kubios = true;
    return r;
  }
  double rate;
  {
    Guard g(mu_);
    if (valid_import_rate(settings.import_rate)) import_rate_ = *settings.import_rate;
    rate = import_rate_;
  }
  std::vector<double> samples = resample(read_recording(text), rate);
  if (samples.size() < kMinImportSamples) {
    r.note =
        "That file did not look like a raw ECG (.txt/.csv with one sample per line) or a Kubios "
        "export.";
    return r;
  }
  r.file = "imported_" + name + "_" + file_time_stamp(clock_.wall()) + ".csv";
  const std::string path = data_folder_ + "/recordings/" + r.file;
  if (!write_file_atomic(path, format_recording(samples))) {
    r.note = "Could not save the imported recording in " + data_folder_ + "/recordings.";
    r.file.clear();
    return r;
  }
  ReplayOptions o = options;
  o.label = "Imported — " + name;
  // What plays is what the file holds: its whole numbers.
  for (double& v : samples) v = std::round(v);
  start_replay_of(std::move(samples), {}, r.file, settings, o);
  return r;
}

Snapshot Engine::snapshot() {
  Guard g(mu_);
  Snapshot s;
  s.mode = mode_;
  s.running = running_;
  s.name_id = name_id_;
  s.source_label = source_label_;
  s.bt_status = bt_status_;
  s.samples = sample_count();
  s.replay_total = replay_total_;
  s.hr = hr_;
  s.cvn = cvn_;
  s.rr_count = rr_count_;
  const bool replay = mode_ == Mode::kReplay;
  const bool live = mode_ == Mode::kLive;
  if (replay || live) {
    const std::vector<double>& buf = replay ? replay_samples_ : live_samples_;
    std::int64_t end = s.samples;
    if (live && live_start_ != 0.0) {
      double e = std::trunc((clock_.now() - live_start_) * kSampleRate - kScopeDelaySamples);
      end = static_cast<std::int64_t>(std::clamp<double>(e, 0, static_cast<double>(buf.size())));
    }
    std::int64_t start = std::max<std::int64_t>(0, end - kScopeSamples);
    end = std::min<std::int64_t>(end, static_cast<std::int64_t>(buf.size()));
    if (end > start) s.scope.assign(buf.begin() + start, buf.begin() + end);
  }
  s.hr_series = hr_series_;
  s.cvn_series = cvn_series_;
  s.indur = indur_;
  s.outdur = outdur_;
  s.cycle_seconds = cycle_seconds_;
  s.sex = sex_;
  s.age = age_;
  s.tfr = tfr_.state;
  s.export_job = export_.state;
  s.saved_as = saved_as_;
  s.markers = markers_;
  return s;
}

void Engine::start_tfr() {
  TfrInput in;
  std::uint64_t generation;
  {
    Guard g(mu_);
    tfr_.state = JobState::kRunning;
    tfr_.message.clear();
    in = {current_samples(), {indur_, outdur_, sex_, age_}};
    generation = generation_;
  }
  run_detached([this, in = std::move(in), generation] {
    TfrImages r;
    try {
      r = compute_tfr_images(in);
    } catch (const std::exception& e) {
      r.error = e.what();
    } catch (...) {
      r.error = "unknown error";
    }
    Guard g(mu_);
    // A new session started meanwhile: these images belong to no one.
    if (generation != generation_) return;
    if (!r.error.empty()) {
      tfr_.state = JobState::kError;
      tfr_.message = r.error;
      return;
    }
    tfr_.tfr3_uri = std::move(r.tfr3_uri);
    tfr_.tfr10_uri = std::move(r.tfr10_uri);
    tfr_.state = JobState::kDone;
  });
}

void Engine::start_export() {
  ExportInput in;
  std::uint64_t generation;
  {
    Guard g(mu_);
    export_ = {};
    export_.state = JobState::kRunning;
    in = session_input();
    generation = generation_;
  }
  run_detached([this, in = std::move(in), generation] {
    ExportResult r;
    try {
      r = write_export(in, data_folder_ + "/exports");
    } catch (const std::exception& e) {
      r.error = std::string("Export failed: ") + e.what();
    }
    Guard g(mu_);
    // The files are on disk either way; the status belongs to its session.
    if (generation != generation_) return;
    export_.state = r.ok() ? JobState::kDone : JobState::kError;
    export_.result = std::move(r);
  });
}

ExportStatus Engine::export_status() {
  Guard g(mu_);
  return export_;
}

bool Engine::start_batch(const std::string& folder, bool single, const std::string& report_name,
                         const std::optional<SessionSettings>& settings) {
  bool expected = false;
  if (!batch_running_.compare_exchange_strong(expected, true)) return false;
  BatchRequest request;
  ReportLogo logo;
  {
    Guard g(mu_);
    logo = logo_;
    if (settings) apply_settings(*settings);
    request.folder = folder;
    request.single = single;
    request.report_name = report_name;
    request.settings.breathing = {indur_, outdur_, sex_, age_};
    request.settings.sample_rate = import_rate_;
    request.settings.per_person = single && settings.has_value();
    batch_ = {};
    batch_.state = JobState::kRunning;
    batch_.message = "Scanning…";
  }
  run_detached([this, request = std::move(request), logo = std::move(logo)] {
    BatchOutcome out;
    try {
      out = run_batch(request, data_folder_ + "/exports", logo,
                      [this](int done, int total, const std::string& message) {
                        Guard g(mu_);
                        batch_.done = done;
                        batch_.total = total;
                        batch_.message = message;
                      });
    } catch (const std::exception& e) {
      out.error = e.what();
    }
    Guard g(mu_);
    batch_.state = out.error.empty() ? JobState::kDone : JobState::kError;
    batch_.message = out.error.empty() ? out.message : "Batch failed: " + out.error;
    batch_.outcome = std::move(out);
    batch_running_ = false;
  });
  return true;
}

std::string Engine::reset_upload_folder() {
  std::error_code ec;
  std::filesystem::remove_all(upload_folder(), ec);
  if (!ec) std::filesystem::create_directories(upload_folder(), ec);
  return ec ? "Could not prepare the upload folder " + upload_folder() + ": " + ec.message() : "";
}

BatchStatus Engine::batch_status() {
  Guard g(mu_);
  return batch_;
}

void Engine::set_report_logo(ReportLogo logo) {
  Guard g(mu_);
  logo_ = std::move(logo);
}

TfrResult Engine::tfr() {
  Guard g(mu_);
  return tfr_;
}

}  // namespace cvn
