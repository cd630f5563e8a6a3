#include "tests/support/http_client.h"

#include <dirent.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace cvn::test {

std::string exchange(int port, const std::vector<std::string>& pieces, bool half_close) {
  SocketHandle s = connect_loopback(port);
  if (s == kInvalidSocket) return {};
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    send_all(s, pieces[i]);
  }
  if (half_close) ::shutdown(static_cast<int>(s), SHUT_WR);
  std::string out;
  char buf[65536];
  for (;;) {
    long n = recv_some(s, buf, sizeof buf);
    if (n <= 0) break;
    out.append(buf, static_cast<std::size_t>(n));
  }
  close_socket(s);
  return out;
}

std::string http_get(int port, const std::string& target) {
  return exchange(port, {"GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                         "\r\n\r\n"});
}

std::string http_post(int port, const std::string& target, const std::string& body) {
  return exchange(port, {"POST " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body});
}

std::string body_of(const std::string& answer) {
  std::size_t at = answer.find("\r\n\r\n");
  return at == std::string::npos ? std::string() : answer.substr(at + 4);
}

std::string status_line(const std::string& answer) {
  return answer.substr(0, answer.find("\r\n"));
}

int thread_count() {
  int n = 0;
  if (DIR* d = ::opendir("/proc/self/task")) {
    while (dirent* e = ::readdir(d))
      if (e->d_name[0] != '.') ++n;
    ::closedir(d);
  }
  return n;
}

std::size_t resident_bytes() {
  long pages = 0, resident = 0;
  if (std::FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return static_cast<std::size_t>(resident) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

bool raise_descriptor_limit(int n) {
  rlimit r{};
  if (::getrlimit(RLIMIT_NOFILE, &r) != 0) return false;
  if (r.rlim_cur >= static_cast<rlim_t>(n)) return true;
  if (r.rlim_max < static_cast<rlim_t>(n)) return false;
  r.rlim_cur = static_cast<rlim_t>(n);
  return ::setrlimit(RLIMIT_NOFILE, &r) == 0;
}

TestServer::TestServer(RequestHandler handler, ServerLimits limits) {
  // Spread parallel test programs over different ranges.
  int first = 20000 + static_cast<int>(::getpid() % 2000) * 10;
  listener_ = bind_loopback(first, 200, &port_);
  // A deep backlog: tests open hundreds of connections at once and must not
  // wait for the kernel's SYN retries.
  if (listener_ == kInvalidSocket || !listen_on(listener_, 1024)) std::abort();
  thread_ =
      std::thread([this, h = std::move(handler), limits] { serve(listener_, h, limits, &stop_); });
}

TestServer::~TestServer() {
  stop_ = true;
  thread_.join();  // serve returns once the requests being answered are done
  close_socket(listener_);
}

}  // namespace cvn::test
