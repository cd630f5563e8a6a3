// Inside the BlueZ backend: what the backend (bluez_backend_linux.cc:
// adapter, scan, finding a device) and the device link
// (bluez_link_linux.cc: connect, GATT discovery, notifications, writes)
// share. How each operation maps onto BlueZ is described in
// docs/bluetooth.md.
//
// Threading. Each backend has one bus connection with its own event-loop
// thread (sdbus_linux.h). A Connect that takes seconds thus neither holds up
// the notifications of another link nor a close() from the Stop button,
// which cancels the wait.
//
// Lock order: bus lock, then a link's lock, then whatever the handlers take
// (the callback slots). Nothing calls into the bus while holding a link's
// lock, so a handler running on the loop thread can always finish.
#pragma once
#include <chrono>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>

#include "base/status.h"
#include "sensor/ble_backend.h"
#include "sensor/sdbus_linux.h"

namespace cvn::bluez {

using namespace std::chrono_literals;

inline constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
inline constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
inline constexpr const char* kAdapter = "org.bluez.Adapter1";
inline constexpr const char* kDevice = "org.bluez.Device1";
inline constexpr const char* kService = "org.bluez.GattService1";
inline constexpr const char* kCharacteristic = "org.bluez.GattCharacteristic1";

// BlueZ answers most calls at once; GATT operations go over the air and take
// a few connection intervals. This only bounds a stack that never answers.
inline constexpr auto kCallTimeout = 10s;

/// One D-Bus client of BlueZ: the bus connection and its discovery session.
class Client {
 public:
  static Status open(std::shared_ptr<Client>* out);

  sdbus::Bus& bus() { return *bus_; }

  /// Everything BlueZ exports, by path.
  Status managed_objects(sdbus::Objects* out, std::stop_token cancel = {});

  /// Discovery is one session per D-Bus client in BlueZ: a second
  /// StartDiscovery fails. Scans that overlap (the warm-up and the user's
  /// scan, or looking for a device) share it, counted here.
  Status acquire_discovery(const std::string& adapter);
  void release_discovery();

 private:
  std::shared_ptr<sdbus::Bus> bus_;
  std::mutex discovery_mu_;
  int discovery_users_ = 0;
  std::string discovery_adapter_;
};

/// At the stack interface a failure's message names the step, in BlueZ's
/// words: "BlueZ: cannot scan: org.bluez.Error.NotReady: Resource Not Ready".
Status named(const char* step, const Status& s);

/// A match rule for BlueZ's signal `interface.member`; an empty `path` or
/// `arg0` matches any.
std::string signal_rule(const std::string& member, const std::string& interface,
                        const std::string& path, const std::string& arg0);

/// The link to the device object at `path`, subscribed to its changes and
/// with its state read. A stop request on `cancel` closes it, ending the
/// reading.
Status open_link(std::shared_ptr<Client> client, std::string path, const std::stop_token& cancel,
                 std::shared_ptr<BleConnection>* out);

}  // namespace cvn::bluez
