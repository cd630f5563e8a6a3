#include "analysis/rr.h"

#include <cmath>
#include <cstddef>

#include "analysis/numeric.h"

namespace cvn {

namespace {

// Physiologically possible intervals (30 to 300 bpm); the statistics are
// taken over these only so that missed or extra beats do not skew them.
constexpr double kMinPlausibleRr = 0.2;
constexpr double kMaxPlausibleRr = 2.0;
// A steady rhythm (variance at most 0.01 s^2, SD 100 ms) gets the wider
// limit: its MAD is small, and ordinary variation would otherwise score high.
constexpr double kSteadyVariance = 0.01;
constexpr double kSteadyLimit = 5.0;
constexpr double kVariableLimit = 3.0;

}  // namespace

std::vector<double> clean_rr(const std::vector<double>& rr) {
  if (rr.empty()) return rr;

  std::vector<double> plausible;
  plausible.reserve(rr.size());
  for (double r : rr) {
    if (r > kMinPlausibleRr && r < kMaxPlausibleRr) plausible.push_back(r);
  }
  const double m = median(plausible);
  const double variance = population_variance(plausible);
  for (double& r : plausible) r = std::abs(r - m);
  const double d = median(plausible);
  if (d == 0.0) return rr;

  const double limit = variance <= kSteadyVariance ? kSteadyLimit : kVariableLimit;
  std::vector<unsigned char> outlier(rr.size());
  std::size_t outliers = 0;
  for (std::size_t i = 0; i < rr.size(); ++i) {
    outlier[i] = !std::isfinite(rr[i]) || std::abs(kMadToSd * (rr[i] - m) / d) > limit;
    outliers += outlier[i];
  }
  if (outliers == 0 || outliers == rr.size()) return rr;

  std::vector<double> cleaned(rr);
  const double nan = std::nan("");
  for (std::size_t i = 0; i < rr.size(); ++i) {
    if (outlier[i]) cleaned[i] = nan;
  }
  fill_gaps(cleaned);
  return cleaned;
}

}  // namespace cvn
