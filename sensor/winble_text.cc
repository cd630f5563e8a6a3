#include "sensor/winble_text.h"

#include <cstdio>

namespace cvn {

namespace {

constexpr std::size_t kGuidTextLength = 36;  // 32 hex digits and 4 dashes
constexpr char32_t kReplacement = 0xFFFD;

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void append_utf8(char32_t c, std::string* out) {
  if (c < 0x80) {
    out->push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (c >> 6)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (c >> 12)));
    out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (c >> 18)));
    out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

}  // namespace

bool parse_guid_text(std::string_view text, GuidFields* out) {
  if (text.size() != kGuidTextLength) return false;
  std::uint8_t bytes[16];
  std::size_t n = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return false;
      continue;
    }
    int hi = hex_value(text[i]), lo = i + 1 < text.size() ? hex_value(text[i + 1]) : -1;
    if (hi < 0 || lo < 0) return false;
    bytes[n++] = static_cast<std::uint8_t>(hi * 16 + lo);
    ++i;
  }
  // The text is big-endian throughout; Data1..Data3 are numbers, Data4 bytes.
  out->data1 = static_cast<std::uint32_t>(bytes[0]) << 24 |
               static_cast<std::uint32_t>(bytes[1]) << 16 |
               static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
  out->data2 = static_cast<std::uint16_t>(bytes[4] << 8 | bytes[5]);
  out->data3 = static_cast<std::uint16_t>(bytes[6] << 8 | bytes[7]);
  for (int i = 0; i < 8; ++i) out->data4[i] = bytes[8 + i];
  return true;
}

std::string utf16_to_utf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = kReplacement;
    }
    append_utf8(c, &out);
  }
  return out;
}

std::string winrt_failure(std::string_view step, std::int32_t hresult) {
  char code[16];
  std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(hresult));
  return "WinRT: " + std::string(step) + " failed (" + code + ")";
}

}  // namespace cvn
