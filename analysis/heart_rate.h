// Heart rate on a regular time grid, from cleaned RR intervals.
#pragma once
#include <cstddef>
#include <vector>

#include "base/constants.h"

namespace cvn {

/// Grid times 0, step, 2 step, ... (seconds) for a recording of
/// `sample_count` samples: the running time is advanced by repeated addition
/// of `step` while it is below the duration minus 1e-12 s, and each stored
/// time is rounded to a whole multiple of `step` (round(t / step) * step,
/// computed as round(t * (1 / step)) / (1 / step)). Only the stored times are
/// rounded; the running time keeps its drift, so it decides the length.
/// Empty when the rate or step is not positive and finite.
std::vector<double> time_grid(std::size_t sample_count, double sample_rate, double step);

/// 60 / RR for every interval, plus one rate a linear step beyond the last
/// (or a repeat of it for a single interval), so that every beat, the last
/// one included, has a rate. Empty when `rr` is empty.
std::vector<double> beat_rates(const std::vector<double>& rr);

/// A grid shorter than this is too short to mirror for smoothing.
inline constexpr std::size_t kMinSmoothedGrid = 12;
/// Spikes are judged against the surrounding 5 s (50 grid points) ...
inline constexpr int kHrArtefactWindow = 50;
/// ... and must rise 4 SD of the whole series above their bases.
inline constexpr double kHrArtefactMinProminence = 4.0;

/// The rate at time `t` linearly interpolated between beats (regular_hr's
/// rule): the first rate up to the first beat, the last from the last beat.
/// REQUIRES: `beat_time` and `rate` of the same nonzero length.
double rate_at(const std::vector<double>& beat_time, const std::vector<double>& rate, double t);

/// regular_hr's smoothing of its grid values: an 8-point Hann window over the
/// series mirror-extended by 10 points at each end. Output p depends on the
/// points p - 5 .. p + 4 only (and the mirror near the ends).
/// REQUIRES: at least kMinSmoothedGrid points.
std::vector<double> hann_smooth(const std::vector<double>& grid);

/// Heart rate in beats per minute (60 / RR) on the kHrGridStep grid of
/// time_grid: interpolated between beat times (the first beat at 0 s),
/// smoothed by an 8-point Hann window over a mirror-extended series, and
/// cleared of spikes by remove_artefacts over 5 s windows. A grid of fewer
/// than 12 points is too short to mirror; it is returned unsmoothed.
/// Empty when `rr` is empty. REQUIRES: finite intervals (as from clean_rr);
/// others yield NaN values, never a failure.
std::vector<double> regular_hr(const std::vector<double>& rr, std::size_t sample_count,
                               double sample_rate);

}  // namespace cvn
