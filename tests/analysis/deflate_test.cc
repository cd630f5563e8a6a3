#include "analysis/deflate.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <string>
#include <vector>

namespace cvn {
namespace {

using Bytes = std::vector<std::uint8_t>;

// zlib's inflate of a zlib stream (window_bits 15) or raw deflate data (-15); the calling
// test fails unless the stream ends exactly at the end of `in`.
Bytes inflate_with_zlib(const Bytes& in, int window_bits, std::size_t expected_size) {
  z_stream zs{};
  EXPECT_EQ(inflateInit2(&zs, window_bits), Z_OK);
  Bytes out(expected_size + 1);  // a spare byte exposes output that is too long
  zs.next_in = const_cast<Bytef*>(in.data());
  zs.avail_in = static_cast<uInt>(in.size());
  zs.next_out = out.data();
  zs.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(inflate(&zs, Z_FINISH), Z_STREAM_END) << (zs.msg ? zs.msg : "");
  EXPECT_EQ(zs.avail_in, 0u) << "bytes after the end of the stream";
  out.resize(zs.total_out);
  inflateEnd(&zs);
  return out;
}

Bytes random_bytes(std::size_t n, std::uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes v(n);
  for (auto& b : v) b = static_cast<std::uint8_t>(rng());
  return v;
}

// Pieces of 1 to 100 bytes cut from a small vocabulary: matches of every length code and
// many distances, as in text or image rows.
Bytes phrases(std::size_t n, std::uint32_t seed) {
  std::mt19937 rng(seed);
  const Bytes vocabulary = random_bytes(300, seed);
  Bytes v;
  while (v.size() < n) {
    const std::size_t at = rng() % 200, len = 1 + rng() % 100;
    v.insert(v.end(), vocabulary.begin() + at, vocabulary.begin() + at + len);
  }
  return v;
}

Bytes repeated(const Bytes& block, std::size_t times) {
  Bytes v;
  for (std::size_t i = 0; i < times; ++i) v.insert(v.end(), block.begin(), block.end());
  return v;
}

TEST(Deflate, ZlibInflatesToTheInput) {
  const std::pair<std::string, Bytes> cases[] = {
      {"empty", {}},
      {"one byte", {0x41}},
      {"two bytes", {0xFF, 0x00}},
      {"three bytes", {7, 7, 7}},
      {"random", random_bytes(100000, 4)},
      {"run of a million", Bytes(1000000, 0)},
      {"period 3", repeated({1, 2, 3}, 400)},
      {"phrases", phrases(300000, 8)},
      {"matches at distance 32768", repeated(random_bytes(32768, 3), 3)},
      {"repeat just beyond the window", repeated(random_bytes(32769, 5), 2)},
  };
  for (const auto& [name, data] : cases) {
    SCOPED_TRACE(name);
    const Bytes raw = deflate_fixed(data);
    ASSERT_FALSE(raw.empty());
    EXPECT_EQ(raw[0] & 0x07, 0x03) << "BFINAL set, BTYPE 01";
    EXPECT_EQ(inflate_with_zlib(raw, -15, data.size()), data);
    const Bytes z = zlib_compress(data);
    EXPECT_EQ(Bytes(z.begin(), z.begin() + 2), (Bytes{0x78, 0x9C}));
    EXPECT_EQ(inflate_with_zlib(z, 15, data.size()), data);  // zlib checks the Adler-32
  }
}

// A literal-only encoder spends 8-9 bits per byte; these sizes need real matches.
TEST(Deflate, CompressesRepetitiveData) {
  // Header 3 bits, literal 0xAB 9, length 258 (code 285) 8, distance 1 5, end of block 7.
  EXPECT_EQ(deflate_fixed(Bytes(259, 0xAB)).size(), 4u);
  EXPECT_LT(deflate_fixed(Bytes(1000000, 0)).size(), 1000000u / 258 * 26 / 8 + 16);
  EXPECT_LT(deflate_fixed(repeated(random_bytes(32768, 3), 3)).size(), 32768u * 9 / 8 + 4000);
  EXPECT_LE(deflate_fixed(random_bytes(100000, 4)).size(), 100000u * 9 / 8 + 2);
}

// The match finder starts afresh at every segment boundary; no match may reach across.
TEST(Deflate, SegmentRestartKeepsTheStreamValid) {
  const Bytes data = repeated(random_bytes(100, 6), 20);
  for (std::size_t segment : {1u, 2u, 3u, 99u, 100u, 101u, 4096u}) {
    Bytes out = {0xEE};  // appends after what is there
    detail::deflate_fixed_append(data, segment, out);
    ASSERT_EQ(out[0], 0xEE);
    EXPECT_EQ(inflate_with_zlib(Bytes(out.begin() + 1, out.end()), -15, data.size()), data)
        << "segment " << segment;
  }
}

}  // namespace
}  // namespace cvn
