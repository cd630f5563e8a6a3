// The Heart Rate Measurement parser on arbitrary notifications, as any strap
// (or anything pretending to be one) may send them; a parsed value encodes
// back to its own bytes, up to the flag bits and trailing bytes the parser
// ignores.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "sensor/hrs.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto m = cvn::parse_heart_rate_measurement(std::span<const std::uint8_t>(data, size));
  if (!m) return 0;
  for (double rr : m->rr_seconds)
    if (!(rr >= 0 && rr < 64)) __builtin_trap();  // 65535/1024 s at most
  const bool sixteen = (data[0] & 0x01) != 0;
  const std::vector<std::uint8_t> encoded = cvn::encode_heart_rate_measurement(*m, sixteen);
  // Reserved bits 5-7 are dropped; "detected" without "supported" too.
  std::uint8_t flags = data[0] & 0x1D;
  if (data[0] & 0x04) flags |= data[0] & 0x02;
  // Without RR fields, bytes after the last field are ignored, so the
  // encoding is a prefix; with them, the RR fields run to the end.
  const bool has_rr = (data[0] & 0x10) != 0;
  if (encoded.size() > size || (has_rr && encoded.size() != size) || encoded[0] != flags ||
      !std::equal(encoded.begin() + 1, encoded.end(), data + 1))
    __builtin_trap();
  return 0;
}
