// The request reader and the accept loop, driven over real loopback sockets.
#include "server/http.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>

#include "server/json.h"
#include "server/response.h"
#include "tests/support/http_client.h"

namespace cvn {
namespace {

using test::body_of;
using test::exchange;
using test::TestServer;

// Answers with what it parsed, so a test sees the request as the routes do.
void echo(SocketHandle s, const Request& r) {
  std::string q;
  for (const auto& [k, v] : r.query) q += json_text(k) + ":" + json_text(v) + ",";
  send_response(s, Response::json("{\"method\":" + json_text(r.method) +
                                   ",\"path\":" + json_text(r.path) + ",\"query\":{" + q +
                                   "},\"body\":" + json_text(r.body) + "}"));
}

TEST(UrlDecode, PlusPercentAndShortEscapes) {
  EXPECT_EQ(url_decode("x%2By+z"), "x+y z");
  EXPECT_EQ(url_decode("%41%62"), "Ab");
  EXPECT_EQ(url_decode("ab%4"), "ab%4");  // fewer than two characters behind '%'
  EXPECT_EQ(url_decode("%"), "%");
  EXPECT_EQ(url_decode("%C3%A9"), "\xC3\xA9");
  // The pair is read like a lenient base-16 conversion: a digit then junk.
  EXPECT_EQ(url_decode("%4z"), std::string(1, '\x04'));
}

TEST(UrlDecode, NonHexPairAbortsWithPortableMessage) {
  for (const char* bad : {"%zz", "a%g1", "%-z"}) {
    try {
      url_decode(bad);
      ADD_FAILURE() << bad << " decoded without error";
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "invalid stoi argument") << bad;
    }
  }
}

TEST(ParseQuery, LaterKeyWinsAndBarePiecesAreSkipped) {
  auto q = parse_query("a=1&b&a=2&c=&=v&k%20=x%20");
  EXPECT_EQ(q.at("a"), "2");
  EXPECT_EQ(q.count("b"), 0u);
  EXPECT_EQ(q.at("c"), "");
  EXPECT_EQ(q.at(""), "v");
  EXPECT_EQ(q.at("k%20"), "x ");  // keys are not decoded
  EXPECT_TRUE(parse_query("").empty());
}

TEST(HttpServer, GetAndPostGiveTheSameAnswerAndTheQueryIsParsed) {
  TestServer server(echo);
  std::string get = test::http_get(server.port(), "/status?x=1&name=A%22b+c");
  EXPECT_EQ(get.substr(0, get.find("\r\n\r\n") + 4),
            "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                std::to_string(body_of(get).size()) +
                "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(body_of(get),
            R"({"method":"GET","path":"/status","query":{"name":"A\"b c","x":"1",},"body":""})");
  std::string post = test::http_post(server.port(), "/status?x=1&name=A%22b+c", "");
  EXPECT_NE(body_of(post).find(R"("path":"/status","query":{"name":"A\"b c","x":"1",})"),
            std::string::npos);
}

TEST(HttpServer, PostBodyIsReadAcrossPacketsWhateverTheHeaderCase) {
  TestServer server(echo);
  std::string a = exchange(server.port(),
                           {"POST /b HTTP/1.1\r\nCONTENT-LENGTH:   10\r\n\r\n012", "3456", "789"});
  EXPECT_NE(a.find(R"("body":"0123456789")"), std::string::npos) << a;
  // Bytes beyond the declared length that came in the same packet are kept.
  std::string b = exchange(server.port(), {"POST /b HTTP/1.1\r\ncontent-length: 2\r\n\r\nabcd"});
  EXPECT_NE(b.find(R"("body":"abcd")"), std::string::npos) << b;
  // A GET never reads a body.
  std::string c = exchange(server.port(), {"GET /b HTTP/1.1\r\nContent-Length: 5\r\n\r\n"});
  EXPECT_NE(c.find(R"("body":"")"), std::string::npos) << c;
}

