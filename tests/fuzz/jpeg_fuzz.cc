// The JPEG frame-size reader on arbitrary bytes: a report logo is any file
// the user drops into the web root.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "reports/report_logo.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::uint16_t width = 0, height = 0;
  if (cvn::jpeg_frame_size(std::string_view(reinterpret_cast<const char*>(data), size), &width,
                           &height) &&
      (width == 0 || height == 0))
    __builtin_trap();
  return 0;
}
