// Bluetooth LE on Linux: BlueZ's D-Bus API (org.bluez.Adapter1, Device1,
// GattService1 and GattCharacteristic1, objects listed by the ObjectManager
// at "/") on the system bus, driven through sd-bus. How each operation maps
// onto BlueZ is described in docs/bluetooth.md.
//
// Why sd-bus and not sdbus-c++ or GDBus: sd-bus is the C API of libsystemd,
// already on every systemd system, so the program gains no runtime
// dependency, and we need only a handful of calls (method calls, a few
// signal matches, a hand-written event loop).
//
// Threading. An sd-bus connection may be used from any thread, but by one at
// a time. So each backend has one connection, one mutex over every sd-bus
// call, and one event-loop thread that dispatches replies and signals.
// Callers never block inside sd-bus: they send asynchronously and wait on a
// condition variable. A Connect that takes seconds thus neither holds up the
// notifications of another link nor a close() from the Stop button, which
// cancels the wait.
//
// Lock order: bus lock, then a link's lock, then whatever the handlers take
// (the callback slots). Nothing calls into the bus while holding a link's
// lock, so a handler running on the loop thread can always finish.
#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "base/log.h"
#include "sensor/ble_common.h"
#include "sensor/platform_backend.h"

namespace cvn {

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

constexpr const char* kBluez = "org.bluez";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kAdapter = "org.bluez.Adapter1";
constexpr const char* kDevice = "org.bluez.Device1";
constexpr const char* kService = "org.bluez.GattService1";
constexpr const char* kCharacteristic = "org.bluez.GattCharacteristic1";

// BlueZ answers most calls at once; GATT operations go over the air and take
// a few connection intervals. This only bounds a stack that never answers.
constexpr auto kCallTimeout = 10s;
// An LE connection attempt to a device out of range is given up by the
// stack itself after some seconds; this bounds one that never answers.
constexpr auto kConnectTimeout = 25s;
// Service discovery on a first connection to an H10 takes a second or two;
// discovery attempts come again if it takes longer.
constexpr auto kResolveWait = 5s;
// BlueZ forgets a device it has not seen for 30 s once discovery stops, so a
// strap picked from an older scan needs a short look to be found again. An
// advertising strap is seen well within this.
constexpr auto kFindWindow = 5s;
// Stop should feel immediate; Disconnect answers within a connection event.
constexpr auto kDisconnectTimeout = 2s;

// GATT communication status of a discovery that could not reach the device.
constexpr int kUnreachable = 1;

// ---------------------------------------------------------------------------
// Errors and message parsing.

// A D-Bus error reply: `name` is the D-Bus error name, e.g.
// "org.bluez.Error.NotReady".
class BusError : public std::runtime_error {
 public:
  BusError(const std::string& name, const std::string& message)
      : std::runtime_error(name + ": " + message), name_(name) {}
  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

void check(int r, const char* what) {
  if (r < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-r));
}

// The property values the backend reads; others are skipped.
using Value = std::variant<std::monostate, bool, std::string, Bytes>;
using Props = std::map<std::string, Value>;
using Interfaces = std::map<std::string, Props>;
using Objects = std::map<std::string, Interfaces>;  // by object path, sorted

Value read_variant(sd_bus_message* m) {
  char type = 0;
  const char* contents = nullptr;
  check(sd_bus_message_peek_type(m, &type, &contents), "peek variant");
  if (type != SD_BUS_TYPE_VARIANT || !contents) throw std::runtime_error("variant expected");
  const std::string sig = contents;
  if (sig == "s" || sig == "o") {
    const char* s = nullptr;
    check(sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents), "enter variant");
    check(sd_bus_message_read_basic(m, sig[0], &s), "read string");
    check(sd_bus_message_exit_container(m), "exit variant");
    return std::string(s ? s : "");
  }
  if (sig == "b") {
    int b = 0;
    check(sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents), "enter variant");
    check(sd_bus_message_read_basic(m, 'b', &b), "read bool");
    check(sd_bus_message_exit_container(m), "exit variant");
    return b != 0;
  }
  if (sig == "ay") {
    const void* p = nullptr;
    std::size_t n = 0;
    check(sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents), "enter variant");
    check(sd_bus_message_read_array(m, 'y', &p, &n), "read bytes");
    check(sd_bus_message_exit_container(m), "exit variant");
    const auto* b = static_cast<const std::uint8_t*>(p);
    return n ? Bytes(b, b + n) : Bytes();
  }
  check(sd_bus_message_skip(m, "v"), "skip variant");
  return std::monostate{};
}

