#include "analysis/checksum.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <vector>

namespace cvn {
namespace {

// Lengths around Adler-32's 5552-byte reduction block, and all-0xFF data, the worst case
// for overflow of the unreduced sums; each also fed in two uneven pieces.
TEST(Checksum, MatchesZlibWholeAndIncremental) {
  std::mt19937 rng(1);
  for (std::size_t n : {1u, 5551u, 5552u, 5553u, 11105u, 100000u}) {
    std::vector<std::uint8_t> random(n);
    for (auto& b : random) b = static_cast<std::uint8_t>(rng());
    for (const auto& data : {random, std::vector<std::uint8_t>(n, 0xFF)}) {
      const std::span<const std::uint8_t> all(data);
      const std::uint32_t crc = ::crc32(0, data.data(), static_cast<uInt>(n));
      const std::uint32_t adler = ::adler32(1, data.data(), static_cast<uInt>(n));
      EXPECT_EQ(crc32(all), crc) << "n=" << n;
      EXPECT_EQ(adler32(all), adler) << "n=" << n;
      const std::size_t cut = rng() % n;
      EXPECT_EQ(crc32_update(crc32(all.first(cut)), all.subspan(cut)), crc) << "cut " << cut;
      EXPECT_EQ(adler32_update(adler32(all.first(cut)), all.subspan(cut)), adler) << "cut " << cut;
    }
  }
  EXPECT_EQ(crc32({}), 0u);
  EXPECT_EQ(adler32({}), 1u);
}

}  // namespace
}  // namespace cvn
