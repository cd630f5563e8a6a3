// Small text helpers the file and request readers share.
#pragma once
#include <string>
#include <string_view>

namespace cvn {

/// The code point of the UTF-8 sequence at `*i`, moving `*i` past it. A byte
/// that starts no whole sequence reads as U+FFFD and moves one byte.
inline char32_t next_code_point(std::string_view s, std::size_t* i) {
  const auto b = static_cast<unsigned char>(s[*i]);
  if (b < 0x80) {
    ++*i;
    return b;
  }
  const int extra = b >= 0xF0 ? 3 : b >= 0xE0 ? 2 : b >= 0xC0 ? 1 : -1;
  char32_t cp = extra > 0 ? (b & (0x3F >> extra)) : 0;
  bool ok = extra > 0 && *i + static_cast<std::size_t>(extra) < s.size();
  for (int k = 1; ok && k <= extra; ++k) {
    const auto c = static_cast<unsigned char>(s[*i + static_cast<std::size_t>(k)]);
    ok = (c & 0xC0) == 0x80;
    cp = (cp << 6) | (c & 0x3F);
  }
  if (!ok) {
    ++*i;
    return 0xFFFD;
  }
  *i += 1 + static_cast<std::size_t>(extra);
  return cp;
}

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