// A D-Bus dictionary a{<key><value>} into a map: `entry` is the signature
// of one entry without braces, `read_value` reads its value.
template <typename Map, typename ReadValue>
Map read_dict(sd_bus_message* m, char key_type, const char* entry, ReadValue read_value) {
  const std::string array = std::string("{") + entry + "}";
  Map out;
  check(sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, array.c_str()), "enter dictionary");
  int r;
  while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, entry)) > 0) {
    const char* key = nullptr;
    check(sd_bus_message_read_basic(m, key_type, &key), "read key");
    out[key] = read_value(m);
    check(sd_bus_message_exit_container(m), "exit entry");
  }
  check(r, "enter entry");
  check(sd_bus_message_exit_container(m), "exit dictionary");
  return out;
}

// a{sv}
Props read_props(sd_bus_message* m) {
  return read_dict<Props>(m, 's', "sv", read_variant);
}

// a{sa{sv}}
Interfaces read_interfaces(sd_bus_message* m) {
  return read_dict<Interfaces>(m, 's', "sa{sv}", read_props);
}

// a{oa{sa{sv}}}, the answer of GetManagedObjects
Objects read_objects(sd_bus_message* m) {
  return read_dict<Objects>(m, 'o', "oa{sa{sv}}", read_interfaces);
}

const std::string* text(const Props& p, const char* key) {
  auto it = p.find(key);
  return it == p.end() ? nullptr : std::get_if<std::string>(&it->second);
}
std::optional<bool> flag(const Props& p, const char* key) {
  auto it = p.find(key);
  if (it == p.end() || !std::holds_alternative<bool>(it->second)) return std::nullopt;
  return std::get<bool>(it->second);
}
const Bytes* bytes(const Props& p, const char* key) {
  auto it = p.find(key);
  return it == p.end() ? nullptr : std::get_if<Bytes>(&it->second);
}
const Props* interface(const Interfaces& i, const char* name) {
  auto it = i.find(name);
  return it == i.end() ? nullptr : &it->second;
}

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

std::string signal_rule(const std::string& member, const std::string& interface,
                        const std::string& path, const std::string& arg0) {
  std::string rule =
      "type='signal',sender='org.bluez',interface='" + interface + "',member='" + member + "'";
  if (!path.empty()) rule += ",path='" + path + "'";
  if (!arg0.empty()) rule += ",arg0='" + arg0 + "'";
  return rule;
}

// Inside, the backend reports failures as exceptions (sd-bus errors, error
// replies, a link closed under a waiting call); at the stack interface they
// become a status whose message names the step, in BlueZ's words.
template <class F>
Status guarded(const char* what, F&& f) {
  try {
    f();
    return Status();
  } catch (const std::exception& e) {
    return Status::error(std::string("BlueZ: ") + what + ": " + e.what());
  }
}

// ---------------------------------------------------------------------------
// The connection to the system bus and its event loop.

struct MessageUnref {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

// A signal subscription; `fn` runs on the loop thread under the bus lock.
struct Match {
  sd_bus_slot* slot = nullptr;
  std::function<void(sd_bus_message*)> fn;
};

class Bus {
 public:
  using Fill = std::function<void(sd_bus_message*)>;
  using Read = std::function<void(sd_bus_message*)>;

  /// Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS when set) and
  /// starts the event loop. Throws when the bus cannot be reached.
  Bus() {
    check(sd_bus_open_system(&bus_), "cannot reach the system bus");
    wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_fd_ < 0) {
      sd_bus_unref(bus_);
      check(-errno, "eventfd");
    }
    thread_ = std::thread([this] { loop(); });
  }

