// The page and media routes: disk first, embedded second, exact 404 otherwise.
#include "server/static_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "assets/assets.h"
#include "server/routes.h"
#include "tests/support/http_client.h"
#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

using test::body_of;
using test::http_get;

std::string head_of(const std::string& answer) {
  return answer.substr(0, answer.find("\r\n\r\n") + 4);
}

std::string expected_head(std::string_view type, std::size_t length) {
  return "HTTP/1.1 200 OK\r\nContent-Type: " + std::string(type) +
         "\r\nContent-Length: " + std::to_string(length) +
         "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
}

TEST(Assets, TableHoldsThePageTheMediaAndTheSamples) {
  // Every file of the page folder is embedded, so a new module needs no
  // list to be kept in step.
  std::vector<std::string> want = {"Sample 1.txt", "Sample 2.txt", "ball.png", "piano.wav",
                                   "report_logo.jpg"};
  for (const auto& e : std::filesystem::directory_iterator(CVN_SOURCE_DIR "/web")) {
    std::string name = e.path().filename().string();
    if (name.ends_with(".html") || name.ends_with(".css") || name.ends_with(".js"))
      want.push_back(name);
  }
  std::sort(want.begin(), want.end());
  std::vector<std::string> names;
  for (const auto& [name, bytes] : asset_table()) {
    names.push_back(name);
    EXPECT_FALSE(bytes.empty()) << name;
  }
  EXPECT_EQ(names, want);
  EXPECT_FALSE(find_asset("logo.png"));
  EXPECT_FALSE(find_asset("/ball.png"));
}

class StaticRoutes : public testing::Test {
 protected:
  test::TempDir web;
  test::TempDir data;
  test::TestServer server{[this](SocketHandle s, const Request& r) {
    dispatch(ServerContext{web.path(), nullptr, server.port()}, s, r);
  }};
};

TEST_F(StaticRoutes, EmbeddedPageWithTheExactHeaderBlock) {
  std::string page(*find_asset("index.html"));
  std::string root = http_get(server.port(), "/");
  EXPECT_EQ(head_of(root), expected_head("text/html; charset=utf-8", page.size()));
  EXPECT_EQ(body_of(root), page);
  EXPECT_EQ(http_get(server.port(), "/index.html"), root);
  EXPECT_EQ(http_get(server.port(), "/?x=1"), root);

  const std::pair<const char*, const char*> media[] = {{"ball.png", "image/png"},
                                                       {"piano.wav", "audio/wav"},
                                                       {"pacer.js", "application/javascript"}};
  for (const auto& [name, type] : media) {
    const std::string_view asset = *find_asset(name);
    EXPECT_EQ(http_get(server.port(), std::string("/") + name),
              expected_head(type, asset.size()) + std::string(asset))
        << name;
  }
}

TEST_F(StaticRoutes, EverythingElseIsTheBare404) {
  const std::string not_found =
      "HTTP/1.1 404 Not Found\r\nContent-Length:0\r\nConnection: close\r\n\r\n";
  for (const char* path : {"/logo.png", "/status/", "/Sample%201.txt", "/report_logo.jpg",
                           "/../index.html", "/web/index.html", "//", "/INDEX.HTML"})
    EXPECT_EQ(http_get(server.port(), path), not_found) << path;
}

TEST_F(StaticRoutes, FilesInTheWebRootWinWithoutARestart) {
  std::string before = body_of(http_get(server.port(), "/"));
  ASSERT_TRUE(test::spit(web / "index.html", "<p>mine</p>"));
  EXPECT_EQ(body_of(http_get(server.port(), "/")), "<p>mine</p>");
  ASSERT_TRUE(test::spit(web / "logo.png", "PNG!"));
  std::string logo = http_get(server.port(), "/logo.png");
  EXPECT_EQ(head_of(logo), expected_head("image/png", 4));
  // An empty file is served as an empty body: reading it succeeded.
  ASSERT_TRUE(test::spit(web / "ball.png", ""));
  EXPECT_EQ(http_get(server.port(), "/ball.png"), expected_head("image/png", 0));
  std::remove((web / "index.html").c_str());
  EXPECT_EQ(body_of(http_get(server.port(), "/")), before);
}

}  // namespace
}  // namespace cvn
