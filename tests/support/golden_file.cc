#include "tests/support/golden_file.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace cvn::test {

namespace {

bool parse_number(const std::string& text, double& value) {
  char* end = nullptr;
  value = std::strtod(text.c_str(), &end);
  return end != text.c_str() && *end == '\0';
}

}  // namespace

GoldenFile read_golden(const std::string& path) {
  GoldenFile golden;
  std::ifstream in(path);
  if (!in) return golden;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string key;
    words >> key;
    if (key != "series") {
      std::string value;
      std::getline(words >> std::ws, value);
      golden.fields[key] = value;
      continue;
    }
    std::size_t count = 0;
    if (!(words >> key >> count)) return golden;
    std::vector<double>& values = golden.series[key];
    values.resize(count);
    for (double& v : values) {
      if (!std::getline(in, line) || !parse_number(line, v)) return golden;
    }
  }
  golden.ok = true;
  return golden;
}

std::string source_path(const std::string& relative) {
  return std::string(CVN_SOURCE_DIR) + "/" + relative;
}

}  // namespace cvn::test
