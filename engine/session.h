// The session's state: which source feeds it, the samples so far, who is
// breathing and how, the latest results and the markers. Every member sits
// under one plain mutex that each operation takes once; none calls back out
// while holding it, so the lock never nests. Long work copies what it needs
// (samples(), analysis_input()), computes without the lock, and hands its
// result back with the session number it started from: a result of an older
// session is dropped.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "analysis/hrv.h"
#include "analysis/resonance.h"
#include "base/breathing.h"
#include "base/clock.h"
#include "base/recording.h"
#include "engine/live_analysis.h"
#include "reports/export.h"
#include "sensor/ble_manager.h"

namespace cvn {

class LiveJournal;

/// Target number of breathing cycles of a session (progress bar, "frac").
inline constexpr int kCyclesTarget = 16;

enum class Mode { kIdle, kLive, kReplay };

/// The life of a background job (TFR, export, batch).
enum class JobState { kIdle, kRunning, kDone, kError };

/// How far a batch has come: what the page shows while it runs.
struct BatchState {
  JobState state = JobState::kIdle;
  int total = 0, done = 0;
  std::string message;  // "Scanning…", "Processing 3 / 10 — Anna", how it ended
};

/// Who is breathing and how: what the page's setup screen sends.
struct SessionSettings : BreathingSettings {
  std::optional<std::string> name;  // absent: the previous name stays
  /// Rate of imported raw ECG, Hz; kept only from kMinImportRate to
  /// kMaxImportRate, otherwise the previous rate stays.
  std::optional<double> import_rate;
  /// A resonance assessment's steps; absent: one rhythm, indur and outdur.
  std::optional<RfProtocol> rf;
  /// The request named a protocol (free or rf). When it did not, a replay
  /// takes the one saved beside its recording.
  bool protocol_named = false;
  /// Live: stream beat intervals over the Heart Rate Service instead of ECG
  /// (any standard strap, or a Polar H10 set to beats only).
  bool beats = false;
};

/// A strap's beat intervals: the source of a session that has no ECG.
struct BeatSource {
  std::vector<double> rr_seconds;  // as the strap sent them, oldest first
  std::string device;              // the strap's name; empty: not known
};

/// Where a resonance assessment stands, for the page.
struct RfPosition {
  RfProtocol protocol;
  int step = 0;  // 1-based; after the last step, the last
  int steps = 0;
  double bpm = 0;   // the step's rate
  double left = 0;  // seconds left in the step; 0 after the last
};

/// One consistent view of the session, taken under the lock.
struct Snapshot {
  Mode mode = Mode::kIdle;
  bool running = false;
  std::string name_id, source_label, bt_status;
  /// The source is beat intervals (no ECG; the scope stays empty).
  bool beats = false;
  /// Received (live) or played (replay); in a beat session its time in
  /// samples at kSampleRate (time x 130), as markers count it.
  std::int64_t samples = 0;
  std::int32_t replay_total = 0;  // replay only
  double replay_speed = 0;        // replay only: session seconds per wall second
  double hr = 0, cvn = 0;         // NaN when not known yet
  std::int32_t rr_count = 0;
  std::vector<double> scope;  // the ECG the scope shows, at most kScopeSamples
  std::shared_ptr<const std::vector<SeriesPoint>> hr_series, cvn_series;  // never null
  /// HRV of the session so far: null until 2 minutes exist (then renewed
  /// every 10 s) and after a stop (then of the whole session).
  std::shared_ptr<const HrvIndices> hrv;
  double indur = 5, outdur = 11, cycle_seconds = 16;
  std::string sex;
  int age = 40;
  std::optional<RfPosition> rf;  // absent: a single-rhythm session
  JobState tfr = JobState::kIdle, export_job = JobState::kIdle;
  BatchState batch;
  std::string saved_as;  // empty: not saved
  std::vector<Marker> markers;
};

/// What the once-per-second analysis needs, copied in one go.
struct AnalysisInput {
  /// A beat session: `rr` holds every interval so far and `samples` is empty.
  bool beats = false;
  std::vector<double> rr;
  /// The session's length in samples (for beats its time x kSampleRate).
  std::size_t count = 0;
  std::vector<double> samples;
  std::size_t first = 0;     // index in the session of samples[0]
  double cycle_seconds = 0;  // the current step's, in an assessment
  std::uint64_t session = 0;
};

/// What save and the jobs know of the session, copied in one go.
struct SessionCopy {
  /// The samples that count (see samples()); no logo. A beat session has no
  /// samples, its intervals as the strap sent them in rr_seconds (with
  /// rr_from_strap: the analysis cleans them) and its strap in beat_device.
  ExportInput input;
  /// A beat session's intervals as the strap sent them: what a save keeps.
  std::optional<std::vector<double>> strap_beats;
  double import_rate = 0;
  std::uint64_t session = 0;
  bool finished_live = false;  // a live session that has stopped
  std::string saved_as;        // the file it was saved as; empty: not saved
};

class SessionState {
 public:
  explicit SessionState(Clock& clock);

