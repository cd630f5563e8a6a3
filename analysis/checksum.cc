#include "analysis/checksum.h"

#include <array>
#include <cstddef>

namespace cvn {
namespace {

// Reflected form of the CRC-32 polynomial x^32 + x^26 + ... + 1 (Portable Network Graphics, W3C,
// annex D).
constexpr std::uint32_t kCrcPolynomial = 0xEDB88320u;

// Built by the compiler, so there is no first-use race between threads.
constexpr std::array<std::uint32_t, 256> make_crc_table() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t n = 0; n < 256; ++n) {
    std::uint32_t c = n;
    for (int k = 0; k < 8; ++k) c = (c & 1u) ? kCrcPolynomial ^ (c >> 1) : c >> 1;
    table[n] = c;
  }
  return table;
}
constexpr std::array<std::uint32_t, 256> kCrcTable = make_crc_table();

// Largest prime below 2^16 (RFC 1950 section 8).
constexpr std::uint32_t kAdlerBase = 65521;
// Most bytes that can be summed before the 32-bit sums must be reduced: the largest n with
// 255 n (n + 1) / 2 + (n + 1) (kAdlerBase - 1) <= 2^32 - 1. Reducing once per block instead
// of once per byte is what makes the checksum cheap.
constexpr std::size_t kAdlerMaxBlock = 5552;

}  // namespace

std::uint32_t crc32_update(std::uint32_t state, std::span<const std::uint8_t> bytes) {
  std::uint32_t c = state ^ 0xFFFFFFFFu;
  for (std::uint8_t b : bytes) c = kCrcTable[(c ^ b) & 0xFFu] ^ (c >> 8);
  return c ^ 0xFFFFFFFFu;
}

std::uint32_t adler32_update(std::uint32_t state, std::span<const std::uint8_t> bytes) {
  std::uint32_t a = state & 0xFFFFu;
  std::uint32_t b = state >> 16;
  const std::uint8_t* p = bytes.data();
  std::size_t left = bytes.size();
  while (left > 0) {
    const std::size_t n = left < kAdlerMaxBlock ? left : kAdlerMaxBlock;
    for (std::size_t i = 0; i < n; ++i) {
      a += p[i];
      b += a;
    }
    a %= kAdlerBase;
    b %= kAdlerBase;
    p += n;
    left -= n;
  }
  return (b << 16) | a;
}

}  // namespace cvn
