// Saves go through a temporary file and a rename: the target is replaced
// whole, and a failure leaves the old file and no stray temporary.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "base/files.h"
#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

TEST(AtomicWrite, ReplacesWholeOrLeavesTheOldFile) {
  test::TempDir dir;
  const std::string path = dir / "rec.csv";
  ASSERT_TRUE(write_file_atomic(path, "old\nold\n").ok());
  ASSERT_TRUE(write_file_atomic(path, "new\n").ok());
  EXPECT_EQ(test::slurp(path), "new\n");

  std::filesystem::create_directory(dir / "busy.csv");  // no rename replaces a folder
  EXPECT_FALSE(write_file_atomic(dir / "busy.csv", "x\n").ok());
  EXPECT_FALSE(write_file_atomic(dir / "missing/x.csv", "x\n").ok());
  std::vector<std::string> left;
  for (const auto& e : std::filesystem::directory_iterator(dir.path()))
    left.push_back(e.path().filename().string());
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<std::string>{"busy.csv", "rec.csv"}));
}

}  // namespace
}  // namespace cvn
