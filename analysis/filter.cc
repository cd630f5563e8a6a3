#include "analysis/filter.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

#include "analysis/numeric.h"

namespace cvn {

namespace {

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

// Runs `K` consecutive sections over `count` samples starting at `data`,
// stepping by `stride` (+1 forward, -1 backward), in place, from and back into
// the states `z0`, `z1`. Each section's recursion is a serial chain; running K
// of them per sample lets the CPU overlap the chains. The arithmetic per
// section is the same for any K.
template <int K>
void run_sections(const Biquad* q, double* z0_io, double* z1_io, double* data, std::ptrdiff_t count,
                  std::ptrdiff_t stride) {
  double z0[K], z1[K];
  for (int s = 0; s < K; ++s) {
    z0[s] = z0_io[s];
    z1[s] = z1_io[s];
  }
  double* p = data;
  for (std::ptrdiff_t i = 0; i < count; ++i, p += stride) {
    double x = *p;
    for (int s = 0; s < K; ++s) {
      const double y = q[s].b0 * x + z0[s];
      z0[s] = q[s].b1 * x - q[s].a1 * y + z1[s];
      z1[s] = q[s].b2 * x - q[s].a2 * y;
      x = y;
    }
    *p = x;
  }
  for (int s = 0; s < K; ++s) {
    z0_io[s] = z0[s];
    z1_io[s] = z1[s];
  }
}

}  // namespace

SosState sos_pass_start(std::span<const Biquad> sections, double x0) {
  SosState state{std::vector<double>(sections.size()), std::vector<double>(sections.size())};
  double upstream_gain = 1.0;
  for (std::size_t s = 0; s < sections.size(); ++s) {
    const Biquad& q = sections[s];
    const StepState start = unit_step_state(q, upstream_gain);
    state.z0[s] = start.z0 * x0;
    state.z1[s] = start.z1 * x0;
    upstream_gain *= (q.b0 + q.b1 + q.b2) / (1.0 + q.a1 + q.a2);
  }
  return state;
}

void sos_pass_run(std::span<const Biquad> sections, SosState& state, double* data,
                  std::ptrdiff_t count, std::ptrdiff_t stride) {
  constexpr int kGroup = 4;  // the ECG band-pass in one sweep
  std::size_t s = 0;
  for (; s + kGroup <= sections.size(); s += kGroup) {
    run_sections<kGroup>(&sections[s], &state.z0[s], &state.z1[s], data, count, stride);
  }
  for (; s < sections.size(); ++s)
    run_sections<1>(&sections[s], &state.z0[s], &state.z1[s], data, count, stride);
}

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
  SosState forward = sos_pass_start(sections, ext.front());
  sos_pass_run(sections, forward, ext.data(), len, 1);
  SosState backward = sos_pass_start(sections, ext.back());
  sos_pass_run(sections, backward, ext.data() + len - 1, len, -1);

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
