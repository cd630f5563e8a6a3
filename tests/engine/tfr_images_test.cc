// The "Compute TFR" job: from a replayed recording to the two pictures the browser shows.
#include "engine/tfr_images.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "analysis/png.h"
#include "assets/assets.h"
#include "engine/engine.h"
#include "base/recording.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using namespace std::chrono_literals;
using test::wait_until;

// Standard base64 with padding; empty on any stray character.
std::string base64_decode(std::string_view text) {
  static constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  std::uint32_t bits = 0;
  int count = 0;
  for (const char c : text) {
    if (c == '=') break;
    const std::size_t v = kAlphabet.find(c);
    if (v == std::string_view::npos) return {};
    bits = (bits << 6) | static_cast<std::uint32_t>(v);
    if ((count += 6) >= 8) {
      count -= 8;
      out += static_cast<char>((bits >> count) & 0xFF);
    }
  }
  return out;
}

std::uint32_t big_endian(const std::string& s, std::size_t at) {
  return static_cast<std::uint32_t>(static_cast<unsigned char>(s[at])) << 24 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 1])) << 16 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 2])) << 8 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 3]));
}

struct Picture {
  std::uint32_t width = 0, height = 0;
  std::string scanlines;  // filter byte + RGB per row

  std::array<int, 3> at(std::uint32_t x, std::uint32_t y) const {
    const std::size_t i = y * (1 + 3 * static_cast<std::size_t>(width)) + 1 + 3 * x;
    return {static_cast<unsigned char>(scanlines[i]), static_cast<unsigned char>(scanlines[i + 1]),
            static_cast<unsigned char>(scanlines[i + 2])};
  }
};

// A data URI's PNG, checked the way a browser would read it: signature, IHDR (8-bit RGB),
// every chunk's CRC, and the image data inflated by zlib to exactly one scanline per row.
::testing::AssertionResult read_picture(const std::string& uri, Picture& out) {
  if (uri.rfind(kPngDataUriPrefix, 0) != 0) return ::testing::AssertionFailure() << "prefix";
  const std::string png = base64_decode(std::string_view(uri).substr(kPngDataUriPrefix.size()));
  if (png.compare(0, 8, "\x89PNG\r\n\x1a\n") != 0)
    return ::testing::AssertionFailure() << "signature";
  std::string idat;
  bool ended = false;
  for (std::size_t at = 8; at + 12 <= png.size() && !ended;) {
    const std::uint32_t length = big_endian(png, at);
    if (at + 12 + length > png.size()) return ::testing::AssertionFailure() << "truncated chunk";
    const std::string type = png.substr(at + 4, 4);
    const auto* bytes = reinterpret_cast<const Bytef*>(png.data() + at + 4);
    if (crc32(0L, bytes, length + 4) != big_endian(png, at + 8 + length))
      return ::testing::AssertionFailure() << "CRC of " << type;
    if (type == "IHDR") {
      out.width = big_endian(png, at + 8);
      out.height = big_endian(png, at + 12);
      if (png[at + 16] != 8 || png[at + 17] != 2)
        return ::testing::AssertionFailure() << "not RGB8";
    } else if (type == "IDAT") {
      idat += png.substr(at + 8, length);
    } else if (type == "IEND") {
      ended = true;
    }
    at += 12 + length;
  }
  if (!ended) return ::testing::AssertionFailure() << "no IEND";
  uLongf size = out.height * (1 + 3 * static_cast<uLongf>(out.width));
  out.scanlines.assign(size, '\0');
  if (uncompress(reinterpret_cast<Bytef*>(out.scanlines.data()), &size,
                 reinterpret_cast<const Bytef*>(idat.data()), idat.size()) != Z_OK ||
      size != out.scanlines.size()) {
    return ::testing::AssertionFailure() << "image data does not inflate to the picture's size";
  }
  return ::testing::AssertionSuccess();
}

TEST(TfrJob, FullReplayGivesTwoPictures) {
  test::TempDir data;
  std::filesystem::create_directories(data / "sample_data");
  ASSERT_TRUE(
      test::spit(data / "sample_data/Sample 1.txt", std::string(*find_asset("Sample 1.txt"))));
  Engine engine(data.path(), nullptr);
  ASSERT_TRUE(engine.start_replay(data / "sample_data/Sample 1.txt", {}, {200.0, ""}));
  ASSERT_TRUE(wait_until([&] { return !engine.running(); }, 10s));

  engine.start_tfr();
  ASSERT_TRUE(wait_until([&] { return engine.tfr().state != JobState::kRunning; }, 20s));
  const TfrResult t = engine.tfr();
  ASSERT_EQ(t.state, JobState::kDone) << t.message;
  for (const std::string* uri : {&t.tfr3_uri, &t.tfr10_uri}) {
    Picture p;
    ASSERT_TRUE(read_picture(*uri, p));
    EXPECT_EQ(p.width, 1200u);
    EXPECT_EQ(p.height, 320u);  // one pixel row per frequency
    // 264 s in 16 s cycles: a dark line at the start of each of the 17 cycle starts
    // (0 ... 256 s), the green line on the rows of 0.0625 Hz (row 85 from the bottom).
    const std::array<int, 3> dark = {30, 30, 30}, green = {20, 150, 20};
    for (std::uint32_t y = 0; y < p.height; y += 40) EXPECT_EQ(p.at(0, y), dark);
    EXPECT_EQ(p.at(72, 10), dark);  // 16 s of 264 s on 1200 pixels: column 72
    EXPECT_EQ(p.at(500, 319 - 85), green);
    EXPECT_EQ(p.at(500, 318 - 85), green);
    // The breathing band is in colour, not grey.
    const std::array<int, 3> band = p.at(600, 319 - 80);
    EXPECT_FALSE(band[0] == band[1] && band[1] == band[2]);
  }
}

TEST(TfrJob, TooLittleRecordingIsExplained) {
  const std::vector<double> sample = read_recording(*find_asset("Sample 1.txt"));
  TfrInput in;
  in.samples.assign(sample.begin(), sample.begin() + 100);  // not even two beats
  EXPECT_EQ(compute_tfr_images(in).error, "Not enough data recorded yet.");
  in.samples.assign(sample.begin(), sample.begin() + 10 * 130);  // beats, but under 16 s
  const TfrImages short_one = compute_tfr_images(in);
  EXPECT_EQ(short_one.error, "Could not compute TFR (recording may be too short).");
  EXPECT_TRUE(short_one.tfr3_uri.empty());
  in.cycle_seconds = 10;  // ...which is a whole cycle of 10 s
  const TfrImages ok = compute_tfr_images(in);
  EXPECT_EQ(ok.error, "");
  Picture p;
  EXPECT_TRUE(read_picture(ok.tfr10_uri, p));
  EXPECT_EQ(p.width, 1200u);
}

}  // namespace
}  // namespace cvn