  ~Bus() {
    {
      std::lock_guard<std::mutex> g(mu_);
      quit_ = true;
    }
    wake();
    if (thread_.get_id() == std::this_thread::get_id())
      thread_.detach();
    else
      thread_.join();
    // Not flushed: a dead daemon must not hold up the exit, and what a link
    // sends unanswered (StopNotify) is always followed by a Disconnect that
    // was waited for.
    sd_bus_close_unref(bus_);
    ::close(wake_fd_);
  }

  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  /// False once the connection has failed; a new Bus is needed then.
  bool alive() {
    std::lock_guard<std::mutex> g(mu_);
    return !broken_;
  }

  /// Calls `method` on org.bluez and waits for the answer. `fill` appends
  /// the arguments, `read` parses the reply; both run under the bus lock.
  /// Throws BusError for an error reply, std::runtime_error when the bus
  /// fails, the call times out, or `*cancel` becomes true (see interrupt()).
  void call(const std::string& path, const char* interface, const char* method, const Fill& fill,
            const Read& read, std::chrono::milliseconds timeout,
            const std::atomic<bool>* cancel = nullptr) {
    std::unique_lock<std::mutex> lk(mu_);
    if (broken_) throw std::runtime_error("D-Bus connection lost");
    if (cancel && *cancel) throw std::runtime_error("link closed");
    Message m = new_call(path, interface, method);
    if (fill) fill(m.get());
    Pending p(this, read);
    sd_bus_slot* slot = nullptr;
    check(sd_bus_call_async(bus_, &slot, m.get(), &Bus::on_reply, &p,
                            std::chrono::duration_cast<std::chrono::microseconds>(timeout).count()),
          method);
    wake();
    // sd-bus answers a call that timed out with an error reply of its own;
    // the extra second only covers a loop that stopped turning.
    cv_.wait_for(lk, timeout + 1s, [&] { return p.done || broken_ || (cancel && cancel->load()); });
    // Once the slot is gone the reply callback cannot run, so `p` may die.
    sd_bus_slot_unref(slot);
    if (!p.done) {
      if (broken_) throw std::runtime_error(std::string(method) + ": D-Bus connection lost");
      if (cancel && *cancel) throw std::runtime_error(std::string(method) + ": link closed");
      throw std::runtime_error(std::string(method) + ": no answer");
    }
    if (!p.error_name.empty()) throw BusError(p.error_name, p.error_message);
  }

  /// Sends without waiting for the answer (nor caring about it).
  void send(const std::string& path, const char* interface, const char* method) {
    std::lock_guard<std::mutex> g(mu_);
    if (broken_) return;
    Message m = new_call(path, interface, method);
    sd_bus_message_set_expect_reply(m.get(), 0);
    sd_bus_send(bus_, m.get(), nullptr);
    wake();
  }

  /// Everything BlueZ exports, by path.
  Objects managed_objects(const std::atomic<bool>* cancel = nullptr) {
    Objects objects;
    call(
        "/", kObjectManager, "GetManagedObjects", nullptr,
        [&](sd_bus_message* m) { objects = read_objects(m); }, kCallTimeout, cancel);
    return objects;
  }

  /// Subscribes to the signals matching `rule`. The match is installed
  /// asynchronously: the bus daemon handles our messages in order, so any
  /// signal caused by a call made after this returns is delivered.
  std::shared_ptr<Match> match(const std::string& rule, std::function<void(sd_bus_message*)> fn) {
    auto match = std::make_shared<Match>();
    match->fn = std::move(fn);
    std::lock_guard<std::mutex> g(mu_);
    if (broken_) throw std::runtime_error("D-Bus connection lost");
    check(sd_bus_add_match_async(bus_, &match->slot, rule.c_str(), &Bus::on_match, nullptr,
                                 match.get()),
          "AddMatch");
    wake();
    return match;
  }

  /// Ends a subscription; once this returns its function never runs again.
  /// Must not be called from a signal function (the bus lock is held there).
  void unmatch(const std::shared_ptr<Match>& match) {
    if (!match) return;
    std::lock_guard<std::mutex> g(mu_);
    match->slot = sd_bus_slot_unref(match->slot);
    wake();
  }

