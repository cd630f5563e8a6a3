// Why sd-bus and not sdbus-c++ or GDBus: sd-bus is the C API of libsystemd,
// already on every systemd system, so the program gains no runtime
// dependency, and we need only a handful of calls (method calls, a few
// signal matches, a hand-written event loop).
#include "sensor/sdbus_linux.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/log.h"

namespace cvn::sdbus {

using namespace std::chrono_literals;

Status check(int r, const char* what) {
  if (r < 0) return Status::error(std::string(what) + ": " + std::strerror(-r));
  return Status();
}

namespace {

Status read_variant(sd_bus_message* m, Value* out) {
  char type = 0;
  const char* contents = nullptr;
  if (Status s = check(sd_bus_message_peek_type(m, &type, &contents), "peek variant"); !s.ok())
    return s;
  if (type != SD_BUS_TYPE_VARIANT || !contents) return Status::error("variant expected");
  const std::string sig = contents;
  if (sig != "s" && sig != "o" && sig != "b" && sig != "ay" && sig != "as") {
    *out = std::monostate{};
    return check(sd_bus_message_skip(m, "v"), "skip variant");
  }
  if (Status s =
          check(sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents), "enter variant");
      !s.ok())
    return s;
  Status s;
  if (sig == "b") {
    int b = 0;
    s = check(sd_bus_message_read_basic(m, 'b', &b), "read bool");
    *out = b != 0;
  } else if (sig == "ay") {
    const void* p = nullptr;
    std::size_t n = 0;
    s = check(sd_bus_message_read_array(m, 'y', &p, &n), "read bytes");
    const auto* b = static_cast<const std::uint8_t*>(p);
    *out = n ? Bytes(b, b + n) : Bytes();
  } else if (sig == "as") {
    char** list = nullptr;
    s = check(sd_bus_message_read_strv(m, &list), "read strings");
    Strings texts;
    for (char** at = list; at && *at; ++at) {
      texts.emplace_back(*at);
      std::free(*at);
    }
    std::free(list);
    *out = std::move(texts);
  } else {
    const char* text = nullptr;
    s = check(sd_bus_message_read_basic(m, sig[0], &text), "read string");
    *out = std::string(text ? text : "");
  }
  if (!s.ok()) return s;
  return check(sd_bus_message_exit_container(m), "exit variant");
}

// A D-Bus dictionary a{<key><value>} into a map: `entry` is the signature
// of one entry without braces, `read_value` reads its value.
template <typename Map, typename ReadValue>
Status read_dict(sd_bus_message* m, char key_type, const char* entry, ReadValue read_value,
                 Map* out) {
  const std::string array = std::string("{") + entry + "}";
  out->clear();
  Status s = check(sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, array.c_str()),
                   "enter dictionary");
  int r = 0;
  while (s.ok() && (r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, entry)) > 0) {
    const char* key = nullptr;
    s = check(sd_bus_message_read_basic(m, key_type, &key), "read key");
    if (s.ok()) s = read_value(m, &(*out)[key]);
    if (s.ok()) s = check(sd_bus_message_exit_container(m), "exit entry");
  }
  if (s.ok()) s = check(r, "enter entry");
  if (s.ok()) s = check(sd_bus_message_exit_container(m), "exit dictionary");
  return s;
}

}  // namespace

Status read_props(sd_bus_message* m, Props* out) {
  return read_dict(m, 's', "sv", read_variant, out);
}

Status read_interfaces(sd_bus_message* m, Interfaces* out) {
  return read_dict(m, 's', "sa{sv}", read_props, out);
}

