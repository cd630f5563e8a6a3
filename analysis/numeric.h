// Small statistics shared by the ECG, heart-rate and live-score code.
#pragma once
#include <vector>

namespace cvn {

/// Arithmetic mean; NaN for an empty series.
double mean(const std::vector<double>& values);

/// Population variance (divisor N); NaN for an empty series.
double population_variance(const std::vector<double>& values);

/// Population standard deviation (divisor N); NaN for an empty series.
double population_std(const std::vector<double>& values);

/// Median; for an even count the mean of the two middle values. NaN for an
/// empty series or when any value is NaN.
double median(const std::vector<double>& values);

/// Scales a median absolute deviation to the standard deviation of a normal
/// distribution, for robust outlier scores |kMadToSd (x - median) / MAD|.
inline constexpr double kMadToSd = 0.6745;

/// Replaces NaN entries in place by linear interpolation (over the index)
/// between the nearest non-NaN neighbours. Leading NaNs take the first valid
/// value, trailing NaNs the last; a series without any valid value is left
/// as it is.
void fill_gaps(std::vector<double>& series);

}  // namespace cvn