  /// Wakes every call() so it re-checks its cancel flag.
  void interrupt() {
    std::lock_guard<std::mutex> g(mu_);
    cv_.notify_all();
  }

  /// Discovery is one session per D-Bus client in BlueZ: a second
  /// StartDiscovery fails. Scans that overlap (the warm-up and the user's
  /// scan, or looking for a device) share it, counted here.
  void acquire_discovery(const std::string& adapter) {
    std::lock_guard<std::mutex> g(discovery_mu_);
    if (discovery_users_ == 0) {
      try {
        call(
            adapter, kAdapter, "SetDiscoveryFilter",
            [](sd_bus_message* m) {
              check(sd_bus_message_append(m, "a{sv}", 1, "Transport", "s", "le"), "filter");
            },
            nullptr, kCallTimeout);
      } catch (const std::exception&) {
        // Older stacks lack the filter; an unfiltered scan sees LE devices too.
      }
      call(adapter, kAdapter, "StartDiscovery", nullptr, nullptr, kCallTimeout);
      discovery_adapter_ = adapter;
    }
    ++discovery_users_;
  }

  void release_discovery() {
    std::lock_guard<std::mutex> g(discovery_mu_);
    if (discovery_users_ == 0 || --discovery_users_ > 0) return;
    try {
      call(discovery_adapter_, kAdapter, "StopDiscovery", nullptr, nullptr, kCallTimeout);
    } catch (const std::exception&) {
      // The adapter may be gone; BlueZ ends our session when we disconnect.
    }
  }

 private:
  struct Pending {
    Pending(Bus* b, const Read& r) : bus(b), read(r) {}
    Bus* bus;
    const Read& read;
    bool done = false;
    std::string error_name, error_message;
  };

  Message new_call(const std::string& path, const char* interface, const char* method) {
    sd_bus_message* m = nullptr;
    check(sd_bus_message_new_method_call(bus_, &m, kBluez, path.c_str(), interface, method),
          method);
    return Message(m);
  }

  // Runs on the loop thread under the bus lock.
  static int on_reply(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* p = static_cast<Pending*>(userdata);
    if (sd_bus_message_is_method_error(m, nullptr)) {
      const sd_bus_error* e = sd_bus_message_get_error(m);
      p->error_name = e && e->name ? e->name : "org.freedesktop.DBus.Error.Failed";
      p->error_message = e && e->message ? e->message : "";
    } else if (p->read) {
      try {
        p->read(m);
      } catch (const std::exception& e) {
        p->error_name = "org.freedesktop.DBus.Error.InvalidArgs";
        p->error_message = std::string("unexpected reply: ") + e.what();
      }
    }
    p->done = true;
    p->bus->cv_.notify_all();
    return 0;
  }

  static int on_match(sd_bus_message* m, void* userdata, sd_bus_error*) {
    try {
      static_cast<Match*>(userdata)->fn(m);
    } catch (const std::exception&) {
      // A malformed signal is dropped; the loop goes on.
    }
    return 0;
  }

  void wake() {
    std::uint64_t one = 1;
    ssize_t ignored = ::write(wake_fd_, &one, sizeof one);
    (void)ignored;
  }

  static int poll_timeout_ms(std::uint64_t until_usec) {
    if (until_usec == std::numeric_limits<std::uint64_t>::max()) return -1;
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    std::uint64_t now = static_cast<std::uint64_t>(ts.tv_sec) * 1000000u + ts.tv_nsec / 1000;
    if (until_usec <= now) return 0;
    // Rounded up, so the poll does not wake just before the deadline.
    std::uint64_t ms = (until_usec - now + 999) / 1000;
    return static_cast<int>(std::min<std::uint64_t>(ms, std::numeric_limits<int>::max()));
  }

