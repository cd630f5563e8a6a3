// Reference vectors written by tools/make_analysis_golden.py.
#pragma once
#include <map>
#include <string>
#include <vector>

namespace cvn::test {

/// "<key> <value>" lines and "series <key> <count>" blocks of numbers.
struct GoldenFile {
  bool ok = false;
  std::map<std::string, std::string> fields;
  std::map<std::string, std::vector<double>> series;
};

/// Parses a golden file; `ok` is false when it is missing or malformed.
GoldenFile read_golden(const std::string& path);

/// Absolute path of a file given relative to the repository root.
std::string source_path(const std::string& relative);

}  // namespace cvn::test
