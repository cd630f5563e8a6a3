#include "analysis/rr.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "analysis/numeric.h"

namespace cvn {

namespace {

// A steady rhythm (variance at most 0.01 s^2, SD 100 ms) gets the wider
// limit: its MAD is small, and ordinary variation would otherwise score high.
constexpr double kSteadyVariance = 0.01;
constexpr double kSteadyLimit = 5.0;
constexpr double kVariableLimit = 3.0;

}  // namespace

std::vector<double> clean_rr(const std::vector<double>& rr) {
  return clean_rr_marked(rr).rr;
}

bool plausible_rr(double seconds) {
  return seconds > kMinPlausibleRr && seconds < kMaxPlausibleRr;
}

double rr_outlier_limit(double variance) {
  return variance <= kSteadyVariance ? kSteadyLimit : kVariableLimit;
}

bool rr_outlier(double seconds, double median, double mad, double limit) {
  return !std::isfinite(seconds) || std::abs(kMadToSd * (seconds - median) / mad) > limit;
}

CleanedRr clean_rr_marked(const std::vector<double>& rr) {
  CleanedRr out{rr, std::vector<unsigned char>(rr.size())};
  if (rr.empty()) return out;

  std::vector<double> plausible;
  plausible.reserve(rr.size());
  for (double r : rr) {
    if (plausible_rr(r)) plausible.push_back(r);
  }
  const double m = median(plausible);
  const double variance = population_variance(plausible);
  for (double& r : plausible) r = std::abs(r - m);
  const double d = median(plausible);
  if (d == 0.0) return out;

  const double limit = rr_outlier_limit(variance);
  std::vector<unsigned char>& outlier = out.replaced;
  std::size_t outliers = 0;
  for (std::size_t i = 0; i < rr.size(); ++i) {
    outlier[i] = rr_outlier(rr[i], m, d, limit);
    outliers += outlier[i];
  }
  if (outliers == 0) return out;
  if (outliers == rr.size()) {
    // Nothing good to interpolate from: the series stays as it came.
    std::fill(outlier.begin(), outlier.end(), 0);
    return out;
  }

  const double nan = std::nan("");
  for (std::size_t i = 0; i < rr.size(); ++i) {
    if (outlier[i]) out.rr[i] = nan;
  }
  fill_gaps(out.rr);
  return out;
}

}  // namespace cvn
