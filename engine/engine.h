// The one session object the server talks to. It is three parts, each with
// its own header and testable alone:
//   - SessionState (engine/session.h): what the session holds, under a
//     plain mutex;
//   - Acquisition (engine/acquisition.h): replay, live, the acquisition
//     clock, the journal and saving;
//   - Jobs (engine/jobs.h): the TFR, export and batch threads.
// The engine joins them up and adds the uploads, which touch all three.
// It speaks in typed values; the wire format is the server's.
#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "engine/acquisition.h"
#include "engine/history.h"
#include "engine/import.h"
#include "engine/jobs.h"
#include "engine/session.h"
#include "reports/report_logo.h"
#include "sensor/ble_manager.h"

namespace cvn {

/// How an upload ended: either a note for the user, or what it became.
struct ImportResult {
  Status status;     // a failure's message is for the user
  std::string file;  // raw ECG: the recording it was saved as
  bool kubios = false;
  std::size_t beats = 0;  // Kubios: RR intervals read
};

/// A beat recording with fewer intervals is refused: as few as an RR import
/// accepts, since below that no heart rate can be drawn.
inline constexpr std::size_t kMinReplayBeats = kMinKubiosBeats;

class Engine {
 public:
  /// `ble` may be null: live mode then runs with no samples ever arriving.
  /// `clock` must outlive the engine; tests pass a ManualClock.
  Engine(std::string data_folder, std::unique_ptr<BleManager> ble, Clock& clock = Clock::system());
  ~Engine();  // ends the session and joins every thread, jobs included
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  const std::string& data_folder() const { return data_folder_; }
  BleManager* sensor() const { return ble_.get(); }

  /// Loads the recording at `path` (its markers file, and its sidecar
  /// unless `s` names a protocol) and plays it from the start. A failure,
  /// with the engine untouched, says why: "file not found" when it cannot be
  /// read, or that a beat recording is too short to play. `note`, when
  /// given, says why a damaged sidecar was passed over (the replay then runs
  /// as one rhythm).
  Status start_replay(const std::string& path, const SessionSettings& s,
                      const ReplayOptions& options, std::string* note = nullptr);

  /// The scores of a resonance assessment so far (or of the whole, once
  /// stopped); nullopt when the session is not one.
  std::optional<RfResult> rf_result();

  /// Starts a live session on the strap at `address`; progress shows in
  /// bt_status. `device`, when given, names the strap for the user. Returns
  /// before the connection is made.
  void start_live(const std::string& address, const std::optional<std::string>& device,
                  const SessionSettings& s);

  /// Ends any source; safe in every mode and more than once. The mode and
  /// the data stay, so a stopped session can still be saved and analysed.
  void stop() { acquisition_.stop(); }

  /// Moves replay to a fraction 0..1 of the recording; nothing in live mode.
  /// After the end the results follow the position.
  void seek(double frac) { acquisition_.seek(frac); }

  /// A marker at the current sample; false when not running, the key is
  /// outside 1..9, or the last marker already sits on this sample.
  bool add_marker(int key) { return session_.add_marker(key); }

  /// Writes the recording and its markers into the recordings folder.
  SaveResult save() { return acquisition_.save(); }

  /// An uploaded file named `file_name`: raw ECG (resampled from the import
  /// rate) is saved as a recording and replays at once; a Kubios RR export
  /// goes to a batch of its own that writes its report.
  ImportResult import_recording(const std::string& text, const std::string& file_name,
                                const SessionSettings& s, const ReplayOptions& options);

  Snapshot snapshot();

  /// Starts the TFR job; its result shows in tfr().
  void start_tfr() { jobs_.start_tfr(); }
  TfrResult tfr() { return jobs_.tfr(); }

  /// Starts the export job: the session so far into a new folder under
  /// exports/, while the session goes on.
  void start_export() { jobs_.start_export(); }
  ExportStatus export_status() { return jobs_.export_status(); }

  /// Starts a batch over `folder` unless one runs (then false); see
  /// Jobs::start_batch.
  bool start_batch(const std::string& folder, bool single, const std::string& report_name,
                   const std::optional<SessionSettings>& settings) {
    return jobs_.start_batch(folder, single, report_name, settings);
  }
  BatchStatus batch_status() { return jobs_.batch_status(); }
  /// Where uploaded folders are put together for a batch.
  std::string upload_folder() const { return data_folder_ + "/_upload_tmp"; }
  /// Empties the upload folder.
  Status reset_upload_folder();

  /// The logo the PDF reports carry; set once at start-up.
  void set_report_logo(ReportLogo logo) { jobs_.set_report_logo(std::move(logo)); }

  /// Runs one analysis pass over the current samples and stores the results,
  /// HRV indices included.
  void update_analysis() { acquisition_.update_analysis(true); }

  /// The samples that count: played replay samples, or all live samples.
  std::vector<double> current_samples() { return session_.samples(); }

  bool running() const { return session_.running(); }

  /// The people of the recordings folder and their recordings' summaries.
  History& history() { return history_; }

 private:
  void start_replay_of(std::vector<double> samples, std::vector<Marker> markers,
                       const std::string& file, const SessionSettings& settings,
                       const ReplayOptions& options,
                       std::optional<BeatSource> beats = std::nullopt);

  const std::string data_folder_;
  const std::unique_ptr<BleManager> ble_;
  Clock& clock_;
  // In this order: the jobs and the acquisition end (and join their
  // threads) before the state they work on goes.
  SessionState session_;
  Acquisition acquisition_;
  Jobs jobs_;
  History history_;
};

}  // namespace cvn
