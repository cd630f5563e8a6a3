#include "analysis/numeric.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace cvn {

namespace {
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
}  // namespace

double mean(const std::vector<double>& values) {
  if (values.empty()) return kNaN;
  double sum = 0.0;
  for (double v : values) sum += v;
  return sum / static_cast<double>(values.size());
}

double population_variance(const std::vector<double>& values) {
  if (values.empty()) return kNaN;
  const double m = mean(values);
  double sum_sq = 0.0;
  for (double v : values) sum_sq += (v - m) * (v - m);
  return sum_sq / static_cast<double>(values.size());
}

double population_std(const std::vector<double>& values) {
  return std::sqrt(population_variance(values));
}

double median(const std::vector<double>& values) {
  if (values.empty()) return kNaN;
  // nth_element needs a strict weak order, which NaN would break.
  for (double v : values) {
    if (std::isnan(v)) return kNaN;
  }
  std::vector<double> work(values);
  const std::size_t half = work.size() / 2;
  std::nth_element(work.begin(), work.begin() + half, work.end());
  const double upper = work[half];
  if (work.size() % 2 == 1) return upper;
  const double lower = *std::max_element(work.begin(), work.begin() + half);
  return (lower + upper) / 2.0;
}

void fill_gaps(std::vector<double>& series) {
  const std::size_t n = series.size();
  std::size_t prev = n;  // index of the last valid value seen, n if none yet
  for (std::size_t i = 0; i < n; ++i) {
    if (std::isnan(series[i])) continue;
    if (prev == n) {
      std::fill(series.begin(), series.begin() + i, series[i]);
    } else if (i - prev > 1) {
      const double slope = (series[i] - series[prev]) / static_cast<double>(i - prev);
      for (std::size_t k = prev + 1; k < i; ++k) {
        series[k] = slope * static_cast<double>(k - prev) + series[prev];
      }
    }
    prev = i;
  }
  if (prev != n) std::fill(series.begin() + prev + 1, series.end(), series[prev]);
}

}  // namespace cvn
