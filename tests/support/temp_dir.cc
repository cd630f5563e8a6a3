#include "tests/support/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "base/files.h"

namespace fs = std::filesystem;

namespace cvn::test {

TempDir::TempDir() {
  std::string tmpl = (fs::temp_directory_path() / "cvn-test-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) std::abort();
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

std::string slurp(const std::string& path) {
  return read_file(path).value_or("");
}

bool spit(const std::string& path, const std::string& bytes) {
  std::error_code ec;
  fs::create_directories(fs::path(path).parent_path(), ec);
  return write_file(path, bytes).ok();
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace cvn::test
