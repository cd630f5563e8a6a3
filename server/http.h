// One-request-per-connection HTTP/1.1 on loopback: reading a request,
// answering it, and the accept loop. Which path does what lives in routes.h;
// every check and limit here is listed with its reason in docs/security.md.
#pragma once
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "server/net.h"

namespace cvn {

/// A request head larger than this without its blank line is parsed from
/// what arrived; it bounds what one client can make us buffer.
inline constexpr std::size_t kMaxHeadBytes = 1 << 20;
/// Size of one receive call.
inline constexpr std::size_t kRecvChunk = 4096;

/// From accept to the blank line ending the head. Browsers send the head at
/// once (a pre-connected socket waits a few seconds at most); a socket that
/// stays quiet longer is only holding a place.
inline constexpr std::chrono::milliseconds kHeadTimeout{20'000};
/// The longest pause between two packets of a POST body.
inline constexpr std::chrono::milliseconds kBodyTimeout{30'000};
/// Requests being answered at once, each on its own thread. The page needs
/// one event stream per tab plus a few short calls ("/scan" holds one for
/// 10 s); the cap keeps a flood from turning into a thread per socket.
inline constexpr int kMaxWorkers = 32;
/// Connections whose head is still arriving, all watched by one reader
/// thread. Browsers open at most six per host; when full, the connection
/// quiet for longest is dropped for the newcomer. Worst-case buffering is
/// this times kMaxHeadBytes (128 MiB).
inline constexpr int kMaxPendingConnections = 128;
/// How long a complete request may wait for a free worker before it is
/// refused with 503: a burst rides out a short wait, a server whose
/// workers are all held (event streams, scans) says so quickly.
inline constexpr std::chrono::milliseconds kWorkerWait{1'000};
/// Largest POST body accepted: whole recordings are uploaded in one body,
/// and 512 MiB holds over a week of ECG text at 130 samples per second.
inline constexpr std::uint64_t kMaxBodyBytes = 512ull << 20;

/// The limits of one server; the defaults are the constants above. Tests
/// shrink them to see both sides of each limit quickly.
struct ServerLimits {
  std::chrono::milliseconds head_timeout = kHeadTimeout;
  std::chrono::milliseconds body_timeout = kBodyTimeout;
  int max_workers = kMaxWorkers;
  std::chrono::milliseconds worker_wait = kWorkerWait;
  int max_pending = kMaxPendingConnections;
  std::uint64_t max_body_bytes = kMaxBodyBytes;
};

struct Request {
  std::string method;  // as sent, no case folding
  std::string target;  // path plus query
  std::string path;    // target up to the first '?', not decoded
  std::map<std::string, std::string> query;
  std::string body;  // only for POST

  // The few headers the server acts on (names are case-insensitive, values
  // trimmed). Host, Origin or Sec-Fetch-Site sent twice reads as "", which
  // no check accepts.
  std::optional<std::string> host;
  std::optional<std::string> origin;
  std::optional<std::string> sec_fetch_site;
  std::uint64_t content_length = 0;  // the largest given; 0 when absent

  /// The query value for `key`, or "" when absent.
  const std::string& param(const std::string& key) const;
};

/// Decodes %XX and '+' in a query value. Throws std::invalid_argument
/// ("invalid stoi argument") when the two characters after '%' hold no hex
/// digit, which aborts the request; a '%' with fewer than two characters
/// behind it is kept literally.
std::string url_decode(std::string_view s);

/// Splits "a=1&b=2" into a map; pieces without '=' are skipped, keys are
/// taken as is, values URL-decoded, later keys replace earlier ones.
std::map<std::string, std::string> parse_query(std::string_view q);

/// Parses a request head (everything before the blank line): the three
/// words of the request line, path and query, and the headers above. The
/// body is left empty. Throws only what url_decode throws.
Request parse_request_head(std::string_view head);

/// Why a request is refused before any route sees it.
enum class Refusal {
  kNone,
  kForeignHost,  // Host names another server: a DNS-rebinding page
  kCrossSite,    // sent by, or on behalf of, a page of another origin
};

/// The Host and cross-site checks against our own origins
/// http://127.0.0.1:<port>, http://localhost:<port> and http://[::1]:<port>.
/// A missing Host is allowed (command-line tools); a present one must name
/// us with our port. Origin, when present, must be one of ours, and
/// Sec-Fetch-Site, when present, must be "same-origin" or "none".
Refusal check_request_source(const Request& r, int port);

/// Sends every byte unless the peer goes away; failures are not reported.
void send_all(SocketHandle s, std::string_view bytes);

/// The fixed, bodiless 404 answer.
void send_not_found(SocketHandle s);
inline constexpr std::string_view kNotFoundAnswer =
    "HTTP/1.1 404 Not Found\r\nContent-Length:0\r\nConnection: close\r\n\r\n";

using RequestHandler = std::function<void(SocketHandle, const Request&)>;

/// Accepts connections and reads their heads until `stop` is set, then waits
/// for the requests being answered and returns (`stop` is looked at several
/// times a second). Each complete request is answered on a thread of its
/// own, which reads a POST body, calls `handler` and closes the socket; an
/// exception ends the request without an answer and one line on stderr.
/// Beyond the limits: 413 for a body over the cap (before reading it), 503
/// when no worker came free in time (or too many requests wait for one),
/// and a silent close for a head that is late.
void serve(SocketHandle listener, RequestHandler handler, const ServerLimits& limits = {},
           const std::atomic<bool>* stop = nullptr);

}  // namespace cvn
