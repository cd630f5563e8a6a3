#include "analysis/png.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::uint32_t be32(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
}

struct Decoded {
  std::string chunks;  // the chunk types in order
  Bytes ihdr, pixels;
};

// An independent reader: checks every chunk CRC with zlib's crc32, inflates the IDAT data
// with zlib and strips the filter bytes, which must all be 0.
Decoded decode_png(const Bytes& png, std::size_t row_bytes, std::size_t height) {
  Decoded d;
  EXPECT_EQ(Bytes(png.begin(), png.begin() + 8),
            (Bytes{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}));
  Bytes idat;
  std::size_t at = 8;
  while (at + 12 <= png.size()) {
    const std::uint32_t len = be32(&png[at]);
    if (at + 12 + len > png.size()) break;
    const std::string type(png.begin() + at + 4, png.begin() + at + 8);
    d.chunks += type;
    EXPECT_EQ(be32(&png[at + 8 + len]), ::crc32(0, &png[at + 4], 4 + len)) << type;
    Bytes& into = type == "IHDR" ? d.ihdr : idat;
    if (type != "IEND") into.insert(into.end(), &png[at + 8], &png[at + 8] + len);
    at += 12 + len;
  }
  EXPECT_EQ(at, png.size()) << "stray bytes after the last chunk";
  Bytes raw((row_bytes + 1) * height);
  uLongf raw_len = raw.size();
  EXPECT_EQ(uncompress(raw.data(), &raw_len, idat.data(), idat.size()), Z_OK);
  EXPECT_EQ(raw_len, raw.size());
  for (std::size_t y = 0; y < height; ++y) {
    const auto line = raw.begin() + y * (row_bytes + 1);
    EXPECT_EQ(line[0], 0) << "filter byte of row " << y;
    d.pixels.insert(d.pixels.end(), line + 1, line + 1 + row_bytes);
  }
  return d;
}

TEST(Png, DecodesPixelExactAndPassesPngcheck) {
  const bool have_pngcheck = std::system("command -v pngcheck >/dev/null 2>&1") == 0;
  test::TempDir dir;
  std::mt19937 rng(1);
  struct Case {
    int width, height;
    PngColor color;
  };
  for (const Case& c : {Case{1, 1, PngColor::kRgb}, Case{7, 3, PngColor::kRgb},
                        Case{1200, 320, PngColor::kRgb}, Case{5, 400, PngColor::kRgba}}) {
    const std::size_t row_bytes = c.width * (c.color == PngColor::kRgba ? 4 : 3);
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
    Bytes pixels(row_bytes * c.height);
    for (auto& b : pixels) b = static_cast<std::uint8_t>(rng() % 4 * 60);  // some repeats
    const Bytes png = encode_png(pixels, c.width, c.height, c.color);

    const Decoded d = decode_png(png, row_bytes, c.height);
    EXPECT_EQ(d.chunks, "IHDRIDATIEND");
    ASSERT_EQ(d.ihdr.size(), 13u);
    EXPECT_EQ(be32(&d.ihdr[0]), static_cast<std::uint32_t>(c.width));
    EXPECT_EQ(be32(&d.ihdr[4]), static_cast<std::uint32_t>(c.height));
    // Bit depth 8, colour type, compression 0, filter method 0, no interlace.
    EXPECT_EQ(Bytes(d.ihdr.begin() + 8, d.ihdr.end()),
              (Bytes{8, static_cast<std::uint8_t>(c.color), 0, 0, 0}));
    EXPECT_EQ(d.pixels, pixels);
    if (have_pngcheck) {
      ASSERT_TRUE(test::spit(dir / "t.png", std::string(png.begin(), png.end())));
      EXPECT_EQ(std::system(("pngcheck -q '" + dir / "t.png" + "' >/dev/null").c_str()), 0);
    }
  }
  if (!have_pngcheck) GTEST_SKIP() << "pngcheck is not installed; decoded with zlib only";
}

TEST(Png, RefusesInconsistentSizes) {
  const Bytes twelve(12, 0);
  EXPECT_FALSE(encode_png(twelve, 2, 2, PngColor::kRgb).empty());
  EXPECT_FALSE(encode_png(twelve, 3, 1, PngColor::kRgba).empty());
  EXPECT_TRUE(encode_png(twelve, 2, 3, PngColor::kRgb).empty());
  EXPECT_TRUE(encode_png(twelve, 2, 1, PngColor::kRgb).empty());
  EXPECT_TRUE(encode_png(twelve, 0, 4, PngColor::kRgb).empty());
  EXPECT_TRUE(encode_png(twelve, -2, -2, PngColor::kRgb).empty());
  EXPECT_TRUE(encode_png_rgb(RgbImage{}).empty());
}

TEST(Png, Base64AndDataUri) {
  // RFC 4648 section 10, and the two symbols past the alphanumerics.
  const std::pair<std::string, std::string> cases[] = {{"", ""},
                                                       {"f", "Zg=="},
                                                       {"fo", "Zm8="},
                                                       {"foo", "Zm9v"},
                                                       {"foob", "Zm9vYg=="},
                                                       {"fooba", "Zm9vYmE="},
                                                       {"foobar", "Zm9vYmFy"},
                                                       {"\xFB\xFF", "+/8="}};
  for (const auto& [in, out] : cases) EXPECT_EQ(base64_encode(Bytes(in.begin(), in.end())), out);
  const Bytes png = encode_png(Bytes(3, 200), 1, 1, PngColor::kRgb);
  EXPECT_EQ(png_data_uri(png), "data:image/png;base64," + base64_encode(png));
}

}  // namespace
}  // namespace cvn
