// The markers reader on arbitrary text; what it accepts must survive the
// writer and the reader again unchanged.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/recording.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<cvn::Marker> markers = cvn::read_markers(text);
  std::vector<cvn::Marker> again = cvn::read_markers(cvn::markers_csv(markers));
  if (again.size() != markers.size()) __builtin_trap();
  for (std::size_t i = 0; i < markers.size(); ++i) {
    if (markers[i].key < 1 || markers[i].key > 9 || markers[i].sample < 0) __builtin_trap();
    if (again[i].key != markers[i].key || again[i].sample != markers[i].sample) __builtin_trap();
  }
  cvn::marker_summary(markers);
  return 0;
}
