// The session: which source feeds it, the samples so far, the breathing
// parameters, the latest results, the markers and the job states. One Engine
// lives for the whole process; HTTP threads, the acquisition clock, the
// analysis worker, the sensor callbacks and the jobs all meet here.
//
// Locking: one recursive lock over every non-atomic member. Long work (the
// analysis, the TFR, saving) copies its inputs under the lock, computes
// without it, and locks again to store its results.
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/recording.h"
#include "sensor/ble_manager.h"

namespace cvn {

/// Request parameters by name (the parsed query string).
using Params = std::map<std::string, std::string>;

/// A number parameter: absent, empty or unreadable gives `fallback`; a
/// decimal comma is accepted ("5,5" is 5.5).
double number_param(const Params& p, const std::string& key, double fallback);

/// A breathing period as sessions keep it: at least 0.05 s, rounded to two
/// decimals (halves away from zero).
double breathing_period(double seconds);

/// Target number of breathing cycles of a session (progress bar, "frac").
inline constexpr int kCyclesTarget = 16;

struct SeriesPoint {
  double x = 0;  // seconds
  double y = 0;  // value; NaN shows as null
};

/// What the jobs (save, TFR, export) need, copied under the lock in one go.
struct SessionCopy {
  std::vector<double> samples;
  std::vector<Marker> markers;
  std::string name;  // name_id, or the source label when there is none
  double indur = 5.0, outdur = 11.0, cycle_seconds = 16.0;
  std::string sex = "M";
  int age = 40;
  std::int64_t start_time = 0;   // wall clock, seconds since the epoch
  std::uint64_t generation = 0;  // changes whenever a new session starts
};

class Engine {
 public:
  /// `ble` may be null: live mode then runs with no samples ever arriving.
  Engine(std::string data_folder, std::unique_ptr<BleManager> ble);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  const std::string& data_folder() const { return data_folder_; }
  BleManager* sensor() const { return ble_.get(); }

  /// Loads the recording at `path` and plays it from the start at the
  /// `speed` parameter. False, with the engine untouched, when the file
  /// cannot be read.
  bool start_replay(const std::string& path, const Params& p);

  /// Starts a live session on the strap at `address`; progress shows in
  /// bt_status. Returns before the connection is made.
  void start_live(const std::string& address, const Params& p);

  /// Ends any source; safe in every mode and more than once. The mode and
  /// the data stay, so a stopped session can still be saved and analysed.
  void stop();

  /// Moves replay to a fraction 0..1 of the recording; nothing in live mode.
  void seek(double frac);

  /// A marker at the current sample; false when not running, the key is
  /// outside 1..9, or the last marker already sits on this sample.
  bool add_marker(int key);

  /// Writes the recording and its markers into the recordings folder and
  /// returns the reply JSON.
  std::string save();

  /// The status snapshot: one consistent JSON object.
  std::string status_json();

  /// Runs one analysis pass over the current samples and stores the results.
  void update_analysis();

  /// The samples that count: played replay samples, or all live samples.
  std::vector<double> current_samples();
  std::int64_t sample_count();

  /// Copies the session's inputs for a job. Takes the lock itself.
  SessionCopy copy_session();
  /// The session a SessionCopy came from is still the current one.
  /// REQUIRES: lock() held.
  bool same_session(std::uint64_t generation) const { return generation == generation_; }

  /// Runs `job` on a detached thread that the destructor waits for.
  void run_detached(std::function<void()> job);

  bool running() const { return running_; }
  std::recursive_mutex& lock() { return mu_; }

 private:
  friend struct EngineTestAccess;  // tests reach the results directly
  using Guard = std::lock_guard<std::recursive_mutex>;

  void set_parameters(const Params& p);  // REQUIRES: mu_ held
  void reset_results();                  // REQUIRES: mu_ held
  void start_clock();
  void clock_loop();
  void maybe_start_worker(double* last_start);
  void on_samples(const std::vector<double>& batch);
  void on_status(const std::string& text);

  std::recursive_mutex mu_;
  const std::string data_folder_;
  const std::unique_ptr<BleManager> ble_;

  std::string mode_ = "idle";
  std::atomic<bool> running_{false};
  std::atomic<bool> stop_request_{false};
  std::thread clock_;

  std::string name_id_;
  std::string source_label_;
  std::string bt_status_;
  std::string source_name_;
  double indur_ = 5.0;
  double outdur_ = 11.0;
  double cycle_seconds_ = 16.0;
  std::string sex_ = "M";
  int age_ = 40;
  double sample_rate_ = kSampleRate;

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
  std::vector<SeriesPoint> hr_series_;
  std::vector<SeriesPoint> cvn_series_;
  // The two series as JSON arrays, built once per analysis instead of 20
  // times a second per open stream.
  std::string hr_series_json_ = "[]";
  std::string cvn_series_json_ = "[]";
  std::vector<std::int32_t> peaks_;
  std::vector<Marker> markers_;
  std::int64_t session_start_ = 0;
  std::uint64_t generation_ = 0;

 public:
  // Job states, owned by the jobs that set them (TFR, export, batch); read
  // and written under lock().
  std::string tfr_status = "idle";
  std::string tfr_message;
  std::string tfr3_uri, tfr10_uri;
  std::string saved_as;
  std::string export_status = "idle";
  std::string export_result, export_error;
};

}  // namespace cvn
