// Small text helpers the file and request readers share.
#pragma once
#include <string>
#include <string_view>

namespace cvn {

/// `s` without the blanks (space, tab, CR, LF) at either end.
inline std::string_view trim_blanks(std::string_view s) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t first = s.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(kBlanks) - first + 1);
}

/// `s` as one line of a key=value file: control bytes become blanks, so a
/// value holding a line break cannot end early and start a key of its own;
/// then trimmed, as the readers trim what they read.
inline std::string one_line(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  return std::string(trim_blanks(out));
}

}  // namespace cvn
