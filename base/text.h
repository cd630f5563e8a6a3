// Small text helpers the file and request readers share.
#pragma once
#include <string_view>

namespace cvn {

/// `s` without the blanks (space, tab, CR, LF) at either end.
inline std::string_view trim_blanks(std::string_view s) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t first = s.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace cvn
