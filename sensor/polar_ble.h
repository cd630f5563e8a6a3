// The sensor link on any Bluetooth LE stack: scanning, and the connection
// procedures that start a Polar H10's ECG stream or any standard strap's
// beat intervals. Every step is a
// line in the diagnostic log; every user-facing message is a status text.
#pragma once
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "sensor/ble_backend.h"
#include "sensor/ble_manager.h"

namespace cvn {

/// Waits of the procedure. The defaults are what a real strap needs; tests
/// shorten them.
struct BleTimings {
  std::chrono::milliseconds warm_up{1500};      // stack awake before the first scan
  std::chrono::milliseconds scan{10000};        // advertisements are collected this long
  std::chrono::milliseconds retry_pause{1500};  // before discovery attempts 2..4
  std::chrono::milliseconds settings_poll{50};  // x 40: up to 2 s for the settings reply
  std::chrono::milliseconds before_start{200};  // after the settings reply
  /// Heart rate without beat intervals this long: the strap does not send them.
  std::chrono::milliseconds no_intervals{10000};
};

struct LinkAttempt;

class PolarBle : public BleManager {
 public:
  /// Starts the warm-up (a short scan that wakes the stack) on a thread of
  /// its own. `log` receives the diagnostic lines (the log file by default).
  explicit PolarBle(std::shared_ptr<BleBackend> backend, BleTimings timings = {},
                    LogSink log = logLine);
  /// Stops, and ends the warm-up early; returns once both threads are gone.
  ~PolarBle() override;

  bool available() override;
  ScanResult scan() override;
  void connectAndStream(const std::string& address, SamplesCallback on_samples,
                        StatusCallback on_status) override;
  void connect_and_stream_beats(const std::string& address, BeatsCallback on_beats,
                                StatusCallback on_status) override;
  /// Also joins the worker: every wait of the procedure ends at once on a
  /// stop (a closed link fails its calls, the pauses are cut short).
  /// REQUIRES: not called from a samples or status callback.
  void stop() override;
  void set_breathing_guide(BreathingGuide guide) override {
    backend_->set_breathing_guide(std::move(guide));
  }

  /// Discovery attempts before giving up on the service.
  static constexpr int kDiscoveryAttempts = 4;
  /// Re-checks of the settings reply before the start command goes anyway.
  static constexpr int kSettingsPolls = 40;

 private:
  // Cancels the current attempt and joins its worker. REQUIRES: mu_ held.
  void end_attempt();

  std::mutex mu_;  // serialises connectAndStream and stop
  const std::shared_ptr<BleBackend> backend_;
  const BleTimings timings_;
  const LogSink log_;
  std::shared_ptr<LinkAttempt> attempt_;  // the latest, if any
  std::jthread worker_;                   // runs attempt_'s procedure
  std::jthread warm_up_;
};

}  // namespace cvn
