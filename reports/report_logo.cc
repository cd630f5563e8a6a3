#include "reports/report_logo.h"

#include "base/byte_order.h"

namespace cvn {
namespace {

std::uint16_t be16(std::string_view d, std::size_t at) {
  return static_cast<std::uint16_t>(
      get_be(reinterpret_cast<const std::uint8_t*>(d.data() + at), 2));
}

bool is_frame_marker(unsigned char m) {
  // SOF0..SOF15 less DHT (C4), JPG (C8) and DAC (CC), which share the range.
  return m >= 0xC0 && m <= 0xCF && m != 0xC4 && m != 0xC8 && m != 0xCC;
}

}  // namespace

bool jpeg_frame_size(std::string_view d, std::uint16_t* width, std::uint16_t* height) {
  if (d.size() < 12) return false;
  std::size_t pos = 2;  // behind the start-of-image marker
  while (pos + 9 < d.size()) {
    if (static_cast<unsigned char>(d[pos]) != 0xFF) {
      ++pos;
      continue;
    }
    unsigned char marker = static_cast<unsigned char>(d[pos + 1]);
    if (is_frame_marker(marker)) {
      *height = be16(d, pos + 5);
      *width = be16(d, pos + 7);
      return *width != 0 && *height != 0;
    }
    std::uint16_t length = be16(d, pos + 2);
    if (length < 2) return false;
    pos += 2 + length;
  }
  return false;
}

}  // namespace cvn
