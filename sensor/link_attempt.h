// Inside the sensor link (polar_ble.cc): one connection attempt's shared
// state, and the steps the ECG and the heart-beat procedures share, from
// opening the device to finding the service they stream from.
#pragma once
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <vector>

#include "base/log.h"
#include "sensor/ble_backend.h"
#include "sensor/polar_ble.h"

namespace cvn {

/// The worker and the platform handlers hold this, not the PolarBle, so a
/// stream that outlives stop() (or the object) touches nothing freed.
struct LinkAttempt {
  std::mutex mu;
  bool cancelled = false;               // set by stop()
  std::shared_ptr<BleConnection> link;  // published once the device is open
  std::atomic<bool> streaming{false};
  std::atomic<bool> settings_reply{false};

  /// Publishes the link unless stop() came first; then it is closed at once.
  bool publish(std::shared_ptr<BleConnection> l);
  /// Report only while this attempt is current: after stop(), a worker
  /// still unwinding must not speak into the next session's callbacks.
  void say(const std::string& text);
  void deliver(const std::vector<double>& batch);
  void deliver_beats(const std::vector<double>& rr_seconds);
  void cancel();
};

/// Sleeps for `d`; false when a stop request cut it short.
bool pause_for(const std::stop_token& stop, std::chrono::milliseconds d);

/// What differs between the procedures up to the service.
struct ServiceSteps {
  const char* uuid;      // the service to find
  const char* log_name;  // "PMD": names the service in the log
  const char* not_found;
  std::string (*failure)(const std::string& gatt_status);
};

inline constexpr const char* kStatusFailed =
    "Bluetooth connection failed. See Documents/CVN-Live/cvn_log.txt.";

/// Opens the device, watches its link and finds the service with retries.
/// The link, its service current; null once the attempt has said why not
/// (or was stopped).
std::shared_ptr<BleConnection> reach_service(const std::shared_ptr<LinkAttempt>& attempt,
                                             BleBackend& backend, const BleTimings& t,
                                             const std::string& address,
                                             const std::stop_token& stop, const LogSink& log,
                                             const ServiceSteps& steps);

/// A failed step: the stack's words go to the log, the user is pointed to it.
void say_failed(LinkAttempt& attempt, const LogSink& log, const Status& s);

/// After reach_service for the Heart Rate Service: subscribes to the
/// measurement and reports beats until the link is closed.
void stream_beats(const std::shared_ptr<LinkAttempt>& attempt, BleConnection& link,
                  const BleTimings& t, const LogSink& log);

}  // namespace cvn
