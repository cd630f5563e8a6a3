// Repair of beat-to-beat (RR) interval series.
#pragma once
#include <vector>

namespace cvn {

/// RR intervals (seconds) with outliers replaced, same length. Outliers are
/// intervals whose robust score |0.6745 (r - median) / MAD| exceeds 5 for a
/// steady series (variance at most 0.01 s^2) or 3 otherwise, median and MAD
/// taken over the plausible intervals (0.2 s to 2 s, exclusive). A
/// non-finite interval is always an outlier. Each outlier becomes the linear
/// interpolation, over the beat index, of the nearest good intervals on
/// either side (the nearest good one at the ends). Returned unchanged when
/// the MAD is 0, or when there is no outlier or no good interval.
std::vector<double> clean_rr(const std::vector<double>& rr);

/// Physiologically possible intervals (30 to 300 bpm), seconds, exclusive;
/// clean_rr takes its statistics over these only, so that missed or extra
/// beats do not skew them.
inline constexpr double kMinPlausibleRr = 0.2;
inline constexpr double kMaxPlausibleRr = 2.0;
bool plausible_rr(double seconds);
/// clean_rr's limit of the robust score for plausible intervals of this
/// variance.
double rr_outlier_limit(double variance);
/// clean_rr's verdict on one interval given the median and MAD of the
/// plausible ones and the limit.
bool rr_outlier(double seconds, double median, double mad, double limit);

/// What clean_rr returns, and which intervals it replaced.
struct CleanedRr {
  std::vector<double> rr;
  /// One per interval: 1 where clean_rr replaced it (an artefact), else 0.
  std::vector<unsigned char> replaced;
};

/// clean_rr, also saying which intervals were replaced; `rr` is exactly
/// clean_rr's result. Nothing is marked when clean_rr returns the series
/// unchanged.
CleanedRr clean_rr_marked(const std::vector<double>& rr);

}  // namespace cvn
