// What the strap's connection procedure needs from a Bluetooth LE stack.
// One implementation per platform (BlueZ over D-Bus on Linux, WinRT on
// Windows), one simulated strap, and in-memory fakes in the tests.
//
// Operations may throw std::exception for failures the stack reports; the
// procedure turns those into status texts and log lines.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace cvn {

/// One open link to one device. close() may come from another thread at
/// any time (the user pressing Stop); afterwards every operation fails and
/// no handler runs again.
class BleConnection {
 public:
  virtual ~BleConnection() = default;

  /// Calls `on_change(connected)` whenever the link state changes.
  virtual void watch_connection(std::function<void(bool connected)> on_change) = 0;
  /// Asks the stack to keep the link up; false when it cannot.
  virtual bool maintain_connection() = 0;
  virtual bool connected() = 0;

  struct Discovery {
    int status = 0;    // GATT communication status, 0 = success
    int services = 0;  // services returned
  };
  /// Fresh (uncached) discovery of every service.
  virtual Discovery discover_all() = 0;
  /// Fresh discovery of the service `uuid`; it becomes the current service.
  virtual Discovery discover_service(const std::string& uuid) = 0;
  /// Whether the current service has the characteristic `uuid`.
  virtual bool has_characteristic(const std::string& uuid) = 0;
  /// Registers `on_value` for the characteristic's notifications, then
  /// enables them (client configuration "notify") and waits for that write.
  virtual void subscribe(const std::string& uuid,
                         std::function<void(const std::vector<std::uint8_t>&)> on_value) = 0;
  /// Writes with response and waits; the returned status is not examined.
  virtual void write(const std::string& uuid, const std::vector<std::uint8_t>& bytes) = 0;
  /// Drops handlers and closes the link; idempotent and thread-safe.
  virtual void close() = 0;
};

class BleBackend {
 public:
  virtual ~BleBackend() = default;
  /// Per-thread set-up before a thread touches the stack (the COM apartment
  /// on Windows). May throw.
  virtual void init_thread() {}
  /// Whether the system has a Bluetooth adapter. Throws when it cannot tell.
  virtual bool has_adapter() = 0;
  /// Starts an active LE scan reporting every advertisement (address and
  /// local name, possibly empty) from any thread. Throws when it cannot start.
  virtual void start_scan(
      std::function<void(std::uint64_t address, const std::string& name)> seen) = 0;
  virtual void stop_scan() = 0;
  /// The device with this 48-bit address, or null when there is none.
  virtual std::shared_ptr<BleConnection> open_device(std::uint64_t address) = 0;
};

}  // namespace cvn
