#include "analysis/png.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <limits>

#include "analysis/checksum.h"
#include "analysis/deflate.h"
#include "base/byte_order.h"

namespace cvn {
namespace {

// Portable Network Graphics (W3C, 3rd ed.), section 5.2.
constexpr std::array<std::uint8_t, 8> kSignature = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
// Section 5.3: a chunk length is at most 2^31 - 1.
constexpr std::size_t kMaxChunkLength = 0x7FFFFFFF;
constexpr std::size_t kChunkOverhead = 12;  // length, type, CRC
constexpr std::uint8_t kBitDepth = 8;
constexpr std::uint8_t kFilterNone = 0;  // section 9.2, filter type 0

using ChunkType = std::array<std::uint8_t, 4>;
constexpr ChunkType kIhdr = {'I', 'H', 'D', 'R'};
constexpr ChunkType kIdat = {'I', 'D', 'A', 'T'};
constexpr ChunkType kIend = {'I', 'E', 'N', 'D'};

// Length, type, data, then the CRC-32 of type and data (section 5.3).
void put_chunk(std::vector<std::uint8_t>& out, const ChunkType& type,
               std::span<const std::uint8_t> data) {
  put_u32_be(out, static_cast<std::uint32_t>(data.size()));
  out.insert(out.end(), type.begin(), type.end());
  out.insert(out.end(), data.begin(), data.end());
  put_u32_be(out, crc32_update(crc32(type), data));
}

}  // namespace

std::vector<std::uint8_t> encode_png(std::span<const std::uint8_t> pixels, int width, int height,
                                     PngColor color) {
  const std::size_t channels = color == PngColor::kRgba ? 4 : 3;
  if (width <= 0 || height <= 0) return {};
  const std::size_t w = static_cast<std::size_t>(width);
  const std::size_t h = static_cast<std::size_t>(height);
  const std::size_t row_bytes = w * channels;
  if (h > std::numeric_limits<std::size_t>::max() / (row_bytes + 1)) return {};
  if (pixels.size() != row_bytes * h) return {};

  // Each scanline is its filter byte followed by the samples (section 7.2).
  std::vector<std::uint8_t> scanlines(h * (row_bytes + 1));
  for (std::size_t y = 0; y < h; ++y) {
    std::uint8_t* line = scanlines.data() + y * (row_bytes + 1);
    line[0] = kFilterNone;
    std::memcpy(line + 1, pixels.data() + y * row_bytes, row_bytes);
  }
  const std::vector<std::uint8_t> idat = zlib_compress(scanlines);
  if (idat.size() > kMaxChunkLength) return {};

  std::vector<std::uint8_t> ihdr;
  put_u32_be(ihdr, static_cast<std::uint32_t>(width));
  put_u32_be(ihdr, static_cast<std::uint32_t>(height));
  ihdr.push_back(kBitDepth);
  ihdr.push_back(static_cast<std::uint8_t>(color));
  ihdr.push_back(0);  // compression method 0: zlib
  ihdr.push_back(0);  // filter method 0: the five adaptive filters
  ihdr.push_back(0);  // no interlace

  std::vector<std::uint8_t> png(kSignature.begin(), kSignature.end());
  png.reserve(kSignature.size() + 3 * kChunkOverhead + ihdr.size() + idat.size());
  put_chunk(png, kIhdr, ihdr);
  put_chunk(png, kIdat, idat);
  put_chunk(png, kIend, {});
  return png;
}

std::vector<std::uint8_t> encode_png_rgb(const RgbImage& image) {
  return encode_png(image.rgb, image.width, image.height, PngColor::kRgb);
}

std::string base64_encode(std::span<const std::uint8_t> bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t v = (std::uint32_t{bytes[i]} << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  if (const std::size_t rest = bytes.size() - i; rest > 0) {
    const std::uint32_t v =
        (std::uint32_t{bytes[i]} << 16) | (rest == 2 ? std::uint32_t{bytes[i + 1]} << 8 : 0u);
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::string png_data_uri(std::span<const std::uint8_t> png) {
  std::string uri(kPngDataUriPrefix);
  uri += base64_encode(png);
  return uri;
}

}  // namespace cvn
