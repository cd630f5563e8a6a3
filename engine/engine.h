// The session: which source feeds it, the samples so far, the breathing
// parameters, the latest results, the markers and the job states. One Engine
// lives for the whole process; HTTP threads, the acquisition clock, the
// analysis worker, the sensor callbacks and the jobs all meet here.
//
// The engine speaks in typed values; the wire format is the server's.
//
// Locking: one recursive lock over every non-atomic member. Long work (the
// analysis, the TFR, saving) copies its inputs under the lock, computes
// without it, and locks again to store its results.
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/breathing.h"
#include "base/recording.h"
#include "engine/batch.h"
#include "base/clock.h"
#include "engine/journal.h"
#include "engine/live_analysis.h"
#include "reports/export.h"
#include "reports/report_logo.h"
#include "sensor/ble_manager.h"

namespace cvn {

/// Target number of breathing cycles of a session (progress bar, "frac").
inline constexpr int kCyclesTarget = 16;

enum class Mode { kIdle, kLive, kReplay };

/// The life of a background job (TFR, export, batch).
enum class JobState { kIdle, kRunning, kDone, kError };

/// Who is breathing and how: what the page's setup screen sends.
struct SessionSettings {
  std::optional<std::string> name;  // absent: the previous name stays
  double indur = 5.0;               // seconds, see breathing_period
  double outdur = 11.0;
  std::string sex = "M";  // "M" or "F"
  int age = 40;
  /// Rate of imported raw ECG, Hz; kept only from 20 to 20,000, otherwise
  /// the previous rate stays.
  std::optional<double> import_rate;
};

struct ReplayOptions {
  double speed = 2.0;  // factor of real time, taken as given
  std::string label;   // shown for the source; empty: the file name
};

/// One consistent view of the session, taken under the lock.
struct Snapshot {
  Mode mode = Mode::kIdle;
  bool running = false;
  std::string name_id, source_label, bt_status;
  std::int64_t samples = 0;       // received (live) or played (replay)
  std::int32_t replay_total = 0;  // replay only
  double hr = 0, cvn = 0;         // NaN when not known yet
  std::int32_t rr_count = 0;
  std::vector<double> scope;  // the ECG the scope shows, at most kScopeSamples
  std::shared_ptr<const std::vector<SeriesPoint>> hr_series, cvn_series;  // never null
  double indur = 5, outdur = 11, cycle_seconds = 16;
  std::string sex;
  int age = 40;
  JobState tfr = JobState::kIdle, export_job = JobState::kIdle;
  std::string saved_as;  // empty: not saved
  std::vector<Marker> markers;
};

struct SaveResult {
  std::string error;  // empty on success, else for the user
  std::string file;   // the recording's file name
  std::size_t count = 0;
};

/// How an upload ended: either a note for the user, or what it became.
struct ImportResult {
  std::string note;  // empty on success
  std::string file;  // raw ECG: the recording it was saved as
  bool kubios = false;
  std::size_t beats = 0;  // Kubios: RR intervals read
};

struct ExportStatus {
  JobState state = JobState::kIdle;
  ExportResult result;  // meaningful once the job has ended
};

struct BatchStatus {
  JobState state = JobState::kIdle;
  int total = 0, done = 0;
  std::string message;   // "Scanning…", "Processing 3 / 10 — Anna", how it ended
  BatchOutcome outcome;  // meaningful once the batch has ended
};

struct TfrResult {
  JobState state = JobState::kIdle;
  std::string message;              // the error, when there is one
  std::string tfr3_uri, tfr10_uri;  // "data:image/png;base64,...", empty when none
};

class Engine {
 public:
  /// `ble` may be null: live mode then runs with no samples ever arriving.
  /// `clock` must outlive the engine; tests pass a ManualClock.
  Engine(std::string data_folder, std::unique_ptr<BleManager> ble, Clock& clock = Clock::system());
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  const std::string& data_folder() const { return data_folder_; }
  BleManager* sensor() const { return ble_.get(); }

  /// Loads the recording at `path` (and its markers file) and plays it from
  /// the start. False, with the engine untouched, when it cannot be read.
  bool start_replay(const std::string& path, const SessionSettings& s,
                    const ReplayOptions& options);

  /// Starts a live session on the strap at `address`; progress shows in
  /// bt_status. `device`, when given, names the strap for the user. Returns
  /// before the connection is made.
  void start_live(const std::string& address, const std::optional<std::string>& device,
                  const SessionSettings& s);

  /// Ends any source; safe in every mode and more than once. The mode and
  /// the data stay, so a stopped session can still be saved and analysed.
  void stop();

  /// Moves replay to a fraction 0..1 of the recording; nothing in live mode.
  void seek(double frac);

  /// A marker at the current sample; false when not running, the key is
  /// outside 1..9, or the last marker already sits on this sample.
  bool add_marker(int key);

