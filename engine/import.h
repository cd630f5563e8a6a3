// Bringing outside recordings in. For now: raw ECG recorded at another sample rate.
#pragma once
#include <vector>

namespace cvn {

/// Samples at kSampleRate (130 per second) from samples at `source_rate`, by linear
/// interpolation: m = round(n / source_rate x 130) outputs (halves away from zero), output i
/// read at x = i / 130 x source_rate between input trunc(x) and the next one (the last input
/// when there is no next one). The input is returned unchanged when it has fewer than 2
/// samples, when the rate is not a finite positive number or lies within 0.5 of 130, and when
/// m would be below 2 or beyond a 32-bit sample index.
std::vector<double> resample(const std::vector<double>& samples, double source_rate);

}  // namespace cvn
