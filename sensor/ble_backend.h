// What the strap's connection procedure needs from a Bluetooth LE stack.
// One implementation per platform (BlueZ over D-Bus on Linux, WinRT on
// Windows), one simulated strap, and in-memory fakes in the tests.
//
// No operation throws: each one that can fail returns a Status whose
// message says, in the stack's own words, what went wrong. That message is
// for the diagnostic log, never shown: the procedure writes it there and
// turns the failure into a status text of its own for the user.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

#include "base/status.h"
#include "sensor/ble_manager.h"

namespace cvn {

/// One open link to one device. close() may come from another thread at
/// any time (the user pressing Stop); afterwards every operation fails and
/// no handler runs again.
class BleConnection {
 public:
  virtual ~BleConnection() = default;

  /// Calls `on_change(connected)` whenever the link state changes.
  virtual Status watch_connection(std::function<void(bool connected)> on_change) = 0;
  /// Asks the stack to keep the link up. `*kept` is false when the stack
  /// cannot promise that (the link still works); a failure means the link
  /// itself is unusable.
  virtual Status maintain_connection(bool* kept) = 0;
  /// The last link state the stack reported; false when it cannot say.
  virtual bool connected() = 0;

  struct Discovery {
    int status = 0;    // GATT communication status, 0 = success
    int services = 0;  // services returned
  };
  /// Fresh (uncached) discovery of every service.
  virtual Status discover_all(Discovery* out) = 0;
  /// Fresh discovery of the service `uuid`; it becomes the current service.
  virtual Status discover_service(const std::string& uuid, Discovery* out) = 0;
  /// Whether the current service has the characteristic `uuid`.
  virtual Status has_characteristic(const std::string& uuid, bool* present) = 0;
  /// Registers `on_value` for the characteristic's notifications, then
  /// enables them (client configuration "notify") and waits for that write.
  virtual Status subscribe(const std::string& uuid,
                           std::function<void(const std::vector<std::uint8_t>&)> on_value) = 0;
  /// Writes with response and waits; the returned GATT status is not examined.
  virtual Status write(const std::string& uuid, const std::vector<std::uint8_t>& bytes) = 0;
  /// Drops handlers and closes the link; idempotent and thread-safe.
  virtual void close() = 0;
};

/// One advertisement seen by a scan.
struct Advertisement {
  std::uint64_t address = 0;
  std::string name;                 // local name; empty when not (yet) sent
  bool heart_rate_service = false;  // lists the Heart Rate Service (0x180D)
};

class BleBackend {
 public:
  virtual ~BleBackend() = default;
  /// Per-thread set-up before a thread touches the stack (the COM apartment
  /// on Windows).
  virtual Status init_thread() { return Status(); }
  /// How the person is asked to breathe (see BleManager); only a simulated
  /// strap listens.
  virtual void set_breathing_guide(BreathingGuide /*guide*/) {}
  /// Whether the system has a Bluetooth adapter; a failure means it cannot
  /// tell.
  virtual Status has_adapter(bool* present) = 0;
  /// Starts an active LE scan reporting every advertisement from any
  /// thread.
  virtual Status start_scan(std::function<void(const Advertisement&)> seen) = 0;
  /// Ends the calling thread's scan; once it returns, `seen` is not called
  /// again.
  virtual void stop_scan() = 0;
  /// The device with this 48-bit address; `*link` stays null when there is
  /// none. A stop request on `cancel` (the user pressing Stop) gives the
  /// search up soon: it may then answer with no link, or with one the
  /// caller closes.
  virtual Status open_device(std::uint64_t address, std::stop_token cancel,
                             std::shared_ptr<BleConnection>* link) = 0;
};

}  // namespace cvn
