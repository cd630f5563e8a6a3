// The request reader and the accept loop, driven over real loopback sockets.
#include "server/http.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>

#include "server/json.h"
#include "server/response.h"
#include "tests/support/http_client.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::body_of;
using test::exchange;
using test::status_line;
using test::TestServer;

// Answers with what it parsed, so a test sees the request as the routes do.
void echo(SocketHandle s, const Request& r) {
  std::string q;
  for (const auto& [k, v] : r.query) q += json_text(k) + ":" + json_text(v) + ",";
  send_response(
      s, Response::json("{\"method\":" + json_text(r.method) + ",\"path\":" + json_text(r.path) +
                        ",\"query\":{" + q + "},\"body\":" + json_text(r.body) + "}"));
}

// True when the server closes `s` within `ms` without sending anything.
bool closed_within(SocketHandle s, int ms) {
  std::vector<bool> ready;
  const SocketHandle one[] = {s};
  if (!wait_readable(one, &ready, ms) || !ready[0]) return false;
  char c;
  return recv_some(s, &c, 1) <= 0;
}

// A pair with no leading digit aborts the request: FailuresAreContainedAndLogged.
TEST(UrlDecode, PlusPercentShortEscapesAndNonHexPairs) {
  const std::pair<const char*, std::string> cases[] = {
      {"x%2By+z", "x+y z"},
      {"%C3%A9", "\xC3\xA9"},
      {"ab%4", "ab%4"},  // fewer than two characters behind '%'
      {"%", "%"},
      {"%4z", std::string(1, '\x04')},  // read like a lenient base-16 conversion
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(url_decode(in), out) << in;
}

TEST(ParseRequestHead, KeepsTheHeadersTheChecksNeed) {
  Request r = parse_request_head(
      "GET /a?b=1 HTTP/1.1\r\nhOsT:  127.0.0.1:8000 \r\nORIGIN: http://x\r\n"
      "Sec-Fetch-Site:cross-site\r\nContent-Length: 12\r\nContent-Length: 7\r\nX: y");
  EXPECT_EQ(r.host, "127.0.0.1:8000");
  EXPECT_EQ(r.origin, "http://x");
  EXPECT_EQ(r.sec_fetch_site, "cross-site");
  EXPECT_EQ(r.content_length, 12u);  // the larger of two lengths bounds the body
  // A bare LF ends a line too, so a header cannot hide behind it; a second
  // Host blanks the first; words on later lines are not the request line.
  r = parse_request_head("GET\nHost: localhost:1\nHost : localhost:1");
  EXPECT_EQ(r.target, "");
  EXPECT_EQ(r.host, "");
  EXPECT_FALSE(r.origin);
  EXPECT_EQ(
      parse_request_head("POST / x\r\nContent-Length: 99999999999999999999999").content_length,
      UINT64_MAX);
}

TEST(CheckRequestSource, OnlyOurOwnHostAndOriginPass) {
  const int port = 8123;
  struct Case {
    const char* head;
    Refusal want;
  } cases[] = {
      {"", Refusal::kNone},  // command-line tools may send no Host
      {"Host: 127.0.0.1:8123", Refusal::kNone},
      {"Host: LOCALHOST:8123", Refusal::kNone},
      {"Host: [::1]:8123", Refusal::kNone},
      {"Host: 127.0.0.1", Refusal::kForeignHost},  // our address, no port
      {"Host: 127.0.0.1:8124", Refusal::kForeignHost},
      {"Host: evil.example:8123", Refusal::kForeignHost},
      {"Host: 127.0.0.1:8123.evil.example", Refusal::kForeignHost},
      {"Host: ", Refusal::kForeignHost},
      {"Origin: http://127.0.0.1:8123", Refusal::kNone},
      {"Origin: http://localhost:8123\r\nHost: localhost:8123", Refusal::kNone},
      {"Origin: http://[::1]:8123", Refusal::kNone},
      {"Origin: http://evil.example", Refusal::kCrossSite},
      {"Origin: http://localhost:3000", Refusal::kCrossSite},
      {"Origin: https://127.0.0.1:8123", Refusal::kCrossSite},
      {"Origin: null", Refusal::kCrossSite},
      {"Sec-Fetch-Site: same-origin", Refusal::kNone},
      {"Sec-Fetch-Site: none", Refusal::kNone},
      {"Sec-Fetch-Site: same-site", Refusal::kCrossSite},
      {"Sec-Fetch-Site: cross-site", Refusal::kCrossSite},
  };
  for (const Case& c : cases)
    EXPECT_EQ(
        check_request_source(parse_request_head(std::string("GET / HTTP/1.1\r\n") + c.head), port),
        c.want)
        << c.head;
}

// A POST's query is the same map (Api.ImportedRawEcgIsResampledSavedAndReplayed posts one).
TEST(HttpServer, JsonAnswerHeadAndTheParsedQuery) {
  TestServer server(echo);
  std::string get = test::http_get(server.port(), "/status?x=1&name=A%22b+c");
  EXPECT_EQ(get.substr(0, get.find("\r\n\r\n") + 4),
            "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                std::to_string(body_of(get).size()) +
                "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(body_of(get),
            R"({"method":"GET","path":"/status","query":{"name":"A\"b c","x":"1",},"body":""})");
}