TEST(HttpServer, ShortBodyIsAnsweredWhenTheClientStopsSending) {
  TestServer server(echo);
  std::string a = exchange(server.port(), {"POST /b HTTP/1.1\r\nContent-Length: 100\r\n\r\nxy"},
                           /*half_close=*/true);
  EXPECT_NE(a.find(R"("body":"xy")"), std::string::npos) << a;
}

TEST(HttpServer, BadEscapeAbortsTheRequestWithOneStderrLine) {
  TestServer server(echo);
  testing::internal::CaptureStderr();
  std::string a = test::http_get(server.port(), "/x?a=%zz");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(a, "");
  EXPECT_EQ(err, "[handle] exception: invalid stoi argument\n");
}

TEST(HttpServer, HandlerFailuresAreContained) {
  TestServer server([](SocketHandle, const Request& r) {
    if (r.path == "/std") throw std::runtime_error("boom");
    throw 42;
  });
  testing::internal::CaptureStderr();
  EXPECT_EQ(test::http_get(server.port(), "/std"), "");
  EXPECT_EQ(test::http_get(server.port(), "/other"), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[handle] exception: boom\n[handle] unknown exception\n");
}

TEST(HttpServer, EmptyConnectionIsClosedSilently) {
  int handled = 0;
  TestServer server([&](SocketHandle, const Request&) { ++handled; });
  testing::internal::CaptureStderr();
  EXPECT_EQ(exchange(server.port(), {}, /*half_close=*/true), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(handled, 0);
}

TEST(HttpServer, MalformedInputNeitherCrashesNorLeaksThreads) {
  const int before = test::thread_count();
  {
    TestServer server(echo);
    // Head of 2 MiB with no blank line: parsed from what arrived (the cap is
    // 1 MiB), answered, and the rest of the upload is dropped with the socket.
    std::string huge = "GET /h" + std::string(2 << 20, 'a');
    std::string a = exchange(server.port(), {huge}, true);
    EXPECT_TRUE(a.empty() || a.starts_with("HTTP/1.1 200 OK")) << a.substr(0, 40);

    // Missing words: method only, nothing at all on the request line.
    EXPECT_NE(exchange(server.port(), {"GET\r\n\r\n"}).find(R"("path":"")"), std::string::npos);
    EXPECT_NE(exchange(server.port(), {"\r\n\r\n"}).find(R"("method":"")"), std::string::npos);

    // Binary garbage with NULs and high bytes, closed early.
    std::string garbage;
    for (int i = 0; i < 5000; ++i) garbage.push_back(static_cast<char>((i * 131 + 7) & 0xFF));
    exchange(server.port(), {garbage}, true);

    // A client that disappears before reading its answer.
    SocketHandle s = connect_loopback(server.port());
    send_all(s, "GET / HTTP/1.1\r\n\r\n");
    close_socket(s);
  }
  EXPECT_TRUE(test::wait_for_thread_count(before, 3000))
      << test::thread_count() << " vs " << before;
}

TEST(HttpServer, HeadLimitIsExact) {
  TestServer server(echo);
  // A terminated head just under the cap is read whole, path and all.
  std::string pad(kMaxHeadBytes - 64, 'p');
  std::string req = "GET /ok HTTP/1.1\r\nX-Pad: " + pad + "\r\n\r\n";
  ASSERT_LT(req.size(), kMaxHeadBytes);
  EXPECT_NE(exchange(server.port(), {req}).find(R"("path":"/ok")"), std::string::npos);
}

TEST(HttpServer, ManyConcurrentClientsAllGetCorrectAnswers) {
  TestServer server(echo);
  for (int round = 0; round < 3; ++round) {
    std::vector<std::future<std::string>> answers;
    for (int i = 0; i < 200; ++i)
      answers.push_back(std::async(std::launch::async, [&, i] {
        return test::http_get(server.port(), "/c?i=" + std::to_string(i));
      }));
    for (int i = 0; i < 200; ++i) {
      std::string a = answers[i].get();
      ASSERT_NE(a.find("\"i\":\"" + std::to_string(i) + "\""), std::string::npos) << i << a;
    }
  }
}

}  // namespace
}  // namespace cvn