  void loop() {
    std::unique_lock<std::mutex> lk(mu_);
    while (!quit_) {
      int r = sd_bus_process(bus_, nullptr);
      if (r > 0) {
        // One message per turn; others waiting for the lock get their turn.
        lk.unlock();
        lk.lock();
        continue;
      }
      int fd = r < 0 ? r : sd_bus_get_fd(bus_);
      int events = fd < 0 ? fd : sd_bus_get_events(bus_);
      std::uint64_t until = 0;
      if (r < 0 || fd < 0 || events < 0 || sd_bus_get_timeout(bus_, &until) < 0) {
        broken_ = true;
        cv_.notify_all();
        logLine("BlueZ: D-Bus connection lost");
        return;
      }
      lk.unlock();
      pollfd fds[2] = {{fd, static_cast<short>(events), 0}, {wake_fd_, POLLIN, 0}};
      ::poll(fds, 2, poll_timeout_ms(until));
      if (fds[1].revents & POLLIN) {
        std::uint64_t count;
        ssize_t ignored = ::read(wake_fd_, &count, sizeof count);
        (void)ignored;
      }
      lk.lock();
    }
  }

  std::mutex mu_;  // every use of bus_
  std::condition_variable cv_;
  sd_bus* bus_ = nullptr;
  int wake_fd_ = -1;
  bool quit_ = false;
  bool broken_ = false;
  std::thread thread_;

  std::mutex discovery_mu_;
  int discovery_users_ = 0;
  std::string discovery_adapter_;
};

// ---------------------------------------------------------------------------
// Discovery: reports devices BlueZ knows and sees while it runs.

class Scanner {
 public:
  using Seen =
      std::function<void(const std::string& path, std::uint64_t address, const std::string& name)>;

  /// Starts (or joins) discovery and reports the devices BlueZ already
  /// knows before returning. Throws when there is no adapter or discovery
  /// cannot start (e.g. the adapter is powered off).
  Scanner(std::shared_ptr<Bus> bus, Seen seen) : bus_(std::move(bus)), seen_(std::move(seen)) {
    try {
      // Subscribed before the snapshot, so nothing falls between the two.
      added_ = bus_->match(signal_rule("InterfacesAdded", kObjectManager, "/", ""),
                           [this](sd_bus_message* m) {
                             const char* path = nullptr;
                             check(sd_bus_message_read_basic(m, 'o', &path), "read path");
                             Interfaces i = read_interfaces(m);
                             if (const Props* d = interface(i, kDevice)) report(path, *d);
                           });
      changed_ = bus_->match(signal_rule("PropertiesChanged", kProperties, "", kDevice),
                             [this](sd_bus_message* m) {
                               const char* iface = nullptr;
                               check(sd_bus_message_read_basic(m, 's', &iface), "read interface");
                               const char* path = sd_bus_message_get_path(m);
                               if (path) report(path, read_props(m));
                             });
      Objects objects = bus_->managed_objects();
      auto adapter = std::find_if(objects.begin(), objects.end(),
                                  [](const auto& o) { return interface(o.second, kAdapter); });
      if (adapter == objects.end()) throw std::runtime_error("no Bluetooth adapter");
      bus_->acquire_discovery(adapter->first);
      discovering_ = true;
      for (const auto& [path, interfaces] : objects)
        if (const Props* device = interface(interfaces, kDevice)) report(path, *device);
    } catch (...) {
      stop();
      throw;
    }
  }

  /// Once this returns, `seen` is not called again.
  ~Scanner() { stop(); }

 private:
  struct Known {
    std::uint64_t address = 0;
    bool has_address = false;
    std::string name;
  };

  void stop() {
    bus_->unmatch(added_);
    bus_->unmatch(changed_);
    added_.reset();
    changed_.reset();
    if (discovering_) bus_->release_discovery();
    discovering_ = false;
  }

  // Only the advertised Name counts: BlueZ's Alias falls back to the
  // address, which would make every unnamed device look named.
  void report(const std::string& path, const Props& device) {
    std::uint64_t address;
    std::string name;
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
      if (!k.has_address) return;
      address = k.address;
      name = k.name;
    }
    seen_(path, address, name);
  }

  std::shared_ptr<Bus> bus_;
  Seen seen_;
  std::shared_ptr<Match> added_, changed_;
  bool discovering_ = false;
  std::mutex mu_;  // known_: the snapshot and the loop thread both report
  std::map<std::string, Known> known_;
};

