// The real program as a user starts it: banner, port choice, exit status.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <regex>
#include <thread>

#include "base/recording.h"
#include "server/net.h"
#include "tests/support/http_client.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

using test::ChildProcess;
using test::slurp;
using test::TempDir;

constexpr int kTries = 50;

// First port of `count` consecutive free loopback ports, held by nobody.
int free_port_range(int count) {
  for (int base = 30000 + static_cast<int>(::getpid() % 500) * 60; base < 60000; base += count) {
    bool all_free = true;
    for (int p = base; p < base + count && all_free; ++p) {
      int bound = 0;
      SocketHandle s = bind_loopback(p, 1, &bound);
      all_free = s != kInvalidSocket;
      if (all_free) close_socket(s);
    }
    if (all_free) return base;
  }
  return -1;
}

// Listening sockets that keep ports busy for the life of the object.
struct BusyPorts {
  std::vector<SocketHandle> sockets;
  BusyPorts(int first, int count) {
    for (int p = first; p < first + count; ++p) {
      int bound = 0;
      SocketHandle s = bind_loopback(p, 1, &bound);
      EXPECT_NE(s, kInvalidSocket) << p;
      listen_on(s, 1);
      sockets.push_back(s);
    }
  }
  ~BusyPorts() {
    for (SocketHandle s : sockets) close_socket(s);
  }
};

std::vector<std::string> env_for(const TempDir& home) {
  return {"HOME=" + home.path(), "CVN_NO_BROWSER=1", "PATH=/usr/bin:/bin"};
}

std::string banner(int port) {
  const std::string rule(60, '=');
  return rule + "\n  Corvane Live 1.0.0 is running\n  Open your browser at:  http://127.0.0.1:" +
         std::to_string(port) + "/\n  Close this window to stop.\n" + rule + "\n";
}

TEST(Program, PrintsTheBannerAndServesThePage) {
  TempDir home, cwd;
  int first = free_port_range(kTries + 1);
  ChildProcess app({CVN_LIVE_BINARY, std::to_string(first) + "junk"}, env_for(home), cwd.path());
  ASSERT_TRUE(app.wait_for_output(banner(first), 5000)) << app.out() << app.err();
  // The logo line (bundled logo) comes first, then exactly the banner.
  EXPECT_TRUE(app.out().starts_with("  Report logo loaded (")) << app.out();
  EXPECT_TRUE(app.out().ends_with(banner(first))) << app.out();
  EXPECT_TRUE(test::http_get(first, "/").starts_with("HTTP/1.1 200 OK\r\n"));
  EXPECT_EQ(app.err(), "");
}

TEST(Program, AllFiftyPortsBusyIsAnErrorExit) {
  TempDir home;
  int first = free_port_range(kTries + 1);
  {
    BusyPorts busy(first, kTries);
    ChildProcess app({CVN_LIVE_BINARY, std::to_string(first)}, env_for(home), home.path());
    EXPECT_EQ(app.wait_exit(5000), 1);
    EXPECT_EQ(app.err(), "Could not bind a port.\n");
    EXPECT_EQ(app.out().find("=="), std::string::npos) << app.out();
    // The folders and samples are prepared before the port is chosen.
    EXPECT_TRUE(std::filesystem::exists(home / "Documents/CVN-Live/sample_data/Sample 2.txt"));
  }
  {
    // 49 busy: they are skipped and the last candidate, first + 49, is still tried.
    BusyPorts busy(first, kTries - 1);
    ChildProcess app({CVN_LIVE_BINARY, std::to_string(first)}, env_for(home), home.path());
    EXPECT_TRUE(app.wait_for_output(banner(first + kTries - 1), 5000)) << app.out() << app.err();
  }
}

// The worst a clinician can meet: the program killed mid-session. What the
// live journal held must come back at the next start as a recording that is
// listed and keeps its markers.
TEST(Program, RecoversALiveSessionKilledMidway) {
  TempDir data;
  const std::vector<std::string> env = {"CVN_DATA=" + data.path(), "CVN_SIMULATED_STRAP=1",
                                        "CVN_NO_BROWSER=1", "PATH=/usr/bin:/bin"};
  int first = free_port_range(kTries + 1);
  {
    ChildProcess app({CVN_LIVE_BINARY, std::to_string(first)}, env, data.path());
    ASSERT_TRUE(app.wait_for_output(banner(first), 5000)) << app.out() << app.err();
    ASSERT_NE(test::body_of(test::http_get(first, "/scan")).find("A0:9E:1A:00:00:01"),
              std::string::npos);
    // The link's log follows the data folder start-up chose, beside the recordings
    // (the Windows build is checked the same way under Wine).
    EXPECT_NE(slurp(data / "cvn_log.txt").find("  [BLE] scan() enter\n"), std::string::npos);
    ASSERT_EQ(test::body_of(test::http_get(first,
                                           "/start_live?address=A0:9E:1A:00:00:01"
                                           "&device=Polar%20H10%20SIM00001&name=Kill")),
              "{\"ok\":true}");
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_until(start + std::chrono::seconds(3));
    EXPECT_EQ(test::body_of(test::http_get(first, "/mark?key=3")), "{\"ok\":true}");
    std::this_thread::sleep_until(start + std::chrono::seconds(5));
    EXPECT_EQ(test::body_of(test::http_get(first, "/mark?key=5")), "{\"ok\":true}");
    std::this_thread::sleep_until(start + std::chrono::seconds(8));
    app.kill();  // SIGKILL: no handler, no flush, as a crash
  }

  ChildProcess app({CVN_LIVE_BINARY, std::to_string(first)}, env, data.path());
  ASSERT_TRUE(app.wait_for_output(banner(first), 5000)) << app.out() << app.err();
  EXPECT_NE(app.out().find("  Recovered an unsaved session as recordings/Kill_on5_off11_M40_"),
            std::string::npos)
      << app.out();
  std::string list = test::body_of(test::http_get(first, "/recordings"));
  std::smatch m;
  ASSERT_TRUE(std::regex_search(
      list, m, std::regex(R"re("(Kill_on5_off11_M40_\d{8}-\d{6}_recovered\.csv)")re")))
      << list;
  const std::string recording = slurp(data / ("recordings/" + m[1].str()));
  // 8 s less the connection and the samples still on their way: what
  // arrived is in the file at once, not when a write buffer fills.
  EXPECT_GE(std::count(recording.begin(), recording.end(), '\n'), 6.5 * 130);
  std::string markers = slurp(data / ("recordings/" + markers_path(m[1].str())));
  EXPECT_TRUE(std::regex_search(markers, std::regex("\n3,\\d+,.*\n5,\\d+,"))) << markers;
  for (const auto& e : std::filesystem::directory_iterator(data / "recordings"))
    EXPECT_NE(e.path().extension(), ".journal") << e.path();
}

}  // namespace
}  // namespace cvn
