#include "sensor/link_attempt.h"

#include <condition_variable>

#include "sensor/ble_common.h"

namespace cvn {

namespace {

constexpr const char* kStatusConnecting = "Connecting…";
constexpr const char* kStatusDisconnected = "Disconnected.";

}  // namespace

bool LinkAttempt::publish(std::shared_ptr<BleConnection> l) {
  std::lock_guard<std::mutex> g(mu);
  if (cancelled) {
    l->close();
    return false;
  }
  link = std::move(l);
  return true;
}

void LinkAttempt::say(const std::string& text) {
  std::lock_guard<std::mutex> g(mu);
  if (!cancelled) emit_status(text);
}

void LinkAttempt::deliver(const std::vector<double>& batch) {
  std::lock_guard<std::mutex> g(mu);
  if (!cancelled) emit_samples(batch);
}

void LinkAttempt::deliver_beats(const std::vector<double>& rr_seconds) {
  std::lock_guard<std::mutex> g(mu);
  if (!cancelled) emit_beats(rr_seconds);
}

void LinkAttempt::cancel() {
  std::shared_ptr<BleConnection> l;
  {
    std::lock_guard<std::mutex> g(mu);
    cancelled = true;
    l = std::move(link);
  }
  streaming = false;
  if (l) l->close();
}

bool pause_for(const std::stop_token& stop, std::chrono::milliseconds d) {
  std::mutex mu;
  std::condition_variable_any cv;
  std::unique_lock<std::mutex> lk(mu);
  cv.wait_for(lk, stop, d, [] { return false; });
  return !stop.stop_requested();
}

void say_failed(LinkAttempt& attempt, const LogSink& log, const Status& s) {
  if (!s.message().empty()) log(s.message());
  attempt.say(kStatusFailed);
  log("connect exception");
}

std::shared_ptr<BleConnection> reach_service(const std::shared_ptr<LinkAttempt>& attempt,
                                             BleBackend& backend, const BleTimings& t,
                                             const std::string& address,
                                             const std::stop_token& stop, const LogSink& log,
                                             const ServiceSteps& steps) {
  // A step the stack could not do ends the procedure.
  auto fail = [&](const Status& s) -> std::shared_ptr<BleConnection> {
    say_failed(*attempt, log, s);
    return nullptr;
  };
  Status s = backend.init_thread();
  if (!s.ok()) return fail(s);
  log("connect " + address);
  attempt->say(kStatusConnecting);

  std::shared_ptr<BleConnection> link;
  if (!(s = backend.open_device(parse_ble_address(address), stop, &link)).ok()) return fail(s);
  if (!link) {
    attempt->say(steps.not_found);
    return nullptr;
  }
  if (!attempt->publish(link)) return nullptr;
  s = link->watch_connection([attempt](bool connected) {
    if (!connected && attempt->streaming) attempt->say(kStatusDisconnected);
  });
  if (!s.ok()) return fail(s);
  bool kept = false;
  if (!(s = link->maintain_connection(&kept)).ok()) return fail(s);
  log(kept ? "GattSession: MaintainConnection=true" : "GattSession maintain unavailable");

  const std::string name = steps.log_name;
  std::string last_status = "none";
  bool found = false;
  for (int n = 1; n <= PolarBle::kDiscoveryAttempts && !found; ++n) {
    if (n > 1) {
      attempt->say("Connecting… (attempt " + std::to_string(n) + " of " +
                   std::to_string(PolarBle::kDiscoveryAttempts) + ")");
      pause_for(stop, t.retry_pause);
    }
    // Halfway through, a full discovery refreshes a stale service cache
    // that makes the targeted query come back empty.
    BleConnection::Discovery all, d;
    if (n == 3 && (s = link->discover_all(&all)).ok())
      log(std::string("full discovery: ") + gatt_status_text(all.status) + ", " +
          std::to_string(all.services) + " services");
    if (s.ok()) s = link->discover_service(steps.uuid, &d);
    if (!s.ok()) {
      if (!s.message().empty()) log(s.message());
      log(name + " discovery attempt " + std::to_string(n) + ": exception");
      last_status = "exception";
      s = Status();
      continue;
    }
    last_status = gatt_status_text(d.status);
    log(name + " discovery attempt " + std::to_string(n) + ": " + last_status + ", " +
        std::to_string(d.services) + " svc, conn=" + std::to_string(link->connected() ? 1 : 0));
    found = d.status == 0 && d.services > 0;
  }
  if (!found) {
    attempt->say(steps.failure(last_status));
    log(name + " service not found after retries (" + last_status + ")");
    return nullptr;
  }
  return link;
}

}  // namespace cvn
