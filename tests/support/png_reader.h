// An independent PNG reader for the tests of our own encoder: every chunk's
// CRC checked with zlib's crc32, the image data inflated by zlib, and the
// filter byte of every row (all 0 in our files) stripped.
#pragma once
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace cvn::test {

struct DecodedPng {
  std::string chunks;  // the chunk types in order
  std::vector<std::uint8_t> ihdr, pixels;
  std::uint32_t width = 0, height = 0;
};

inline std::uint32_t be32(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
}

/// Decodes an 8-bit PNG of `channels` bytes per pixel; fails on any defect.
inline testing::AssertionResult decode_png(const std::vector<std::uint8_t>& png, int channels,
                                           DecodedPng* d) {
  if (png.size() < 8 || std::string(png.begin(), png.begin() + 8) != "\x89PNG\r\n\x1A\n")
    return testing::AssertionFailure() << "signature";
  std::vector<std::uint8_t> idat;
  std::size_t at = 8;
  for (std::uint32_t len; at + 12 <= png.size(); at += 12 + len) {
    len = be32(&png[at]);
    if (at + 12 + len > png.size()) return testing::AssertionFailure() << "truncated chunk";
    const std::string type(png.begin() + at + 4, png.begin() + at + 8);
    d->chunks += type;
    if (be32(&png[at + 8 + len]) != ::crc32(0, &png[at + 4], 4 + len))
      return testing::AssertionFailure() << "CRC of " << type;
    std::vector<std::uint8_t>& into = type == "IHDR" ? d->ihdr : idat;
    if (type != "IEND") into.insert(into.end(), &png[at + 8], &png[at + 8] + len);
  }
  if (at != png.size() || d->ihdr.size() != 13) return testing::AssertionFailure() << "layout";
  d->width = be32(&d->ihdr[0]);
  d->height = be32(&d->ihdr[4]);
  const std::size_t row = std::size_t{d->width} * channels;
  std::vector<std::uint8_t> raw((row + 1) * d->height);
  uLongf raw_len = raw.size();
  if (::uncompress(raw.data(), &raw_len, idat.data(), idat.size()) != Z_OK || raw_len != raw.size())
    return testing::AssertionFailure() << "image data does not inflate to the picture's size";
  for (std::size_t y = 0; y < d->height; ++y) {
    if (raw[y * (row + 1)] != 0) return testing::AssertionFailure() << "filter of row " << y;
    d->pixels.insert(d->pixels.end(), raw.begin() + y * (row + 1) + 1,
                     raw.begin() + (y + 1) * (row + 1));
  }
  return testing::AssertionSuccess();
}

/// Standard base64 with padding; empty on any stray character.
inline std::vector<std::uint8_t> base64_decode(std::string_view text) {
  static constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::vector<std::uint8_t> out;
  std::uint32_t bits = 0;
  int count = 0;
  for (const char c : text.substr(0, text.find('='))) {
    const std::size_t v = kAlphabet.find(c);
    if (v == std::string_view::npos) return {};
    bits = (bits << 6) | static_cast<std::uint32_t>(v);
    if ((count += 6) >= 8) out.push_back(static_cast<std::uint8_t>(bits >> (count -= 8)));
  }
  return out;
}

}  // namespace cvn::test
