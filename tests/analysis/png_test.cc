#include "analysis/png.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "tests/support/png_reader.h"
#include "tests/support/temp_dir.h"

namespace cvn {
namespace {

using Bytes = std::vector<std::uint8_t>;

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

    test::DecodedPng d;
    ASSERT_TRUE(test::decode_png(png, c.color == PngColor::kRgba ? 4 : 3, &d));
    EXPECT_EQ(d.chunks, "IHDRIDATIEND");
    EXPECT_EQ(d.width, static_cast<std::uint32_t>(c.width));
    EXPECT_EQ(d.height, static_cast<std::uint32_t>(c.height));
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
  const std::pair<std::string, std::string> cases[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xFB\xFF", "+/8="}};
  for (const auto& [in, out] : cases) EXPECT_EQ(base64_encode(Bytes(in.begin(), in.end())), out);
  const Bytes png = encode_png(Bytes(3, 200), 1, 1, PngColor::kRgb);
  EXPECT_EQ(png_data_uri(png), "data:image/png;base64," + base64_encode(png));
}

}  // namespace
}  // namespace cvn
