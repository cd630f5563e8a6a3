// The ECG frame decoder on arbitrary notifications, as a strap (or anything
// pretending to be one) may send them; a decoded frame encodes back to itself.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "sensor/pmd.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> frame(data, size);
  std::vector<double> samples = cvn::decode_ecg_frame(frame);
  if (samples.empty()) return 0;
  if (samples.size() != (size - cvn::kPmdHeaderBytes) / cvn::kPmdSampleBytes) __builtin_trap();
  std::uint64_t timestamp = 0;
  for (int i = 0; i < 8; ++i) timestamp |= std::uint64_t{data[1 + i]} << (8 * i);
  std::vector<std::uint8_t> encoded = cvn::encode_ecg_frame(timestamp, samples);
  const std::size_t whole = cvn::kPmdHeaderBytes + cvn::kPmdSampleBytes * samples.size();
  if (encoded.size() != whole || !std::equal(encoded.begin(), encoded.end(), data))
    __builtin_trap();
  return 0;
}