TEST(HttpServer, PostBodyIsReadAcrossPacketsWhateverTheHeaderCase) {
  TestServer server(echo);
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"POST /b HTTP/1.1\r\nCONTENT-LENGTH:   10\r\n\r\n012", "3456", "789"}, "0123456789"},
      // Bytes beyond the declared length that came in the same packet are kept.
      {{"POST /b HTTP/1.1\r\ncontent-length: 2\r\n\r\nabcd"}, "abcd"},
      {{"GET /b HTTP/1.1\r\nContent-Length: 5\r\n\r\n"}, ""},  // a GET never reads a body
  };
  for (const auto& [pieces, body] : cases) {
    std::string a = exchange(server.port(), pieces);
    EXPECT_NE(a.find(std::string(R"("body":")") + body + "\""), std::string::npos) << a;
  }
  // A short body is answered when the client stops sending.
  std::string a = exchange(server.port(), {"POST /b HTTP/1.1\r\nContent-Length: 100\r\n\r\nxy"},
                           /*half_close=*/true);
  EXPECT_NE(a.find(R"("body":"xy")"), std::string::npos) << a;
}

// A bad escape and a throwing handler end the request with one stderr line
// and no answer; an empty connection closes without a word.
TEST(HttpServer, FailuresAreContainedAndLogged) {
  std::atomic<int> handled{0};
  TestServer server([&](SocketHandle s, const Request& r) {
    ++handled;
    if (r.path == "/std") throw std::runtime_error("boom");
    if (r.path == "/other") throw 42;
    echo(s, r);
  });
  testing::internal::CaptureStderr();
  EXPECT_EQ(exchange(server.port(), {}, /*half_close=*/true), "");
  EXPECT_EQ(handled, 0);
  EXPECT_EQ(test::http_get(server.port(), "/x?a=%zz"), "");
  EXPECT_EQ(test::http_get(server.port(), "/std"), "");
  EXPECT_EQ(test::http_get(server.port(), "/other"), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[handle] exception: invalid stoi argument\n[handle] exception: boom\n"
            "[handle] unknown exception\n");
}

// The parser itself is fuzzed (tests/fuzz); here the connections it fails
// on must end without leaving a thread behind.
TEST(HttpServer, MalformedInputNeitherCrashesNorLeaksThreads) {
  const int before = test::thread_count();
  {
    TestServer server(echo);
    // A terminated head just under the cap is read whole, path and all.
    std::string req =
        "GET /ok HTTP/1.1\r\nX-Pad: " + std::string(kMaxHeadBytes - 64, 'p') + "\r\n\r\n";
    ASSERT_LT(req.size(), kMaxHeadBytes);
    EXPECT_NE(exchange(server.port(), {req}).find(R"("path":"/ok")"), std::string::npos);
    std::string garbage;  // NULs and high bytes, closed early
    for (int i = 0; i < 5000; ++i) garbage.push_back(static_cast<char>((i * 131 + 7) & 0xFF));
    exchange(server.port(), {garbage}, true);
    SocketHandle s = connect_loopback(server.port());  // gone before its answer
    send_all(s, "GET / HTTP/1.1\r\n\r\n");
    close_socket(s);
  }
  EXPECT_TRUE(test::wait_until([&] { return test::thread_count() <= before; }, 3s))
      << test::thread_count() << " vs " << before;
}

