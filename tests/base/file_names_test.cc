// Names from requests before they are joined to one of our folders.
#include "base/file_names.h"

#include <gtest/gtest.h>

#include <string>

namespace cvn {
namespace {

using namespace std::string_literals;

TEST(FileNames, PlainNameStaysInItsFolder) {
  for (std::string ok :
       {"Sample 1.txt"s, "a.csv"s, "x"s, ".hidden"s, "é.txt"s, "CONSOLE.txt"s, "COM0"s})
    EXPECT_TRUE(is_plain_file_name(ok)) << ok;
  for (std::string bad :
       {""s, ".."s, "../secret.txt"s, "a/b.txt"s, "/etc/passwd"s, "..\\x"s, "a\\b"s, "a..b"s,
        "a\0.txt"s, "C:\\x"s, "a.txt:x"s, "CON"s, "nul.txt"s, "Com1.csv"s, "lpt9 .txt"s})
    EXPECT_FALSE(is_plain_file_name(bad)) << bad;
}

TEST(FileNames, SafeRelativePathHasNoWayOut) {
  for (std::string ok : {"a.txt"s, "person/r.csv"s, "a/b/c.txt"s, "a..b/c"s, "./a"s})
    EXPECT_TRUE(is_safe_relative_path(ok)) << ok;
  for (std::string bad : {""s, "/abs"s, "a/../../x"s, ".."s, "a/.."s, "a\\b"s, "C:x"s, "c:/x"s,
                          "a\0b"s, "a/b:c"s, "Anna/aux.txt"s})
    EXPECT_FALSE(is_safe_relative_path(bad)) << bad;
}

}  // namespace
}  // namespace cvn
