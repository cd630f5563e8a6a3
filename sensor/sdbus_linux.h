// A client of one D-Bus service over sd-bus, the C API of libsystemd: method
// calls that are waited for, signal subscriptions, and the event-loop thread
// that dispatches both. The BlueZ backend (bluez_backend_linux.cc) is its one
// user.
//
// Nothing here throws. Every failure is a Status whose message says what
// failed in sd-bus's or the service's words: "<step>: <errno text>" for
// sd-bus itself, "<error name>: <message>" for an error reply.
//
// Threading. An sd-bus connection may be used from any thread, but by one at
// a time. So a Bus has one mutex over every sd-bus call and one event-loop
// thread. Callers never block inside sd-bus: they send asynchronously and
// wait on a condition variable, which a stop request on their token ends.
#pragma once
#include <systemd/sd-bus.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "base/status.h"

namespace cvn::sdbus {

/// The property values a caller can read; others are skipped.
using Bytes = std::vector<std::uint8_t>;
using Strings = std::vector<std::string>;
using Value = std::variant<std::monostate, bool, std::string, Bytes, Strings>;
using Props = std::map<std::string, Value>;
using Interfaces = std::map<std::string, Props>;
using Objects = std::map<std::string, Interfaces>;  // by object path, sorted

/// Ok for a non-negative sd-bus result, else "<what>: <errno text>".
Status check(int r, const char* what);

/// Read one value at the message's current position: a{sv}, a{sa{sv}}, and
/// a{oa{sa{sv}}} (the answer of ObjectManager.GetManagedObjects).
Status read_props(sd_bus_message* m, Props* out);
Status read_interfaces(sd_bus_message* m, Interfaces* out);
Status read_objects(sd_bus_message* m, Objects* out);

/// The property `key` when present with that type, else null (nullopt).
const std::string* text(const Props& p, const char* key);
std::optional<bool> flag(const Props& p, const char* key);
const Bytes* bytes(const Props& p, const char* key);
const Strings* strings(const Props& p, const char* key);
/// The properties of interface `name`, or null.
const Props* interface(const Interfaces& i, const char* name);

/// A signal subscription (Bus::match).
struct Match;

class Bus {
 public:
  /// Append a call's arguments / parse its reply; both run under the bus
  /// lock, so they must not call into the Bus.
  using Fill = std::function<Status(sd_bus_message*)>;
  using Read = std::function<Status(sd_bus_message*)>;
  /// Runs on the loop thread under the bus lock, once per matching signal.
  /// A malformed signal is the handler's to drop.
  using Handler = std::function<void(sd_bus_message*)>;

  /// Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS when set) as a
  /// client of `destination` and starts the event loop. A lost connection
  /// is logged as "<log_name>: D-Bus connection lost".
  static Status open_system(const char* destination, const char* log_name,
                            std::shared_ptr<Bus>* bus);

  /// Stops and joins the loop.
  /// REQUIRES: not called from a Fill, Read or Handler (the last owner must
  /// not be dropped there).
  ~Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  /// False once the connection has failed; a new Bus is needed then.
  bool alive();

  /// Calls `method` on the destination and waits for the answer; `fill`
  /// (may be empty) appends the arguments, `read` (may be empty) parses the
  /// reply. Fails on an error reply, a reply `read` refuses, a bus failure,
  /// a timeout or a stop request on `cancel`; a cancelled call fails with
  /// "<method>: link closed" (closing a link is why callers give up).
  /// `error_name`, when given, receives an error reply's D-Bus name (e.g.
  /// "org.bluez.Error.NotReady"), else stays empty.
  Status call(const std::string& path, const char* interface, const char* method, const Fill& fill,
              const Read& read, std::chrono::milliseconds timeout, std::stop_token cancel = {},
              std::string* error_name = nullptr);

  /// Sends without waiting for the answer (nor caring about it).
  void send(const std::string& path, const char* interface, const char* method);

  /// Subscribes `fn` to the signals matching `rule`. The match is installed
  /// asynchronously: the bus daemon handles our messages in order, so any
  /// signal caused by a call made after this returns is delivered.
  Status match(const std::string& rule, Handler fn, std::shared_ptr<Match>* out);
  /// Ends a subscription (null is ignored); once this returns its function
  /// never runs again. REQUIRES: not called from a Handler.
  void unmatch(const std::shared_ptr<Match>& match);

 private:
  struct Pending;
  Bus(const char* destination, const char* log_name)
      : destination_(destination), log_name_(log_name) {}
  Status new_call(const std::string& path, const char* interface, const char* method,
                  sd_bus_message** m);
  static int on_reply(sd_bus_message* m, void* userdata, sd_bus_error*);
  static int on_match(sd_bus_message* m, void* userdata, sd_bus_error*);
  void wake();
  void loop();

  const std::string destination_;
  const std::string log_name_;
  std::mutex mu_;  // every use of bus_
  std::condition_variable_any cv_;
  sd_bus* bus_ = nullptr;
  int wake_fd_ = -1;
  bool quit_ = false;
  bool broken_ = false;
  std::thread thread_;
};

}  // namespace cvn::sdbus
