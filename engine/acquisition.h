// Acquisition: what feeds a session and keeps it safe. The replay and live
// sources, the acquisition clock (a thread ticking every 20 ms that moves the
// replay on, starts the once-per-second analysis and pushes live data to the
// journal), and saving. One start or stop runs at a time.
#pragma once
#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/disk.h"
#include "base/recording.h"
#include "engine/journal.h"
#include "engine/live_analysis.h"
#include "engine/session.h"
#include "sensor/ble_manager.h"

namespace cvn {

struct ReplayOptions {
  double speed = 2.0;  // factor of real time, taken as given
  std::string label;   // shown for the source; empty: the file name
};

struct SaveResult {
  Status status;          // a failure's message is for the user
  std::string file;       // the recording's file name
  std::size_t count = 0;  // samples, or a beat recording's intervals
};

/// The live HRV numbers appear once this much is recorded (the shortest
/// recording their spectrum accepts) ...
inline constexpr double kHrvMinSeconds = 120;
/// ... and are renewed after every this much more.
inline constexpr double kHrvPeriodSeconds = 10;

class Acquisition {
 public:
  /// `ble` may be null (live mode then runs with no samples ever arriving);
  /// it, `session`, `clock` and `disk` must outlive this object.
  Acquisition(SessionState& session, BleManager* ble, Clock& clock, std::string recordings_folder,
              Disk& disk = Disk::system());
  ~Acquisition();  // stops the session and joins every thread
  Acquisition(const Acquisition&) = delete;
  Acquisition& operator=(const Acquisition&) = delete;

  /// Plays `samples` from the start as a new session named after `file`, or
  /// with `beats` those intervals in their own time.
  void start_replay(std::vector<double> samples, std::vector<Marker> markers,
                    const std::string& file, const SessionSettings& settings,
                    const ReplayOptions& options, std::optional<BeatSource> beats = std::nullopt);

  /// Starts a live session on the strap at `address`; progress shows in
  /// bt_status. Returns before the connection is made.
  void start_live(const std::string& address, const std::optional<std::string>& device,
                  const SessionSettings& settings);

  /// Ends any source; safe in every mode and more than once. The data stay,
  /// so a stopped session can still be saved and analysed; a session that was
  /// running gets its final analysis, HRV of the whole session included.
  void stop();

  /// Runs one analysis pass over the current samples and stores the results;
  /// the HRV indices too when `with_hrv`, and otherwise when they are due
  /// (every kHrvPeriodSeconds of recording once kHrvMinSeconds exist). The
  /// pass extends the last one (RunningAnalysis) and starts over for a new
  /// session or a replay that went back.
  void update_analysis(bool with_hrv = false);

  /// Moves a replay to a fraction 0..1 of the recording. A replay that has
  /// ended or was stopped gets the analysis of the part up to the new
  /// position, so that the page and an export show the same.
  void seek(double frac);

  /// Writes the recording and its markers into the recordings folder.
  SaveResult save();

 private:
  void stop_locked();  // REQUIRES: lifecycle_mu_ held
  /// Saves a live session that has just stopped, unless it is saved already.
  void keep_live_session();
  SaveResult save_copy(const SessionCopy& c);
  void start_clock();  // REQUIRES: lifecycle_mu_ held
  void clock_loop(std::stop_token stop);
  void maybe_start_analysis(double* last_start);
  /// The analysis of a session that ends: analyze_live on the whole
  /// recording, the reference every later view (export, TFR) agrees with.
  void final_analysis();
  void open_journal();
  void pump_journal(bool sync_now);

  SessionState& session_;
  BleManager* const ble_;
  Clock& clock_;
  Disk& disk_;
  const std::string recordings_;

  // One start or stop at a time: each joins and replaces the clock thread,
  // and two HTTP threads (a double click) must not do that at once. Never
  // taken by the clock thread, so holding it while joining that thread is
  // safe.
  std::mutex lifecycle_mu_;
  // One save at a time: a stop's and the user's must not write one session twice.
  std::mutex save_mu_;
  std::uint64_t kept_session_ = 0;  // the live session its stop saved; GUARDED_BY(save_mu_)
  std::jthread clock_thread_;
  // At most one analysis runs; the clock thread starts the next one only
  // after this one has finished, and never waits for it. A stopped session
  // does not wait either: its last result is dropped by session number.
  std::atomic<bool> analysis_busy_{false};
  std::jthread analysis_;
  // The sample count at which the next pass computes the HRV indices.
  std::atomic<std::size_t> hrv_due_{0};
  // The running analysis and the session it belongs to. A stop's pass may
  // overlap the clock's last one, so each holds the lock throughout.
  std::mutex running_mu_;
  RunningAnalysis running_;
  RunningBeats running_beats_;  // a beat session's
  std::uint64_t running_session_ = 0;

  // The running live session's journal; see save() for when it goes away.
  LiveJournal journal_;
};

}  // namespace cvn
