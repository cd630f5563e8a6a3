// Folder resolution, data-folder preparation, the report-logo scan and the
// diagnostic log, each in its own temporary home.
#include "app/startup.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>

#include "assets/assets.h"
#include "base/log.h"
#include "reports/report_logo.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace cvn {
namespace {

using test::slurp;
using test::spit;
using test::TempDir;

EnvLookup env_of(const std::map<std::string, std::string>& vars) {
  return [vars](const char* name) -> const char* {
    auto it = vars.find(name);
    return it == vars.end() ? nullptr : it->second.c_str();
  };
}

TEST(ResolveFolders, EnvironmentPrecedence) {
  TempDir exe;  // no web folder beside the program
  const struct {
    std::map<std::string, std::string> env;
    const char *base, *web_root, *data;
  } cases[] = {
      {{}, ".", "./web", "."},
      {{{"HOME", "/h"}, {"USERPROFILE", "/u"}}, ".", "./web", "/h/Documents/CVN-Live"},
      {{{"USERPROFILE", "/u"}}, ".", "./web", "/u/Documents/CVN-Live"},
      {{{"HOME", "/h"}, {"CVN_DATA", "/d"}}, ".", "./web", "/d"},
      {{{"CVN_BASE", "/b"}, {"CVN_DATA", "/d"}}, "/b", "/b/web", "/b"},
  };
  for (const auto& c : cases) {
    const Folders f = resolve_folders(env_of(c.env), exe.path());
    EXPECT_EQ(f.base, c.base) << c.data;
    EXPECT_EQ(f.web_root, c.web_root) << c.data;
    EXPECT_EQ(f.data, c.data);
  }
}

TEST(ResolveFolders, WebFolderBesideTheProgramOrInTheBase) {
  TempDir root;
  const auto base = [&] { return resolve_folders(env_of({}), root / "bin").base; };
  fs::create_directories(root / "bin/web/index.html");  // a folder: cannot be read, does not count
  EXPECT_EQ(base(), ".");
  fs::remove_all(root / "bin/web");
  ASSERT_TRUE(spit(root / "Resources/web/index.html", "x"));
  EXPECT_EQ(base(), root / "bin/../Resources");
  ASSERT_TRUE(spit(root / "bin/web/index.html", "x"));  // the bundle layout wins
  EXPECT_EQ(base(), root / "bin/../Resources");
  fs::remove_all(root / "Resources");
  EXPECT_EQ(base(), root / "bin");
  EXPECT_EQ(resolve_folders(env_of({}), root / "bin").web_root, root / "bin/web");

  // With CVN_BASE, its web folder, or else the base folder itself.
  TempDir b;
  ASSERT_TRUE(spit(b / "index.html", "x"));
  EXPECT_EQ(resolve_folders(env_of({{"CVN_BASE", b.path()}}), "/nowhere").web_root, b.path());
  ASSERT_TRUE(spit(b / "web/index.html", "y"));
  EXPECT_EQ(resolve_folders(env_of({{"CVN_BASE", b.path()}}), "/nowhere").web_root, b / "web");
}

class DataFolder : public testing::Test {
 protected:
  TempDir base, data;
  Folders folders() const { return {base.path(), base / "web", data.path()}; }
  std::string sample(int n) const {
    return std::string(*find_asset("Sample " + std::to_string(n) + ".txt"));
  }
};

TEST_F(DataFolder, CreatesFoldersAndAlwaysRewritesTheSamples) {
  prepare_data_folder(folders());
  for (const char* sub : {"recordings", "exports", "sample_data"})
    EXPECT_TRUE(fs::is_directory(data / sub)) << sub;
  EXPECT_EQ(slurp(data / "sample_data/Sample 1.txt"), sample(1));
  EXPECT_EQ(slurp(data / "sample_data/Sample 2.txt"), sample(2));

  ASSERT_TRUE(spit(data / "sample_data/Sample 1.txt", "123\n"));
  ASSERT_TRUE(spit(data / "sample_data/mine.txt", "keep"));
  prepare_data_folder(folders());
  EXPECT_EQ(slurp(data / "sample_data/Sample 1.txt"), sample(1));
  EXPECT_EQ(slurp(data / "sample_data/mine.txt"), "keep");
}

TEST_F(DataFolder, OldSamplesMoveButOtherFilesStay) {
  ASSERT_TRUE(spit(base / "sample_data/Sample 7.txt", "7\n"));
  ASSERT_TRUE(spit(base / "sample_data/Sample 1.txt", "old\n"));
  ASSERT_TRUE(spit(base / "sample_data/Sample.txt", "no blank"));
  ASSERT_TRUE(spit(base / "sample_data/notes.txt", "n"));
  prepare_data_folder(folders());
  EXPECT_EQ(slurp(data / "sample_data/Sample 7.txt"), "7\n");
  EXPECT_FALSE(fs::exists(base / "sample_data/Sample 7.txt"));
  EXPECT_EQ(slurp(data / "sample_data/Sample 1.txt"), sample(1));  // rewritten after the move
  EXPECT_TRUE(fs::exists(base / "sample_data/Sample.txt"));
  EXPECT_TRUE(fs::exists(base / "sample_data/notes.txt"));
  EXPECT_FALSE(fs::exists(data / "sample_data/notes.txt"));

  // With the same base and data folder there is nothing to move, and nothing is lost.
  prepare_data_folder({data.path(), data / "web", data.path()});
  EXPECT_EQ(slurp(data / "sample_data/Sample 7.txt"), "7\n");
}

// A minimal JPEG: SOI, an APP0 segment, optional DHT, then a frame header.
std::string jpeg(unsigned char sof, int w, int h, bool with_dht = true) {
  std::string d = "\xFF\xD8";
  d += std::string("\xFF\xE0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00", 18);
  if (with_dht) d += std::string("\xFF\xC4\x00\x04\x00\x00", 6);  // shares the SOF range
  d += std::string("\xFF", 1) + static_cast<char>(sof) + std::string("\x00\x11\x08", 3);
  d += static_cast<char>(h >> 8);
  d += static_cast<char>(h & 0xFF);
  d += static_cast<char>(w >> 8);
  d += static_cast<char>(w & 0xFF);
  d += std::string("\x03\x01\x22\x00\x02\x11\x01\x03\x11\x01\xFF\xD9", 12);
  return d;
}

TEST(ReportLogo, DiskFirstThenEmbedded) {
  TempDir web;
  ReportLogo embedded = load_report_logo(web.path());
  ASSERT_FALSE(embedded.empty()) << "the bundled logo must be a readable JPEG";
  EXPECT_EQ(embedded.jpeg, *find_asset("report_logo.jpg"));

  ASSERT_TRUE(spit(web / "report_logo.jpeg", jpeg(0xC0, 40, 20)));
  EXPECT_EQ(load_report_logo(web.path()).height, 20);  // baseline
  ASSERT_TRUE(spit(web / "report_logo.jpg", jpeg(0xC2, 30, 10)));
  EXPECT_EQ(load_report_logo(web.path()).width, 30);

  ASSERT_TRUE(spit(web / "report_logo.jpg", ""));  // empty: the embedded logo
  EXPECT_EQ(load_report_logo(web.path()).jpeg, embedded.jpeg);
  // Unreadable (the parser itself is fuzzed): no logo at all, never a broken image.
  for (const std::string& bad :
       {std::string("\x89PNG\r\n\x1a\n................"), jpeg(0xC0, 0, 20),
        jpeg(0xC8, 40, 20, false), jpeg(0xC0, 40, 20).substr(0, 30)}) {
    ASSERT_TRUE(spit(web / "report_logo.jpg", bad));
    EXPECT_TRUE(load_report_logo(web.path()).empty()) << bad.size();
  }
}

TEST(Log, OneTimestampedLinePerCallAndNoFolderMeansNoLog) {
  TempDir home;
  const std::string saved_home = std::getenv("HOME") ? std::getenv("HOME") : "";
  ::unsetenv("USERPROFILE");
  ::setenv("HOME", home.path().c_str(), 1);
  logLine("nothing");
  EXPECT_FALSE(fs::exists(home / "Documents"));

  fs::create_directories(home / "Documents/CVN-Live");
  EXPECT_EQ(log_path(), home / "Documents/CVN-Live/cvn_log.txt");
  logLine("scan() enter");
  logLine("");
  std::string text = slurp(log_path());
  EXPECT_TRUE(std::regex_match(
      text, std::regex("[0-2][0-9]:[0-5][0-9]:[0-6][0-9]  \\[BLE\\] scan\\(\\) enter\n"
                       "[0-2][0-9]:[0-5][0-9]:[0-6][0-9]  \\[BLE\\] \n")))
      << text;
  ::setenv("HOME", saved_home.c_str(), 1);
}

}  // namespace
}  // namespace cvn
