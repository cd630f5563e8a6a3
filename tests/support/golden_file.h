// Reference vectors written by tools/make_analysis_golden.py, and recordings
// in the plain-text sample format.
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

/// One number per line ("nan" allowed); empty when unreadable.
std::vector<double> read_samples(const std::string& path);

/// Absolute path of a file given relative to the repository root.
std::string source_path(const std::string& relative);

}  // namespace cvn::test
