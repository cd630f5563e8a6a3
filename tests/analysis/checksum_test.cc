#include "analysis/checksum.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <random>
#include <string_view>
#include <vector>

namespace cvn {
namespace {

std::span<const std::uint8_t> bytes_of(std::string_view s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

std::vector<std::uint8_t> random_bytes(std::size_t n, std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<std::uint8_t> v(n);
  for (auto& b : v) b = static_cast<std::uint8_t>(rng());
  return v;
}

TEST(Checksum, PublishedVectors) {
  struct Case {
    std::string_view text;
    std::uint32_t crc;
    std::uint32_t adler;
  };
  // CRC check value from the CRC catalogue (CRC-32/ISO-HDLC); Adler "Wikipedia" from its
  // article; the pangram is a common cross-check for both.
  const Case cases[] = {
      {"", 0x00000000u, 0x00000001u},
      {"a", 0xE8B7BE43u, 0x00620062u},
      {"123456789", 0xCBF43926u, 0x091E01DEu},
      {"Wikipedia", 0xADAAC02Eu, 0x11E60398u},
      {"The quick brown fox jumps over the lazy dog", 0x414FA339u, 0x5BDC0FDAu},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(crc32(bytes_of(c.text)), c.crc) << '"' << c.text << '"';
    EXPECT_EQ(adler32(bytes_of(c.text)), c.adler) << '"' << c.text << '"';
  }
}

// Lengths around the deferred-modulo block of Adler-32 (5552 bytes) and all-0xFF input, the
// worst case for overflow of the unreduced sums.
TEST(Checksum, MatchesZlibOnRandomAndWorstCaseData) {
  for (std::size_t n : {1u, 7u, 5551u, 5552u, 5553u, 11104u, 11105u, 100000u}) {
    for (const auto& data :
         {random_bytes(n, static_cast<std::uint32_t>(n)), std::vector<std::uint8_t>(n, 0xFF)}) {
      EXPECT_EQ(crc32(data), ::crc32(0, data.data(), static_cast<uInt>(n))) << "n=" << n;
      EXPECT_EQ(adler32(data), ::adler32(1, data.data(), static_cast<uInt>(n))) << "n=" << n;
    }
  }
}

TEST(Checksum, IncrementalEqualsWhole) {
  const auto data = random_bytes(40000, 1);
  const std::span<const std::uint8_t> all(data);
  std::mt19937 rng(2);
  for (int trial = 0; trial < 20; ++trial) {
    std::uint32_t crc = kCrc32Initial;
    std::uint32_t adler = kAdler32Initial;
    std::size_t pos = 0;
    while (pos < all.size()) {
      const std::size_t n = std::min<std::size_t>(rng() % 9000, all.size() - pos);
      crc = crc32_update(crc, all.subspan(pos, n));
      adler = adler32_update(adler, all.subspan(pos, n));
      pos += n;
    }
    EXPECT_EQ(crc, crc32(all));
    EXPECT_EQ(adler, adler32(all));
  }
}

}  // namespace
}  // namespace cvn
