#include "server/http.h"

#include <cstdio>
#include <exception>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace cvn {

namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";

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

// Unsigned decimal after optional blanks, up to the first non-digit; no
// digits reads as 0. Saturates instead of wrapping.
std::size_t parse_content_length(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
  std::size_t v = 0;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    std::size_t d = static_cast<std::size_t>(s[i] - '0');
    if (v > (SIZE_MAX - d) / 10) return SIZE_MAX;
    v = v * 10 + d;
  }
  return v;
}

std::string ascii_lower(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

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

bool read_request(SocketHandle s, Request* req) {
  std::string buf;
  char chunk[kRecvChunk];
  std::size_t searched = 0;  // the terminator cannot start before here
  for (;;) {
    if (buf.size() >= kHeadEnd.size() && buf.find(kHeadEnd, searched) != std::string::npos) break;
    searched = buf.size() < kHeadEnd.size() ? 0 : buf.size() - (kHeadEnd.size() - 1);
    long n = recv_some(s, chunk, sizeof chunk);
    if (n <= 0) break;
    buf.append(chunk, static_cast<std::size_t>(n));
    if (buf.size() > kMaxHeadBytes) break;
  }
  if (buf.empty()) return false;

  std::size_t head_end = buf.find(kHeadEnd);
  std::string head = head_end == std::string::npos ? buf : buf.substr(0, head_end);
  std::string rest = head_end == std::string::npos ? "" : buf.substr(head_end + kHeadEnd.size());

  std::istringstream words(head);
  words >> req->method >> req->target >> req->version;
  std::size_t qmark = req->target.find('?');
  req->path = req->target.substr(0, qmark);
  req->query = qmark == std::string::npos
                   ? std::map<std::string, std::string>{}
                   : parse_query(std::string_view(req->target).substr(qmark + 1));

  if (req->method == "POST") {
    std::string lower = ascii_lower(head);
    std::size_t at = lower.find("content-length:");
    std::size_t length =
        at == std::string::npos ? 0 : parse_content_length(std::string_view(head).substr(at + 15));
    req->body = std::move(rest);
    // No cap and no time-out: the body is whatever the client sends before it
    // closes, and more than the declared length is kept as well.
    while (req->body.size() < length) {
      long n = recv_some(s, chunk, sizeof chunk);
      if (n <= 0) break;
      req->body.append(chunk, static_cast<std::size_t>(n));
    }
  }
  return true;
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

void handle_connection(SocketHandle s, const RequestHandler& handler) {
  try {
    Request req;
    if (read_request(s, &req)) handler(s, req);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "[handle] exception: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "[handle] unknown exception\n");
  }
  close_socket(s);
}

void serve(SocketHandle listener, RequestHandler handler, const std::atomic<bool>* stop,
           std::atomic<int>* in_flight) {
  auto shared = std::make_shared<const RequestHandler>(std::move(handler));
  for (;;) {
    SocketHandle c = accept_on(listener);
    if (stop && stop->load()) {
      if (c != kInvalidSocket) close_socket(c);
      return;
    }
    if (c == kInvalidSocket) continue;
    if (in_flight) ++*in_flight;
    std::thread([c, shared, in_flight] {
      handle_connection(c, *shared);
      if (in_flight) --*in_flight;
    }).detach();
  }
}

}  // namespace cvn
