// The recording reader on arbitrary text, and the writer on whatever it
// read: writing and reading again must give the rounded samples back.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/recording.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<double> samples = cvn::read_recording(text);
  std::vector<double> again = cvn::read_recording(cvn::format_recording(samples));
  if (again.size() != samples.size()) __builtin_trap();
  for (std::size_t i = 0; i < samples.size(); ++i)
    if (again[i] != std::round(samples[i])) __builtin_trap();
  return 0;
}
