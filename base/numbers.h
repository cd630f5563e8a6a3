// Rounding as the snapshot, the periods and the file formats all use it.
#pragma once
#include <cmath>

namespace cvn {

/// round(v * 10^n) / 10^n, halves away from zero.
inline double round_to(double v, int decimals) {
  double scale = std::pow(10.0, decimals);
  return std::round(v * scale) / scale;
}

}  // namespace cvn