// ---------------------------------------------------------------------------
// One device.

class BluezLink : public BleConnection {
 public:
  BluezLink(std::shared_ptr<Bus> bus, std::string path)
      : bus_(std::move(bus)), path_(std::move(path)) {}
  ~BluezLink() override { close(); }

  /// Subscribes to the device's changes, then reads its state.
  void start() {
    add_match(signal_rule("PropertiesChanged", kProperties, path_, kDevice),
              [this](sd_bus_message* m) { on_device_changed(m); });
    add_match(signal_rule("InterfacesRemoved", kObjectManager, "/", ""),
              [this](sd_bus_message* m) { on_removed(m); });
    Props device;
    bus_->call(
        path_, kProperties, "GetAll",
        [](sd_bus_message* m) { check(sd_bus_message_append(m, "s", kDevice), "GetAll"); },
        [&](sd_bus_message* m) { device = read_props(m); }, kCallTimeout, &closed_);
    std::lock_guard<std::mutex> g(mu_);
    connected_ = flag(device, "Connected").value_or(false);
    resolved_ = connected_ && flag(device, "ServicesResolved").value_or(false);
  }

  Status watch_connection(std::function<void(bool)> on_change) override {
    std::lock_guard<std::mutex> g(mu_);
    if (!closed_) on_change_ = std::move(on_change);
    return Status();
  }

  // BlueZ keeps a link up for as long as a client wants it once Connect has
  // succeeded, so this is the nearest thing to WinRT's MaintainConnection.
  Status maintain_connection(bool* kept) override {
    return guarded("cannot connect", [&] { *kept = connect(); });
  }

  // Cached from BlueZ's signals and the Connect reply, so it is cheap and
  // never fails.
  bool connected() override {
    std::lock_guard<std::mutex> g(mu_);
    return connected_ && !closed_;
  }

  Status discover_all(Discovery* out) override {
    return guarded("cannot discover services", [&] { *out = discover(nullptr); });
  }
  Status discover_service(const std::string& uuid, Discovery* out) override {
    return guarded("cannot discover services", [&] { *out = discover(&uuid); });
  }

  Status has_characteristic(const std::string& uuid, bool* present) override {
    return guarded("cannot list characteristics", [&] { *present = find_characteristic(uuid); });
  }

  Status subscribe(const std::string& uuid,
                      std::function<void(const std::vector<std::uint8_t>&)> on_value) override {
    return guarded("cannot subscribe", [&] { start_notify(uuid, std::move(on_value)); });
  }

  Status write(const std::string& uuid, const std::vector<std::uint8_t>& value) override {
    return guarded("cannot write", [&] { write_value(uuid, value); });
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
    bus_->interrupt();
    for (const auto& m : matches) bus_->unmatch(m);
    for (const auto& path : notifying) bus_->send(path, kCharacteristic, "StopNotify");
    if (!disconnect) return;
    logLine("BlueZ: disconnecting");
    try {
      // Also cancels a Connect still under way.
      bus_->call(path_, kDevice, "Disconnect", nullptr, nullptr, kDisconnectTimeout);
    } catch (const std::exception&) {
      // Already gone, or BlueZ busy: the link is ours no longer either way.
    }
  }

 private:
  bool find_characteristic(const std::string& uuid) {
    std::string service;
    {
      std::lock_guard<std::mutex> g(mu_);
      service = service_;
    }
    if (service.empty()) return false;
    for (const auto& [path, interfaces] : bus_->managed_objects(&closed_)) {
      const Props* c = interface(interfaces, kCharacteristic);
      const std::string* u = c ? text(*c, "UUID") : nullptr;
      if (!u || !same_uuid(*u, uuid) || !is_below(path, service)) continue;
      std::lock_guard<std::mutex> g(mu_);
      characteristics_[uuid] = path;
      return true;
    }
    return false;
  }

