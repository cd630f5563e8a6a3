// What the strap's connection procedure needs from a Bluetooth LE stack.
// One implementation per platform (BlueZ over D-Bus on Linux, WinRT on
// Windows), one simulated strap, and in-memory fakes in the tests.
//
// No operation throws: each one that can fail returns a BleStatus whose
// message says, in the stack's own words, what went wrong. The procedure
// writes that message to the diagnostic log and turns the failure into a
// status text for the user.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace cvn {

/// Success, or a failure with a message for the diagnostic log (never shown
/// to the user).
class [[nodiscard]] BleStatus {
 public:
  static BleStatus success() { return BleStatus(); }
  static BleStatus failure(std::string message) { return BleStatus(std::move(message)); }

  bool ok() const { return !failed_; }
  /// Empty on success.
  const std::string& message() const { return message_; }

 private:
  BleStatus() = default;
  explicit BleStatus(std::string message) : failed_(true), message_(std::move(message)) {}

  bool failed_ = false;
  std::string message_;
};

/// One open link to one device. close() may come from another thread at
/// any time (the user pressing Stop); afterwards every operation fails and
/// no handler runs again.
class BleConnection {
 public:
  virtual ~BleConnection() = default;

  /// Calls `on_change(connected)` whenever the link state changes.
  virtual BleStatus watch_connection(std::function<void(bool connected)> on_change) = 0;
  /// Asks the stack to keep the link up. `*kept` is false when the stack
  /// cannot promise that (the link still works); a failure means the link
  /// itself is unusable.
  virtual BleStatus maintain_connection(bool* kept) = 0;
  /// The last link state the stack reported; false when it cannot say.
  virtual bool connected() = 0;

  struct Discovery {
    int status = 0;    // GATT communication status, 0 = success
    int services = 0;  // services returned
  };
  /// Fresh (uncached) discovery of every service.
  virtual BleStatus discover_all(Discovery* out) = 0;
  /// Fresh discovery of the service `uuid`; it becomes the current service.
  virtual BleStatus discover_service(const std::string& uuid, Discovery* out) = 0;
  /// Whether the current service has the characteristic `uuid`.
  virtual BleStatus has_characteristic(const std::string& uuid, bool* present) = 0;
  /// Registers `on_value` for the characteristic's notifications, then
  /// enables them (client configuration "notify") and waits for that write.
  virtual BleStatus subscribe(const std::string& uuid,
                              std::function<void(const std::vector<std::uint8_t>&)> on_value) = 0;
  /// Writes with response and waits; the returned GATT status is not examined.
  virtual BleStatus write(const std::string& uuid, const std::vector<std::uint8_t>& bytes) = 0;
  /// Drops handlers and closes the link; idempotent and thread-safe.
  virtual void close() = 0;
};

class BleBackend {
 public:
  virtual ~BleBackend() = default;
  /// Per-thread set-up before a thread touches the stack (the COM apartment
  /// on Windows).
  virtual BleStatus init_thread() { return BleStatus::success(); }
  /// Whether the system has a Bluetooth adapter; a failure means it cannot
  /// tell.
  virtual BleStatus has_adapter(bool* present) = 0;
  /// Starts an active LE scan reporting every advertisement (address and
  /// local name, possibly empty) from any thread.
  virtual BleStatus start_scan(
      std::function<void(std::uint64_t address, const std::string& name)> seen) = 0;
  /// Ends the calling thread's scan; once it returns, `seen` is not called
  /// again.
  virtual void stop_scan() = 0;
  /// The device with this 48-bit address; `*link` stays null when there is
  /// none.
  virtual BleStatus open_device(std::uint64_t address, std::shared_ptr<BleConnection>* link) = 0;
};

}  // namespace cvn
