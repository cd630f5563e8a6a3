#include "engine/import.h"

#include <cmath>
#include <cstdint>
#include <limits>

#include "base/recording.h"

namespace cvn {
namespace {

// Rates this close to 130 are the chest strap's own, give or take a clock's error.
constexpr double kSameRateTolerance = 0.5;

}  // namespace

std::vector<double> resample(const std::vector<double>& samples, double source_rate) {
  const std::size_t n = samples.size();
  if (n < 2 || !(source_rate > 0) || !std::isfinite(source_rate)) return samples;
  if (std::abs(source_rate - kSampleRate) < kSameRateTolerance) return samples;
  const double count = std::round(static_cast<double>(n) / source_rate * kSampleRate);
  if (!(count >= 2) || count > static_cast<double>(std::numeric_limits<std::int32_t>::max())) {
    return samples;
  }
  std::vector<double> out(static_cast<std::size_t>(count));
  for (std::size_t i = 0; i < out.size(); ++i) {
    const double x = static_cast<double>(i) / kSampleRate * source_rate;
    const auto k = static_cast<std::size_t>(x);
    if (k + 1 < n) {
      const double frac = x - static_cast<double>(k);
      out[i] = (1 - frac) * samples[k] + frac * samples[k + 1];
    } else {
      out[i] = samples[n - 1];
    }
  }
  return out;
}

}  // namespace cvn
