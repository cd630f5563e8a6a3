// The BlueZ backend: the adapter, scans, and finding a device to open a
// link to (bluez_link_linux.cc). See bluez_linux.h.
#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "base/log.h"
#include "sensor/ble_common.h"
#include "sensor/bluez_linux.h"
#include "sensor/hrs.h"
#include "sensor/platform_backend.h"

namespace cvn {

namespace bluez {

using sdbus::Bus;
using sdbus::check;
using sdbus::interface;
using sdbus::Interfaces;
using sdbus::Match;
using sdbus::Objects;
using sdbus::Props;
using sdbus::text;

Status named(const char* step, const Status& s) {
  if (s.ok()) return s;
  return Status::error(std::string("BlueZ: ") + step + ": " + s.message());
}

std::string signal_rule(const std::string& member, const std::string& interface,
                        const std::string& path, const std::string& arg0) {
  std::string rule =
      "type='signal',sender='org.bluez',interface='" + interface + "',member='" + member + "'";
  if (!path.empty()) rule += ",path='" + path + "'";
  if (!arg0.empty()) rule += ",arg0='" + arg0 + "'";
  return rule;
}

Status Client::open(std::shared_ptr<Client>* out) {
  auto c = std::make_shared<Client>();
  if (Status s = Bus::open_system("org.bluez", "BlueZ", &c->bus_); !s.ok()) return s;
  *out = std::move(c);
  return Status();
}

Status Client::managed_objects(Objects* out, std::stop_token cancel) {
  return bus_->call(
      "/", kObjectManager, "GetManagedObjects", nullptr,
      [out](sd_bus_message* m) { return sdbus::read_objects(m, out); }, kCallTimeout,
      std::move(cancel));
}

Status Client::acquire_discovery(const std::string& adapter) {
  std::lock_guard<std::mutex> g(discovery_mu_);
  if (discovery_users_ == 0) {
    // Older stacks lack the filter; an unfiltered scan sees LE devices too.
    (void)bus_->call(
        adapter, kAdapter, "SetDiscoveryFilter",
        [](sd_bus_message* m) {
          return check(sd_bus_message_append(m, "a{sv}", 1, "Transport", "s", "le"), "filter");
        },
        nullptr, kCallTimeout);
    Status s = bus_->call(adapter, kAdapter, "StartDiscovery", nullptr, nullptr, kCallTimeout);
    if (!s.ok()) return s;
    discovery_adapter_ = adapter;
  }
  ++discovery_users_;
  return Status();
}

void Client::release_discovery() {
  std::lock_guard<std::mutex> g(discovery_mu_);
  if (discovery_users_ == 0 || --discovery_users_ > 0) return;
  // Failing means the adapter is gone; BlueZ ends our session when we
  // disconnect.
  (void)bus_->call(discovery_adapter_, kAdapter, "StopDiscovery", nullptr, nullptr, kCallTimeout);
}

namespace {

// BlueZ forgets a device it has not seen for 30 s once discovery stops, so a
// strap picked from an older scan needs a short look to be found again. An
// advertising strap is seen well within this.
constexpr auto kFindWindow = 5s;

// BlueZ names device objects ".../dev_12_34_56_78_9A_BC"; used when a signal
// names a device whose Address we have not read yet.
std::optional<std::uint64_t> address_from_path(const std::string& path) {
  std::size_t slash = path.rfind('/');
  std::string leaf = path.substr(slash == std::string::npos ? 0 : slash + 1);
  constexpr std::size_t kLeafLength = 4 + 17;  // "dev_" + "12_34_56_78_9A_BC"
  if (leaf.size() != kLeafLength || leaf.compare(0, 4, "dev_") != 0) return std::nullopt;
  std::string address = leaf.substr(4);
  std::replace(address.begin(), address.end(), '_', ':');
  return parse_ble_address(address);
}

std::string lower_case(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// ---------------------------------------------------------------------------
// Discovery: reports devices BlueZ knows and sees while it runs.

class Scanner {
 public:
  using Seen = std::function<void(const std::string& path, const Advertisement& advert)>;

  /// Starts (or joins) discovery and reports the devices BlueZ already
  /// knows before returning. Fails when there is no adapter or discovery
  /// cannot start (e.g. the adapter is powered off), or on `cancel`.
  static Status start(std::shared_ptr<Client> client, Seen seen, std::unique_ptr<Scanner>* out,
                      std::stop_token cancel = {}) {
    std::unique_ptr<Scanner> scanner(new Scanner(std::move(client), std::move(seen)));
    if (Status s = scanner->begin(std::move(cancel)); !s.ok()) return s;
    *out = std::move(scanner);
    return Status();
  }

  /// Once this returns, `seen` is not called again.
  ~Scanner() {
    Bus& bus = client_->bus();
    bus.unmatch(added_);
    bus.unmatch(changed_);
    if (discovering_) client_->release_discovery();
  }

 private:
  struct Known {
    std::uint64_t address = 0;
    bool has_address = false;
    std::string name;
    bool heart_rate = false;
  };

  Scanner(std::shared_ptr<Client> client, Seen seen)
      : client_(std::move(client)), seen_(std::move(seen)) {}

  Status begin(std::stop_token cancel) {
    Bus& bus = client_->bus();
    // Subscribed before the snapshot, so nothing falls between the two.
    Status s = bus.match(
        signal_rule("InterfacesAdded", kObjectManager, "/", ""),
        [this](sd_bus_message* m) {
          const char* path = nullptr;
          Interfaces i;
          if (sd_bus_message_read_basic(m, 'o', &path) < 0 || !sdbus::read_interfaces(m, &i).ok())
            return;
          if (const Props* d = interface(i, kDevice)) report(path, *d);
        },
        &added_);
    if (s.ok())
      s = bus.match(
          signal_rule("PropertiesChanged", kProperties, "", kDevice),
          [this](sd_bus_message* m) {
            const char* iface = nullptr;
            const char* path = sd_bus_message_get_path(m);
            Props changed;
            if (sd_bus_message_read_basic(m, 's', &iface) < 0 || !path ||
                !sdbus::read_props(m, &changed).ok())
              return;
            report(path, changed);
          },
          &changed_);
    Objects objects;
    if (s.ok()) s = client_->managed_objects(&objects, std::move(cancel));
    if (!s.ok()) return s;
    auto adapter = std::find_if(objects.begin(), objects.end(),
                                [](const auto& o) { return interface(o.second, kAdapter); });
    if (adapter == objects.end()) return Status::error("no Bluetooth adapter");
    if (s = client_->acquire_discovery(adapter->first); !s.ok()) return s;
    discovering_ = true;
    for (const auto& [path, interfaces] : objects)
      if (const Props* device = interface(interfaces, kDevice)) report(path, *device);
    return Status();
  }

  // Only the advertised Name counts: BlueZ's Alias falls back to the
  // address, which would make every unnamed device look named. UUIDs holds
  // the advertised service UUIDs (and, once connected, the resolved ones),
  // in lower case; compared without regard to case all the same.
  void report(const std::string& path, const Props& device) {
    Advertisement advert;
    {
      std::lock_guard<std::mutex> g(mu_);
      Known& k = known_[path];
      if (const std::string* a = text(device, "Address")) {
        k.address = parse_ble_address(*a);
        k.has_address = true;
      } else if (!k.has_address) {
        if (auto a = address_from_path(path)) {
          k.address = *a;
          k.has_address = true;
        }
      }
      if (const std::string* n = text(device, "Name")) k.name = *n;
      if (const sdbus::Strings* uuids = sdbus::strings(device, "UUIDs"))
        k.heart_rate = std::any_of(uuids->begin(), uuids->end(), [](const std::string& u) {
          return lower_case(u) == kHrsServiceUuid;
        });
      if (!k.has_address) return;
      advert = {k.address, k.name, k.heart_rate};
    }
    seen_(path, advert);
  }

  const std::shared_ptr<Client> client_;
  const Seen seen_;
  std::shared_ptr<Match> added_, changed_;
  bool discovering_ = false;
  std::mutex mu_;  // known_: the snapshot and the loop thread both report
  std::map<std::string, Known> known_;
};

// ---------------------------------------------------------------------------

class BluezBackend : public BleBackend {
 public:
  ~BluezBackend() override {
    std::map<std::thread::id, std::unique_ptr<Scanner>> scans;
    {
      std::lock_guard<std::mutex> g(mu_);
      scans.swap(scans_);
    }
  }

  Status has_adapter(bool* present) override {
    *present = false;
    std::shared_ptr<Client> c;
    Objects objects;
    Status s = client(&c);
    if (s.ok()) s = c->managed_objects(&objects);
    if (!s.ok()) return named("cannot list adapters", s);
    for (const auto& [path, interfaces] : objects)
      if (interface(interfaces, kAdapter)) *present = true;
    return Status();
  }

  // A scan belongs to the thread that started it, so the warm-up's
  // stop_scan cannot end the user's scan running at the same time.
  Status start_scan(std::function<void(const Advertisement&)> seen) override {
    std::shared_ptr<Client> c;
    std::unique_ptr<Scanner> scanner;
    Status s = client(&c);
    if (s.ok())
      s = Scanner::start(
          c, [seen = std::move(seen)](const std::string&, const Advertisement& a) { seen(a); },
          &scanner);
    if (!s.ok()) return named("cannot scan", s);
    std::unique_ptr<Scanner> previous;
    std::lock_guard<std::mutex> g(mu_);
    previous = std::move(scans_[std::this_thread::get_id()]);
    scans_[std::this_thread::get_id()] = std::move(scanner);
    return s;
  }

  void stop_scan() override {
    std::unique_ptr<Scanner> scanner;
    {
      std::lock_guard<std::mutex> g(mu_);
      auto it = scans_.find(std::this_thread::get_id());
      if (it == scans_.end()) return;
      scanner = std::move(it->second);
      scans_.erase(it);
    }
  }

  Status open_device(std::uint64_t address, std::stop_token cancel,
                     std::shared_ptr<BleConnection>* link) override {
    Status s = open(address, cancel, link);
    // Given up on a stop, which is no failure; a link opened all the same
    // goes back to the caller, who closes it.
    if (cancel.stop_requested()) return Status();
    return named("cannot open the device", s);
  }

 private:
  Status client(std::shared_ptr<Client>* out) {
    std::lock_guard<std::mutex> g(mu_);
    if (!client_ || !client_->bus().alive())
      if (Status s = Client::open(&client_); !s.ok()) return s;
    *out = client_;
    return Status();
  }

  Status open(std::uint64_t address, const std::stop_token& cancel,
              std::shared_ptr<BleConnection>* link) {
    std::shared_ptr<Client> c;
    Objects objects;
    Status s = client(&c);
    if (s.ok()) s = c->managed_objects(&objects, cancel);
    if (!s.ok()) return s;
    std::string path = device_path(objects, address);
    if (path.empty()) path = look_for(c, address, cancel);
    if (cancel.stop_requested()) return Status();
    if (path.empty()) {
      logLine("BlueZ: " + format_ble_address(address) + " not found");
      return Status();
    }
    logLine("BlueZ: device " + path);
    return open_link(c, path, cancel, link);
  }

  static std::string device_path(const Objects& objects, std::uint64_t address) {
    for (const auto& [path, interfaces] : objects) {
      const Props* d = interface(interfaces, kDevice);
      const std::string* a = d ? text(*d, "Address") : nullptr;
      if (a && parse_ble_address(*a) == address) return path;
    }
    return {};
  }

  // The device's path once a scan sees it; empty when none does in time or
  // on `cancel`.
  static std::string look_for(const std::shared_ptr<Client>& client, std::uint64_t address,
                              const std::stop_token& cancel) {
    logLine("BlueZ: " + format_ble_address(address) + " not known yet, scanning for it");
    std::mutex mu;
    std::condition_variable_any cv;
    std::string found;
    std::unique_ptr<Scanner> scanner;
    Status s = Scanner::start(
        client,
        [&](const std::string& path, const Advertisement& a) {
          if (a.address != address) return;
          std::lock_guard<std::mutex> g(mu);
          found = path;
          cv.notify_all();
        },
        &scanner, cancel);
    if (!s.ok()) {
      if (!cancel.stop_requested()) logLine("BlueZ: cannot scan: " + s.message());
      return {};
    }
    {
      std::unique_lock<std::mutex> lk(mu);
      cv.wait_for(lk, cancel, kFindWindow, [&] { return !found.empty(); });
    }
    // The lock is free, so a running report can end; once the scanner is
    // gone none runs, and `found` may be read unlocked.
    scanner.reset();
    return found;
  }

  std::mutex mu_;
  std::shared_ptr<Client> client_;
  std::map<std::thread::id, std::unique_ptr<Scanner>> scans_;
};

}  // namespace
}  // namespace bluez

std::shared_ptr<BleBackend> make_platform_backend() {
  return std::make_shared<bluez::BluezBackend>();
}

}  // namespace cvn
