// Raw loopback clients for server tests: they send exact bytes and read the
// whole answer, so the tests see precisely what a browser would get.
#pragma once
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "server/http.h"

namespace cvn::test {

/// Sends `pieces` one by one (with a short pause between them, so they
/// arrive as separate packets), half-closes when `half_close`, and returns
/// everything the server sends until it closes. Empty on connect failure.
std::string exchange(int port, const std::vector<std::string>& pieces, bool half_close = false);

/// GET `target` (or POST with `body`) with "Host: 127.0.0.1:<port>", as the
/// page sends it, and return the raw answer.
std::string http_get(int port, const std::string& target);
std::string http_post(int port, const std::string& target, const std::string& body);

/// The body behind the blank line of a raw answer, and its first line.
std::string body_of(const std::string& answer);
std::string status_line(const std::string& answer);

/// Threads of this process right now (Linux: /proc/self/task).
int thread_count();

/// Resident memory of this process in bytes (Linux: /proc/self/statm).
std::size_t resident_bytes();

/// Raises the soft limit on open descriptors to at least `n` if the hard
/// limit allows; false when it does not.
bool raise_descriptor_limit(int n);

/// A real server on a free loopback port, running `handler` until destroyed.
/// The destructor waits for connections still being handled (an event
/// stream ends at its next send after the client left).
class TestServer {
 public:
  explicit TestServer(RequestHandler handler, ServerLimits limits = {});
  ~TestServer();
  int port() const { return port_; }

 private:
  SocketHandle listener_ = kInvalidSocket;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace cvn::test