  void start_notify(const std::string& uuid,
                    std::function<void(const std::vector<std::uint8_t>&)> on_value) {
    const std::string path = characteristic(uuid);
    {
      std::lock_guard<std::mutex> g(mu_);
      if (closed_) throw std::runtime_error("link closed");
      handlers_[path] = std::move(on_value);
    }
    // The handler is in place before the match, the match before StartNotify.
    add_match(signal_rule("PropertiesChanged", kProperties, path, kCharacteristic),
              [this, path](sd_bus_message* m) { on_value_changed(path, m); });
    bus_->call(path, kCharacteristic, "StartNotify", nullptr, nullptr, kCallTimeout, &closed_);
    std::lock_guard<std::mutex> g(mu_);
    notifying_.push_back(path);
  }

  void write_value(const std::string& uuid, const std::vector<std::uint8_t>& value) {
    bus_->call(
        characteristic(uuid), kCharacteristic, "WriteValue",
        [&](sd_bus_message* m) {
          check(sd_bus_message_append_array(m, 'y', value.data(), value.size()), "value");
          // "request" is a write with response (BlueZ 5.51 and later; older
          // versions ignore the option and choose by the characteristic).
          check(sd_bus_message_append(m, "a{sv}", 1, "type", "s", "request"), "options");
        },
        nullptr, kCallTimeout, &closed_);
  }

  void add_match(const std::string& rule, std::function<void(sd_bus_message*)> fn) {
    std::shared_ptr<Match> m = bus_->match(rule, std::move(fn));
    std::unique_lock<std::mutex> g(mu_);
    if (closed_) {
      g.unlock();
      bus_->unmatch(m);
      throw std::runtime_error("link closed");
    }
    matches_.push_back(std::move(m));
  }

  bool connect() {
    {
      std::lock_guard<std::mutex> g(mu_);
      if (closed_) throw std::runtime_error("link closed");
      if (connected_) return true;
      connect_requested_ = true;
    }
    try {
      // Marked connected in the reply's own turn of the loop, so a drop
      // reported right after it is not overwritten.
      bus_->call(
          path_, kDevice, "Connect", nullptr, [this](sd_bus_message*) { set_connected(); },
          kConnectTimeout, &closed_);
      return true;
    } catch (const BusError& e) {
      if (e.name() == "org.bluez.Error.AlreadyConnected") {
        set_connected();
        return true;
      }
      logLine(std::string("BlueZ: Connect failed: ") + e.what());
    } catch (const std::exception& e) {
      if (closed_) throw;
      logLine(std::string("BlueZ: Connect failed: ") + e.what());
    }
    return false;
  }

  void set_connected() {
    std::lock_guard<std::mutex> g(mu_);
    connected_ = true;
    changed_.notify_all();
  }

  Discovery discover(const std::string* uuid) {
    if (!connect()) return {kUnreachable, 0};
    {
      std::unique_lock<std::mutex> g(mu_);
      changed_.wait_for(g, kResolveWait, [&] { return resolved_ || !connected_ || closed_; });
      if (closed_) throw std::runtime_error("link closed");
      if (!resolved_) {
        logLine(connected_ ? "BlueZ: services not resolved in time" : "BlueZ: not connected");
        return {kUnreachable, 0};
      }
    }
    int count = 0;
    std::string first;
    for (const auto& [path, interfaces] : bus_->managed_objects(&closed_)) {
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
    return {0, count};
  }

  std::string characteristic(const std::string& uuid) {
    {
      std::lock_guard<std::mutex> g(mu_);
      auto it = characteristics_.find(uuid);
      if (it != characteristics_.end()) return it->second;
    }
    if (!find_characteristic(uuid)) throw std::runtime_error("no characteristic " + uuid);
    std::lock_guard<std::mutex> g(mu_);
    return characteristics_[uuid];
  }

  // The signal functions run on the loop thread under the bus lock.
  void on_device_changed(sd_bus_message* m) {
    const char* iface = nullptr;
    check(sd_bus_message_read_basic(m, 's', &iface), "read interface");
    Props changed = read_props(m);
    std::lock_guard<std::mutex> g(mu_);
    if (closed_) return;
    if (auto r = flag(changed, "ServicesResolved")) resolved_ = *r;
    if (auto c = flag(changed, "Connected")) set_link(*c);
    changed_.notify_all();
  }

  void on_removed(sd_bus_message* m) {
    const char* path = nullptr;
    check(sd_bus_message_read_basic(m, 'o', &path), "read path");
    if (!path || path_ != path) return;
    bool device = false;
    check(sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "s"), "enter interfaces");
    const char* name = nullptr;
    int r;
    while ((r = sd_bus_message_read_basic(m, 's', &name)) > 0)
      device = device || std::strcmp(name, kDevice) == 0;
    check(r, "read interface");
    if (!device) return;
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
    check(sd_bus_message_read_basic(m, 's', &iface), "read interface");
    Props changed = read_props(m);
    const Bytes* value = bytes(changed, "Value");
    if (!value) return;
    std::lock_guard<std::mutex> g(mu_);
    if (closed_) return;
    auto it = handlers_.find(path);
    if (it != handlers_.end()) it->second(*value);
  }

