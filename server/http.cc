#include "server/http.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "base/thread_set.h"
#include "server/response.h"

namespace cvn {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::string_view kHeadEnd = "\r\n\r\n";
// The reader wakes at least this often to notice `stop`.
constexpr milliseconds kPollSlice{100};
// While requests wait for a worker, the reader looks again this often: a
// finishing worker does not wake it.
constexpr milliseconds kWaitingSlice{5};
// After an accept that failed for want of resources (descriptors, memory)
// the listener rests, so that the loop does not spin on it.
constexpr milliseconds kAcceptPause{50};
// Connections taken per wake-up, so a connect flood cannot starve the heads
// already arriving.
constexpr int kAcceptBurst = 64;

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The two characters after '%' are read the way a checked base-16
// text-to-integer conversion reads them: leading blanks, an optional sign and
// an optional "0x" are allowed, then hex digits up to the first non-digit.
// With no digit at all the request is aborted. The message is spelled out
// here so every platform prints the same line.
int parse_percent_pair(char a, char b) {
  const char two[2] = {a, b};
  int i = 0;
  while (i < 2 && (two[i] == ' ' || (two[i] >= '\t' && two[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < 2 && (two[i] == '+' || two[i] == '-')) negative = two[i++] == '-';
  int value = 0, digits = 0;
  for (; i < 2 && hex_value(two[i]) >= 0; ++i, ++digits) value = value * 16 + hex_value(two[i]);
  // "0x" with nothing behind it reads as the digit 0, as strtol does.
  if (digits == 0) throw std::invalid_argument("invalid stoi argument");
  return negative ? -value : value;
}

// Unsigned decimal up to the first non-digit; no digits reads as 0.
// Saturates instead of wrapping, so 2^70 is refused as too large rather than
// taken as a small number.
std::uint64_t parse_content_length(std::string_view s) {
  std::uint64_t v = 0;
  for (std::size_t i = 0; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    std::uint64_t d = static_cast<std::uint64_t>(s[i] - '0');
    if (v > (UINT64_MAX - d) / 10) return UINT64_MAX;
    v = v * 10 + d;
  }
  return v;
}

char ascii_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Header names and host names compare without regard to case (RFC 9110
// 5.1 and 4.2.3); only the letters A-Z fold.
bool iequals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (ascii_lower(a[i]) != ascii_lower(b[i])) return false;
  return true;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

// A header that should appear once but came twice reads as "": neither
// value can be trusted, and "" passes no check (RFC 9112 3.2 refuses a
// request with two Host lines).
void set_once(std::optional<std::string>& slot, std::string_view value) {
  slot = slot ? std::string() : std::string(value);
}

// "127.0.0.1:<port>", "localhost:<port>" or "[::1]:<port>".
bool is_own_authority(std::string_view authority, int port) {
  const std::string suffix = ":" + std::to_string(port);
  for (std::string_view host : {"127.0.0.1", "localhost", "[::1]"})
    if (iequals(authority, std::string(host) + suffix)) return true;
  return false;
}

// Requests being answered. serve waits for the count to reach 0 before it
// returns, so the threads may hold a reference to it.
class WorkerCount {
 public:
  bool try_acquire(int cap) {
    std::lock_guard<std::mutex> lock(m_);
    if (n_ >= cap) return false;
    ++n_;
    return true;
  }
  void release() {
    std::lock_guard<std::mutex> lock(m_);
    --n_;
  }

 private:
  std::mutex m_;
  int n_ = 0;
};

// A connection whose head is still arriving.
struct Pending {
  SocketHandle socket = kInvalidSocket;
  Clock::time_point deadline;   // the head must be complete by then
  Clock::time_point last_read;  // the pending connection quiet longest goes first
  std::string buf;
  std::size_t searched = 0;  // the terminator cannot start before here
  bool complete = false;
};

// A parsed request waiting for a worker.
struct Waiting {
  SocketHandle socket = kInvalidSocket;
  Request request;
  std::string rest;  // body bytes that came with the head
  Clock::time_point since;
};

// A refusal from the reader thread. The socket is still non-blocking, but a
// short answer fits the empty send buffer of a fresh connection.
void refuse(SocketHandle s, int status, std::string_view error) {
  send_response(s, Response::json("{\"error\":\"" + std::string(error) + "\"}", status));
  close_socket(s);
}

void answer(SocketHandle s, Request& req, std::string rest, const RequestHandler& handler) {
  try {
    if (req.method == "POST") {
      // The declared length was checked against the cap before this thread
      // started; a client that stops sending is timed out per receive.
      req.body = std::move(rest);
      char chunk[kRecvChunk];
      while (req.body.size() < req.content_length) {
        long n = recv_some(s, chunk, sizeof chunk);
        if (n <= 0) break;
        req.body.append(chunk, static_cast<std::size_t>(n));
      }
    }
    handler(s, req);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "[handle] exception: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "[handle] unknown exception\n");
  }
  close_socket(s);
}

// Why one reader thread and not a thread per connection: a connection that
// has sent nothing yet costs a thread stack and a worker place only if it
// gets one. Here it costs a descriptor and a few bytes in `pending`, so
// hundreds of idle sockets neither exhaust the workers nor lock the page
// out, and a full pending set drops the quietest of them for the newcomer.
// Only complete requests reach a worker thread.
class Reader {
 public:
  Reader(SocketHandle listener, std::shared_ptr<const RequestHandler> handler,
         const ServerLimits& limits)
      : listener_(listener), handler_(std::move(handler)), limits_(limits) {}

  void run(const std::atomic<bool>* stop) {
    set_nonblocking(listener_, true);
    while (!(stop && stop->load())) step();
    for (Pending& p : pending_) close_socket(p.socket);
    for (Waiting& w : waiting_) close_socket(w.socket);
    threads_.join_all();
  }

 private:
  void step() {
    Clock::time_point now = Clock::now();
    const bool listening = now >= listener_rest_;
    Clock::time_point wake = now + (waiting_.empty() ? kPollSlice : kWaitingSlice);
    if (!listening) wake = std::min(wake, listener_rest_);
    watched_.clear();
    if (listening) watched_.push_back(listener_);
    for (const Pending& p : pending_) {
      watched_.push_back(p.socket);
      wake = std::min(wake, p.deadline);
    }
    auto timeout = std::chrono::ceil<milliseconds>(wake - now).count();
    if (!wait_readable(watched_, &ready_,
                       static_cast<int>(std::max<decltype(timeout)>(timeout, 0)))) {
      std::this_thread::sleep_for(kAcceptPause);
      return;
    }
    now = Clock::now();
    const std::size_t first = listening ? 1 : 0;
    for (std::size_t i = 0; i < pending_.size(); ++i)
      if (ready_[first + i]) read_head(pending_[i], now);
    // Complete heads move on; late ones are closed without an answer.
    std::vector<Pending> still;
    still.reserve(pending_.size());
    for (Pending& p : pending_) {
      if (p.complete)
        start(std::move(p), now);
      else if (now >= p.deadline)
        close_socket(p.socket);
      else
        still.push_back(std::move(p));
    }
    pending_.swap(still);
    hand_out(now);
    if (listening && ready_[0]) accept_burst(now);
  }

  void read_head(Pending& p, Clock::time_point now) {
    char chunk[kRecvChunk];
    long n = recv_some(p.socket, chunk, sizeof chunk);
    if (n < 0 && would_block()) return;
    if (n <= 0) {  // closed or failed: what arrived is the head
      p.complete = true;
      return;
    }
    p.last_read = now;
    p.buf.append(chunk, static_cast<std::size_t>(n));
    if (p.buf.find(kHeadEnd, p.searched) != std::string::npos || p.buf.size() > kMaxHeadBytes)
      p.complete = true;
    else
      p.searched = p.buf.size() - std::min(p.buf.size(), kHeadEnd.size() - 1);
  }

  void start(Pending p, Clock::time_point now) {
    if (p.buf.empty()) return close_socket(p.socket);  // connected and left
    std::size_t head_end = p.buf.find(kHeadEnd);
    std::string_view all(p.buf);
    Waiting w{p.socket, {}, {}, now};
    try {
      w.request = parse_request_head(all.substr(0, head_end));
    } catch (const std::exception& e) {
      std::fprintf(stderr, "[handle] exception: %s\n", e.what());
      return close_socket(p.socket);
    }
    if (head_end != std::string::npos) w.rest = std::string(all.substr(head_end + kHeadEnd.size()));
    // Refused before a byte of the body is read (RFC 9110 15.5.14).
    if (w.request.method == "POST" && w.request.content_length > limits_.max_body_bytes)
      return refuse(p.socket, 413, "request body too large");
    if (waiting_.size() >= static_cast<std::size_t>(limits_.max_pending))
      return refuse(p.socket, 503, "server busy");
    waiting_.push_back(std::move(w));
  }

  // Oldest first, each to a worker while there is room; those that waited
  // too long are told the server is busy (RFC 9110 15.6.4).
  void hand_out(Clock::time_point now) {
    while (!waiting_.empty() && workers_.try_acquire(limits_.max_workers)) {
      Waiting w = std::move(waiting_.front());
      waiting_.pop_front();
      launch(std::move(w));
    }
    while (!waiting_.empty() && now - waiting_.front().since >= limits_.worker_wait) {
      refuse(waiting_.front().socket, 503, "server busy");
      waiting_.pop_front();
    }
  }

  void launch(Waiting w) {
    set_nonblocking(w.socket, false);
    set_receive_timeout(w.socket, static_cast<int>(limits_.body_timeout.count()));
    auto job = std::make_shared<Waiting>(std::move(w));
    if (!threads_.spawn([job, handler = handler_, workers = &workers_](std::stop_token) {
          answer(job->socket, job->request, std::move(job->rest), *handler);
          workers->release();
        })) {
      workers_.release();
      refuse(job->socket, 503, "server busy");
    }
  }

  void accept_burst(Clock::time_point now) {
    for (int i = 0; i < kAcceptBurst; ++i) {
      SocketHandle c = accept_on(listener_);
      if (c == kInvalidSocket) {
        if (would_block()) return;
        // Out of descriptors or memory: give up the quietest pending
        // connection and let the listener rest a moment.
        make_room(now);
        listener_rest_ = now + kAcceptPause;
        return;
      }
      if (pending_.size() >= static_cast<std::size_t>(limits_.max_pending)) make_room(now);
      set_nonblocking(c, true);
      pending_.push_back({c, now + limits_.head_timeout, now, {}, 0, false});
    }
  }

  // Makes room for one more connection by closing the one quiet longest.
  // Each candidate gets one last look first: in a burst the oldest sockets
  // are often not idle at all, their heads just not read yet, and those
  // move on as requests instead.
  void make_room(Clock::time_point now) {
    for (std::size_t looks = pending_.size(); !pending_.empty(); --looks) {
      auto quietest = std::min_element(
          pending_.begin(), pending_.end(),
          [](const Pending& a, const Pending& b) { return a.last_read < b.last_read; });
      if (looks > 0) read_head(*quietest, now);
      if (quietest->complete) {
        Pending p = std::move(*quietest);
        pending_.erase(quietest);
        return start(std::move(p), now);
      }
      if (looks > 0 && quietest->last_read == now) continue;  // it spoke; look at the next
      close_socket(quietest->socket);
      pending_.erase(quietest);
      return;
    }
  }

  SocketHandle listener_;
  std::shared_ptr<const RequestHandler> handler_;
  ServerLimits limits_;
  WorkerCount workers_;
  ThreadSet threads_;  // one per request being answered
  std::vector<Pending> pending_;
  std::deque<Waiting> waiting_;
  std::vector<SocketHandle> watched_;
  std::vector<bool> ready_;
  Clock::time_point listener_rest_{};
};

}  // namespace

const std::string& Request::param(const std::string& key) const {
  static const std::string empty;
  auto it = query.find(key);
  return it == query.end() ? empty : it->second;
}

std::string url_decode(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (c == '%' && i + 2 < s.size()) {
      out.push_back(static_cast<char>(parse_percent_pair(s[i + 1], s[i + 2])));
      i += 2;
    } else if (c == '+') {
      out.push_back(' ');
    } else {
      out.push_back(c);
    }
  }
  return out;
}

std::map<std::string, std::string> parse_query(std::string_view q) {
  std::map<std::string, std::string> out;
  std::size_t start = 0;
  while (start <= q.size() && !q.empty()) {
    std::size_t end = q.find('&', start);
    if (end == std::string_view::npos) end = q.size();
    std::string_view piece = q.substr(start, end - start);
    std::size_t eq = piece.find('=');
    if (eq != std::string_view::npos)
      out[std::string(piece.substr(0, eq))] = url_decode(piece.substr(eq + 1));
    start = end + 1;
  }
  return out;
}

Request parse_request_head(std::string_view head) {
  Request req;
  // Lines end in CRLF; a bare LF is taken as a line end too (RFC 9112 2.2),
  // so no header hides from the checks behind an odd line ending.
  std::size_t line_end = head.find('\n');
  std::istringstream words{std::string(head.substr(0, line_end))};
  words >> req.method >> req.target;  // the version is not needed
  std::size_t qmark = req.target.find('?');
  req.path = req.target.substr(0, qmark);
  if (qmark != std::string::npos)
    req.query = parse_query(std::string_view(req.target).substr(qmark + 1));

  while (line_end != std::string_view::npos) {
    std::size_t start = line_end + 1;
    line_end = head.find('\n', start);
    std::string_view line = head.substr(start, line_end - start);
    std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    // Blanks before the colon are not allowed (RFC 9112 5.1); trimming them
    // anyway means "Host : x" is checked rather than ignored.
    std::string_view name = trim(line.substr(0, colon));
    std::string_view value = trim(line.substr(colon + 1));
    if (iequals(name, "host"))
      set_once(req.host, value);
    else if (iequals(name, "origin"))
      set_once(req.origin, value);
    else if (iequals(name, "sec-fetch-site"))
      set_once(req.sec_fetch_site, value);
    else if (iequals(name, "content-length"))
      req.content_length = std::max(req.content_length, parse_content_length(value));
  }
  return req;
}

Refusal check_request_source(const Request& r, int port) {
  if (r.host && !is_own_authority(*r.host, port)) return Refusal::kForeignHost;
  if (r.origin) {
    // An origin is "scheme://host:port" (RFC 6454 6.1); ours is plain http.
    constexpr std::string_view scheme = "http://";
    std::string_view o = *r.origin;
    if (o.size() <= scheme.size() || !iequals(o.substr(0, scheme.size()), scheme) ||
        !is_own_authority(o.substr(scheme.size()), port))
      return Refusal::kCrossSite;
  }
  // Fetch metadata: "none" is the user's own navigation (typed address,
  // bookmark, our console opening the browser); "same-site" is still
  // another origin, e.g. a page on localhost at another port.
  if (r.sec_fetch_site && !iequals(*r.sec_fetch_site, "same-origin") &&
      !iequals(*r.sec_fetch_site, "none"))
    return Refusal::kCrossSite;
  return Refusal::kNone;
}

void send_all(SocketHandle s, std::string_view bytes) {
  while (!bytes.empty()) {
    long n = send_some(s, bytes.data(), bytes.size());
    if (n <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

void send_not_found(SocketHandle s) {
  send_all(s, kNotFoundAnswer);
}

void serve(SocketHandle listener, RequestHandler handler, const ServerLimits& limits,
           const std::atomic<bool>* stop) {
  Reader(listener, std::make_shared<const RequestHandler>(std::move(handler)), limits).run(stop);
}

}  // namespace cvn
