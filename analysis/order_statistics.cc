#include "analysis/order_statistics.h"

#include <algorithm>
#include <cmath>

namespace cvn {

namespace {

// A short list this long joins the long one: a merge of the long list every
// few minutes of beats instead of a move of it for every value.
constexpr std::size_t kRecentMerge = 512;

// The k-th smallest (from 0) of two ascending sequences together, read
// through a(i) and b(j): O(log) reads.
// REQUIRES: k < na + nb.
template <class A, class B>
double kth_of_two(const A& a, std::size_t na, const B& b, std::size_t nb, std::size_t k) {
  // i values come from a and k + 1 - i from b; the least i whose next value
  // from a is not below the last one taken from b.
  std::size_t lo = k + 1 > nb ? k + 1 - nb : 0;
  std::size_t hi = std::min(k + 1, na);
  while (lo < hi) {
    const std::size_t i = (lo + hi) / 2;
    const std::size_t j = k + 1 - i;
    if (j > 0 && a(i) < b(j - 1)) {
      lo = i + 1;
    } else {
      hi = i;
    }
  }
  const std::size_t j = k + 1 - lo;
  if (lo == 0) return b(j - 1);
  if (j == 0) return a(lo - 1);
  return std::max(a(lo - 1), b(j - 1));
}

bool any_in(const std::vector<double>& sorted, double lo, double hi) {
  auto at = std::lower_bound(sorted.begin(), sorted.end(), lo);
  return at != sorted.end() && *at <= hi;
}

}  // namespace

void median_and_deviation(std::span<const double> a, std::span<const double> b, double* median,
                          double* deviation) {
  const std::size_t count = a.size() + b.size();
  *median = *deviation = std::nan("");
  if (count == 0) return;
  auto from_a = [&](std::size_t i) { return a[i]; };
  auto from_b = [&](std::size_t j) { return b[j]; };
  auto value = [&](std::size_t k) { return kth_of_two(from_a, a.size(), from_b, b.size(), k); };
  const std::size_t half = count / 2;
  const double upper = value(half);
  const double m = count % 2 == 1 ? upper : (value(half - 1) + upper) / 2.0;
  const std::size_t split =
      static_cast<std::size_t>(std::lower_bound(a.begin(), a.end(), m) - a.begin()) +
      static_cast<std::size_t>(std::lower_bound(b.begin(), b.end(), m) - b.begin());
  auto below = [&](std::size_t t) { return std::abs(value(split - 1 - t) - m); };
  auto above = [&](std::size_t t) { return std::abs(value(split + t) - m); };
  auto deviation_at = [&](std::size_t k) {
    return kth_of_two(below, split, above, count - split, k);
  };
  const double d_upper = deviation_at(half);
  *median = m;
  *deviation = count % 2 == 1 ? d_upper : (deviation_at(half - 1) + d_upper) / 2.0;
}

void SortedValues::add(double v) {
  recent.insert(std::upper_bound(recent.begin(), recent.end(), v), v);
  if (recent.size() < kRecentMerge) return;
  const auto middle = static_cast<std::ptrdiff_t>(sorted.size());
  sorted.insert(sorted.end(), recent.begin(), recent.end());
  std::inplace_merge(sorted.begin(), sorted.begin() + middle, sorted.end());
  recent.clear();
}

bool SortedValues::any_within(double lo, double hi) const {
  return any_in(sorted, lo, hi) || any_in(recent, lo, hi);
}

}  // namespace cvn
