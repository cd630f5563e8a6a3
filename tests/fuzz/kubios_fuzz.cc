// The import sniffers on arbitrary uploads: the Kubios check and its RR
// reader must accept anything, and every interval they return must be one a
// heart could beat: finite and positive.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "engine/import.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  (void)cvn::looks_like_kubios(text);
  for (double rr : cvn::read_kubios_rr(text))
    if (!std::isfinite(rr) || rr <= 0) __builtin_trap();
  (void)cvn::import_name(text.substr(0, 300));
  return 0;
}
