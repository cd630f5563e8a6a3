#include "analysis/filter.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

#include "analysis/numeric.h"

namespace cvn {

namespace {

// Padding long enough for the start-up transient of a 4-section cascade:
// three times the 9 taps of the combined 8th-order filter.
constexpr int kEcgPadLength = 6 * static_cast<int>(kEcgBandPass.size()) + 3;

// Transposed direct form II state of one section after a unit step has been
// applied forever, scaled by the DC gain of the sections before it (a
// band-pass has DC gain 0, so every section after the first starts at rest).
struct StepState {
  double z0, z1;
};

StepState unit_step_state(const Biquad& q, double upstream_gain) {
  // Fixed point under x = 1: z0 = b1 - a1*y + z1, z1 = b2 - a2*y, with
  // y = b0 + z0. Eliminating y gives a 2x2 system with this solution.
  const double r0 = q.b1 - q.a1 * q.b0;
  const double r1 = q.b2 - q.a2 * q.b0;
  const double z0 = (r0 + r1) / (1.0 + q.a1 + q.a2);
  const double z1 = r1 - q.a2 * z0;
  return {upstream_gain * z0, upstream_gain * z1};
}

// One pass of the cascade over `count` samples starting at `data`, stepping
// by `stride` (+1 forward, -1 backward), in place. Section-major order keeps
// each section's state in registers; the results equal sample-major order.
void run_pass(std::span<const Biquad> sections, double* data, std::ptrdiff_t count,
              std::ptrdiff_t stride) {
  const double x0 = data[0];
  double upstream_gain = 1.0;
  for (const Biquad& q : sections) {
    const StepState unit = unit_step_state(q, upstream_gain);
    upstream_gain *= (q.b0 + q.b1 + q.b2) / (1.0 + q.a1 + q.a2);
    double z0 = unit.z0 * x0;
    double z1 = unit.z1 * x0;
    const double b0 = q.b0, b1 = q.b1, b2 = q.b2, a1 = q.a1, a2 = q.a2;
    double* p = data;
    for (std::ptrdiff_t i = 0; i < count; ++i, p += stride) {
      const double x = *p;
      const double y = b0 * x + z0;
      z0 = b1 * x - a1 * y + z1;
      z1 = b2 * x - a2 * y;
      *p = y;
    }
  }
}

}  // namespace

std::vector<double> sos_filtfilt(const std::vector<double>& signal,
                                 std::span<const Biquad> sections, int pad_length) {
  const std::size_t n = signal.size();
  if (n == 0 || sections.empty()) return signal;
  const std::size_t pad = std::min(static_cast<std::size_t>(std::max(pad_length, 0)), n - 1);

  std::vector<double> ext(n + 2 * pad);
  const double first = signal.front();
  const double last = signal.back();
  for (std::size_t k = 1; k <= pad; ++k) {
    ext[pad - k] = 2.0 * first - signal[k];
    ext[pad + n - 1 + k] = 2.0 * last - signal[n - 1 - k];
  }
  std::copy(signal.begin(), signal.end(), ext.begin() + static_cast<std::ptrdiff_t>(pad));

  const auto len = static_cast<std::ptrdiff_t>(ext.size());
  run_pass(sections, ext.data(), len, 1);
  run_pass(sections, ext.data() + len - 1, len, -1);

  return std::vector<double>(ext.begin() + static_cast<std::ptrdiff_t>(pad),
                             ext.begin() + static_cast<std::ptrdiff_t>(pad + n));
}

std::vector<double> ecg_bandpass(const std::vector<double>& ecg) {
  const bool all_finite =
      std::all_of(ecg.begin(), ecg.end(), [](double v) { return std::isfinite(v); });
  if (all_finite) return sos_filtfilt(ecg, kEcgBandPass, kEcgPadLength);

  std::vector<double> repaired(ecg);
  bool any_finite = false;
  for (double& v : repaired) {
    if (std::isfinite(v)) {
      any_finite = true;
    } else {
      v = std::numeric_limits<double>::quiet_NaN();
    }
  }
  if (any_finite) {
    fill_gaps(repaired);
  } else {
    std::fill(repaired.begin(), repaired.end(), 0.0);
  }
  return sos_filtfilt(repaired, kEcgBandPass, kEcgPadLength);
}

}  // namespace cvn
