// A fresh temporary folder per test, removed afterwards.
#pragma once
#include <string>
#include <vector>

namespace cvn::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

 private:
  std::string path_;
};

/// Whole file as bytes; empty when unreadable.
std::string slurp(const std::string& path);
/// Writes bytes, creating parent folders; false on failure.
bool spit(const std::string& path, const std::string& bytes);
/// The lines of `text`, without their line feeds.
std::vector<std::string> lines_of(const std::string& text);

}  // namespace cvn::test
