// One-request-per-connection HTTP/1.1 on loopback: reading a request,
// answering it, and the accept loop. Which path does what lives in routes.h.
#pragma once
#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "server/net.h"

namespace cvn {

/// A request head larger than this without its blank line is parsed from
/// what arrived; it bounds what one client can make us buffer.
inline constexpr std::size_t kMaxHeadBytes = 1 << 20;
/// Size of one receive call.
inline constexpr std::size_t kRecvChunk = 4096;

struct Request {
  std::string method;   // as sent, no case folding
  std::string target;   // path plus query
  std::string version;  // read and ignored
  std::string path;     // target up to the first '?', not decoded
  std::map<std::string, std::string> query;
  std::string body;  // only for POST

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

/// Reads one request from `s`. Returns false when the client sent nothing.
bool read_request(SocketHandle s, Request* req);

/// Sends every byte unless the peer goes away; failures are not reported.
void send_all(SocketHandle s, std::string_view bytes);

/// The fixed, bodiless 404 answer.
void send_not_found(SocketHandle s);
inline constexpr std::string_view kNotFoundAnswer =
    "HTTP/1.1 404 Not Found\r\nContent-Length:0\r\nConnection: close\r\n\r\n";

using RequestHandler = std::function<void(SocketHandle, const Request&)>;

/// Reads one request, hands it to `handler` and closes the socket. Any
/// exception ends the request without an answer and one line on stderr.
void handle_connection(SocketHandle s, const RequestHandler& handler);

/// Accepts connections until `stop` is set and the listener is shut down,
/// each on its own detached thread. Failed accepts are retried at once.
/// `in_flight`, when given, counts the connection threads still running, so
/// an owner that goes away first can wait for them.
void serve(SocketHandle listener, RequestHandler handler, const std::atomic<bool>* stop = nullptr,
           std::atomic<int>* in_flight = nullptr);

}  // namespace cvn