  /// Writes the recording and its markers into the recordings folder.
  SaveResult save();

  /// An uploaded file named `file_name`: raw ECG (resampled from the import
  /// rate) is saved as a recording and replays at once; a Kubios RR export
  /// goes to a batch of its own that writes its report.
  ImportResult import_recording(const std::string& text, const std::string& file_name,
                                const SessionSettings& s, const ReplayOptions& options);

  Snapshot snapshot();

  /// Starts the TFR job on a thread of its own; its result shows in tfr().
  void start_tfr();
  TfrResult tfr();

  /// Starts the export job: the session so far into a new folder under
  /// exports/, on a thread of its own, while the session goes on.
  void start_export();
  ExportStatus export_status();

  /// Starts a batch over `folder` on a thread of its own, unless one runs
  /// (then false). `settings`, when given, become the session's and are set
  /// for this person: single mode with its own age and sex.
  bool start_batch(const std::string& folder, bool single, const std::string& report_name,
                   const std::optional<SessionSettings>& settings);
  BatchStatus batch_status();
  /// Where uploaded folders are put together for a batch.
  std::string upload_folder() const { return data_folder_ + "/_upload_tmp"; }
  /// Empties the upload folder; the error for the user, or "".
  std::string reset_upload_folder();

  /// The logo the PDF reports carry; set once at start-up.
  void set_report_logo(ReportLogo logo);

  /// Runs one analysis pass over the current samples and stores the results.
  void update_analysis();

  /// The samples that count: played replay samples, or all live samples.
  std::vector<double> current_samples();

  bool running() const { return running_; }

 private:
  using Guard = std::lock_guard<std::recursive_mutex>;

  void apply_settings(const SessionSettings& s);  // REQUIRES: mu_ held
  /// What save and export need, copied in one go, in the export's own input
  /// type. REQUIRES: mu_ held.
  ExportInput session_input();
  /// name_id, or the source label when there is none. REQUIRES: mu_ held.
  const std::string& session_name() const { return name_id_.empty() ? source_label_ : name_id_; }
  void reset_results();  // REQUIRES: mu_ held
  void stop_locked();    // REQUIRES: lifecycle_mu_ held
  /// Plays `samples` from the start as a new session named after `file`.
  void start_replay_of(std::vector<double> samples, std::vector<Marker> markers,
                       const std::string& file, const SessionSettings& settings,
                       const ReplayOptions& options);
  std::int64_t sample_count();  // REQUIRES: mu_ held
  void run_detached(std::function<void()> job);
  void start_clock();
  void clock_loop();
  void maybe_start_worker(double* last_start);
  void on_samples(const std::vector<double>& batch);
  void on_status(const std::string& text);
  void open_journal();
  void pump_journal(bool sync_now);

  std::recursive_mutex mu_;
  // One start or stop at a time: each joins and replaces clock_thread_, and
  // two HTTP threads (a double click) must not do that at once. Never taken
  // by the clock thread, so holding it while joining that thread is safe.
  std::mutex lifecycle_mu_;
  const std::string data_folder_;
  const std::unique_ptr<BleManager> ble_;
  Clock& clock_;

  Mode mode_ = Mode::kIdle;
  std::atomic<bool> running_{false};
  std::atomic<bool> stop_request_{false};
  std::thread clock_thread_;

  std::string name_id_;
  std::string source_label_;
  std::string bt_status_;
  double indur_ = 5.0;
  double outdur_ = 11.0;
  double cycle_seconds_ = 16.0;
  std::string sex_ = "M";
  int age_ = 40;
  double import_rate_ = kSampleRate;

  std::vector<double> replay_samples_;
  std::vector<double> live_samples_;
  std::int32_t replay_pos_ = 0;
  std::int32_t replay_total_ = 0;
  double replay_speed_ = 2.0;
  double clock_start_ = 0;
  double replay_offset_ = 0;
  double live_start_ = 0;
  std::atomic<bool> analysis_busy_{false};
  std::atomic<int> workers_{0};  // detached workers still touching *this

  double hr_;
  double cvn_;
  std::int32_t rr_count_ = 0;
  // Shared with snapshots, which are taken 20 times a second per open
  // stream: a snapshot holds the series without copying them.
  std::shared_ptr<const std::vector<SeriesPoint>> hr_series_, cvn_series_;
  std::vector<Marker> markers_;
  std::int64_t session_start_ = 0;
  std::uint64_t generation_ = 0;

  TfrResult tfr_;
  ExportStatus export_;
  BatchStatus batch_;
  std::atomic<bool> batch_running_{false};
  ReportLogo logo_;
  std::string saved_as_;

  // The running live session's journal; see save() for when it goes away.
  LiveJournal journal_;
};

}  // namespace cvn
