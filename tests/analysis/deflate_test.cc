#include "analysis/deflate.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "analysis/checksum.h"

namespace cvn {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Inflates with zlib (window_bits 15: zlib stream, -15: raw deflate). Fails the calling
// test unless the stream ends exactly at the end of `in`.
Bytes inflate_with_zlib(const Bytes& in, int window_bits, std::size_t expected_size) {
  z_stream zs{};
  EXPECT_EQ(inflateInit2(&zs, window_bits), Z_OK);
  Bytes out(expected_size + 1);  // one spare byte exposes output that is too long
  zs.next_in = const_cast<Bytef*>(in.data());
  zs.avail_in = static_cast<uInt>(in.size());
  zs.next_out = out.data();
  zs.avail_out = static_cast<uInt>(out.size());
  const int rc = inflate(&zs, Z_FINISH);
  EXPECT_EQ(rc, Z_STREAM_END) << (zs.msg ? zs.msg : "");
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

Bytes repeated(const Bytes& block, std::size_t times) {
  Bytes v;
  for (std::size_t i = 0; i < times; ++i) v.insert(v.end(), block.begin(), block.end());
  return v;
}

// Smooth RGB gradients with a little noise, like heat-map rows.
Bytes image_like(std::size_t width, std::size_t height) {
  std::mt19937 rng(7);
  Bytes v;
  for (std::size_t y = 0; y < height; ++y) {
    v.push_back(0);  // PNG filter byte
    for (std::size_t x = 0; x < width; ++x) {
      const double phase = 0.01 * static_cast<double>(x) + 0.05 * static_cast<double>(y);
      const int level = static_cast<int>(127 + 100 * std::sin(phase)) + static_cast<int>(rng() % 3);
      v.push_back(static_cast<std::uint8_t>(level));
      v.push_back(static_cast<std::uint8_t>(255 - level));
      v.push_back(static_cast<std::uint8_t>(level / 2));
    }
  }
  return v;
}

struct Case {
  std::string name;
  Bytes data;
};

std::vector<Case> round_trip_cases() {
  const Bytes block32k = random_bytes(32768, 3);
  return {
      {"empty", {}},
      {"one byte", {0x41}},
      {"two bytes", {0xFF, 0x00}},
      {"three equal bytes", {7, 7, 7}},
      {"four equal bytes", {7, 7, 7, 7}},
      {"all byte values",
       [] {
         Bytes v(256);
         for (int i = 0; i < 256; ++i) v[i] = static_cast<std::uint8_t>(i);
         return v;
       }()},
      {"random 100000", random_bytes(100000, 4)},
      {"run of 258 after a literal", Bytes(259, 0xAB)},
      {"run of 1000000", Bytes(1000000, 0)},
      {"period 3, every length code", repeated({1, 2, 3}, 400)},
      {"match at distance exactly 32768", repeated(block32k, 3)},
      {"repeat beyond the window", repeated(random_bytes(32769, 5), 2)},
      {"text",
       [] {
         std::string s;
         for (int i = 0; i < 3000; ++i) s += "heart rate " + std::to_string(i % 97) + " bpm\n";
         return Bytes(s.begin(), s.end());
       }()},
      {"image-like 1200x320", image_like(1200, 320)},
  };
}

TEST(Deflate, ZlibInflatesToTheInput) {
  for (const Case& c : round_trip_cases()) {
    SCOPED_TRACE(c.name);
    const Bytes raw = deflate_fixed(c.data);
    ASSERT_FALSE(raw.empty());
    EXPECT_EQ(raw[0] & 0x07, 0x03) << "BFINAL set, BTYPE 01";
    EXPECT_EQ(inflate_with_zlib(raw, -15, c.data.size()), c.data);

    const Bytes z = zlib_compress(c.data);
    ASSERT_GE(z.size(), 6u);
    EXPECT_EQ(z[0], 0x78);
    EXPECT_EQ(z[1], 0x9C);
    EXPECT_EQ(inflate_with_zlib(z, 15, c.data.size()), c.data);  // zlib checks the Adler-32
    EXPECT_EQ(z.size(), raw.size() + 6);
  }
}

TEST(Deflate, EmptyInputIsOneEmptyFixedBlock) {
  EXPECT_EQ(deflate_fixed({}), (Bytes{0x03, 0x00}));
  EXPECT_EQ(zlib_compress({}), (Bytes{0x78, 0x9C, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01}));
}

// Sizes pin down that matches are found and used: a literal-only encoder gives 8-9 bits per
// byte, and one without the 258-byte length or the full window gives several times more.
TEST(Deflate, CompressesRepetitiveData) {
  // Header 3 bits, literal 0xAB 9 bits, length 258 (code 285) 8 bits, distance 1 5 bits,
  // end of block 7 bits: exactly four bytes.
  EXPECT_EQ(deflate_fixed(Bytes(259, 0xAB)).size(), 4u);
  // A 258-byte match costs at most 26 bits.
  EXPECT_LT(deflate_fixed(Bytes(1000000, 0)).size(), 1000000u / 258 * 26 / 8 + 16);
  // The second and third copies are matches at the largest distance.
  const Bytes block32k = random_bytes(32768, 3);
  EXPECT_LT(deflate_fixed(repeated(block32k, 3)).size(), 32768u * 9 / 8 + 4000);
  EXPECT_LT(deflate_fixed(image_like(1200, 320)).size(), image_like(1200, 320).size() / 2);
  // Incompressible input stays within the fixed-code bound of 9 bits per byte.
  EXPECT_LE(deflate_fixed(random_bytes(100000, 4)).size(), 100000u * 9 / 8 + 2);
}

// The match finder starts afresh at every segment; matches must not reach across.
TEST(Deflate, SegmentRestartKeepsTheStreamValid) {
  const Bytes data = repeated(random_bytes(100, 6), 20);
  for (std::size_t segment : {1u, 2u, 3u, 99u, 100u, 101u, 4096u}) {
    SCOPED_TRACE("segment " + std::to_string(segment));
    Bytes out = {0xEE};  // appends after what is already there
    detail::deflate_fixed_append(data, segment, out);
    ASSERT_EQ(out[0], 0xEE);
    EXPECT_EQ(inflate_with_zlib(Bytes(out.begin() + 1, out.end()), -15, data.size()), data);
  }
}

TEST(Deflate, BigEndianHelper) {
  Bytes out;
  detail::put_u32_be(out, 0x11E60398u);
  EXPECT_EQ(out, (Bytes{0x11, 0xE6, 0x03, 0x98}));
}

}  // namespace
}  // namespace cvn