  /// A new replay of `samples` from the start; clears the results and the
  /// markers (then sets `markers`), and starts a new session number, which
  /// it returns.
  /// With `beats` the session plays those intervals instead (and `samples`
  /// is ignored): a beat is played once the replay's time passes its end.
  std::uint64_t begin_replay(std::vector<double> samples, std::vector<Marker> markers,
                             std::string label, const SessionSettings& settings, double speed,
                             std::optional<BeatSource> beats = std::nullopt);
  /// A new live session with no samples yet; as begin_replay otherwise. With
  /// settings.beats its source is the beat intervals of `device`.
  std::uint64_t begin_live(std::string label, const SessionSettings& settings,
                           std::string device = {});
  /// The settings a batch or an import brings become the session's.
  void apply(const SessionSettings& settings);

  void set_running(bool running) { running_ = running; }
  bool running() const { return running_; }
  Mode mode();
  std::uint64_t session();

  /// Live samples from the strap, in arrival order.
  void append_live(const std::vector<double>& batch);
  /// Live beat intervals (seconds) from the strap, oldest first.
  void append_beats(const std::vector<double>& rr_seconds);
  void set_bt_status(std::string text);

  /// Restarts the replay clock at the current position (a new replay, or
  /// after a seek).
  void restart_replay_clock();
  /// Moves the replay position to where the clock says; true once it has
  /// reached the end.
  bool follow_replay_clock();
  /// Moves replay to a fraction 0..1 of the recording; nothing in live mode.
  void seek(double frac);

  /// The samples that count: played replay samples, or all live samples.
  std::vector<double> samples();
  AnalysisInput analysis_input();
  /// The samples after the first `from` while `session` is the current one
  /// and has that many; otherwise all of them (a new session, or a replay
  /// that seeked back).
  AnalysisInput analysis_input(std::uint64_t session, std::size_t from);
  SessionCopy copy();
  /// The import rate the settings ask for, or the one kept.
  double import_rate(const SessionSettings& settings);
  /// An assessment's schedule has run out: the session is due to stop.
  bool schedule_ended();
  /// The pacer of this session as a function of its time, for a simulated
  /// strap that breathes along.
  BreathingGuide guide();

  /// Stores the results of an analysis that started from `session`; false,
  /// with nothing stored, when a new session has begun since.
  bool store_analysis(std::uint64_t session, LiveAnalysis a);
  /// A marker at the current sample; false when not running, the key is
  /// outside 1..9, or the last marker already sits on this sample.
  bool add_marker(int key);
  void set_saved_as(std::uint64_t session, std::string file);

  /// Queues what the journal has not seen yet of the live session.
  void collect_into(LiveJournal& journal);

  /// The session as the page sees it; job states are the jobs' to fill in.
  Snapshot snapshot();

 private:
  void apply_locked(const SessionSettings& settings);  // REQUIRES: mu_ held
  std::uint64_t begin_locked();                        // REQUIRES: mu_ held
  std::int64_t sample_count() const;                   // REQUIRES: mu_ held
  std::vector<double> samples_locked() const;          // REQUIRES: mu_ held
  void copy_locked(SessionCopy& c);                    // takes mu_
  /// A beat session's intervals that count: played, or all received.
  /// REQUIRES: mu_ held.
  std::vector<double> beats_locked() const;
  /// The breathing of the moment: the step's in an assessment, else the
  /// session's. REQUIRES: mu_ held.
  BreathingSettings breathing_now(PacerPosition* where = nullptr) const;

  Clock& clock_;
  std::mutex mu_;
  std::atomic<bool> running_{false};

  Mode mode_ = Mode::kIdle;
  std::string name_id_, source_label_, bt_status_;
  BreathingSettings breathing_;  // periods as breathing_period keeps them
  std::optional<RfProtocol> rf_;
  std::vector<RfStep> schedule_;  // empty unless rf_
  double import_rate_;

  std::vector<double> replay_samples_, live_samples_;
  // A beat session's source. Times are in samples at kSampleRate, so that a
  // replay's position, the markers and the schedule count as for an ECG.
  bool beats_ = false;
  std::string beat_device_;
  std::vector<double> replay_beats_, live_beats_;
  std::vector<double> replay_beat_ends_;  // end of each replayed beat, ascending
  double live_beats_time_ = 0;            // sum of the live intervals x kSampleRate
  std::int32_t replay_pos_ = 0, replay_total_ = 0;
  double replay_speed_ = 2.0, clock_start_ = 0, replay_offset_ = 0;
  double live_start_ = 0;  // monotonic time of the first live sample; 0: none yet

  double hr_, cvn_;
  std::int32_t rr_count_ = 0;
  // Shared with snapshots, which are taken 20 times a second per open
  // stream: a snapshot holds the series without copying them.
  std::shared_ptr<const std::vector<SeriesPoint>> hr_series_, cvn_series_;
  std::shared_ptr<const HrvIndices> hrv_;
  std::vector<Marker> markers_;
  std::int64_t session_start_ = 0;
  std::uint64_t session_ = 0;
  std::string saved_as_;
};

}  // namespace cvn
