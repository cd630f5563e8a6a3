#include "sensor/polar_ble.h"

#include <atomic>
#include <condition_variable>
#include <map>
#include <stop_token>

#include "base/log.h"
#include "sensor/ble_common.h"
#include "sensor/pmd.h"

namespace cvn {

// The worker and the platform handlers hold this, not the PolarBle, so a
// stream that outlives stop() (or the object) touches nothing freed.
struct PolarBle::Attempt {
  std::mutex mu;
  bool cancelled = false;               // set by stop()
  std::shared_ptr<BleConnection> link;  // published once the device is open
  std::atomic<bool> streaming{false};
  std::atomic<bool> settings_reply{false};

  // Publishes the link unless stop() came first; then it is closed at once.
  bool publish(std::shared_ptr<BleConnection> l) {
    std::lock_guard<std::mutex> g(mu);
    if (cancelled) {
      l->close();
      return false;
    }
    link = std::move(l);
    return true;
  }
  // Reports only while this attempt is current: after stop(), a worker
  // still unwinding must not speak into the next session's callbacks.
  void say(const std::string& text) {
    std::lock_guard<std::mutex> g(mu);
    if (!cancelled) emit_status(text);
  }
  void deliver(const std::vector<double>& batch) {
    std::lock_guard<std::mutex> g(mu);
    if (!cancelled) emit_samples(batch);
  }
  void cancel() {
    std::shared_ptr<BleConnection> l;
    {
      std::lock_guard<std::mutex> g(mu);
      cancelled = true;
      l = std::move(link);
    }
    streaming = false;
    if (l) l->close();
  }
};

namespace {

constexpr const char* kStatusConnecting = "Connecting…";
constexpr const char* kStatusNotFound =
    "Device not found. Try scanning again, or pair the H10 in Windows Bluetooth settings first.";
constexpr const char* kStatusNoCharacteristics = "Polar ECG characteristics missing.";
constexpr const char* kStatusStarting = "Connected. Starting ECG…";
constexpr const char* kStatusStreaming = "Streaming ECG…";
constexpr const char* kStatusFailed =
    "Bluetooth connection failed. See Documents/CVN-Live/cvn_log.txt.";
constexpr const char* kStatusDisconnected = "Disconnected.";
constexpr const char* kScanStartFailed =
    "Could not start a Bluetooth scan. Make sure Bluetooth is turned on.";
constexpr const char* kNoNamedDevices =
    "No named Bluetooth devices found. Wear the Polar H10 (moisten the strap) and keep it close.";

// Sleeps for `d`; false when a stop request cut it short.
bool pause_for(const std::stop_token& stop, std::chrono::milliseconds d) {
  std::mutex mu;
  std::condition_variable_any cv;
  std::unique_lock<std::mutex> lk(mu);
  cv.wait_for(lk, stop, d, [] { return false; });
  return !stop.stop_requested();
}

std::string service_failure(const std::string& status) {
  return "Could not reach the Polar ECG service (" + status +
         "). Moisten the strap, keep it close, and in Windows Bluetooth settings pair the H10, "
         "then try again.";
}

}  // namespace

PolarBle::PolarBle(std::shared_ptr<BleBackend> backend, BleTimings timings, LogSink log)
    : backend_(std::move(backend)), timings_(timings), log_(std::move(log)) {
  warm_up_ = std::jthread(
      [backend = backend_, pause = timings_.warm_up, log = log_](std::stop_token stop) {
        // A stack that is not ready now may be by the user's first scan, so a
        // failing step just ends the warm-up.
        bool present = false;
        if (!backend->init_thread().ok() || !backend->has_adapter(&present).ok()) return;
        if (!backend->start_scan([](std::uint64_t, const std::string&) {}).ok()) return;
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
  std::map<std::uint64_t, std::string> seen;  // ordered: the list comes out by address
  if (started.ok()) {
    started = backend_->start_scan([&](std::uint64_t address, const std::string& name) {
      std::lock_guard<std::mutex> g(mu);
      // A later empty name never erases one seen before.
      if (!name.empty())
        seen[address] = name;
      else
        seen.emplace(address, std::string());
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
    for (const auto& [address, name] : seen)
      if (!name.empty()) devices.push_back({name, format_ble_address(address)});
  }
  log_("scan() done, " + std::to_string(devices.size()) + " named device(s)");
  if (devices.empty()) r.error = kNoNamedDevices;
  return r;
}

void PolarBle::connectAndStream(const std::string& address, SamplesCallback on_samples,
                                StatusCallback on_status) {
  std::lock_guard<std::mutex> g(mu_);
  // A new session replaces the one before.
  end_attempt();
  set_sensor_callbacks(std::move(on_samples), std::move(on_status));
  auto attempt = std::make_shared<Attempt>();
  attempt_ = attempt;
  // After a stop the procedure runs on to its end at once: every pause is
  // cut short and every call on the closed link fails.
  worker_ = std::jthread([attempt, backend = backend_, t = timings_, address,
                          log = log_](std::stop_token stop) {
    // A step the stack could not do ends the procedure: the stack's words
    // go to the log, the user is pointed to it.
    auto fail = [&](const Status& s) {
      if (!s.message().empty()) log(s.message());
      attempt->say(kStatusFailed);
      log("connect exception");
    };
    Status s = backend->init_thread();
    if (!s.ok()) return fail(s);
    log("connect " + address);
    attempt->say(kStatusConnecting);

    std::shared_ptr<BleConnection> link;
    if (!(s = backend->open_device(parse_ble_address(address), stop, &link)).ok()) return fail(s);
    if (!link) {
      attempt->say(kStatusNotFound);
      return;
    }
    if (!attempt->publish(link)) return;
    s = link->watch_connection([attempt](bool connected) {
      if (!connected && attempt->streaming) attempt->say(kStatusDisconnected);
    });
    if (!s.ok()) return fail(s);
    bool kept = false;
    if (!(s = link->maintain_connection(&kept)).ok()) return fail(s);
    log(kept ? "GattSession: MaintainConnection=true" : "GattSession maintain unavailable");

    std::string last_status = "none";
    bool found = false;
    for (int n = 1; n <= kDiscoveryAttempts && !found; ++n) {
      if (n > 1) {
        attempt->say("Connecting… (attempt " + std::to_string(n) + " of " +
                     std::to_string(kDiscoveryAttempts) + ")");
        pause_for(stop, t.retry_pause);
      }
      // Halfway through, a full discovery refreshes a stale service cache
      // that makes the targeted query come back empty.
      BleConnection::Discovery all, d;
      if (n == 3 && (s = link->discover_all(&all)).ok())
        log(std::string("full discovery: ") + gatt_status_text(all.status) + ", " +
            std::to_string(all.services) + " services");
      if (s.ok()) s = link->discover_service(kPmdServiceUuid, &d);
      if (!s.ok()) {
        if (!s.message().empty()) log(s.message());
        log("PMD discovery attempt " + std::to_string(n) + ": exception");
        last_status = "exception";
        s = Status();
        continue;
      }
      last_status = gatt_status_text(d.status);
      log("PMD discovery attempt " + std::to_string(n) + ": " + last_status + ", " +
          std::to_string(d.services) + " svc, conn=" + std::to_string(link->connected() ? 1 : 0));
      found = d.status == 0 && d.services > 0;
    }
    if (!found) {
      attempt->say(service_failure(last_status));
      log("PMD service not found after retries (" + last_status + ")");
      return;
    }
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
