// The link's diagnostic log in the real program: it lands in the data folder
// start-up resolved (HOME before USERPROFILE, CVN_DATA before both), not in
// the log's own USERPROFILE-first fallback, so a user finds it beside the
// recordings. The Windows build is checked the same way under Wine
// (tools/wine_smoke.sh).
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "tests/support/http_client.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

using test::TempDir;

TEST(LinkLog, FollowsTheDataFolderStartUpResolved) {
  for (bool with_cvn_data : {false, true}) {
    SCOPED_TRACE(with_cvn_data ? "CVN_DATA set" : "HOME and USERPROFILE only");
    TempDir home, profile, data;
    std::vector<std::string> env = {"HOME=" + home.path(), "USERPROFILE=" + profile.path(),
                                    "CVN_NO_BROWSER=1", "CVN_SIMULATED_STRAP=1",
                                    "PATH=/usr/bin:/bin"};
    if (with_cvn_data) env.push_back("CVN_DATA=" + data.path());
    const int first_port = 21000 + static_cast<int>(::getpid() % 1000) * 20;
    test::ChildProcess app({CVN_LIVE_BINARY, std::to_string(first_port)}, env, home.path());
    ASSERT_TRUE(app.wait_for_output("Close this window", 10000)) << app.err();
    std::smatch m;
    ASSERT_TRUE(std::regex_search(app.out(), m, std::regex(R"(127\.0\.0\.1:(\d+)/)")));
    // A scan logs its first line at once (and answers after the simulated
    // strap's short scan).
    test::http_get(std::stoi(m[1]), "/scan");

    const std::string log =
        with_cvn_data ? data / "cvn_log.txt" : home / "Documents/CVN-Live/cvn_log.txt";
    EXPECT_NE(test::slurp(log).find("  [BLE] scan() enter\n"), std::string::npos) << log;
    EXPECT_FALSE(std::filesystem::exists(profile / "Documents"));
    if (with_cvn_data) {
      EXPECT_FALSE(std::filesystem::exists(home / "Documents"));
    }
  }
}

}  // namespace
}  // namespace cvn
