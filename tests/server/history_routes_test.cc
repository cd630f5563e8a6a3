// /people and /history over loopback: the wire shape, rows that fill in,
// and the Host, Origin and name refusals every route keeps.
#include <gtest/gtest.h>

#include <thread>

#include "assets/assets.h"
#include "engine/engine.h"
#include "server/routes.h"
#include "tests/support/http_client.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using namespace std::chrono_literals;
using test::body_of;
using test::status_line;

class HistoryRoutes : public testing::Test {
 protected:
  void SetUp() override {
    test::spit(data / "recordings/Anna_on5_off11_F30_20250301-090000.csv",
               std::string(*find_asset("Sample 2.txt")));
    test::spit(data / "recordings/Ben_on5_off11_M50_20250202-080000.csv", "no ECG\n");
  }
  std::string get(const std::string& target) {
    return body_of(test::http_get(server.port(), target));
  }

  test::TempDir web, data;
  Engine engine{data.path(), nullptr};
  test::TestServer server{[this](SocketHandle s, const Request& r) {
    dispatch(ServerContext{web.path(), &engine, server.port()}, s, r);
  }};
};

TEST_F(HistoryRoutes, PeopleAndTheirRowsAsTheyFillIn) {
  EXPECT_EQ(get("/people"), R"({"ok":true,"people":[{"name":"Anna","key":"Anna","recordings":1},)"
                            R"({"name":"Ben","key":"Ben","recordings":1}]})");
  std::string ben;
  ASSERT_TRUE(test::wait_until(
      [&] { return (ben = get("/history?name=Ben")).find("\"pending\":0}") != std::string::npos; },
      10s))
      << ben;
  EXPECT_EQ(
      ben,
      R"({"ok":true,"name":"Ben","rows":[{"file":"Ben_on5_off11_M50_20250202-080000.csv",)"
      R"("date":"2025-02-02 08:00:00","sex":"M","age":50,"indur":5,"outdur":11,"pending":false,"duration_s":null,"protocol":"free",)"
      R"("cvn_mean":null,"peak_trough_hr":null,"rmssd":null,"lf_hf":null,)"
      R"("recommended_bpm":null,"error":"Not a recording: no samples in it."}],"pending":0})");
  std::string anna;
  ASSERT_TRUE(test::wait_until(
      [&] {
        return (anna = get("/history?name=Anna")).find("\"pending\":0}") != std::string::npos;
      },
      10s))
      << anna;
  EXPECT_NE(anna.find(R"("duration_s":184,)"), std::string::npos) << anna;
  EXPECT_NE(anna.find(R"("error":""})"), std::string::npos) << anna;
}

TEST_F(HistoryRoutes, ForeignPagesAndPathLikeNamesGetNothing) {
  const std::string port = std::to_string(server.port()), host = "Host: 127.0.0.1:" + port;
  const std::string evil = "Host: evil.example:" + port;
  const std::pair<std::string, std::string> refusals[] = {
      {evil, R"({"error":"foreign host"})"},
      {host + "\r\nOrigin: http://evil.example", R"({"error":"cross-site request"})"},
      {host + "\r\nSec-Fetch-Site: cross-site", R"({"error":"cross-site request"})"},
  };
  for (const char* target : {"/people", "/history?name=Anna"})
    for (const auto& [headers, answer] : refusals) {
      const std::string a = test::exchange(
          server.port(), {std::string("GET ") + target + " HTTP/1.1\r\n" + headers + "\r\n\r\n"});
      EXPECT_EQ(status_line(a), "HTTP/1.1 403 OK") << target << " " << headers;
      EXPECT_EQ(body_of(a), answer);
    }
  // Beside the recordings folder, as a name that climbs out would reach it.
  test::spit(data / "Eve_on5_off11_F30_20250301-090000.csv", "1\n");
  for (const char* name :
       {"..", "..%2FEve", "..%5CEve", "recordings%2FAnna", "Anna%00", "", "Nobody"})
    EXPECT_EQ(get(std::string("/history?name=") + name),
              R"({"ok":false,"reason":"No recordings of that person."})")
        << name;
}

}  // namespace
}  // namespace cvn
