// One device: connect, GATT discovery, notifications and writes, each a
// BlueZ D-Bus call on the device's objects (see bluez_linux.h).
#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <vector>

#include "base/log.h"
#include "sensor/bluez_linux.h"

namespace cvn::bluez {

namespace {

using sdbus::Bus;
using sdbus::Bytes;
using sdbus::check;
using sdbus::flag;
using sdbus::interface;
using sdbus::Match;
using sdbus::Objects;
using sdbus::Props;
using sdbus::text;

// An LE connection attempt to a device out of range is given up by the
// stack itself after some seconds; this bounds one that never answers.
constexpr auto kConnectTimeout = 25s;
// Service discovery on a first connection to an H10 takes a second or two;
// discovery attempts come again if it takes longer.
constexpr auto kResolveWait = 5s;
// Stop should feel immediate; Disconnect answers within a connection event.
constexpr auto kDisconnectTimeout = 2s;

// GATT communication status of a discovery that could not reach the device.
constexpr int kUnreachable = 1;

bool same_uuid(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool is_below(const std::string& path, const std::string& parent) {
  return path.size() > parent.size() + 1 && path.compare(0, parent.size(), parent) == 0 &&
         path[parent.size()] == '/';
}

class BluezLink : public BleConnection {
 public:
  BluezLink(std::shared_ptr<Client> client, std::string path)
      : client_(std::move(client)), path_(std::move(path)) {}
  ~BluezLink() override { close(); }

  /// Subscribes to the device's changes, then reads its state.
  Status start() {
    Status s = add_match(signal_rule("PropertiesChanged", kProperties, path_, kDevice),
                         [this](sd_bus_message* m) { on_device_changed(m); });
    if (s.ok())
      s = add_match(signal_rule("InterfacesRemoved", kObjectManager, "/", ""),
                    [this](sd_bus_message* m) { on_removed(m); });
    Props device;
    if (s.ok())
      s = bus().call(
          path_, kProperties, "GetAll",
          [](sd_bus_message* m) { return check(sd_bus_message_append(m, "s", kDevice), "GetAll"); },
          [&](sd_bus_message* m) { return sdbus::read_props(m, &device); }, kCallTimeout,
          closing_.get_token());
    if (!s.ok()) return s;
    std::lock_guard<std::mutex> g(mu_);
    connected_ = flag(device, "Connected").value_or(false);
    resolved_ = connected_ && flag(device, "ServicesResolved").value_or(false);
    return Status();
  }

  Status watch_connection(std::function<void(bool)> on_change) override {
    std::lock_guard<std::mutex> g(mu_);
    if (!closed_) on_change_ = std::move(on_change);
    return Status();
  }

  // BlueZ keeps a link up for as long as a client wants it once Connect has
  // succeeded, so this is the nearest thing to WinRT's MaintainConnection.
  Status maintain_connection(bool* kept) override { return named("cannot connect", connect(kept)); }

  // Cached from BlueZ's signals and the Connect reply, so it is cheap and
  // never fails.
  bool connected() override {
    std::lock_guard<std::mutex> g(mu_);
    return connected_ && !closed_;
  }

  Status discover_all(Discovery* out) override {
    return named("cannot discover services", discover(nullptr, out));
  }
  Status discover_service(const std::string& uuid, Discovery* out) override {
    return named("cannot discover services", discover(&uuid, out));
  }

  Status has_characteristic(const std::string& uuid, bool* present) override {
    return named("cannot list characteristics", find_characteristic(uuid, present));
  }

  Status subscribe(const std::string& uuid,
                   std::function<void(const std::vector<std::uint8_t>&)> on_value) override {
    return named("cannot subscribe", start_notify(uuid, std::move(on_value)));
  }

  Status write(const std::string& uuid, const std::vector<std::uint8_t>& value) override {
    return named("cannot write", write_value(uuid, value));
  }

  void close() override {
    std::vector<std::shared_ptr<Match>> matches;
    std::vector<std::string> notifying;
    std::map<std::string, std::function<void(const Bytes&)>> handlers;
    std::function<void(bool)> on_change;
    bool disconnect;
    {
      // Waits for a handler that is running: handlers hold this lock.
      std::lock_guard<std::mutex> g(mu_);
      if (closed_) return;
      closed_ = true;
      matches.swap(matches_);
      notifying.swap(notifying_);
      handlers.swap(handlers_);
      on_change.swap(on_change_);
      // A link someone else had connected is left up unless we used it.
      disconnect = connect_requested_ || !notifying.empty();
    }
    changed_.notify_all();
    closing_.request_stop();  // ends the calls waiting for BlueZ
    for (const auto& m : matches) bus().unmatch(m);
    for (const auto& path : notifying) bus().send(path, kCharacteristic, "StopNotify");
    if (!disconnect) return;
    logLine("BlueZ: disconnecting");
    // Also cancels a Connect still under way. A failure means the device is
    // already gone or BlueZ busy: the link is ours no longer either way.
    (void)bus().call(path_, kDevice, "Disconnect", nullptr, nullptr, kDisconnectTimeout);
  }

 private:
  Bus& bus() { return client_->bus(); }

  Status find_characteristic(const std::string& uuid, bool* present) {
    *present = false;
    std::string service;
    {
      std::lock_guard<std::mutex> g(mu_);
      service = service_;
    }
    if (service.empty()) return Status();
    Objects objects;
    if (Status s = client_->managed_objects(&objects, closing_.get_token()); !s.ok()) return s;
    for (const auto& [path, interfaces] : objects) {
      const Props* c = interface(interfaces, kCharacteristic);
      const std::string* u = c ? text(*c, "UUID") : nullptr;
      if (!u || !same_uuid(*u, uuid) || !is_below(path, service)) continue;
      std::lock_guard<std::mutex> g(mu_);
      characteristics_[uuid] = path;
      *present = true;
      break;
    }
    return Status();
  }

  Status start_notify(const std::string& uuid,
                      std::function<void(const std::vector<std::uint8_t>&)> on_value) {
    std::string path;
    if (Status s = characteristic(uuid, &path); !s.ok()) return s;
    {
      std::lock_guard<std::mutex> g(mu_);
      if (closed_) return Status::error("link closed");
      handlers_[path] = std::move(on_value);
    }
    // The handler is in place before the match, the match before StartNotify.
    Status s = add_match(signal_rule("PropertiesChanged", kProperties, path, kCharacteristic),
                         [this, path](sd_bus_message* m) { on_value_changed(path, m); });
    if (s.ok())
      s = bus().call(path, kCharacteristic, "StartNotify", nullptr, nullptr, kCallTimeout,
                     closing_.get_token());
    if (!s.ok()) return s;
    std::lock_guard<std::mutex> g(mu_);
    notifying_.push_back(path);
    return Status();
  }

  Status write_value(const std::string& uuid, const std::vector<std::uint8_t>& value) {
    std::string path;
    if (Status s = characteristic(uuid, &path); !s.ok()) return s;
    return bus().call(
        path, kCharacteristic, "WriteValue",
        [&](sd_bus_message* m) {
          Status s =
              check(sd_bus_message_append_array(m, 'y', value.data(), value.size()), "value");
          // "request" is a write with response (BlueZ 5.51 and later;
          // older versions ignore the option and choose by the
          // characteristic).
          if (s.ok())
            s = check(sd_bus_message_append(m, "a{sv}", 1, "type", "s", "request"), "options");
          return s;
        },
        nullptr, kCallTimeout, closing_.get_token());
  }

  Status add_match(const std::string& rule, Bus::Handler fn) {
    std::shared_ptr<Match> m;
    if (Status s = bus().match(rule, std::move(fn), &m); !s.ok()) return s;
    std::unique_lock<std::mutex> g(mu_);
    if (closed_) {
      g.unlock();
      bus().unmatch(m);
      return Status::error("link closed");
    }
    matches_.push_back(std::move(m));
    return Status();
  }

  // `*up` tells whether the link is up; a failure means the link was closed
  // under the call. BlueZ refusing or failing the Connect is only logged.
  Status connect(bool* up) {
    *up = false;
    {
      std::lock_guard<std::mutex> g(mu_);
      if (closed_) return Status::error("link closed");
      if (connected_) {
        *up = true;
        return Status();
      }
      connect_requested_ = true;
    }
    std::string error_name;
    // Marked connected in the reply's own turn of the loop, so a drop
    // reported right after it is not overwritten.
    Status s = bus().call(
        path_, kDevice, "Connect", nullptr,
        [this](sd_bus_message*) {
          set_connected();
          return Status();
        },
        kConnectTimeout, closing_.get_token(), &error_name);
    if (error_name == "org.bluez.Error.AlreadyConnected") set_connected();
    if (s.ok() || error_name == "org.bluez.Error.AlreadyConnected") {
      *up = true;
      return Status();
    }
    if (error_name.empty() && closed_) return s;
    logLine("BlueZ: Connect failed: " + s.message());
    return Status();
  }

  void set_connected() {
    std::lock_guard<std::mutex> g(mu_);
    connected_ = true;
    changed_.notify_all();
  }

  Status discover(const std::string* uuid, Discovery* out) {
    *out = {kUnreachable, 0};
    bool up = false;
    if (Status s = connect(&up); !s.ok() || !up) return s;
    {
      std::unique_lock<std::mutex> g(mu_);
      changed_.wait_for(g, kResolveWait, [&] { return resolved_ || !connected_ || closed_; });
      if (closed_) return Status::error("link closed");
      if (!resolved_) {
        logLine(connected_ ? "BlueZ: services not resolved in time" : "BlueZ: not connected");
        return Status();
      }
    }
    Objects objects;
    if (Status s = client_->managed_objects(&objects, closing_.get_token()); !s.ok()) return s;
    int count = 0;
    std::string first;
    for (const auto& [path, interfaces] : objects) {
      const Props* s = interface(interfaces, kService);
      if (!s || !is_below(path, path_)) continue;
      if (uuid) {
        const std::string* u = text(*s, "UUID");
        if (!u || !same_uuid(*u, *uuid)) continue;
      }
      if (count++ == 0) first = path;
    }
    if (uuid) {
      std::lock_guard<std::mutex> g(mu_);
      service_ = first;
      characteristics_.clear();
    }
    *out = {0, count};
    return Status();
  }

  // The object path of the current service's characteristic `uuid`.
  Status characteristic(const std::string& uuid, std::string* path) {
    {
      std::lock_guard<std::mutex> g(mu_);
      auto it = characteristics_.find(uuid);
      if (it != characteristics_.end()) {
        *path = it->second;
        return Status();
      }
    }
    bool present = false;
    if (Status s = find_characteristic(uuid, &present); !s.ok()) return s;
    if (!present) return Status::error("no characteristic " + uuid);
    std::lock_guard<std::mutex> g(mu_);
    *path = characteristics_[uuid];
    return Status();
  }

  // The signal functions run on the loop thread under the bus lock; a
  // malformed signal is dropped.
  void on_device_changed(sd_bus_message* m) {
    const char* iface = nullptr;
    Props changed;
    if (sd_bus_message_read_basic(m, 's', &iface) < 0 || !sdbus::read_props(m, &changed).ok())
      return;
    std::lock_guard<std::mutex> g(mu_);
    if (closed_) return;
    if (auto r = flag(changed, "ServicesResolved")) resolved_ = *r;
    if (auto c = flag(changed, "Connected")) set_link(*c);
    changed_.notify_all();
  }

  void on_removed(sd_bus_message* m) {
    const char* path = nullptr;
    if (sd_bus_message_read_basic(m, 'o', &path) < 0 || !path || path_ != path) return;
    bool device = false;
    if (sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "s") < 0) return;
    const char* name = nullptr;
    int r;
    while ((r = sd_bus_message_read_basic(m, 's', &name)) > 0)
      device = device || std::strcmp(name, kDevice) == 0;
    if (r < 0 || !device) return;
    std::lock_guard<std::mutex> g(mu_);
    if (closed_) return;
    // BlueZ dropped the device object: out of range and forgotten.
    set_link(false);
    changed_.notify_all();
  }

  // REQUIRES: mu_ held.
  void set_link(bool up) {
    if (!up) resolved_ = false;
    if (up == connected_) return;
    connected_ = up;
    if (!up) logLine("BlueZ: connection lost");
    if (on_change_) on_change_(up);
  }

  void on_value_changed(const std::string& path, sd_bus_message* m) {
    const char* iface = nullptr;
    Props changed;
    if (sd_bus_message_read_basic(m, 's', &iface) < 0 || !sdbus::read_props(m, &changed).ok())
      return;
    const Bytes* value = sdbus::bytes(changed, "Value");
    if (!value) return;
    std::lock_guard<std::mutex> g(mu_);
    if (closed_) return;
    auto it = handlers_.find(path);
    if (it != handlers_.end()) it->second(*value);
  }

  const std::shared_ptr<Client> client_;
  const std::string path_;    // the device object
  std::stop_source closing_;  // requested by close(): ends the calls waiting for BlueZ

  std::mutex mu_;  // everything below; handlers run holding it
  std::condition_variable changed_;
  std::atomic<bool> closed_{false};  // also read outside the lock
  bool connected_ = false;
  bool resolved_ = false;
  bool connect_requested_ = false;
  std::function<void(bool)> on_change_;
  std::string service_;                                 // the current service's path
  std::map<std::string, std::string> characteristics_;  // uuid -> path, current service
  std::map<std::string, std::function<void(const Bytes&)>> handlers_;  // by path
  std::vector<std::string> notifying_;  // paths with StartNotify done
  std::vector<std::shared_ptr<Match>> matches_;
};

}  // namespace

Status open_link(std::shared_ptr<Client> client, std::string path, const std::stop_token& cancel,
                 std::shared_ptr<BleConnection>* out) {
  auto link = std::make_shared<BluezLink>(std::move(client), std::move(path));
  std::stop_callback close_on_stop(cancel, [&] { link->close(); });
  if (Status s = link->start(); !s.ok()) return s;
  *out = std::move(link);
  return Status();
}

}  // namespace cvn::bluez
