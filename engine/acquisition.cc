#include "engine/acquisition.h"

#include <chrono>
#include <new>

#include "base/constants.h"
#include "engine/sidecar.h"

namespace cvn {

namespace {

constexpr auto kClockTick = std::chrono::milliseconds(20);
constexpr double kAnalysisPeriod = 1.0;  // seconds between analysis starts

}  // namespace

Acquisition::Acquisition(SessionState& session, BleManager* ble, Clock& clock,
                         std::string recordings_folder, Disk& disk)
    : session_(session),
      ble_(ble),
      clock_(clock),
      disk_(disk),
      recordings_(std::move(recordings_folder)) {}

Acquisition::~Acquisition() {
  {
    std::lock_guard<std::mutex> l(lifecycle_mu_);
    stop_locked();
    keep_live_session();
  }
  if (analysis_.joinable()) analysis_.join();
}

void Acquisition::stop() {
  std::lock_guard<std::mutex> l(lifecycle_mu_);
  const bool was_running = session_.running();
  stop_locked();
  if (was_running) final_analysis();
  keep_live_session();
}

void Acquisition::stop_locked() {
  const Mode mode = session_.mode();
  if (mode == Mode::kLive && ble_) ble_->stop();
  if (clock_thread_.joinable()) {
    clock_thread_.request_stop();
    clock_thread_.join();
  }
  // Everything that arrived up to the stop goes to the disk now.
  if (mode == Mode::kLive) pump_journal(true);
  session_.set_running(false);
}

void Acquisition::seek(double frac) {
  // Held so that no new session starts between the move and its analysis.
  std::lock_guard<std::mutex> l(lifecycle_mu_);
  session_.seek(frac);
  // A running replay's clock analyses the new position within a second;
  // a stopped one has no clock left to do it.
  if (!session_.running() && session_.mode() == Mode::kReplay) final_analysis();
}

void Acquisition::start_replay(std::vector<double> samples, std::vector<Marker> markers,
                               const std::string& file, const SessionSettings& settings,
                               const ReplayOptions& options, std::optional<BeatSource> beats) {
  std::lock_guard<std::mutex> l(lifecycle_mu_);
  stop_locked();
  keep_live_session();
  session_.begin_replay(std::move(samples), std::move(markers),
                        options.label.empty() ? file : options.label, settings, options.speed,
                        std::move(beats));
  start_clock();
}

void Acquisition::start_live(const std::string& address, const std::optional<std::string>& device,
                             const SessionSettings& settings) {
  std::lock_guard<std::mutex> l(lifecycle_mu_);
  stop_locked();
  keep_live_session();
  const std::string strap = device && !device->empty() ? *device : address;
  session_.begin_live("Live — " + strap, settings, strap);
  open_journal();
  // The link may report a status at once, from inside connectAndStream:
  // the callbacks take only the session's own lock.
  if (ble_) ble_->set_breathing_guide(session_.guide());
  if (ble_ && settings.beats)
    ble_->connect_and_stream_beats(
        address, [this](const std::vector<double>& rr) { session_.append_beats(rr); },
        [this](const std::string& s) { session_.set_bt_status(s); });
  else if (ble_)
    ble_->connectAndStream(
        address, [this](const std::vector<double>& b) { session_.append_live(b); },
        [this](const std::string& s) { session_.set_bt_status(s); });
  start_clock();
}

void Acquisition::open_journal() {
  const SessionCopy c = session_.copy();
  const ExportInput& in = c.input;
  // Replaces the previous session's journal: starting anew gives that one up.
  journal_.start(recordings_ + "/" +
                     session_stem(in.name, in.breathing.indur, in.breathing.outdur,
                                  in.breathing.sex, in.breathing.age, in.start_time) +
                     std::string(kJournalEnding),
                 c.session, sidecar_text(session_sidecar(in)));
}

void Acquisition::pump_journal(bool sync_now) {
  session_.collect_into(journal_);
  journal_.write(clock_.now(), sync_now);
}

void Acquisition::start_clock() {
  session_.restart_replay_clock();
  hrv_due_ = static_cast<std::size_t>(kHrvMinSeconds * kSampleRate);
  clock_thread_ = std::jthread([this](std::stop_token stop) { clock_loop(stop); });
}

void Acquisition::maybe_start_analysis(double* last_start) {
  const double now = clock_.now();
  if (now - *last_start < kAnalysisPeriod) return;
  bool expected = false;
  if (!analysis_busy_.compare_exchange_strong(expected, true)) return;
  *last_start = now;
  // The previous worker has finished (busy was clear): joining it is
  // immediate.
  if (analysis_.joinable()) analysis_.join();
  analysis_ = std::jthread([this] {
    update_analysis();
    analysis_busy_ = false;
  });
}

void Acquisition::clock_loop(std::stop_token stop) {
  double last_start = -1e300;  // the first round always starts an analysis
  const Mode mode = session_.mode();
  while (!stop.stop_requested()) {
    const bool ended = session_.follow_replay_clock();
    // An assessment ends with its last step, live or replayed, as if Stop
    // had been pressed.
    const bool finished = session_.schedule_ended();
    maybe_start_analysis(&last_start);
    if (mode == Mode::kLive) pump_journal(false);
    if (ended || finished) {
      if (mode == Mode::kLive && ble_) ble_->stop();
      if (mode == Mode::kLive) pump_journal(true);
      // A replay that reached its end stops by itself, with its final
      // results in place.
      final_analysis();
      session_.set_running(false);
      keep_live_session();
      return;
    }
    std::this_thread::sleep_for(kClockTick);
  }
}

void Acquisition::update_analysis(bool with_hrv) {
  std::lock_guard<std::mutex> l(running_mu_);
  AnalysisInput in = session_.analysis_input(running_session_, running_.sample_count());
  if (in.session != running_session_) running_beats_.reset();
  if (in.beats) {
    running_session_ = in.session;
  } else if (in.session != running_session_ || in.first != running_.sample_count()) {
    // A new session, or a replay that seeked back: nothing carries over.
    running_.reset();
    running_session_ = in.session;
  }
  const std::size_t count = in.count;
  const std::size_t due = hrv_due_;
  if (count >= due) {
    with_hrv = true;
    hrv_due_ = count + static_cast<std::size_t>(kHrvPeriodSeconds * kSampleRate);
  }
  try {
    (void)session_.store_analysis(
        in.session, in.beats ? running_beats_.update(in.rr, in.cycle_seconds, with_hrv)
                             : running_.update(in.samples, in.cycle_seconds, with_hrv));
  } catch (const std::bad_alloc&) {
    // Out of memory for one pass: start over at the next round, which
    // tries again; the previous results stay meanwhile.
    running_.reset();
    running_beats_.reset();
    running_session_ = 0;
  }
}

void Acquisition::final_analysis() {
  std::lock_guard<std::mutex> l(running_mu_);
  AnalysisInput in = session_.analysis_input();
  try {
    (void)session_.store_analysis(in.session,
                                  in.beats ? analyze_beats(in.rr, in.cycle_seconds, true)
                                           : analyze_live(in.samples, in.cycle_seconds, true));
  } catch (const std::bad_alloc&) {
    // The last live results stay.
  }
}

namespace {

// What a save would keep, in seconds of recording.
double recorded_seconds(const SessionCopy& c) {
  if (!c.strap_beats) return static_cast<double>(c.input.samples.size()) / kSampleRate;
  double seconds = 0;
  for (double rr : *c.strap_beats) seconds += rr;
  return seconds;
}

// What a save writes: samples, or a beat recording's intervals.
std::size_t recorded_count(const SessionCopy& c) {
  return c.strap_beats ? c.strap_beats->size() : c.input.samples.size();
}

}  // namespace

void Acquisition::keep_live_session() {
  // A live session is kept in the recordings folder the moment it ends: the
  // user may start the next one without saving, and History must find it.
  // Under a second there is nothing to keep; a save that fails leaves the
  // journal on disk, for the next start to recover.
  std::lock_guard<std::mutex> l(save_mu_);
  const SessionCopy c = session_.copy();
  if (!c.finished_live || c.session == kept_session_) return;
  if (recorded_seconds(c) < 1.0) {
    journal_.remove(c.session);
    return;
  }
  if (save_copy(c).status.ok())
    kept_session_ = c.session;
  else
    journal_.release();
}

SaveResult Acquisition::save() {
  std::lock_guard<std::mutex> l(save_mu_);
  const SessionCopy c = session_.copy();
  // A stopped live session was saved when it stopped: that file is the answer.
  if (c.finished_live && c.session == kept_session_) return {{}, c.saved_as, recorded_count(c)};
  return save_copy(c);
}

SaveResult Acquisition::save_copy(const SessionCopy& c) {
  const ExportInput& in = c.input;
  SaveResult r;
  const std::vector<double>* beats = c.strap_beats ? &*c.strap_beats : nullptr;
  if (recorded_seconds(c) < 1.0) {
    r.status = Status::error("Nothing recorded to save yet.");
    return r;
  }
  const std::string file = session_stem(in.name, in.breathing.indur, in.breathing.outdur,
                                        in.breathing.sex, in.breathing.age, clock_.wall()) +
                           (beats ? std::string(kBeatsEnding) : ".csv");
  const std::string path = recordings_ + "/" + file;
  // Atomic, so a crash mid-save never leaves a truncated recording.
  if (!disk_.write_atomic(path, beats ? format_beats(*beats) : format_recording(in.samples)).ok()) {
    r.status = Status::error("write failed");
    return r;
  }
  // The header-only file is written too, so a replay finds "no markers"
  // rather than a missing file.
  bool markers_written = disk_.write_atomic(markers_path(path), markers_csv(in.markers)).ok();
  // The person and an assessment's schedule go beside it, so that the
  // person's history finds it and a replay or an export later scores the
  // same steps.
  markers_written &= disk_.write_atomic(sidecar_path(path), sidecar_text(session_sidecar(in))).ok();
  session_.set_saved_as(c.session, file);
  // The journal goes once no data can be lost with it: this save holds the
  // whole live session (it was stopped, so nothing more can arrive). A save
  // while it runs keeps the journal, since more may come.
  if (c.finished_live && markers_written) journal_.remove(c.session);
  r.file = file;
  r.count = recorded_count(c);
  return r;
}

}  // namespace cvn