  const std::shared_ptr<Bus> bus_;
  const std::string path_;  // the device object

  std::mutex mu_;  // everything below; handlers run holding it
  std::condition_variable changed_;
  std::atomic<bool> closed_{false};  // also read by waiting calls
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
    return guarded("cannot list adapters", [&] {
      *present = false;
      for (const auto& [path, interfaces] : bus()->managed_objects())
        if (interface(interfaces, kAdapter)) *present = true;
    });
  }

  // A scan belongs to the thread that started it, so the warm-up's
  // stop_scan cannot end the user's scan running at the same time.
  Status start_scan(std::function<void(std::uint64_t, const std::string&)> seen) override {
    std::unique_ptr<Scanner> scanner;
    Status s = guarded("cannot scan", [&] {
      scanner = std::make_unique<Scanner>(
          bus(), [seen = std::move(seen)](const std::string&, std::uint64_t address,
                                          const std::string& name) { seen(address, name); });
    });
    if (!s.ok()) return s;
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

  Status open_device(std::uint64_t address, std::shared_ptr<BleConnection>* link) override {
    return guarded("cannot open the device", [&] {
      std::shared_ptr<Bus> b = bus();
      std::string path = device_path(b->managed_objects(), address);
      if (path.empty()) path = look_for(b, address);
      if (path.empty()) {
        logLine("BlueZ: " + format_ble_address(address) + " not found");
        return;
      }
      logLine("BlueZ: device " + path);
      auto opened = std::make_shared<BluezLink>(b, path);
      opened->start();
      *link = std::move(opened);
    });
  }

 private:
  std::shared_ptr<Bus> bus() {
    std::lock_guard<std::mutex> g(mu_);
    if (!bus_ || !bus_->alive()) bus_ = std::make_shared<Bus>();
    return bus_;
  }

  static std::string device_path(const Objects& objects, std::uint64_t address) {
    for (const auto& [path, interfaces] : objects) {
      const Props* d = interface(interfaces, kDevice);
      const std::string* a = d ? text(*d, "Address") : nullptr;
      if (a && parse_ble_address(*a) == address) return path;
    }
    return {};
  }

  static std::string look_for(const std::shared_ptr<Bus>& bus, std::uint64_t address) {
    logLine("BlueZ: " + format_ble_address(address) + " not known yet, scanning for it");
    std::mutex mu;
    std::condition_variable cv;
    std::string found;
    try {
      Scanner scanner(bus, [&](const std::string& path, std::uint64_t a, const std::string&) {
        if (a != address) return;
        std::lock_guard<std::mutex> g(mu);
        found = path;
        cv.notify_all();
      });
      std::unique_lock<std::mutex> lk(mu);
      cv.wait_for(lk, kFindWindow, [&] { return !found.empty(); });
      // The lock goes before the scanner, which waits for a running report.
    } catch (const std::exception& e) {
      logLine(std::string("BlueZ: cannot scan: ") + e.what());
    }
    return found;
  }

  std::mutex mu_;
  std::shared_ptr<Bus> bus_;
  std::map<std::thread::id, std::unique_ptr<Scanner>> scans_;
};

}  // namespace

std::shared_ptr<BleBackend> make_platform_backend() {
  return std::make_shared<BluezBackend>();
}

}  // namespace cvn