// The head cap on both sides, over a socket that stays open: a head of
// exactly kMaxHeadBytes with no blank line is still waited on; one byte more
// and what arrived is parsed and answered at once, long before the head
// timeout. Without the cap the reader would buffer whatever a local process
// sends until the timeout.
TEST(HttpLimits, HeadCapAnswersOneByteAboveTheLimit) {
  ServerLimits limits;
  limits.head_timeout = 20s;
  TestServer server(echo, limits);
  SocketHandle s = connect_loopback(server.port());
  ASSERT_NE(s, kInvalidSocket);
  const std::string head = "GET /h" + std::string(kMaxHeadBytes - 6, 'a');
  ASSERT_EQ(head.size(), kMaxHeadBytes);
  send_all(s, head);
  std::vector<bool> ready;
  const SocketHandle one[] = {s};
  EXPECT_FALSE(wait_readable(one, &ready, 500) && ready[0]) << "answered at the cap itself";
  const auto sent = Clock::now();
  send_all(s, "a");
  ASSERT_TRUE(wait_readable(one, &ready, 5000) && ready[0]) << "no answer above the cap";
  EXPECT_LT(Clock::now() - sent, 5s);
  std::string answer;
  char buf[4096];
  for (long n; (n = recv_some(s, buf, sizeof buf)) > 0;) answer.append(buf, n);
  close_socket(s);
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 OK")) << answer.substr(0, 40);
  EXPECT_NE(answer.find(R"("path":"/haaa)"), std::string::npos);
}

// Like the event stream, an answer may outlive the head timeout: once the
// head is read, the clock no longer runs.
TEST(HttpLimits, OnlyAHeadStillOpenAtTheTimeoutIsDropped) {
  ServerLimits limits;
  limits.head_timeout = 300ms;
  TestServer server(
      [](SocketHandle s, const Request& r) {
        if (r.path != "/stream") return echo(s, r);
        for (int i = 0; i < 5; ++i) {
          send_all(s, "tick\n");
          std::this_thread::sleep_for(100ms);
        }
      },
      limits);
  EXPECT_EQ(exchange(server.port(), {"GET /stream HTTP/1.1\r\n\r\n"}),
            "tick\ntick\ntick\ntick\ntick\n");
  // A head trickling in over about 200 ms is in time.
  std::vector<std::string> pieces = {"GET /in", " HTTP/1.1\r\n"};
  for (int i = 0; i < 8; ++i) pieces.push_back("X: y\r\n");
  pieces.push_back("\r\n");
  EXPECT_NE(exchange(server.port(), pieces).find(R"("path":"/in")"), std::string::npos);
  auto start = Clock::now();
  SocketHandle s = connect_loopback(server.port());
  send_all(s, "GET /late HTTP/1.1\r\n");
  EXPECT_TRUE(closed_within(s, 3000));
  auto took = Clock::now() - start;
  EXPECT_GE(took, 250ms);
  EXPECT_LT(took, 1500ms);
  close_socket(s);
}

TEST(HttpLimits, BodyOverTheCapIsRefusedBeforeItIsRead) {
  ServerLimits limits;
  limits.max_body_bytes = 10;
  TestServer small(echo, limits), server(echo);
  std::string at_cap =
      exchange(small.port(), {"POST /b HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123456789"});
  EXPECT_NE(at_cap.find(R"("body":"0123456789")"), std::string::npos) << at_cap;
  std::string over = exchange(small.port(), {"POST /b HTTP/1.1\r\nContent-Length: 11\r\n\r\n"});
  EXPECT_EQ(status_line(over), "HTTP/1.1 413 OK");
  EXPECT_EQ(body_of(over), R"({"error":"request body too large"})");
  // 8 GB under the default cap: refused at once, with flat memory.
  const std::size_t before = test::resident_bytes();
  auto start = Clock::now();
  std::string a =
      exchange(server.port(), {"POST /u HTTP/1.1\r\nContent-Length: 8589934592\r\n\r\n"});
  EXPECT_LT(Clock::now() - start, 1s);
  EXPECT_EQ(status_line(a), "HTTP/1.1 413 OK");
  EXPECT_LT(test::resident_bytes(), before + (16 << 20));
}

TEST(HttpLimits, RequestsBeyondTheWorkerCapGet503) {
  std::atomic<int> holding{0};
  std::atomic<bool> release{false};
  ServerLimits limits;
  limits.max_workers = 2;
  limits.worker_wait = 300ms;
  TestServer server(
      [&](SocketHandle s, const Request& r) {
        if (r.path == "/hold") {
          ++holding;
          while (!release) std::this_thread::sleep_for(5ms);
          --holding;
        }
        echo(s, r);
      },
      limits);
  // Two requests hold both workers (the cap allows two at once); a third
  // that waits longer than worker_wait for one is refused cleanly.
  std::vector<std::future<std::string>> held;
  for (int i = 0; i < 2; ++i)
    held.push_back(
        std::async(std::launch::async, [&] { return test::http_get(server.port(), "/hold"); }));
  while (holding < 2) std::this_thread::sleep_for(5ms);
  auto start = Clock::now();
  std::string busy = test::http_get(server.port(), "/busy");
  auto took = Clock::now() - start;
  release = true;
  EXPECT_EQ(status_line(busy), "HTTP/1.1 503 OK");
  EXPECT_EQ(body_of(busy), R"({"error":"server busy"})");
  EXPECT_GE(took, 250ms);
  for (auto& h : held) EXPECT_EQ(status_line(h.get()), "HTTP/1.1 200 OK");
}

TEST(HttpLimits, FullPendingSetDropsTheQuietestConnection) {
  ServerLimits limits;
  limits.max_pending = 3;
  TestServer server(echo, limits);
  std::vector<SocketHandle> idle;
  for (int i = 0; i < 3; ++i) {
    idle.push_back(connect_loopback(server.port()));
    std::this_thread::sleep_for(30ms);
  }
  EXPECT_FALSE(closed_within(idle[0], 100));  // at the cap, nobody is dropped
  EXPECT_NE(test::http_get(server.port(), "/new").find(R"("path":"/new")"), std::string::npos);
  EXPECT_TRUE(closed_within(idle[0], 1000));
  EXPECT_FALSE(closed_within(idle[1], 100));
  EXPECT_FALSE(closed_within(idle[2], 100));
  for (SocketHandle s : idle) close_socket(s);
}

}  // namespace
}  // namespace cvn
