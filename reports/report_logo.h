// The picture the PDF reports carry in their heads: a JPEG embedded unchanged.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace cvn {

/// JPEG bytes and their pixel size, for the PDF reports; empty = no logo.
struct ReportLogo {
  std::string jpeg;
  std::uint16_t width = 0;
  std::uint16_t height = 0;
  bool empty() const { return jpeg.empty(); }
};

/// Finds the size in the first start-of-frame header. False for data that
/// is too short, malformed, or has no frame header with a non-zero size.
bool jpeg_frame_size(std::string_view jpeg, std::uint16_t* width, std::uint16_t* height);

}  // namespace cvn
