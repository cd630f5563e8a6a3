// The recording and beat-file readers on arbitrary text, and the writers on
// whatever they read: writing and reading again must give the rounded
// samples back, and the intervals to within rounding of the millisecond
// scaling.
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

  const cvn::BeatText beats = cvn::read_beats(text);
  const cvn::BeatText back = cvn::read_beats(cvn::format_beats(beats.rr_seconds));
  std::size_t finite = 0;
  for (double rr : beats.rr_seconds) finite += std::isfinite(rr);
  if (back.rr_seconds.size() != finite || back.skipped_lines != 0) __builtin_trap();
  for (std::size_t i = 0, j = 0; i < beats.rr_seconds.size(); ++i) {
    const double rr = beats.rr_seconds[i];
    if (!std::isfinite(rr)) continue;
    if (std::abs(back.rr_seconds[j++] - rr) > 1e-12 * std::abs(rr)) __builtin_trap();
  }
  return 0;
}
