// PNG encoder (8-bit RGB and RGBA, no filtering, one IDAT) and the base64 data URI the
// browser receives. The file layout we write is described in docs/png.md.
#pragma once
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace cvn {

/// An 8-bit RGB picture: rows top to bottom, 3 bytes (R, G, B) per pixel, no padding.
struct RgbImage {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgb;
};

/// Pixel layouts the encoder writes; the values are the PNG colour types.
enum class PngColor : std::uint8_t { kRgb = 2, kRgba = 6 };

/// PNG file of `pixels` (rows top to bottom, 3 or 4 bytes per pixel by `color`, 8 bits per
/// sample). Empty when the size is not positive, does not match `pixels`, or the compressed
/// data would not fit one IDAT chunk.
std::vector<std::uint8_t> encode_png(std::span<const std::uint8_t> pixels, int width, int height,
                                     PngColor color);

/// PNG file of an RGB image; empty when the image is empty or inconsistent.
std::vector<std::uint8_t> encode_png_rgb(const RgbImage& image);

/// Standard base64 (RFC 4648 section 4: "+", "/" and "=" padding, no line breaks).
std::string base64_encode(std::span<const std::uint8_t> bytes);

/// What every PNG data URI starts with (RFC 2397).
inline constexpr std::string_view kPngDataUriPrefix = "data:image/png;base64,";

/// "data:image/png;base64," followed by the base64 of `png` (the PNG file bytes).
std::string png_data_uri(std::span<const std::uint8_t> png);

}  // namespace cvn
