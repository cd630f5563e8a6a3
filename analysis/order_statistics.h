// Order statistics of values kept sorted as they arrive: the medians that
// clean_rr and the R-peak screens take over a whole recording, for a
// recording that grows.
#pragma once
#include <cstddef>
#include <span>
#include <vector>

namespace cvn {

/// median() of the values of two ascending sequences together, and median()
/// of their absolute deviations from it, bit for bit, in O(log^2 n) reads
/// and without merging them. NaN for no values.
void median_and_deviation(std::span<const double> a, std::span<const double> b, double* median,
                          double* deviation);

/// Doubles kept ascending in two parts: a long one and a short one that joins
/// it in batches, so that adding a value does not move the long one each time.
struct SortedValues {
  std::vector<double> sorted, recent;
  void add(double v);
  /// Whether a value lies in [lo, hi].
  bool any_within(double lo, double hi) const;
};

}  // namespace cvn
