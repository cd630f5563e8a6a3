#include "sensor/polar_ble.h"

#include <atomic>
#include <map>
#include <stdexcept>

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

std::string service_failure(const std::string& status) {
  return "Could not reach the Polar ECG service (" + status +
         "). Moisten the strap, keep it close, and in Windows Bluetooth settings pair the H10, "
         "then try again.";
}

}  // namespace

PolarBle::PolarBle(std::shared_ptr<BleBackend> backend, BleTimings timings, LogSink log)
    : backend_(std::move(backend)), timings_(timings), log_(std::move(log)) {
  std::thread([backend = backend_, pause = timings_.warm_up, log = log_] {
    try {
      backend->init_thread();
      backend->has_adapter();
      backend->start_scan([](std::uint64_t, const std::string&) {});
      std::this_thread::sleep_for(pause);
      backend->stop_scan();
      log("BLE warm-up complete");
    } catch (...) {
      // A stack that is not ready now may be by the user's first scan.
    }
  }).detach();
}

PolarBle::~PolarBle() {
  stop();
}

bool PolarBle::available() {
  try {
    backend_->init_thread();
    return backend_->has_adapter();
  } catch (...) {
    // Only a machine that plainly reports no adapter is ruled out.
    return true;
  }
}

ScanResult PolarBle::scan() {
  backend_->init_thread();
  log_("scan() enter");
  std::mutex mu;
  std::map<std::uint64_t, std::string> seen;  // ordered: the list comes out by address
  try {
    backend_->start_scan([&](std::uint64_t address, const std::string& name) {
      std::lock_guard<std::mutex> g(mu);
      // A later empty name never erases one seen before.
      if (!name.empty())
        seen[address] = name;
      else
        seen.emplace(address, std::string());
    });
  } catch (...) {
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
  set_sensor_callbacks(std::move(on_samples), std::move(on_status));
  if (worker_.joinable()) worker_.detach();
  auto attempt = std::make_shared<Attempt>();
  attempt_ = attempt;
  worker_ = std::thread([attempt, backend = backend_, t = timings_, address, log = log_] {
    try {
      backend->init_thread();
      log("connect " + address);
      attempt->say(kStatusConnecting);

      std::shared_ptr<BleConnection> link = backend->open_device(parse_ble_address(address));
      if (!link) {
        attempt->say(kStatusNotFound);
        return;
      }
      if (!attempt->publish(link)) return;
      link->watch_connection([attempt](bool connected) {
        if (!connected && attempt->streaming) attempt->say(kStatusDisconnected);
      });
      if (link->maintain_connection())
        log("GattSession: MaintainConnection=true");
      else
        log("GattSession maintain unavailable");

      std::string last_status = "none";
      bool found = false;
      for (int n = 1; n <= kDiscoveryAttempts && !found; ++n) {
        if (n > 1) {
          attempt->say("Connecting… (attempt " + std::to_string(n) + " of " +
                       std::to_string(kDiscoveryAttempts) + ")");
          std::this_thread::sleep_for(t.retry_pause);
        }
        try {
          // Halfway through, a full discovery refreshes a stale service
          // cache that makes the targeted query come back empty.
          if (n == 3) {
            BleConnection::Discovery all = link->discover_all();
            log(std::string("full discovery: ") + gatt_status_text(all.status) + ", " +
                std::to_string(all.services) + " services");
          }
          BleConnection::Discovery d = link->discover_service(kPmdServiceUuid);
          last_status = gatt_status_text(d.status);
          log("PMD discovery attempt " + std::to_string(n) + ": " + last_status + ", " +
              std::to_string(d.services) +
              " svc, conn=" + std::to_string(link->connected() ? 1 : 0));
          found = d.status == 0 && d.services > 0;
        } catch (...) {
          log("PMD discovery attempt " + std::to_string(n) + ": exception");
          last_status = "exception";
        }
      }
      if (!found) {
        attempt->say(service_failure(last_status));
        log("PMD service not found after retries (" + last_status + ")");
        return;
      }
      if (!link->has_characteristic(kPmdControlUuid) || !link->has_characteristic(kPmdDataUuid)) {
        attempt->say(kStatusNoCharacteristics);
        log("control/data char missing");
        return;
      }
      attempt->say(kStatusStarting);

      link->subscribe(kPmdDataUuid, [attempt](const std::vector<std::uint8_t>& frame) {
        std::vector<double> batch = decode_ecg_frame(frame);
        if (!batch.empty()) attempt->deliver(batch);
      });
      attempt->settings_reply = false;
      // Any value on the control point counts as the settings reply.
      link->subscribe(kPmdControlUuid, [attempt](const std::vector<std::uint8_t>&) {
        attempt->settings_reply = true;
      });
      link->write(kPmdControlUuid, pmd_settings_request());
      for (int i = 0; i < kSettingsPolls && !attempt->settings_reply; ++i)
        std::this_thread::sleep_for(t.settings_poll);
      log(attempt->settings_reply ? "settings response received"
                                  : "no settings response (sending start anyway)");
      std::this_thread::sleep_for(t.before_start);
      link->write(kPmdControlUuid, pmd_start_ecg());
      attempt->streaming = true;
      attempt->say(kStatusStreaming);
      log("ECG start command sent");
    } catch (...) {
      attempt->say(kStatusFailed);
      log("connect exception");
    }
  });
}

void PolarBle::stop() {
  std::lock_guard<std::mutex> g(mu_);
  log_("stop() enter");
  if (attempt_) attempt_->cancel();
  attempt_.reset();
  // The worker may be blocked in the stack; it finds its link closed and
  // ends by itself, reporting into slots that are empty by then.
  if (worker_.joinable()) worker_.detach();
  clear_sensor_callbacks();
}

}  // namespace cvn