Status read_objects(sd_bus_message* m, Objects* out) {
  return read_dict(m, 'o', "oa{sa{sv}}", read_interfaces, out);
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
const Strings* strings(const Props& p, const char* key) {
  auto it = p.find(key);
  return it == p.end() ? nullptr : std::get_if<Strings>(&it->second);
}
const Props* interface(const Interfaces& i, const char* name) {
  auto it = i.find(name);
  return it == i.end() ? nullptr : &it->second;
}

// ---------------------------------------------------------------------------

struct Match {
  sd_bus_slot* slot = nullptr;
  Bus::Handler fn;
};

namespace {

struct MessageUnref {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

int poll_timeout_ms(std::uint64_t until_usec) {
  if (until_usec == std::numeric_limits<std::uint64_t>::max()) return -1;
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  std::uint64_t now = static_cast<std::uint64_t>(ts.tv_sec) * 1000000u + ts.tv_nsec / 1000;
  if (until_usec <= now) return 0;
  // Rounded up, so the poll does not wake just before the deadline.
  std::uint64_t ms = (until_usec - now + 999) / 1000;
  return static_cast<int>(std::min<std::uint64_t>(ms, std::numeric_limits<int>::max()));
}

}  // namespace

struct Bus::Pending {
  Pending(Bus* b, const Read& r) : bus(b), read(r) {}
  Bus* bus;
  const Read& read;
  bool done = false;
  std::string error_name, error_message;
};

Status Bus::open_system(const char* destination, const char* log_name, std::shared_ptr<Bus>* bus) {
  std::shared_ptr<Bus> b(new Bus(destination, log_name));
  if (Status s = check(sd_bus_open_system(&b->bus_), "cannot reach the system bus"); !s.ok())
    return s;
  b->wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (b->wake_fd_ < 0) return check(-errno, "eventfd");
  b->thread_ = std::thread([raw = b.get()] { raw->loop(); });
  *bus = std::move(b);
  return Status();
}

Bus::~Bus() {
  {
    std::lock_guard<std::mutex> g(mu_);
    quit_ = true;
  }
  if (wake_fd_ >= 0) wake();
  if (thread_.joinable()) thread_.join();
  // Not flushed: a dead daemon must not hold up the exit, and what a link
  // sends unanswered (StopNotify) is always followed by a Disconnect that
  // was waited for.
  if (bus_) sd_bus_close_unref(bus_);
  if (wake_fd_ >= 0) ::close(wake_fd_);
}

bool Bus::alive() {
  std::lock_guard<std::mutex> g(mu_);
  return !broken_;
}

Status Bus::call(const std::string& path, const char* interface, const char* method,
                 const Fill& fill, const Read& read, std::chrono::milliseconds timeout,
                 std::stop_token cancel, std::string* error_name) {
  std::unique_lock<std::mutex> lk(mu_);
  if (broken_) return Status::error("D-Bus connection lost");
  if (cancel.stop_requested()) return Status::error("link closed");
  sd_bus_message* raw = nullptr;
  if (Status s = new_call(path, interface, method, &raw); !s.ok()) return s;
  Message m(raw);
  if (fill)
    if (Status s = fill(m.get()); !s.ok()) return s;
  Pending p(this, read);
  sd_bus_slot* slot = nullptr;
  if (Status s = check(sd_bus_call_async(bus_, &slot, m.get(), &Bus::on_reply, &p,
                                         std::chrono::microseconds(timeout).count()),
                       method);
      !s.ok())
    return s;
  wake();
  // sd-bus answers a call that timed out with an error reply of its own;
  // the extra second only covers a loop that stopped turning.
  cv_.wait_for(lk, cancel, timeout + 1s, [&] { return p.done || broken_; });
  // Once the slot is gone the reply callback cannot run, so `p` may die.
  sd_bus_slot_unref(slot);
  if (!p.done) {
    const std::string name = method;
    if (broken_) return Status::error(name + ": D-Bus connection lost");
    if (cancel.stop_requested()) return Status::error(name + ": link closed");
    return Status::error(name + ": no answer");
  }
  if (p.error_name.empty()) return Status();
  if (error_name) *error_name = p.error_name;
  return Status::error(p.error_name + ": " + p.error_message);
}

void Bus::send(const std::string& path, const char* interface, const char* method) {
  std::lock_guard<std::mutex> g(mu_);
  sd_bus_message* raw = nullptr;
  if (broken_ || !new_call(path, interface, method, &raw).ok()) return;
  Message m(raw);
  sd_bus_message_set_expect_reply(m.get(), 0);
  sd_bus_send(bus_, m.get(), nullptr);
  wake();
}

Status Bus::match(const std::string& rule, Handler fn, std::shared_ptr<Match>* out) {
  auto match = std::make_shared<Match>();
  match->fn = std::move(fn);
  std::lock_guard<std::mutex> g(mu_);
  if (broken_) return Status::error("D-Bus connection lost");
  if (Status s = check(sd_bus_add_match_async(bus_, &match->slot, rule.c_str(), &Bus::on_match,
                                              nullptr, match.get()),
                       "AddMatch");
      !s.ok())
    return s;
  wake();
  *out = std::move(match);
  return Status();
}

void Bus::unmatch(const std::shared_ptr<Match>& match) {
  if (!match) return;
  std::lock_guard<std::mutex> g(mu_);
  match->slot = sd_bus_slot_unref(match->slot);
  wake();
}

Status Bus::new_call(const std::string& path, const char* interface, const char* method,
                     sd_bus_message** m) {
  return check(sd_bus_message_new_method_call(bus_, m, destination_.c_str(), path.c_str(),
                                              interface, method),
               method);
}

// Runs on the loop thread under the bus lock.
int Bus::on_reply(sd_bus_message* m, void* userdata, sd_bus_error*) {
  auto* p = static_cast<Pending*>(userdata);
  if (sd_bus_message_is_method_error(m, nullptr)) {
    const sd_bus_error* e = sd_bus_message_get_error(m);
    p->error_name = e && e->name ? e->name : "org.freedesktop.DBus.Error.Failed";
    p->error_message = e && e->message ? e->message : "";
  } else if (p->read) {
    if (Status s = p->read(m); !s.ok()) {
      p->error_name = "org.freedesktop.DBus.Error.InvalidArgs";
      p->error_message = "unexpected reply: " + s.message();
    }
  }
  p->done = true;
  p->bus->cv_.notify_all();
  return 0;
}

int Bus::on_match(sd_bus_message* m, void* userdata, sd_bus_error*) {
  static_cast<Match*>(userdata)->fn(m);
  return 0;
}

void Bus::wake() {
  std::uint64_t one = 1;
  ssize_t ignored = ::write(wake_fd_, &one, sizeof one);
  (void)ignored;
}

void Bus::loop() {
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
      logLine(log_name_ + ": D-Bus connection lost");
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

}  // namespace cvn::sdbus
