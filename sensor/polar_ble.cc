#include "sensor/polar_ble.h"

#include <map>
#include <stop_token>

#include "base/log.h"
#include "sensor/ble_common.h"
#include "sensor/hrs.h"
#include "sensor/link_attempt.h"
#include "sensor/pmd.h"

namespace cvn {

namespace {

constexpr const char* kStatusNotFound =
    "Device not found. Try scanning again, or pair the H10 in Windows Bluetooth settings first.";
constexpr const char* kStatusNoCharacteristics = "Polar ECG characteristics missing.";
constexpr const char* kStatusStarting = "Connected. Starting ECG…";
constexpr const char* kStatusStreaming = "Streaming ECG…";
constexpr const char* kScanStartFailed =
    "Could not start a Bluetooth scan. Make sure Bluetooth is turned on.";
constexpr const char* kNoStraps =
    "No heart-rate strap found. Wear the strap (moisten it) and keep it close.";
constexpr const char* kStatusBeatsNotFound =
    "Device not found. Try scanning again, or pair the strap in Windows Bluetooth settings first.";

// A Polar H10 names itself "Polar H10 " and its device id.
constexpr std::string_view kPolarH10Prefix = "Polar H10";

std::string service_failure(const std::string& status) {
  return "Could not reach the Polar ECG service (" + status +
         "). Moisten the strap, keep it close, and in Windows Bluetooth settings pair the H10, "
         "then try again.";
}

std::string beats_service_failure(const std::string& status) {
  return "Could not reach the strap's heart rate service (" + status +
         "). Moisten the strap, keep it close, and in Windows Bluetooth settings pair it, then "
         "try again.";
}

constexpr ServiceSteps kEcgSteps = {kPmdServiceUuid, "PMD", kStatusNotFound, service_failure};
constexpr ServiceSteps kBeatsSteps = {kHrsServiceUuid, "HRS", kStatusBeatsNotFound,
                                      beats_service_failure};

struct Seen {
  std::string name;
  bool heart_rate = false;
};

}  // namespace

PolarBle::PolarBle(std::shared_ptr<BleBackend> backend, BleTimings timings, LogSink log)
    : backend_(std::move(backend)), timings_(timings), log_(std::move(log)) {
  warm_up_ = std::jthread(
      [backend = backend_, pause = timings_.warm_up, log = log_](std::stop_token stop) {
        // A stack that is not ready now may be by the user's first scan, so a
        // failing step just ends the warm-up.
        bool present = false;
        if (!backend->init_thread().ok() || !backend->has_adapter(&present).ok()) return;
        if (!backend->start_scan([](const Advertisement&) {}).ok()) return;
        const bool complete = pause_for(stop, pause);
        backend->stop_scan();
        if (complete) log("BLE warm-up complete");
      });
}

PolarBle::~PolarBle() {
  stop();
  // warm_up_ is asked to stop and joined as it goes.
}

bool PolarBle::available() {
  bool present = false;
  // Only a machine that plainly reports no adapter is ruled out.
  if (!backend_->init_thread().ok() || !backend_->has_adapter(&present).ok()) return true;
  return present;
}

ScanResult PolarBle::scan() {
  Status started = backend_->init_thread();
  log_("scan() enter");
  std::mutex mu;
  std::map<std::uint64_t, Seen> seen;  // ordered: the list comes out by address
  if (started.ok()) {
    started = backend_->start_scan([&](const Advertisement& a) {
      std::lock_guard<std::mutex> g(mu);
      // A later empty name, or an advertisement without the service list
      // (a scan response), never erases what was seen before.
      Seen& s = seen[a.address];
      if (!a.name.empty()) s.name = a.name;
      s.heart_rate = s.heart_rate || a.heart_rate_service;
    });
  }
  if (!started.ok()) {
    if (!started.message().empty()) log_(started.message());
    log_("scan() exception starting watcher");
    return {{}, kScanStartFailed};
  }
  std::this_thread::sleep_for(timings_.scan);
  backend_->stop_scan();
  ScanResult r;
  std::vector<BleDevice>& devices = r.devices;
  {
    std::lock_guard<std::mutex> g(mu);
    for (const auto& [address, s] : seen) {
      const bool h10 = s.name.starts_with(kPolarH10Prefix);
      if (s.name.empty() || !(h10 || s.heart_rate)) continue;
      devices.push_back(
          {s.name, format_ble_address(address), h10 ? SensorKind::kEcg : SensorKind::kBeats});
    }
  }
  log_("scan() done, " + std::to_string(devices.size()) + " strap(s) of " +
       std::to_string(seen.size()) + " device(s)");
  if (devices.empty()) r.error = kNoStraps;
  return r;
}

void PolarBle::connectAndStream(const std::string& address, SamplesCallback on_samples,
                                StatusCallback on_status) {
  std::lock_guard<std::mutex> g(mu_);
  // A new session replaces the one before.
  end_attempt();
  set_sensor_callbacks(std::move(on_samples), std::move(on_status));
  auto attempt = std::make_shared<LinkAttempt>();
  attempt_ = attempt;
  // After a stop the procedure runs on to its end at once: every pause is
  // cut short and every call on the closed link fails.
  worker_ = std::jthread(
      [attempt, backend = backend_, t = timings_, address, log = log_](std::stop_token stop) {
        std::shared_ptr<BleConnection> link =
            reach_service(attempt, *backend, t, address, stop, log, kEcgSteps);
        if (!link) return;
        auto fail = [&](const Status& s) { say_failed(*attempt, log, s); };
        Status s;
        bool control = false, data = false;
        if (!(s = link->has_characteristic(kPmdControlUuid, &control)).ok()) return fail(s);
        if (control && !(s = link->has_characteristic(kPmdDataUuid, &data)).ok()) return fail(s);
        if (!control || !data) {
          attempt->say(kStatusNoCharacteristics);
          log("control/data char missing");
          return;
        }
        attempt->say(kStatusStarting);

        s = link->subscribe(kPmdDataUuid, [attempt](const std::vector<std::uint8_t>& frame) {
          std::vector<double> batch = decode_ecg_frame(frame);
          if (!batch.empty()) attempt->deliver(batch);
        });
        if (!s.ok()) return fail(s);
        attempt->settings_reply = false;
        // Any value on the control point counts as the settings reply.
        s = link->subscribe(kPmdControlUuid, [attempt](const std::vector<std::uint8_t>&) {
          attempt->settings_reply = true;
        });
        if (!s.ok()) return fail(s);
        if (!(s = link->write(kPmdControlUuid, pmd_settings_request())).ok()) return fail(s);
        for (int i = 0; i < kSettingsPolls && !attempt->settings_reply; ++i)
          if (!pause_for(stop, t.settings_poll)) break;
        log(attempt->settings_reply ? "settings response received"
                                    : "no settings response (sending start anyway)");
        pause_for(stop, t.before_start);
        if (!(s = link->write(kPmdControlUuid, pmd_start_ecg())).ok()) return fail(s);
        attempt->streaming = true;
        attempt->say(kStatusStreaming);
        log("ECG start command sent");
      });
}

void PolarBle::connect_and_stream_beats(const std::string& address, BeatsCallback on_beats,
                                        StatusCallback on_status) {
  std::lock_guard<std::mutex> g(mu_);
  end_attempt();
  set_sensor_callbacks(nullptr, std::move(on_status), std::move(on_beats));
  auto attempt = std::make_shared<LinkAttempt>();
  attempt_ = attempt;
  worker_ = std::jthread(
      [attempt, backend = backend_, t = timings_, address, log = log_](std::stop_token stop) {
        if (std::shared_ptr<BleConnection> link =
                reach_service(attempt, *backend, t, address, stop, log, kBeatsSteps))
          stream_beats(attempt, *link, t, log);
      });
}

void PolarBle::stop() {
  std::lock_guard<std::mutex> g(mu_);
  log_("stop() enter");
  end_attempt();
  clear_sensor_callbacks();
}

void PolarBle::end_attempt() {
  // The attempt first: once cancelled it says nothing, and its link is
  // closed, so a worker blocked in the stack is let go.
  if (attempt_) attempt_->cancel();
  attempt_.reset();
  worker_.request_stop();
  if (worker_.joinable()) worker_.join();
}

}  // namespace cvn
